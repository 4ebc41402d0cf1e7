#include "content/RuleList.h"

#include <algorithm>
#include <utility>

namespace qbrix::content {

ContentRule& RuleList::Append(std::unique_ptr<ContentRule> rule) {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    m_rules.push_back(std::move(rule));
    return *m_rules.back();
}

ContentRule& RuleList::InsertBefore(std::unique_ptr<ContentRule> rule, const ContentRule* anchor) {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    auto place = std::find_if(m_rules.begin(), m_rules.end(),
                              [anchor](const auto& entry) { return entry.get() == anchor; });
    if (anchor == nullptr) {
        place = m_rules.end();
    }
    return **m_rules.insert(place, std::move(rule));
}

void RuleList::Remove(const ContentRule* rule) {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    auto place = std::find_if(m_rules.begin(), m_rules.end(),
                              [rule](const auto& entry) { return entry.get() == rule; });
    if (place != m_rules.end()) {
        m_rules.erase(place);
    }
}

void RuleList::Clear() {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    m_rules.clear();
}

int RuleList::SetEnableByNameOrGroup(std::string_view text, platform::DWORD value) {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    for (auto& rule : m_rules) {
        if (rule->name == text || rule->group == text) {
            rule->enable = value;
        }
    }
    return 0;
}

std::size_t RuleList::IndexOf(const ContentRule* rule) const {
    for (std::size_t index = 0; index < m_rules.size(); ++index) {
        if (m_rules[index].get() == rule) {
            return index;
        }
    }
    return m_rules.size();
}

}  // namespace qbrix::content
