// The zone store and the built-in zones: presets byte for byte, loading and first-run creation,
// saving, committing to the driver, and the zone selectors bound to the GUI key.
#include <gtest/gtest.h>

#include "PolicyTestSupport.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Platform.h"
#include "policy/PresetZones.h"
#include "policy/ZoneCombo.h"
#include "policy/ZoneStore.h"

namespace qbrix::policy {
namespace {

using namespace test_support;
using platform::Current;

// The 44 bytes of a preset rule, spelt out: enabled, name (15), reserved (4), address, mask,
// local port, remote port, protocol, direction, result.
std::string RuleBytes(const char* name, std::uint32_t address, std::uint32_t mask,
                      std::uint16_t remotePort, std::uint32_t protocol, std::uint32_t direction) {
    std::string bytes(44, '\0');
    bytes[0] = 1;
    bytes.replace(1, std::strlen(name), name);
    auto put32 = [&](std::size_t at, std::uint32_t v) {
        for (int i = 0; i < 4; ++i)
            bytes[at + i] = static_cast<char>(v >> (8 * i) & 0xFF);
    };
    put32(20, address);
    put32(24, mask);
    bytes[30] = static_cast<char>(remotePort & 0xFF);
    bytes[31] = static_cast<char>(remotePort >> 8);
    put32(32, protocol);
    put32(36, direction);
    return bytes;
}

std::string ZoneBytes(const char* name, std::uint32_t result, std::vector<std::string> rules) {
    std::string bytes(704, '\0');
    bytes.replace(0, std::strlen(name), name);
    for (std::size_t i = 0; i < rules.size(); ++i) {
        bytes.replace(260 + 44 * i, 44, rules[i]);
    }
    bytes[700] = static_cast<char>(result);
    return bytes;
}

class ZoneStoreTest : public ::testing::Test {
  protected:
    // The values under ZoneList: name -> (type, bytes), in enumeration order.
    std::vector<std::pair<std::string, std::string>> StoredValues() {
        std::vector<std::pair<std::string, std::string>> values;
        core::RegistryKey key(core::kZoneListSuffix, core::kGuiRootPath);
        for (platform::DWORD i = 0;; ++i) {
            char name[999];
            platform::DWORD nameSize = sizeof name;
            platform::BYTE data[1024];
            platform::DWORD dataSize = sizeof data;
            platform::DWORD type = 0;
            if (Current().Reg().EnumValue(key.Handle(), i, name, &nameSize, &type, data,
                                          &dataSize) != 0) {
                break;
            }
            values.emplace_back(std::string(name, nameSize),
                                std::string(reinterpret_cast<char*>(data), dataSize));
        }
        return values;
    }
    void PutValue(const std::string& name, platform::DWORD type, const std::string& bytes) {
        core::RegistryKey key(core::kZoneListSuffix, core::kGuiRootPath);
        Current().Reg().SetValueEx(key.Handle(), name, type,
                                   reinterpret_cast<const platform::BYTE*>(bytes.data()),
                                   static_cast<platform::DWORD>(bytes.size()));
    }

    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
    CleanPolicyState m_state;
    FixedInterfaces m_interfaces;  // no addresses unless a test adds some
};

TEST_F(ZoneStoreTest, PresetsMatchTheirTablesByteForByte) {
    const std::string local = RuleBytes("Local Enable", 0x7F000001, 0xFFFFFF00, 0, 0, 0);
    const std::string dns = RuleBytes("DNS Enable ", 0, 0, 53, 0, 0);
    const std::string dhcp = RuleBytes("DHCP Enable", 0, 0, 67, 2, 0);
    const std::string out = RuleBytes("EnableOut", 0, 0, 0, 0, 2);
    const std::string in = RuleBytes("EnableIn", 0, 0, 0, 0, 1);
    const std::string expected[kPresetCount] = {
        ZoneBytes("EnableAll", 0, {}),
        ZoneBytes("EnableAll", 0, {}),
        ZoneBytes("Internet Download", 0, {}),
        ZoneBytes("DisableAll", 1, {}),
        ZoneBytes("Disable External", 1, {local}),
        ZoneBytes("Internet Client", 1, {local, dns, dhcp, out}),
        ZoneBytes("OnlyIncoming", 1, {local, in}),
        ZoneBytes("OnlyOutgoing", 1, {local, out}),
    };
    for (int i = 0; i < kPresetCount; ++i) {
        EXPECT_EQ(Bytes(&PresetZones()[i], sizeof(ZoneRecord)), expected[i]) << "preset " << i;
    }
}

TEST_F(ZoneStoreTest, EmptyStoreWithoutLanGetsTheSevenPresetsAndNoQuestion) {
    LoadZones();
    ASSERT_EQ(g_zones.Size(), 7u);
    EXPECT_TRUE(m_messages.shown.empty());
    for (std::size_t i = 0; i < 7; ++i) {
        EXPECT_EQ(Bytes(&g_zones.At(i), 704), Bytes(&PresetZones()[i + 1], 704));
    }
    auto values = StoredValues();
    ASSERT_EQ(values.size(), 7u);
    EXPECT_EQ(values[3].first, "Disable External");
}

TEST_F(ZoneStoreTest, FirstRunWithALanLeavesOutTheRuleDisabledInTheWizard) {
    m_interfaces.Add(0xC0A8010A, 0xFFFFFF00, "eth0", 2);
    ScriptedZoneEditor editor([](ZoneEditorModel& model) {
        model.Fields().nameChecked = false;
        model.Update();
    });
    LoadZones();
    ASSERT_EQ(m_messages.shown.size(), 1u);
    EXPECT_EQ(m_messages.shown[0].text, "Run Zone Wizard to configure Trusted Zone?");
    EXPECT_EQ(editor.prefixes, std::vector<std::string>{"NET "});
    ASSERT_EQ(g_zones.Size(), 10u);
    const ZoneRecord* lanOnly = FindZone("LAN only");
    const ZoneRecord* lanInternet = FindZone("LAN Internet");
    const ZoneRecord* download = FindZone("LAN Download");
    ASSERT_TRUE(lanOnly && lanInternet && download);
    EXPECT_EQ(RuleName(lanOnly->rules[0]), "Local Enable");
    EXPECT_TRUE(IsEmptySlot(lanOnly->rules[1]));
    EXPECT_EQ(lanOnly->result, 1u);
    EXPECT_EQ(RuleName(lanInternet->rules[3]), "EnableOut");
    EXPECT_TRUE(IsEmptySlot(lanInternet->rules[4]));
    EXPECT_EQ(Bytes(download, 704), ZoneBytes("LAN Download", 0, {}));
    EXPECT_EQ(FindZone("Local Area Network"), nullptr);
}

TEST_F(ZoneStoreTest, FirstRunAnsweredNoPutsTheLanRuleFirst) {
    m_interfaces.Add(0xC0A8010A, 0xFFFFFF00, "eth0", 2);
    ScriptedZoneEditor editor;
    m_messages.QueueBoxAnswer(core::IDNO);
    LoadZones();
    EXPECT_EQ(editor.opened, 0);
    const ZoneRecord* lanInternet = FindZone("LAN Internet");
    ASSERT_NE(lanInternet, nullptr);
    EXPECT_EQ(RuleName(lanInternet->rules[0]), "NET eth0");
    EXPECT_EQ(RuleName(lanInternet->rules[4]), "EnableOut");
}

TEST_F(ZoneStoreTest, WrongValuesAreSkippedAndGoneAfterTheNextSave) {
    ZoneRecord good = Zone("Good", {Rule("r")});
    PutValue("Good", platform::REG_BINARY, Bytes(&good, 704));
    PutValue("Short", platform::REG_BINARY, std::string(703, 'x'));
    PutValue("Long", platform::REG_BINARY, std::string(705, 'x'));
    PutValue("Text", platform::REG_SZ, std::string(704, 'x'));
    LoadZones();
    ASSERT_EQ(g_zones.Size(), 1u);  // not empty: no built-in zones either
    EXPECT_EQ(Bytes(&g_zones.At(0), 704), Bytes(&good, 704));
    SaveZones();
    auto values = StoredValues();
    ASSERT_EQ(values.size(), 1u);
    EXPECT_EQ(values[0].first, "Good");
}

TEST_F(ZoneStoreTest, SavingKeepsOneValuePerNameAndTheLaterZoneWins) {
    g_zones.Append(Zone("Twin", {}, 0));
    g_zones.Append(Zone("Other", {}, 0));
    g_zones.Append(Zone("Twin", {}, 1));
    g_zones.Append(Zone("", {Rule("x")}, 0));
    SaveZones();
    auto values = StoredValues();
    ASSERT_EQ(values.size(), 3u);
    EXPECT_EQ(values[0].first, "Twin");
    EXPECT_EQ(values[0].second[700], 1);
    EXPECT_EQ(values[2].first, "");  // the key's unnamed value
    LoadZones();
    EXPECT_EQ(g_zones.Size(), 3u);
}

TEST_F(ZoneStoreTest, DeletingEveryZoneAndSavingRecreatesTheBuiltInZones) {
    LoadZones();
    g_zones.Clear();
    SaveZones();
    EXPECT_TRUE(StoredValues().empty());
    LoadZones();
    EXPECT_EQ(g_zones.Size(), 7u);
}

TEST_F(ZoneStoreTest, CommitResendsApplicationsWhoseZoneStillExists) {
    RecordingDriver driver;
    AppRecord mail = App("MAIL.EXE", "C:\\MAIL.EXE", "Internet Client");
    mail.zone.result = 1;
    driver.Put(mail);
    driver.Put(App("OLD.EXE", "C:\\OLD.EXE", "Gone"));
    LoadZones();
    ZoneRecord* client = FindZone("Internet Client");
    ASSERT_NE(client, nullptr);
    client->rules[4] = Rule("Extra", 1, 0, 8080);
    EXPECT_EQ(CommitZones(), 1);
    ASSERT_EQ(driver.sent.size(), 1u);
    EXPECT_EQ(driver::FieldText(driver.sent[0].imageName), "MAIL.EXE");
    EXPECT_EQ(Bytes(&driver.sent[0].zone, 704), Bytes(client, 704));
    EXPECT_EQ(driver::FieldText(driver.sent[0].path), "C:\\MAIL.EXE");
}

TEST_F(ZoneStoreTest, CommitWithoutADriverWritesTheStoreOnly) {
    g_zones.Append(Zone("Only", {}));
    EXPECT_EQ(CommitZones(), 0);
    EXPECT_EQ(StoredValues().size(), 1u);
}

TEST_F(ZoneStoreTest, SelectorsMatchIgnoringCaseAndApplyExactly) {
    g_zones.Append(Zone("Office", {Rule("r")}));
    g_zones.Append(Zone("Home", {}));
    ComboItemList items;
    AppZoneCombo combo(items);
    combo.Fill(nullptr, "HOME");
    ASSERT_EQ(items.Count(), 2);
    EXPECT_EQ(items.Selected(), 1);
    ZoneRecord zone = EmptyZone();
    EXPECT_EQ(combo.GetSelectedZone(zone), 0);
    EXPECT_EQ(ZoneName(zone), "Home");
    combo.Fill(nullptr, "Nowhere");
    EXPECT_EQ(items.Selected(), -1);
    EXPECT_EQ(combo.GetSelectedZone(zone), 1);
}

TEST_F(ZoneStoreTest, DefaultSelectorReadsItsChoiceAndLoadsAnEmptyList) {
    core::RegistryKey("", core::kGuiRootPath).SetString("DefZone", "internet client");
    ComboItemList items;
    DefaultZoneCombo combo(items);
    combo.Fill(nullptr, nullptr);
    EXPECT_EQ(items.Count(), 7);
    EXPECT_EQ(items.Text(items.Selected()), "Internet Client");
    RecordingDriver driver;
    combo.ApplySelection();
    ASSERT_EQ(driver.zones.size(), 1u);
    EXPECT_EQ(ZoneName(driver.zones[0]), "Internet Client");
    EXPECT_EQ(core::RegistryKey("", core::kGuiRootPath).GetString("DefZone", nullptr),
              "Internet Client");
}

TEST_F(ZoneStoreTest, OverrideSelectorEmptyItemSendsZeroZoneAndStoresEmptyName) {
    g_zones.Append(Zone("Office", {Rule("r")}));
    ComboItemList items;
    OverrideZoneCombo combo(items);
    combo.Fill("", "Office");
    ASSERT_EQ(items.Count(), 2);
    EXPECT_EQ(items.Selected(), 1);
    items.Select(0);
    RecordingDriver driver;
    combo.ApplySelection();
    ASSERT_EQ(driver.zones.size(), 1u);
    EXPECT_EQ(Bytes(&driver.zones[0], 704), std::string(704, '\0'));
    core::RegistryKey gui("", core::kGuiRootPath);
    char text[16] = {'x'};
    platform::DWORD size = sizeof text;
    ASSERT_EQ(gui.QueryString("OvrZone", text, &size), 0);
    EXPECT_EQ(size, 1u);  // just the terminator
    combo.Fill("", nullptr);
    EXPECT_EQ(items.Selected(), 0);  // "" selects the empty item again
}

}  // namespace
}  // namespace qbrix::policy
