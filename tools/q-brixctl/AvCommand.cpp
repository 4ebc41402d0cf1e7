#include "AvCommand.h"

#include <optional>

#include "antivirus/AntivirusSelfTest.h"
#include "antivirus/EngineSelection.h"

namespace qbrix::tools {

namespace {

int Usage(const std::string& problem, std::ostream& err) {
    err << "q-brixctl: " << problem << "\n"
        << "usage: q-brixctl av scan FILE [--engine NAME]\n"
        << "       q-brixctl av test [--engine NAME]\n";
    return 2;
}

// The report is written for a message box; a terminal wants plain line feeds.
std::string TerminalLines(const std::string& text) {
    std::string lines;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') {
            continue;
        }
        lines.push_back(text[i]);
    }
    return lines;
}

}  // namespace

int RunAvCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.empty()) {
        return Usage("av needs 'scan' or 'test'", err);
    }
    std::vector<std::string> operands;
    std::optional<std::string> engine;
    for (std::size_t i = 1; i < args.size(); ++i) {
        if (args[i] == "--engine") {
            if (i + 1 >= args.size()) {
                return Usage("--engine needs a name", err);
            }
            engine = args[++i];
        } else {
            operands.push_back(args[i]);
        }
    }
    const char* engineName = engine ? engine->c_str() : nullptr;
    if (args[0] == "scan") {
        if (operands.size() != 1) {
            return Usage("av scan needs one file", err);
        }
        std::string result;
        int infected = antivirus::ScanWithEngine(operands[0].c_str(), result, engineName);
        out << infected << " " << result << "\n";
    } else if (args[0] == "test") {
        if (!operands.empty()) {
            return Usage("av test takes no file", err);
        }
        // Typing the command is the confirmation: no "Don't ask me again" question here.
        out << TerminalLines(antivirus::TestAntivirusSamples(engineName));
    } else {
        return Usage("unknown av command '" + args[0] + "'", err);
    }
    antivirus::ReleaseScanEngine();
    return 0;
}

}  // namespace qbrix::tools
