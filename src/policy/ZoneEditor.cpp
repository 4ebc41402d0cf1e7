#include "policy/ZoneEditor.h"

#include <atomic>
#include <cstring>

#include "core/Messages.h"
#include "platform/IpHelper.h"
#include "policy/ZoneRules.h"

namespace qbrix::policy {

namespace {

// Without a user interface an editor shows nothing and closes at once.
class HeadlessLauncher : public ZoneEditorLauncher {
  public:
    int Edit(ZoneRecord& zone, std::string_view rulePrefix, void*, const char* fixedName) override {
        return ZoneEditorModel(zone, rulePrefix, fixedName).Close();
    }
};

HeadlessLauncher g_headlessLauncher;
std::atomic<ZoneEditorLauncher*> g_launcher{&g_headlessLauncher};

}  // namespace

RuleFields ShowRule(const ZoneRule* rule) {
    RuleFields fields;
    if (rule == nullptr) {
        return fields;
    }
    fields.nameChecked = rule->enabled != 0;
    fields.name = std::string(RuleName(*rule));
    fields.protocolChecked = rule->protocol != 0;
    fields.protocolIndex = static_cast<int>(rule->protocol);
    fields.addressChecked = rule->address != 0;
    fields.address = rule->address;
    fields.mask = rule->mask;
    fields.portChecked = rule->remotePort != 0;
    fields.port = rule->remotePort;
    fields.directionChecked = rule->direction != 0;
    fields.directionIndex = static_cast<int>(rule->direction);
    fields.resultIndex = static_cast<int>(rule->result);
    return fields;
}

void StoreRule(const RuleFields& fields, ZoneRule& rule) {
    rule.enabled = fields.nameChecked ? 1 : 0;
    driver::SetFieldText(rule.name, std::string_view(fields.name).substr(0, kRuleNameLength));
    rule.protocol = fields.protocolChecked ? static_cast<std::uint32_t>(fields.protocolIndex) : 0;
    rule.address = fields.addressChecked ? fields.address : 0;
    rule.mask = fields.addressChecked ? fields.mask : 0;
    rule.remotePort = fields.portChecked ? fields.port : 0;
    rule.direction =
        fields.directionChecked ? static_cast<std::uint32_t>(fields.directionIndex) : 0;
    rule.result = static_cast<std::uint32_t>(fields.resultIndex);
}

RuleFieldStates FieldStates(const RuleFields& fields) {
    RuleFieldStates states;
    states.name = fields.nameChecked;
    states.criteria = fields.nameChecked;
    states.protocol = fields.nameChecked && fields.protocolChecked;
    states.address = fields.nameChecked && fields.addressChecked;
    states.port = fields.nameChecked && fields.portChecked;
    states.direction = fields.nameChecked && fields.directionChecked;
    return states;
}

ZoneEditorModel::ZoneEditorModel(ZoneRecord& zone, std::string_view rulePrefix,
                                 const char* fixedName)
    : m_zone(zone), m_prefix(rulePrefix) {
    if (fixedName != nullptr) {
        m_zoneName = fixedName;
        m_zoneResultEnabled = false;
    } else {
        m_zoneName = std::string(ZoneName(zone));
    }
    m_zoneResult = static_cast<int>(zone.result);
    for (const ZoneRule& rule : zone.rules) {
        if (!IsEmptySlot(rule)) {
            m_rows.push_back(rule);
        }
    }
    Select(m_rows.empty() ? -1 : 0);
}

std::string ZoneEditorModel::RowText(std::size_t index) const {
    return std::string(RuleName(m_rows[index]));
}

int ZoneEditorModel::RowImage(std::size_t index) const {
    return RuleImageIndex(m_rows[index]);
}

void ZoneEditorModel::Select(int row) {
    m_selected = row >= 0 && static_cast<std::size_t>(row) < m_rows.size() ? row : -1;
    Show();
}

void ZoneEditorModel::Show() {
    m_fields = ShowRule(m_selected < 0 ? nullptr : &m_rows[m_selected]);
    m_changed = 0;
}

void ZoneEditorModel::Update() {
    if (m_selected >= 0) {
        StoreRule(m_fields, m_rows[m_selected]);
    }
}

void ZoneEditorModel::NewRule() {
    int position = m_selected < 0 ? 0 : m_selected;
    m_rows.insert(m_rows.begin() + position, MakeNewRule(m_prefix));
    Select(position);
    m_changed = 1;
}

int ZoneEditorModel::DeleteRule() {
    if (m_selected < 0) {
        return 0;
    }
    int answer = core::CurrentMessages().MessageBox("Delete Rule?", "q-Brix",
                                                    core::MB_YESNO | core::MB_ICONQUESTION);
    if (answer != core::IDYES) {
        return 0;
    }
    int index = m_selected;
    m_rows.erase(m_rows.begin() + index);
    int count = static_cast<int>(m_rows.size());
    Select(index < count ? index : count - 1);
    m_changed = 1;
    return 1;
}

void ZoneEditorModel::Toggle() {
    if (m_selected < 0) {
        return;
    }
    m_rows[m_selected].enabled = m_rows[m_selected].enabled == 0 ? 1 : 0;
    Show();
    m_changed = 1;
}

int ZoneEditorModel::AddressByName(std::string_view host) {
    std::vector<platform::DWORD> addresses = platform::ResolveHostAddresses(host);
    if (addresses.empty()) {
        core::CurrentMessages().MessageBox("Cannot find address", "q-Brix",
                                           core::MB_OK | core::MB_ICONINFORMATION);
        return 1;
    }
    m_fields.address = platform::NetworkToHost(addresses.front());
    return 0;
}

int ZoneEditorModel::Close() {
    Update();
    driver::SetFieldText(m_zone.name, m_zoneName);
    m_zone.result = static_cast<std::uint32_t>(m_zoneResult);
    for (std::size_t i = 0; i < driver::kZoneRuleSlots; ++i) {
        if (i < m_rows.size()) {
            m_zone.rules[i] = m_rows[i];
        } else {
            m_zone.rules[i] = EmptyRule();
        }
    }
    m_rows.clear();
    m_selected = -1;
    return m_changed;
}

ScopedZoneEditorLauncher::ScopedZoneEditorLauncher(ZoneEditorLauncher& launcher)
    : m_previous(g_launcher.exchange(&launcher)) {}

ScopedZoneEditorLauncher::~ScopedZoneEditorLauncher() {
    g_launcher.store(m_previous);
}

int ZoneEditor(ZoneRecord& zone, std::string_view rulePrefix, void* parent, const char* fixedName) {
    return g_launcher.load()->Edit(zone, rulePrefix, parent, fixedName);
}

}  // namespace qbrix::policy
