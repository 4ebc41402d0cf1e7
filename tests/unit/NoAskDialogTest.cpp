// The don't-ask-again dialog and the console presenter used without a display.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "core/Messages.h"
#include "core/NoAskDialog.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Platform.h"
#include "support/TempPlatform.h"

namespace qbrix::core {
namespace {

using namespace qbrix::platform;

class NoAskDialogTest : public ::testing::Test {
protected:
    DWORD StoredAnswer(const char* name, DWORD missing = 99) {
        HKEY key = nullptr;
        if (Current().Reg().OpenKeyEx(HKEY_CURRENT_USER, kGuiRootPath, KEY_READ, &key) != 0) {
            return missing;
        }
        DWORD value = missing;
        DWORD size = 4;
        Current().Reg().QueryValueEx(key, name, nullptr, reinterpret_cast<BYTE*>(&value), &size);
        Current().Reg().CloseKey(key);
        return value;
    }

    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
};

TEST_F(NoAskDialogTest, FirstShowCreatesTheValueAsZero) {
    EXPECT_EQ(IDOK, NoAskDialog(80, 81, "VirusTest"));
    ASSERT_EQ(1u, m_messages.shown.size());
    EXPECT_EQ("Antivirus test", m_messages.shown[0].caption);
    EXPECT_EQ(0u, StoredAnswer("NoAskVirusTest"));
}

TEST_F(NoAskDialogTest, TickedOkIsRememberedAndSkipsLaterShows) {
    m_messages.QueueNoAskAnswer(NoAskAnswer{true, true});
    EXPECT_EQ(IDOK, NoAskDialog(89, 74, "AdminRequired"));
    EXPECT_EQ(1u, StoredAnswer("NoAskAdminRequired"));
    EXPECT_EQ(IDOK, NoAskDialog(89, 74, "AdminRequired"));
    EXPECT_EQ(1u, m_messages.shown.size());
}

TEST_F(NoAskDialogTest, CancelStoresNothingEvenWhenTicked) {
    m_messages.QueueNoAskAnswer(NoAskAnswer{false, true});
    EXPECT_EQ(IDCANCEL, NoAskDialog(89, 74, "AdminRequired"));
    EXPECT_EQ(0u, StoredAnswer("NoAskAdminRequired"));
    EXPECT_EQ(IDOK, NoAskDialog(89, 74, "AdminRequired"));
    EXPECT_EQ(2u, m_messages.shown.size());
}

TEST(ConsoleMessagesTest, WithoutATerminalTheDefaultButtonAnswers) {
    std::FILE* in = std::tmpfile();
    std::FILE* out = std::tmpfile();
    std::fputs("n\n", in);
    std::rewind(in);
    ConsoleMessages console(in, out);
    EXPECT_EQ(IDYES, console.MessageBox("Proceed ?", "q-Brix Warning", MB_YESNO | MB_ICONQUESTION));
    EXPECT_EQ(IDNO, console.MessageBox("Proceed ?", "q-Brix", MB_YESNO | MB_DEFBUTTON2));
    NoAskAnswer answer = console.AskNoAsk("Protection is ON", "text");
    EXPECT_TRUE(answer.ok);
    EXPECT_FALSE(answer.dontAskAgain);
    std::rewind(out);
    char line[64] = {};
    ASSERT_NE(nullptr, std::fgets(line, sizeof(line), out));
    EXPECT_STREQ("[q-Brix Warning] Proceed ?\n", line);
    std::fclose(in);
    std::fclose(out);
}

}  // namespace
}  // namespace qbrix::core
