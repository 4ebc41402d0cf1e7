// The driver error text: how failures accumulate and how they reach the user.
#include <gtest/gtest.h>

#include <string>

#include "core/Messages.h"
#include "driver/DriverErrors.h"
#include "platform/Platform.h"
#include "support/TempPlatform.h"

namespace qbrix::driver {
namespace {

class DriverErrorsTest : public ::testing::Test {
  protected:
    DriverErrorsTest() { ResetDriverErrors(); }
    ~DriverErrorsTest() override { ResetDriverErrors(); }
    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
};

TEST_F(DriverErrorsTest, CaptionThenTextWithoutSeparator) {
    AppendDriverError("first\r\n", "open handle");
    AppendDriverError("second");
    EXPECT_EQ(DriverErrorText(), "open handle:first\r\nerror:second");
}

TEST_F(DriverErrorsTest, EachPieceIsBoundedTo1000Bytes) {
    std::string caption(1500, 'c');
    std::string text(2000, 't');
    AppendDriverError(text.c_str(), caption.c_str());
    EXPECT_EQ(DriverErrorText(), std::string(1000, 'c') + ":" + std::string(1000, 't'));
}

TEST_F(DriverErrorsTest, SystemErrorsUseThePlatformText) {
    ReportSystemError("create service", 1, 1073);
    ReportSystemError("", 1, 2);  // an empty caption counts as none
    platform::SetLastError(1060);
    ReportLastError("open", 1);
    EXPECT_EQ(DriverErrorText(),
              "create service:The specified service already exists.\r\n"
              "error:The system cannot find the file specified.\r\n"
              "open:The specified service does not exist as an installed service.\r\n");
    EXPECT_TRUE(m_messages.shown.empty());
}

TEST_F(DriverErrorsTest, ImmediateReportShowsABoxAndKeepsTheTextUntouched) {
    ReportDriverError("now", nullptr, 0);
    ASSERT_EQ(m_messages.shown.size(), 1u);
    EXPECT_EQ(m_messages.shown[0].text, "now");
    EXPECT_EQ(m_messages.shown[0].caption, "error");
    EXPECT_EQ(m_messages.shown[0].style & 0xF0, core::MB_ICONINFORMATION);
    EXPECT_TRUE(DriverErrorText().empty());
}

TEST_F(DriverErrorsTest, NothingToShowShowsNothing) {
    ShowDriverErrors();
    EXPECT_TRUE(m_messages.shown.empty());
}

TEST_F(DriverErrorsTest, TwoErrorsShowTogetherAndAgainOnTheNextCall) {
    ReportDriverError("valid driver not found");
    ReportSystemError("stop", 1, 1062);
    ShowDriverErrors();
    ReportSystemError("delete", 1, 1072);
    ShowDriverErrors();
    ASSERT_EQ(m_messages.shown.size(), 2u);
    std::string both = "error:valid driver not foundstop:The service has not been started.\r\n";
    EXPECT_EQ(m_messages.shown[0].text, both);
    EXPECT_EQ(m_messages.shown[0].caption, "error");
    EXPECT_EQ(m_messages.shown[1].text,
              both + "delete:The specified service has been marked for deletion.\r\n");
}

}  // namespace
}  // namespace qbrix::driver
