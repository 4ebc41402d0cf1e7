// The ordered content rules of one protocol. The list owns its rules: removing, clearing or
// destroying it deletes them. Order is the order of listing, saving and export. The editing
// operations hold the list's lock for their whole run; loading, saving and the engine walk the
// list on the user-interface thread without it.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "content/ContentRule.h"
#include "platform/WinTypes.h"

namespace qbrix::content {

class RuleList {
  public:
    RuleList() = default;
    RuleList(const RuleList&) = delete;
    RuleList& operator=(const RuleList&) = delete;

    ContentRule& Append(std::unique_ptr<ContentRule> rule);
    // Before `anchor`; an anchor that is null or not in the list appends.
    ContentRule& InsertBefore(std::unique_ptr<ContentRule> rule, const ContentRule* anchor);
    // Unlinks and deletes the rule; a rule not in the list is ignored.
    void Remove(const ContentRule* rule);
    void Clear();
    // Sets Enable of every rule whose name is `text`, or else whose Group is `text` (exact,
    // case-sensitive). Returns 0.
    int SetEnableByNameOrGroup(std::string_view text, platform::DWORD value);

    std::size_t Size() const { return m_rules.size(); }
    bool Empty() const { return m_rules.empty(); }
    ContentRule& At(std::size_t index) { return *m_rules[index]; }
    const ContentRule& At(std::size_t index) const { return *m_rules[index]; }
    // Index of the rule, or Size() when it is not in the list.
    std::size_t IndexOf(const ContentRule* rule) const;

    // The names of the rules the store held for this list when it was last loaded or saved:
    // the only stored rules a save may delete (besides those it rewrites).
    const std::vector<std::string>& StoredNames() const { return m_storedNames; }
    void SetStoredNames(std::vector<std::string> names) { m_storedNames = std::move(names); }

  private:
    // Recursive, like the platform's critical section the provider side shares the design with.
    mutable std::recursive_mutex m_lock;
    std::vector<std::unique_ptr<ContentRule>> m_rules;
    std::vector<std::string> m_storedNames;
};

}  // namespace qbrix::content
