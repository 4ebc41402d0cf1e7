// A registry key named the way administrators write it: a root name (short or long form) and a
// backslash-separated path below it, e.g. "HKLM\SOFTWARE\korvel-soft".
#pragma once

#include <string>
#include <string_view>

#include "platform/Registry.h"

namespace qbrix::tools {

class RegKeyPath {
  public:
    // Accepts HKLM, HKCU, HKCR, HKU and their HKEY_... forms in any case, then an optional
    // "\path". A single trailing backslash is dropped; empty components, components longer
    // than a key name may be and paths deeper than platform::kMaxKeyDepth are refused. 0 on
    // success, 1 with `*error` set otherwise.
    static int Parse(std::string_view text, RegKeyPath* path, std::string* error);

    platform::HKEY Root() const { return m_root; }
    // The long root name, e.g. "HKEY_LOCAL_MACHINE".
    const std::string& RootName() const { return m_rootName; }
    // The path below the root, empty for the root itself.
    const std::string& SubKey() const { return m_subKey; }
    bool IsRoot() const { return m_subKey.empty(); }
    // "HKEY_LOCAL_MACHINE\SOFTWARE\..." as query and export write it.
    std::string Full() const;

    // The same root with `name` appended as one more component.
    RegKeyPath Child(std::string_view name) const;
    // Replaces the path below the root (used once the stored spelling is known).
    void SetSubKey(std::string subKey) { m_subKey = std::move(subKey); }

  private:
    platform::HKEY m_root = nullptr;
    std::string m_rootName;
    std::string m_subKey;
};

}  // namespace qbrix::tools
