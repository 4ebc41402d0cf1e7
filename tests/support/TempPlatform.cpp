#include "support/TempPlatform.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "core/DiagLog.h"
#include "platform/posix/PosixPlatform.h"

namespace qbrix::test {

TempDirectory::TempDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qbrix-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("cannot create a temporary directory");
    }
    m_path = pattern;
}

TempDirectory::~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

TempPlatform::TempPlatform(platform::Family family) {
    std::filesystem::create_directories(ProgramDirectory());
    std::filesystem::create_directories(DataRoot());
    platform::SystemInfo info;
    info.family = family;
    info.programDirectory = ProgramDirectory();
    info.dataRoot = DataRoot();
    info.user = platform::UserIdentity{1000, {"users"}};
    core::ResetDiagLogCache();
    m_scope = std::make_unique<platform::ScopedPlatform>(platform::MakePosixPlatform(info));
}

TempPlatform::~TempPlatform() {
    m_scope.reset();
    core::ResetDiagLogCache();
}

void TempPlatform::SetUser(std::uint32_t uid, std::vector<std::string> groups) {
    // The registry keeps HKEY_CURRENT_USER by user id, so a change of user needs a registry
    // opened for that user: rebuild the platform on the same root.
    platform::SystemInfo info = Get().Info();
    info.user = platform::UserIdentity{uid, std::move(groups)};
    m_scope.reset();
    core::ResetDiagLogCache();
    m_scope = std::make_unique<platform::ScopedPlatform>(platform::MakePosixPlatform(info));
}

ScriptedMessages::ScriptedMessages() : m_scope(*this) {}
ScriptedMessages::~ScriptedMessages() = default;

int ScriptedMessages::MessageBox(std::string_view text, std::string_view caption,
                                 unsigned style) {
    shown.push_back(Shown{"box", std::string(text), std::string(caption), style, ""});
    if (whileShown) {
        whileShown();
    }
    if (!m_boxAnswers.empty()) {
        int answer = m_boxAnswers.front();
        m_boxAnswers.pop_front();
        return answer;
    }
    unsigned buttons = style & 0xF;
    return buttons == core::MB_YESNO || buttons == core::MB_YESNOCANCEL ? core::IDYES : core::IDOK;
}

core::NoAskAnswer ScriptedMessages::AskNoAsk(std::string_view title, std::string_view message) {
    shown.push_back(Shown{"noask", std::string(message), std::string(title), 0, ""});
    if (whileShown) {
        whileShown();
    }
    if (!m_noAskAnswers.empty()) {
        core::NoAskAnswer answer = m_noAskAnswers.front();
        m_noAskAnswers.pop_front();
        return answer;
    }
    return core::NoAskAnswer{true, false};
}

void ScriptedMessages::Beep(unsigned type) { beeps.push_back(type); }

std::string ScriptedMessages::AskSaveFileName(std::string_view title, std::string_view filter,
                                              std::string_view, std::string_view initialName) {
    // The proposed file name stands in the text, the offered filter in its own field.
    shown.push_back(Shown{"save", std::string(initialName), std::string(title), 0,
                          std::string(filter)});
    if (m_fileAnswers.empty()) {
        return std::string();
    }
    std::string answer = m_fileAnswers.front();
    m_fileAnswers.pop_front();
    return answer;
}

std::string ScriptedMessages::AskOpenFileName(std::string_view title, std::string_view filter,
                                              std::string_view) {
    shown.push_back(Shown{"open", "", std::string(title), 0, std::string(filter)});
    if (m_fileAnswers.empty()) {
        return std::string();
    }
    std::string answer = m_fileAnswers.front();
    m_fileAnswers.pop_front();
    return answer;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

bool FileExists(const std::string& path) { return std::filesystem::exists(path); }

}  // namespace qbrix::test
