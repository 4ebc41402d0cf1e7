#include "content/RuleXml.h"

#include <climits>
#include <cstdint>
#include <memory>

#include <pugixml.hpp>

#include "content/ContentStore.h"
#include "content/RuleEngine.h"
#include "core/Messages.h"
#include "core/XmlFile.h"

namespace qbrix::content {

namespace {

using platform::DWORD;

// Attribute values are the low 16 bits of a field, as a signed decimal.
std::string Short(DWORD value) {
    return std::to_string(static_cast<std::int16_t>(static_cast<std::uint16_t>(value & 0xFFFFu)));
}

// Decimal conversion that stops at the first non-digit: leading blanks and a sign are taken,
// missing or non-numeric text gives 0, values beyond 32 bits saturate.
DWORD ToNumber(const char* text) {
    if (text == nullptr) {
        return 0;
    }
    while (*text == ' ' || (*text >= '\t' && *text <= '\r')) {
        ++text;
    }
    bool negative = false;
    if (*text == '+' || *text == '-') {
        negative = *text == '-';
        ++text;
    }
    std::int64_t value = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        value = value * 10 + (*text - '0');
        if (value > static_cast<std::int64_t>(INT_MAX) + 1) {
            value = static_cast<std::int64_t>(INT_MAX) + 1;
        }
    }
    if (negative) {
        value = -value;
    }
    if (value > INT_MAX) {
        value = INT_MAX;
    }
    return static_cast<DWORD>(static_cast<std::int32_t>(value));
}

void AppendText(pugi::xml_node element, const std::string& text) {
    if (!text.empty()) {
        element.append_child(pugi::node_pcdata).set_value(text.c_str());
    }
}

void AppendUnit(pugi::xml_node parent, const char* name, const RegRuleMatcher& unit) {
    RegRule stored = unit.ToRegRule();
    pugi::xml_node element = parent.append_child(name);
    element.append_attribute("ENABLE").set_value(Short(stored.enable).c_str());
    pugi::xml_node find = element.append_child("FIND");
    find.append_attribute("ENABLE").set_value("1");
    AppendText(find, stored.find);
    pugi::xml_node compare = element.append_child("COMPARE");
    compare.append_attribute("ENABLE").set_value(Short(stored.compareFlag).c_str());
    AppendText(compare, stored.compare);
    pugi::xml_node replace = element.append_child("REPLACE");
    replace.append_attribute("ENABLE").set_value(Short(stored.replaceFlag).c_str());
    AppendText(replace, stored.replace);
    AppendText(element.append_child("COMMENT"), stored.comment);
}

// A unit element into stored values. Missing children leave their part off and empty; a later
// duplicate child wins.
RegRule ReadUnit(pugi::xml_node element) {
    RegRule stored;
    stored.enable = ToNumber(element.attribute("ENABLE").value());
    for (pugi::xml_node child : element.children()) {
        std::string_view name = child.name();
        if (child.type() != pugi::node_element) {
            continue;
        }
        DWORD flag = ToNumber(child.attribute("ENABLE").value());
        std::string text = core::XmlElementText(child);
        if (name == "FIND") {
            stored.find = std::move(text);
            stored.findFlag = flag;
        } else if (name == "COMPARE") {
            stored.compare = std::move(text);
            stored.compareFlag = flag;
        } else if (name == "REPLACE") {
            stored.replace = std::move(text);
            stored.replaceFlag = flag;
        } else if (name == "COMMENT") {
            stored.comment = std::move(text);
        }
    }
    return stored;
}

bool EqualNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        auto lower = [](unsigned char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; };
        if (lower(static_cast<unsigned char>(a[i])) != lower(static_cast<unsigned char>(b[i]))) {
            return false;
        }
    }
    return true;
}

}  // namespace

void ExportContentRule(const ContentRule& rule, const std::string& path) {
    pugi::xml_document document;
    pugi::xml_node declaration = document.append_child(pugi::node_pi);
    declaration.set_name("xml");
    declaration.set_value("version='1.0'");
    document.append_child(pugi::node_comment).set_value("q-Brix Content Rule");
    pugi::xml_node root = document.append_child("MASTER_RULE");
    root.append_attribute("NAME").set_value(rule.name.c_str());
    root.append_attribute("RECURSE").set_value(Short(rule.recurse).c_str());
    root.append_attribute("ENABLE").set_value(Short(rule.enable).c_str());
    root.append_attribute("DIRECTION").set_value(Short(rule.direction).c_str());
    root.append_attribute("LOG").set_value(Short(rule.log).c_str());
    AppendUnit(root, "MAIN", rule.main);
    if (!rule.subRules.empty()) {
        pugi::xml_node subst = root.append_child("SUBST");
        for (const auto& subRule : rule.subRules) {
            AppendUnit(subst, "REGRULE", *subRule);
        }
    }
    AppendUnit(root, "REPLACE", rule.replace);
    core::SaveXmlFile(document, path);
}

int ImportContentRule(ContentRule& rule, const std::string& path, std::string* why) {
    auto refuse = [&](int status, std::string text) {
        if (why != nullptr) {
            *why = std::move(text);
        }
        return status;
    };
    pugi::xml_document document;
    // Comments and processing instructions are kept so that one after the root is seen. Line
    // ends inside texts are left as written, so a CR LF in a rule text survives the exchange, and
    // so are texts of blanks.
    unsigned options = (pugi::parse_default & ~pugi::parse_eol) | pugi::parse_pi |
                       pugi::parse_comments | pugi::parse_declaration | pugi::parse_ws_pcdata;
    if (std::string problem; !core::LoadXmlFile(path, options, document, &problem)) {
        return refuse(1, "the file " + problem);
    }
    pugi::xml_node root = document.last_child();
    if (root.type() != pugi::node_element || std::string_view(root.name()) != "MASTER_RULE") {
        return refuse(1, "the file does not end with the element MASTER_RULE");
    }
    rule.recurse = ToNumber(root.attribute("RECURSE").value());
    rule.log = ToNumber(root.attribute("LOG").value());
    rule.enable = ToNumber(root.attribute("ENABLE").value());
    rule.direction = ToNumber(root.attribute("DIRECTION").value());
    rule.name = root.attribute("NAME").value();
    for (pugi::xml_node child : root.children()) {
        if (child.type() != pugi::node_element) {
            continue;
        }
        std::string_view name = child.name();
        if (name == "MAIN") {
            rule.main.Assign(ReadUnit(child));
        } else if (name == "REPLACE") {
            rule.replace.Assign(ReadUnit(child));
            // An imported replace unit is always on, whatever the file says.
            rule.replace.enable = 1;
        } else if (name == "SUBST") {
            for (pugi::xml_node unit : child.children("REGRULE")) {
                rule.AppendSubRule(ReadUnit(unit));
            }
        }
    }
    if (std::string problem = ImportedRuleProblem(rule); !problem.empty()) {
        return refuse(2, std::move(problem));
    }
    return 0;
}

std::string ImportedRuleProblem(const ContentRule& rule) {
    if (rule.name.empty()) {
        return "the rule has no NAME";
    }
    if (rule.name.find('\\') != std::string::npos) {
        return "the rule's NAME \"" + rule.name + "\" holds a backslash (\"\\\" separates keys)";
    }
    if (rule.direction > 1) {
        return "the rule's DIRECTION is " +
               std::to_string(static_cast<std::int32_t>(rule.direction)) +
               "; it must be 0 (incoming) or 1 (outgoing)";
    }
    return {};
}

std::string ProposeExportFileName(std::string_view ruleName) {
    return ReplaceAllPairs(ruleName, {{" ", "_"}, {":", "."}, {"\\", "-"}, {"/", "-"}});
}

int ImportRuleIntoList(RuleList& list, const std::string& path, ContentRule** added) {
    auto rule = std::make_unique<ContentRule>();
    std::string why;
    if (int status = ImportContentRule(*rule, path, &why); status != 0) {
        // A file that cannot be read fails silently; a rule that cannot be stored says why.
        if (status == 2) {
            core::CurrentMessages().MessageBox("Rule not imported: " + why + ".", "q-Brix",
                                               core::MB_OK | core::MB_ICONWARNING);
        }
        return kImportFailed;
    }
    if (std::string problem = RuleStoreProblem(*rule); !problem.empty()) {
        core::CurrentMessages().MessageBox(problem, "q-Brix", core::MB_OK | core::MB_ICONERROR);
        return kImportFailed;
    }
    for (std::size_t index = 0; index < list.Size(); ++index) {
        if (EqualNoCase(list.At(index).name, rule->name)) {
            int answer = core::CurrentMessages().MessageBox("Overwrite existing Rule?", "q-Brix",
                                                            core::MB_YESNO | core::MB_ICONQUESTION);
            if (answer != core::IDYES) {
                return kImportDeclined;
            }
            list.Remove(&list.At(index));
            break;
        }
    }
    ContentRule& appended = list.Append(std::move(rule));
    if (added != nullptr) {
        *added = &appended;
    }
    return kImportAdded;
}

}  // namespace qbrix::content
