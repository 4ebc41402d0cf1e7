// Helpers shared by the firewall policy tests: a clean process-wide state, rule and zone
// builders, a scripted zone editor, a driver that keeps application records, and a fixed
// interface list.
#pragma once

#include <cstring>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "driver/DriverControl.h"
#include "platform/IpHelper.h"
#include "policy/ZoneEditor.h"
#include "policy/ZoneList.h"
#include "policy/ZoneRules.h"
#include "policy/ZoneStore.h"
#include "support/FakeDriverPeer.h"
#include "support/TempPlatform.h"

namespace qbrix::policy::test_support {

// Empties the zone list and the rule counter on both ends of a test.
class CleanPolicyState {
  public:
    CleanPolicyState() { Reset(); }
    ~CleanPolicyState() { Reset(); }

  private:
    static void Reset() {
        g_zones.Clear();
        g_newRuleCounter = 0;
        g_newZoneCounter = 0;
        driver::ResetDriverLink();
    }
};

inline ZoneRule Rule(const char* name, std::uint8_t enabled = 1, std::uint32_t address = 0,
                     std::uint16_t remotePort = 0) {
    ZoneRule rule = EmptyRule();
    rule.enabled = enabled;
    driver::SetFieldText(rule.name, name);
    rule.address = address;
    rule.remotePort = remotePort;
    return rule;
}

inline ZoneRecord Zone(const char* name, std::initializer_list<ZoneRule> rules,
                       std::uint32_t result = 0) {
    ZoneRecord zone = EmptyZone();
    driver::SetFieldText(zone.name, name);
    zone.result = result;
    int slot = 0;
    for (const ZoneRule& rule : rules) {
        zone.rules[slot++] = rule;
    }
    return zone;
}

inline std::string Bytes(const void* data, std::size_t size) {
    return std::string(static_cast<const char*>(data), size);
}

// A zone editor whose "user" is a function working on the editor's model.
class ScriptedZoneEditor : public ZoneEditorLauncher {
  public:
    using Script = std::function<void(ZoneEditorModel&)>;
    explicit ScriptedZoneEditor(Script script = {}) : m_script(std::move(script)), m_scope(*this) {}
    int Edit(ZoneRecord& zone, std::string_view rulePrefix, void*, const char* fixedName) override {
        ++opened;
        prefixes.emplace_back(rulePrefix);
        ZoneEditorModel model(zone, rulePrefix, fixedName);
        if (m_script) {
            m_script(model);
        }
        return model.Close();
    }
    int opened = 0;
    std::vector<std::string> prefixes;

  private:
    Script m_script;
    ScopedZoneEditorLauncher m_scope;
};

// A fixed interface list installed for the object's lifetime. Addresses are given in host
// order and handed out in network order, as the platform reports them.
class FixedInterfaces : public platform::InterfaceSource {
  public:
    FixedInterfaces() : m_scope(*this) {}
    void Add(std::uint32_t hostAddress, std::uint32_t hostMask, std::string description,
             platform::DWORD index) {
        m_addresses.push_back({platform::HostToNetwork(hostAddress),
                               platform::HostToNetwork(hostMask), index, std::move(description)});
    }
    bool List(std::vector<platform::InterfaceAddress>& addresses) override {
        addresses = m_addresses;
        if (listsBeforeFailing == 0) {
            return false;
        }
        --listsBeforeFailing;
        return !fail;
    }
    bool fail = false;
    int listsBeforeFailing = -1;  // negative: never fails

  private:
    std::vector<platform::InterfaceAddress> m_addresses;
    platform::ScopedInterfaceSource m_scope;
};

// A driver that keeps application records keyed by image name and answers the list, get, set,
// delete, question and answer requests; every set and answer is recorded in order.
class RecordingDriver {
  public:
    explicit RecordingDriver(bool deleteFails = false) {
        m_peer = std::make_unique<test::FakeDriverPeer>(
            platform::DeviceSocketPath(),
            [this, deleteFails](const test::FakeDriverPeer::Request& request)
                -> std::optional<std::string> { return Answer(request, deleteFails); });
        driver::OpenDriverDevice(1);
    }
    ~RecordingDriver() { driver::ResetDriverLink(); }

    void Put(const AppRecord& record) { m_records[Name(record)] = record; }
    std::vector<AppRecord> sent;      // SetAppRecord, in order
    std::vector<AppRecord> answered;  // AnswerPendingQuestion, in order
    std::vector<ZoneRecord> zones;    // SetDefaultZone and SetOverrideZone, in order
    std::vector<AppRecord> pending;   // questions handed out by TakePendingQuestion, in order

  private:
    static std::string Name(const AppRecord& record) {
        return std::string(driver::FieldText(record.imageName));
    }
    std::optional<std::string> Answer(const test::FakeDriverPeer::Request& request,
                                      bool deleteFails) {
        using test::FakeDriverPeer;
        AppRecord record{};
        if (request.input.size() == sizeof record) {
            std::memcpy(&record, request.input.data(), sizeof record);
        }
        switch (request.header.code) {
            case driver::IOCTL_LIST_APP_RECORDS: {
                std::string out;
                for (const auto& [name, kept] : m_records) {
                    out += Bytes(&kept, sizeof kept);
                }
                return FakeDriverPeer::Reply(true, 0, static_cast<platform::DWORD>(out.size()),
                                             out);
            }
            case driver::IOCTL_GET_APP_RECORD: {
                auto found = m_records.find(Name(record));
                if (found == m_records.end()) {
                    return FakeDriverPeer::Reply(true, 0, 0);
                }
                return FakeDriverPeer::Reply(true, 0, sizeof(AppRecord),
                                             Bytes(&found->second, sizeof(AppRecord)));
            }
            case driver::IOCTL_SET_APP_RECORD:
                sent.push_back(record);
                m_records[Name(record)] = record;
                return FakeDriverPeer::Reply(true, 0, sizeof(AppRecord));
            case driver::IOCTL_TAKE_PENDING_QUESTION: {
                if (pending.empty()) {
                    return FakeDriverPeer::Reply(true, 0, 0);
                }
                AppRecord question = pending.front();
                pending.erase(pending.begin());
                return FakeDriverPeer::Reply(true, 0, sizeof question,
                                             Bytes(&question, sizeof question));
            }
            case driver::IOCTL_ANSWER_PENDING_QUESTION:
                answered.push_back(record);
                m_records[Name(record)] = record;
                return FakeDriverPeer::Reply(true, 0, sizeof(AppRecord));
            case driver::IOCTL_DELETE_APP_RECORD:
                if (deleteFails) {
                    return FakeDriverPeer::Reply(false, 5, 0);
                }
                m_records.erase(Name(record));
                return FakeDriverPeer::Reply(true, 0, 0);
            case driver::IOCTL_SET_DEFAULT_ZONE:
            case driver::IOCTL_SET_OVERRIDE_ZONE: {
                ZoneRecord zone{};
                std::memcpy(&zone, request.input.data(),
                            std::min(request.input.size(), sizeof zone));
                zones.push_back(zone);
                return FakeDriverPeer::Reply(true, 0, sizeof(ZoneRecord));
            }
            default:
                return FakeDriverPeer::Reply(false, 1, 0);
        }
    }

    std::map<std::string, AppRecord> m_records;
    std::unique_ptr<test::FakeDriverPeer> m_peer;
};

inline AppRecord App(const char* imageName, const char* path = "", const char* zoneName = "") {
    AppRecord record{};
    driver::SetFieldText(record.imageName, imageName);
    driver::SetFieldText(record.path, path);
    driver::SetFieldText(record.zone.name, zoneName);
    return record;
}

}  // namespace qbrix::policy::test_support
