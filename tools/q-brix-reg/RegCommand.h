// One run of the registry tool: the command line read into a command (query, add, delete,
// export, import), then carried out on the installed platform's registry, writing to the given
// streams. Exit statuses: 0 done, 1 failed or refused, 2 usage error.
#pragma once

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "RegKeyPath.h"
#include "platform/WinTypes.h"

namespace qbrix::tools {

// Where a command talks to the administrator. Questions are asked only when `interactive`
// (standard input is a terminal); otherwise a command that would ask refuses instead.
struct RegConsole {
    std::istream& in;
    std::ostream& out;
    std::ostream& err;
    bool interactive = false;
};

class RegCommand {
  public:
    static constexpr int kSuccess = 0;
    static constexpr int kFailure = 1;
    static constexpr int kUsageError = 2;

    static constexpr std::string_view kNotFound =
        "ERROR: The system was unable to find the specified registry key or value.";
    static constexpr std::string_view kCompleted = "The operation completed successfully.";
    static constexpr std::string_view kCanceled = "The operation was canceled by the user.";

    enum class Verb { Help, Query, Add, Delete, Export, Import };
    // Which values a command is about: none (the key itself), one named value, the unnamed
    // value (/ve) or all values of the key (/va).
    enum class Target { Key, Named, Unnamed, AllValues };

    // Reads the arguments after the program name. 0 on success; 1 with `*error` set to a
    // sentence for the administrator otherwise. Data given with /d is checked against its
    // type here, so a bad value is a usage error and the store is never touched.
    static int Parse(const std::vector<std::string>& args, RegCommand* command, std::string* error);
    static std::string_view Usage();

    // Runs the command on platform::Current().Reg(); returns the exit status.
    int Execute(RegConsole& console) const;

    Verb GetVerb() const { return m_verb; }
    // The --root directory, empty when not given.
    const std::string& DataRoot() const { return m_dataRoot; }
    // The bytes `add` stores.
    const std::string& Data() const { return m_data; }
    platform::DWORD Type() const { return m_type; }

  private:
    int Query(RegConsole& console) const;
    int Add(RegConsole& console) const;
    int Delete(RegConsole& console) const;
    int Export(RegConsole& console) const;
    int Import(RegConsole& console) const;
    int ParseData(std::string_view text, std::string* error);
    std::string ValueLabel() const;

    Verb m_verb = Verb::Help;
    RegKeyPath m_key;
    std::string m_file;
    std::string m_dataRoot;
    Target m_target = Target::Key;
    std::string m_valueName;
    bool m_recurse = false;
    bool m_force = false;
    bool m_hasType = false;
    bool m_hasData = false;
    platform::DWORD m_type = platform::REG_SZ;
    std::string m_data;
};

// The whole tool: parses `args`, answers usage errors with the message and the usage text,
// installs the platform on the data root (--root, else platform::DefaultDataRoot()) for the
// calling user, and executes. Returns the exit status.
int RunRegTool(const std::vector<std::string>& args, RegConsole& console);

}  // namespace qbrix::tools
