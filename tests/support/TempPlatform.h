// Test support: a fresh platform on a temporary data root, and a scripted message facade.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/Messages.h"
#include "platform/Platform.h"

namespace qbrix::test {

// A temporary directory removed with everything in it when the object goes.
class TempDirectory {
public:
    TempDirectory();
    ~TempDirectory();
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;
    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// Installs the POSIX platform on a temporary root ("<tmp>/root") with the program directory
// "<tmp>/program/" for the object's lifetime; process-wide caches are reset on both ends.
class TempPlatform {
public:
    explicit TempPlatform(platform::Family family = platform::Family::Nt);
    ~TempPlatform();

    platform::Platform& Get() { return m_scope->Get(); }
    std::string DataRoot() const { return m_dir.File("root"); }
    std::string ProgramDirectory() const { return m_dir.File("program/"); }
    // Sets the user the platform believes is calling (uid and group names).
    void SetUser(std::uint32_t uid, std::vector<std::string> groups);

private:
    TempDirectory m_dir;
    std::unique_ptr<platform::ScopedPlatform> m_scope;
};

// A message facade that records every message and answers from a script (default: the first
// button, and OK without the tick for the don't-ask-again dialog). Installed while it lives.
class ScriptedMessages : public core::Messages {
public:
    struct Shown {
        std::string kind;  // "box", "noask", "save" or "open"
        std::string text;  // the file dialogs: the name offered, then '|' and the filter
        std::string caption;
        unsigned style = 0;
        std::string filter;  // the file dialogs' offered filter
    };

    ScriptedMessages();
    ~ScriptedMessages() override;

    int MessageBox(std::string_view text, std::string_view caption, unsigned style) override;
    core::NoAskAnswer AskNoAsk(std::string_view title, std::string_view message) override;
    void Beep(unsigned type) override;

    void QueueBoxAnswer(int answer) { m_boxAnswers.push_back(answer); }
    void QueueNoAskAnswer(core::NoAskAnswer answer) { m_noAskAnswers.push_back(answer); }
    // File dialogs answer from this queue (an empty text is Cancel; Cancel when it is empty).
    std::string AskSaveFileName(std::string_view title, std::string_view filter,
                                std::string_view defaultExtension,
                                std::string_view initialName) override;
    std::string AskOpenFileName(std::string_view title, std::string_view filter,
                                std::string_view defaultExtension) override;
    void QueueFileAnswer(std::string path) { m_fileAnswers.push_back(std::move(path)); }

    std::vector<Shown> shown;
    std::vector<unsigned> beeps;
    // Runs while a message is "on screen", before it is answered (to test re-entry).
    std::function<void()> whileShown;

private:
    std::deque<int> m_boxAnswers;
    std::deque<core::NoAskAnswer> m_noAskAnswers;
    std::deque<std::string> m_fileAnswers;
    core::ScopedMessages m_scope;
};

// Reads a whole file; empty when it cannot be read.
std::string ReadFile(const std::string& path);
bool FileExists(const std::string& path);

}  // namespace qbrix::test
