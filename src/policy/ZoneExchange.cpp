#include "policy/ZoneExchange.h"

#include <cstdio>
#include <cstdlib>
#include <pugixml.hpp>

#include "core/XmlFile.h"
#include "platform/IpHelper.h"
#include "policy/ZoneRules.h"

namespace qbrix::policy {

namespace {

std::string Dotted(std::uint32_t hostOrder) {
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", hostOrder >> 24 & 0xFF, hostOrder >> 16 & 0xFF,
                  hostOrder >> 8 & 0xFF, hostOrder & 0xFF);
    return text;
}

void AppendTextElement(pugi::xml_node parent, const char* name, const std::string& text) {
    parent.append_child(name).append_child(pugi::node_pcdata).set_value(text.c_str());
}

// Leading decimal digits (with an optional sign); anything else reads as 0.
std::int64_t Decimal(const char* text) {
    char* end = nullptr;
    long long value = std::strtoll(text, &end, 10);
    return end == text ? 0 : value;
}

std::uint32_t HostAddress(const std::string& text) {
    return platform::NetworkToHost(platform::inet_addr(text));
}

}  // namespace

void ExportZone(const ZoneRecord& zone, const std::string& path) {
    pugi::xml_document document;
    pugi::xml_node declaration = document.append_child(pugi::node_pi);
    declaration.set_name("xml");
    declaration.set_value("version='1.0'");
    document.append_child(pugi::node_comment).set_value("q-Brix Zone");
    pugi::xml_node master = document.append_child("MASTER_ZONE");
    master.append_attribute("NAME").set_value(std::string(ZoneName(zone)).c_str());
    master.append_attribute("RESULT").set_value(static_cast<short>(zone.result));
    for (const ZoneRule& rule : zone.rules) {
        if (IsEmptySlot(rule)) {
            continue;
        }
        pugi::xml_node element = master.append_child("ZONERULE");
        element.append_attribute("ENABLE").set_value(static_cast<short>(rule.enabled));
        AppendTextElement(element, "NAME", std::string(RuleName(rule)));
        AppendTextElement(element, "IP", Dotted(rule.address));
        AppendTextElement(element, "MASK", Dotted(rule.mask));
        AppendTextElement(element, "LOCALPORT", std::to_string(rule.localPort));
        AppendTextElement(element, "REMOTEPORT", std::to_string(rule.remotePort));
        AppendTextElement(element, "PROTOCOL", std::to_string(rule.protocol));
        AppendTextElement(element, "DIRECTION", std::to_string(rule.direction));
        AppendTextElement(element, "RESULT", std::to_string(rule.result));
    }
    core::SaveXmlFile(document, path);
}

int ImportZone(ZoneRecord& zone, const std::string& path, std::string* why) {
    pugi::xml_document document;
    // Texts of blanks are kept (a name of blanks survives the exchange), but do not count as a
    // child below.
    unsigned options = pugi::parse_default | pugi::parse_pi | pugi::parse_comments |
                       pugi::parse_declaration | pugi::parse_ws_pcdata;
    if (std::string problem; !core::LoadXmlFile(path, options, document, &problem)) {
        if (why != nullptr) {
            *why = "the file " + problem;
        }
        return 1;
    }
    pugi::xml_node root = document.last_child();
    if (root.type() != pugi::node_element || std::string_view(root.name()) != "MASTER_ZONE") {
        if (why != nullptr) {
            *why = "the file does not end with the element MASTER_ZONE";
        }
        return 1;
    }
    zone.result = static_cast<std::uint32_t>(Decimal(root.attribute("RESULT").value()));
    // At most 259 characters, so that the name keeps its terminator.
    std::string_view name = root.attribute("NAME").value();
    driver::SetFieldText(zone.name, name.substr(0, sizeof zone.name - 1));
    auto counted = [](pugi::xml_node node) {
        while (node && node.type() == pugi::node_pcdata && core::IsXmlBlank(node.value())) {
            node = node.next_sibling();
        }
        return node;
    };
    pugi::xml_node child = counted(root.first_child());
    for (int slot = 0; slot < driver::kZoneRuleSlots && child;
         ++slot, child = counted(child.next_sibling())) {
        ZoneRule rule = EmptyRule();
        if (ParseZoneRule(child, "ZONERULE", rule) == 0) {
            zone.rules[slot] = rule;
        }
    }
    return 0;
}

int ParseZoneRule(const pugi::xml_node& element, std::string_view expectedName, ZoneRule& rule) {
    if (element.type() != pugi::node_element || std::string_view(element.name()) != expectedName) {
        return 1;
    }
    rule.enabled = static_cast<std::uint8_t>(Decimal(element.attribute("ENABLE").value()));
    for (pugi::xml_node child : element.children()) {
        if (child.type() != pugi::node_element) {
            continue;
        }
        std::string_view name = child.name();
        std::string text = core::XmlElementText(child);
        if (name == "NAME") {
            driver::SetFieldText(rule.name, std::string_view(text).substr(0, kRuleNameLength));
        } else if (name == "IP") {
            rule.address = HostAddress(text);
        } else if (name == "MASK") {
            rule.mask = HostAddress(text);
        } else if (name == "LOCALPORT") {
            rule.localPort = static_cast<std::uint16_t>(Decimal(text.c_str()));
        } else if (name == "REMOTEPORT") {
            rule.remotePort = static_cast<std::uint16_t>(Decimal(text.c_str()));
        } else if (name == "PROTOCOL") {
            rule.protocol = static_cast<std::uint32_t>(Decimal(text.c_str()));
        } else if (name == "DIRECTION") {
            rule.direction = static_cast<std::uint32_t>(Decimal(text.c_str()));
        } else if (name == "RESULT") {
            rule.result = static_cast<std::uint32_t>(Decimal(text.c_str()));
        }
    }
    return 0;
}

std::string MakeExportFileName(std::string_view zoneName) {
    // Characters no file name may hold: a colon becomes two points, so "Office: A/B" is offered
    // as "Office.._A-B"; both kinds of slash become "-".
    std::string name;
    for (char c : zoneName) {
        switch (c) {
            case ' ':
                name += '_';
                break;
            case ':':
                name += "..";
                break;
            case '\\':
            case '/':
                name += '-';
                break;
            default:
                name += c;
        }
    }
    return name;
}

}  // namespace qbrix::policy
