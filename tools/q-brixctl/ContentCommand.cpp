#include "ContentCommand.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <sstream>

#include "content/ContentStore.h"
#include "content/LspSettings.h"
#include "content/ProtocolTable.h"
#include "content/RuleEngine.h"
#include "content/RuleTestReport.h"
#include "content/RuleXml.h"
#include "content/TestLog.h"
#include "core/RegistryKey.h"
#include "platform/Registry.h"
#include "platform/Text.h"

namespace qbrix::tools {

namespace {

using namespace qbrix::content;

// Options ("--name value" or a bare "--flag") and the remaining positional words.
struct Parsed {
    std::map<std::string, std::string> options;
    std::vector<std::string> words;
    std::string problem;
};

Parsed Parse(const std::vector<std::string>& args, const std::vector<std::string>& flags) {
    Parsed parsed;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg.rfind("--", 0) != 0) {
            parsed.words.push_back(arg);
            continue;
        }
        bool isFlag = false;
        for (const std::string& flag : flags) {
            isFlag = isFlag || flag == arg;
        }
        if (isFlag) {
            parsed.options[arg] = "1";
        } else if (i + 1 < args.size()) {
            parsed.options[arg] = args[++i];
        } else {
            parsed.problem = arg + " needs a value";
        }
    }
    return parsed;
}

int Usage(std::ostream& err, const std::string& problem) {
    err << "q-brixctl: " << problem << "\n";
    return 2;
}

std::optional<std::size_t> SelectedRow(const Parsed& parsed) {
    auto found = parsed.options.find("--protocol");
    if (found == parsed.options.end() || found->second == "http") {
        return kHttpRow;
    }
    if (found->second == "pop3") {
        return kPop3Row;
    }
    return std::nullopt;
}

bool ReadWholeFile(const std::string& path, std::string& content) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return false;
    }
    content.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    return true;
}

bool WriteWholeFile(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    return static_cast<bool>(file);
}

ContentRule* FindRule(RuleList& list, const std::string& name) {
    for (std::size_t index = 0; index < list.Size(); ++index) {
        if (list.At(index).name == name) {
            return &list.At(index);
        }
    }
    return nullptr;
}

int StoreFailed(std::ostream& err, const std::string& what, platform::LONG rc) {
    err << "q-brixctl: " << what << ": " << core::StoreFailureText(rc) << "\n";
    return 1;
}

int Load(std::size_t row, RuleList& list, std::ostream& err) {
    platform::LONG rc = LoadContentRules(kProtocolTable[row].rulesKey, list);
    return rc == 0 ? 0 : StoreFailed(err, "cannot read the rules", rc);
}

// Load, change and save as one change of the store, so that tools running at the same time
// never lose each other's changes. `change` returns 0 to save, else the exit status.
template <typename Change>
int Modify(std::size_t row, std::ostream& err, Change change) {
    platform::RegistryTransaction transaction;
    if (!transaction.Active()) {
        return StoreFailed(err, "cannot change the rules", transaction.BeginResult());
    }
    RuleList list;
    if (int status = Load(row, list, err); status != 0) {
        return status;
    }
    if (int status = change(list); status != 0) {
        return status;
    }
    const ProtocolRow& protocol = kProtocolTable[row];
    platform::LONG rc = SaveContentRules(protocol.rulesKey, list);
    if (rc == 0) {
        rc = transaction.Commit();
    }
    return rc == 0 ? 0 : StoreFailed(err, "cannot save the rules", rc);
}

int RuleTest(const Parsed& parsed, std::size_t row, std::ostream& out, std::ostream& err) {
    if (parsed.words.size() != 2) {
        return Usage(err, "rule test needs one INPUT file");
    }
    std::unique_ptr<ContentRule> owned;
    RuleList list;
    const ContentRule* rule = nullptr;
    if (auto file = parsed.options.find("--file"); file != parsed.options.end()) {
        owned = std::make_unique<ContentRule>();
        // A rule that could not be stored (status 2) can still be tested.
        if (std::string why; ImportContentRule(*owned, file->second, &why) == 1) {
            err << "q-brixctl: cannot import " << file->second << ": " << why << "\n";
            return 1;
        }
        rule = owned.get();
    } else if (auto name = parsed.options.find("--name"); name != parsed.options.end()) {
        if (int status = Load(row, list, err); status != 0) {
            return status;
        }
        rule = FindRule(list, name->second);
        if (rule == nullptr) {
            err << "q-brixctl: no rule named '" << name->second << "'\n";
            return 1;
        }
    } else {
        return Usage(err, "rule test needs --file or --name");
    }
    std::string text;
    if (!ReadWholeFile(parsed.words[1], text)) {
        err << "q-brixctl: cannot read " << parsed.words[1] << "\n";
        return 1;
    }
    std::string stopReason;
    auto trace = parsed.options.find("--trace");
    // The trace is only built when it is written out.
    bool traced = TestLogEnabled();
    SetTestLogEnabled(trace != parsed.options.end());
    int verdict = ApplyContentRule(*rule, text, RunLimits{}, &stopReason);
    SetTestLogEnabled(traced);
    if (trace != parsed.options.end()) {
        if (!WriteWholeFile(trace->second, TestLog())) {
            err << "q-brixctl: cannot write " << trace->second << "\n";
            return 1;
        }
    }
    if (auto output = parsed.options.find("--output"); output != parsed.options.end()) {
        if (!WriteWholeFile(output->second, text)) {
            err << "q-brixctl: cannot write " << output->second << "\n";
            return 1;
        }
    }
    out << "verdict " << verdict << "\n";
    if (verdict == kRuleStopped) {
        err << "q-brixctl: the rule was stopped: " << stopReason
            << "; the text is left unchanged\n";
        return 1;
    }
    return 0;
}

}  // namespace

int RunRuleCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    Parsed parsed = Parse(args, {"--overwrite"});
    if (!parsed.problem.empty()) {
        return Usage(err, parsed.problem);
    }
    std::optional<std::size_t> row = SelectedRow(parsed);
    if (!row) {
        return Usage(err, "--protocol is http or pop3");
    }
    if (parsed.words.empty()) {
        return Usage(err, "rule needs list, export, import, delete or test");
    }
    const std::string& action = parsed.words[0];
    RuleList list;
    if (action == "list") {
        if (int status = Load(*row, list, err); status != 0) {
            return status;
        }
        for (std::size_t index = 0; index < list.Size(); ++index) {
            const ContentRule& rule = list.At(index);
            out << rule.name << "\t" << rule.enable << "\t" << rule.direction << "\t" << rule.group
                << "\n";
        }
        return 0;
    }
    if (action == "export") {
        if (parsed.words.size() != 3) {
            return Usage(err, "rule export needs NAME and FILE");
        }
        if (int status = Load(*row, list, err); status != 0) {
            return status;
        }
        const ContentRule* rule = FindRule(list, parsed.words[1]);
        if (rule == nullptr) {
            err << "q-brixctl: no rule named '" << parsed.words[1] << "'\n";
            return 1;
        }
        ExportContentRule(*rule, parsed.words[2]);
        return 0;
    }
    if (action == "import") {
        if (parsed.words.size() != 2) {
            return Usage(err, "rule import needs FILE");
        }
        auto rule = std::make_unique<ContentRule>();
        if (std::string why; ImportContentRule(*rule, parsed.words[1], &why) != 0) {
            err << "q-brixctl: cannot import " << parsed.words[1] << ": " << why << "\n";
            return 1;
        }
        if (std::string problem = RuleStoreProblem(*rule); !problem.empty()) {
            err << "q-brixctl: cannot import " << parsed.words[1] << ": " << problem << "\n";
            return 1;
        }
        bool overwrite = parsed.options.count("--overwrite") != 0;
        return Modify(*row, err, [&](RuleList& stored) {
            for (std::size_t index = 0; index < stored.Size(); ++index) {
                if (!platform::EqualsIgnoreCase(stored.At(index).name, rule->name)) {
                    continue;
                }
                if (!overwrite) {
                    err << "q-brixctl: a rule named '" << stored.At(index).name
                        << "' exists (use --overwrite)\n";
                    return 1;
                }
                stored.Remove(&stored.At(index));
                break;
            }
            stored.Append(std::move(rule));
            return 0;
        });
    }
    if (action == "delete") {
        if (parsed.words.size() != 2) {
            return Usage(err, "rule delete needs NAME");
        }
        return Modify(*row, err, [&](RuleList& stored) {
            const ContentRule* rule = FindRule(stored, parsed.words[1]);
            if (rule == nullptr) {
                err << "q-brixctl: no rule named '" << parsed.words[1] << "'\n";
                return 1;
            }
            stored.Remove(rule);
            return 0;
        });
    }
    if (action == "test") {
        return RuleTest(parsed, *row, out, err);
    }
    return Usage(err, "unknown rule action '" + action + "'");
}

int RunUnitCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    Parsed parsed = Parse(args, {});
    if (!parsed.problem.empty()) {
        return Usage(err, parsed.problem);
    }
    if (parsed.words.size() != 2 || parsed.words[0] != "test" ||
        parsed.options.count("--find") == 0) {
        return Usage(err, "unit test needs --find P and one INPUT file");
    }
    UnitFields fields;
    fields.find = parsed.options["--find"];
    fields.compareOn = parsed.options.count("--compare") != 0;
    fields.compare = fields.compareOn ? parsed.options["--compare"] : "";
    fields.replaceOn = parsed.options.count("--replace") != 0;
    fields.replace = fields.replaceOn ? parsed.options["--replace"] : "";
    fields.comment = parsed.options.count("--comment") != 0 ? parsed.options["--comment"] : "";
    std::string input;
    if (!ReadWholeFile(parsed.words[1], input)) {
        err << "q-brixctl: cannot read " << parsed.words[1] << "\n";
        return 1;
    }
    RegRuleMatcher unit;
    UnitTestReport report;
    if (RunUnitTest(unit, fields, input, report) != 0) {
        return 1;
    }
    if (auto output = parsed.options.find("--output"); output != parsed.options.end()) {
        if (!WriteWholeFile(output->second, report.output)) {
            err << "q-brixctl: cannot write " << output->second << "\n";
            return 1;
        }
    }
    out << report.results << "\n";
    return report.result == kUnitStopped ? 1 : 0;
}

int RunOptionsCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    Parsed parsed = Parse(args, {});
    if (!parsed.problem.empty()) {
        return Usage(err, parsed.problem);
    }
    std::optional<std::size_t> row = SelectedRow(parsed);
    if (!row) {
        return Usage(err, "--protocol is http or pop3");
    }
    LoadLspSettings(g_lspSettings, 0);
    ProtocolOptions& options = OptionsOf(g_lspSettings, *row);
    // The six switches of the content page.
    const std::pair<const char*, platform::DWORD*> switches[] = {
        {"MaxSize", &options.maxSize},           {"EnableAV", &options.enableAV},
        {"BlockAV", &options.blockAV},           {"EnableAVLOG", &options.enableAVLOG},
        {"MaxAvTimeout", &options.maxAvTimeout}, {"EnableREG", &options.enableREG}};
    if (parsed.words.size() == 1 && parsed.words[0] == "show") {
        for (const auto& [name, value] : switches) {
            out << name << "\t" << *value << "\n";
        }
        return 0;
    }
    if (parsed.words.size() == 3 && parsed.words[0] == "set") {
        for (const auto& [name, value] : switches) {
            if (parsed.words[1] != name) {
                continue;
            }
            char* end = nullptr;
            unsigned long number = std::strtoul(parsed.words[2].c_str(), &end, 10);
            if (parsed.words[2].empty() || *end != '\0' || number > 0xFFFFFFFFul) {
                return Usage(err, "VALUE is a decimal number");
            }
            *value = static_cast<platform::DWORD>(number);
            SaveProtocolOptions(g_lspSettings);
            return 0;
        }
        return Usage(err, "unknown switch '" + parsed.words[1] + "'");
    }
    return Usage(err, "options needs show or set SWITCH VALUE");
}

}  // namespace qbrix::tools
