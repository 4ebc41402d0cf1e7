// LAN discovery over the platform's IPv4 interface table, and the merge of the LAN rules into
// the zones that hold LAN rules.
#include <gtest/gtest.h>

#include "PolicyTestSupport.h"
#include "policy/LanDiscovery.h"
#include "policy/PresetZones.h"
#include "policy/ZoneStore.h"

namespace qbrix::policy {
namespace {

using namespace test_support;

class LanDiscoveryTest : public ::testing::Test {
  protected:
    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
    CleanPolicyState m_state;
    FixedInterfaces m_interfaces;
};

TEST_F(LanDiscoveryTest, AnAdapterBecomesOneEnabledRuleNamedAfterItsDescription) {
    m_interfaces.Add(0xC0A8010A, 0xFFFFFF00, "Realtek PCI Fast Ethernet Adapter", 3);
    ZoneRecord zone = EmptyZone();
    ASSERT_EQ(DetectLan(zone), 0);
    EXPECT_EQ(ZoneName(zone), "Local Area Network");
    EXPECT_EQ(zone.result, 1u);
    const ZoneRule& rule = zone.rules[0];
    EXPECT_EQ(RuleName(rule), "NET Realtek PCI");
    EXPECT_EQ(rule.enabled, 1);
    EXPECT_EQ(rule.address, 0xC0A8010Au);
    EXPECT_EQ(rule.mask, 0xFFFFFF00u);
    EXPECT_EQ(rule.protocol + rule.direction + rule.result + rule.remotePort + rule.localPort, 0u);
    EXPECT_TRUE(IsEmptySlot(zone.rules[1]));
}

TEST_F(LanDiscoveryTest, RowsComeSortedZeroAddressesAreSkippedAndUnknownInterfacesNumbered) {
    m_interfaces.Add(0x0A000002, 0xFF000000, "second", 7);
    m_interfaces.Add(0, 0, "unconfigured", 8);
    m_interfaces.Add(0x0A000001, 0xFF000000, "first", 0);
    m_interfaces.Add(0x7F000001, 0xFF000000, "lo", 1);
    ZoneRecord zone = EmptyZone();
    ASSERT_EQ(DetectLan(zone), 0);
    EXPECT_EQ(RuleName(zone.rules[0]), "NET first");
    EXPECT_EQ(RuleName(zone.rules[1]), "NET second");
    EXPECT_EQ(RuleName(zone.rules[2]), "NET lo");  // loopback included
    EXPECT_TRUE(IsEmptySlot(zone.rules[3]));

    // When the interface query fails, the rule is named by its row number.
    FixedInterfaces numbered;
    numbered.Add(0x0A000001, 0xFF000000, "x", 1);
    numbered.Add(0, 0, "down", 2);
    numbered.Add(0x0A000002, 0xFF000000, "y", 3);
    numbered.listsBeforeFailing = 1;
    ZoneRecord byNumber = EmptyZone();
    ASSERT_EQ(DetectLan(byNumber), 0);
    EXPECT_EQ(RuleName(byNumber.rules[0]), "NET 2");  // rows sort as 0, 10.0.0.1, 10.0.0.2
    EXPECT_EQ(RuleName(byNumber.rules[1]), "NET 3");
}

TEST_F(LanDiscoveryTest, ElevenAddressesGiveTenRulesAndTwentyOneGiveNone) {
    for (std::uint32_t i = 1; i <= 11; ++i) {
        m_interfaces.Add(0x0A000000 + i, 0xFFFFFF00, "if" + std::to_string(i), i);
    }
    ZoneRecord zone = EmptyZone();
    ASSERT_EQ(DetectLan(zone), 0);
    EXPECT_EQ(RuleName(zone.rules[9]), "NET if10");
    for (std::uint32_t i = 12; i <= 21; ++i) {
        m_interfaces.Add(0x0A000000 + i, 0xFFFFFF00, "if" + std::to_string(i), i);
    }
    ZoneRecord none = EmptyZone();
    EXPECT_EQ(DetectLan(none), 1);
    EXPECT_TRUE(IsEmptySlot(none.rules[0]));
}

TEST_F(LanDiscoveryTest, NoTableOrOnlyZeroAddressesMeanNoLan) {
    ZoneRecord zone = EmptyZone();
    EXPECT_EQ(DetectLan(zone), 1);
    m_interfaces.Add(0, 0, "down", 1);
    EXPECT_EQ(DetectLan(zone), 1);
    m_interfaces.Add(0x0A000001, 0, "up", 2);
    m_interfaces.fail = true;
    EXPECT_EQ(DetectLan(zone), 1);
    EXPECT_EQ(UpdateLanZones(nullptr), 0);
    ASSERT_EQ(m_messages.shown.size(), 1u);
    EXPECT_EQ(m_messages.shown[0].text, "No Lan found");
}

TEST_F(LanDiscoveryTest, AddLanRuleStopsAtTenAndIgnoresZeroAddresses) {
    ZoneRecord zone = EmptyZone();
    int count = 0;
    EXPECT_EQ(AddLanRule(zone, count, "zero", 0, 0), 0);
    EXPECT_EQ(count, 0);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(AddLanRule(zone, count, "a", platform::HostToNetwork(0x0A000001), 0), 0);
    }
    EXPECT_EQ(AddLanRule(zone, count, "a", platform::HostToNetwork(0x0A000001), 0), 1);
    EXPECT_EQ(count, 10);
}

TEST_F(LanDiscoveryTest, UpdateMergesNewLanRulesFirstAndLeavesZonesWithoutThemAlone) {
    m_interfaces.Add(0xC0A80105, 0xFFFFFF00, "wlan0", 4);
    m_interfaces.Add(0xC0A80205, 0xFFFFFF00, "eth0", 5);
    ZoneRecord internet = Zone(
        "LAN Internet",
        {Rule("NET old"), LocalEnableRule(), DnsEnableRule(), DhcpEnableRule(), EnableOutRule()},
        1);
    for (int i = 5; i < 10; ++i) {
        internet.rules[i] = Rule(("extra" + std::to_string(i)).c_str());
    }
    g_zones.Append(internet);
    g_zones.Append(Zone("LAN Download", {}));
    const std::string download = Bytes(&g_zones.At(1), 704);
    ScriptedZoneEditor editor([](ZoneEditorModel& model) {
        model.Select(1);
        model.Toggle();  // the user disables the second LAN rule: it is still merged
    });
    EXPECT_EQ(UpdateLanZones(nullptr), 1);
    EXPECT_EQ(m_messages.shown.back().text, "Update *ALL* zones in the LAN?");
    const ZoneRecord& merged = g_zones.At(0);
    EXPECT_EQ(ZoneName(merged), "LAN Internet");
    EXPECT_EQ(merged.result, 1u);
    EXPECT_EQ(RuleName(merged.rules[0]), "NET wlan0");
    EXPECT_EQ(RuleName(merged.rules[1]), "NET eth0");
    EXPECT_EQ(merged.rules[1].enabled, 0);
    EXPECT_EQ(RuleName(merged.rules[2]), "Local Enable");
    EXPECT_EQ(RuleName(merged.rules[5]), "EnableOut");
    EXPECT_EQ(RuleName(merged.rules[9]), "extra8");  // extra9 no longer fits
    EXPECT_EQ(Bytes(&g_zones.At(1), 704), download);
}

TEST_F(LanDiscoveryTest, UpdateAnsweredNoChangesNothing) {
    m_interfaces.Add(0xC0A80105, 0xFFFFFF00, "wlan0", 4);
    g_zones.Append(Zone("Z", {Rule("NET old")}));
    ScriptedZoneEditor editor;
    m_messages.QueueBoxAnswer(core::IDNO);
    EXPECT_EQ(UpdateLanZones(nullptr), 0);
    EXPECT_EQ(RuleName(g_zones.At(0).rules[0]), "NET old");
}

TEST(InterfaceTableTest, SystemTableIsSortedAndDescribedByInterfaceName) {
    test::TempPlatform platform;
    alignas(platform::MIB_IPADDRTABLE) unsigned char buffer[4096];
    platform::ULONG size = sizeof buffer;
    auto* table = reinterpret_cast<platform::MIB_IPADDRTABLE*>(buffer);
    ASSERT_EQ(platform::GetIpAddrTable(table, &size, 1), 0u);
    platform::DWORD rows = 0;
    std::memcpy(&rows, buffer, 4);
    std::uint32_t previous = 0;
    for (platform::DWORD i = 0; i < rows && i < 100; ++i) {
        platform::MIB_IPADDRROW row;
        std::memcpy(&row, buffer + 4 + 24 * i, sizeof row);
        EXPECT_GE(platform::NetworkToHost(row.dwAddr), previous);
        previous = platform::NetworkToHost(row.dwAddr);
        platform::MIB_IFROW entry{};
        entry.dwIndex = row.dwIndex;
        ASSERT_EQ(platform::GetIfEntry(&entry), 0u);
        EXPECT_GT(entry.dwDescrLen, 0u);
    }
    platform::ULONG tiny = 8;
    if (rows > 1) {
        EXPECT_EQ(platform::GetIpAddrTable(table, &tiny, 1), platform::ERROR_INSUFFICIENT_BUFFER);
        EXPECT_EQ(tiny, 4 + 24 * rows);
    }
}

}  // namespace
}  // namespace qbrix::policy
