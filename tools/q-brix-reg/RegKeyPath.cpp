#include "RegKeyPath.h"

#include "platform/Text.h"

namespace qbrix::tools {

namespace {

struct RootEntry {
    const char* shortName;
    const char* longName;
    platform::HKEY root;
};

const RootEntry kRoots[] = {
    {"HKLM", "HKEY_LOCAL_MACHINE", platform::HKEY_LOCAL_MACHINE},
    {"HKCU", "HKEY_CURRENT_USER", platform::HKEY_CURRENT_USER},
    {"HKCR", "HKEY_CLASSES_ROOT", platform::HKEY_CLASSES_ROOT},
    {"HKU", "HKEY_USERS", platform::HKEY_USERS},
};

}  // namespace

int RegKeyPath::Parse(std::string_view text, RegKeyPath* path, std::string* error) {
    std::size_t cut = text.find('\\');
    std::string_view rootText = text.substr(0, cut);
    const RootEntry* found = nullptr;
    for (const RootEntry& entry : kRoots) {
        if (platform::EqualsIgnoreCase(rootText, entry.shortName) ||
            platform::EqualsIgnoreCase(rootText, entry.longName)) {
            found = &entry;
        }
    }
    if (found == nullptr) {
        *error = rootText.empty() ? "the key has no root name"
                                  : "unknown root key \"" + std::string(rootText) +
                                        "\" (use HKLM, HKCU, HKCR or HKU)";
        return 1;
    }
    std::string_view rest =
        cut == std::string_view::npos ? std::string_view() : text.substr(cut + 1);
    // One trailing backslash is tolerated ("HKLM\SOFTWARE\"), a doubled one is not.
    if (rest.size() > 1 && rest.back() == '\\') {
        rest.remove_suffix(1);
    }
    // Every component, the one after a last backslash included (so "a\\" is refused).
    std::string_view scan = rest;
    std::size_t depth = 0;
    for (bool more = !rest.empty(); more;) {
        if (++depth > platform::kMaxKeyDepth) {
            *error = "the key is more than " + std::to_string(platform::kMaxKeyDepth) +
                     " levels deep, deeper than a registry key may be";
            return 1;
        }
        std::size_t next = scan.find('\\');
        std::string_view part = scan.substr(0, next);
        if (part.empty()) {
            *error = "the key name \"" + std::string(text) + "\" has an empty component";
            return 1;
        }
        if (part.size() > platform::kMaxKeyNameLength) {
            *error = "a key name component is longer than 255 bytes";
            return 1;
        }
        more = next != std::string_view::npos;
        scan = more ? scan.substr(next + 1) : std::string_view();
    }
    path->m_root = found->root;
    path->m_rootName = found->longName;
    path->m_subKey = std::string(rest);
    return 0;
}

std::string RegKeyPath::Full() const {
    return m_subKey.empty() ? m_rootName : m_rootName + "\\" + m_subKey;
}

RegKeyPath RegKeyPath::Child(std::string_view name) const {
    RegKeyPath child = *this;
    child.m_subKey = m_subKey.empty() ? std::string(name) : m_subKey + "\\" + std::string(name);
    return child;
}

}  // namespace qbrix::tools
