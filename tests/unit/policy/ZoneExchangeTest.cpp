// The zone exchange file: the written document, round trips of every preset, and the reader's
// rules for gaps, cut names, bad addresses and files it refuses.
#include <gtest/gtest.h>

#include <fstream>
#include <pugixml.hpp>

#include "PolicyTestSupport.h"
#include "policy/PresetZones.h"
#include "policy/ZoneExchange.h"

namespace qbrix::policy {
namespace {

using namespace test_support;

class ZoneExchangeTest : public ::testing::Test {
  protected:
    std::string Write(const std::string& text) {
        std::string path = m_dir.File("zone.xml");
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    int Import(const std::string& text, ZoneRecord& zone) {
        zone = EmptyZone();
        return ImportZone(zone, Write(text));
    }
    test::TempPlatform m_platform;
    test::TempDirectory m_dir;
};

const char kRuleXml[] =
    "<ZONERULE ENABLE=\"1\"><NAME>Web</NAME><IP>10.1.2.3</IP><MASK>255.255.0.0</MASK>"
    "<LOCALPORT>0</LOCALPORT><REMOTEPORT>80</REMOTEPORT><PROTOCOL>1</PROTOCOL>"
    "<DIRECTION>2</DIRECTION><RESULT>0</RESULT></ZONERULE>";

TEST_F(ZoneExchangeTest, ExportWritesDeclarationCommentAndUnindentedZone) {
    std::string path = m_dir.File("out.xml");
    ExportZone(PresetZones()[4], path);
    EXPECT_EQ(test::ReadFile(path),
              "<?xml version='1.0'?><!--q-Brix Zone--><MASTER_ZONE NAME=\"Disable External\" "
              "RESULT=\"1\"><ZONERULE ENABLE=\"1\"><NAME>Local Enable</NAME><IP>127.0.0.1</IP>"
              "<MASK>255.255.255.0</MASK><LOCALPORT>0</LOCALPORT><REMOTEPORT>0</REMOTEPORT>"
              "<PROTOCOL>0</PROTOCOL><DIRECTION>0</DIRECTION><RESULT>0</RESULT></ZONERULE>"
              "</MASTER_ZONE>");
}

TEST_F(ZoneExchangeTest, EveryPresetRoundTripsByteForByte) {
    for (const ZoneRecord& preset : PresetZones()) {
        std::string path = m_dir.File("preset.xml");
        ExportZone(preset, path);
        ZoneRecord back = EmptyZone();
        ASSERT_EQ(ImportZone(back, path), 0);
        EXPECT_EQ(Bytes(&back, 704), Bytes(&preset, 704)) << ZoneName(preset);
    }
}

TEST_F(ZoneExchangeTest, UnnamedRulesAreNotExportedAndGapsAreClosed) {
    ZoneRecord zone = Zone("Gaps", {Rule("", 1, 0x0A000001)});
    zone.rules[3] = Rule("Late", 1, 0, 8080);
    zone.rules[3].localPort = 65535;
    std::string path = m_dir.File("gaps.xml");
    ExportZone(zone, path);
    EXPECT_EQ(test::ReadFile(path).find("<NAME></NAME>"), std::string::npos);
    ZoneRecord back = EmptyZone();
    ASSERT_EQ(ImportZone(back, path), 0);
    EXPECT_EQ(RuleName(back.rules[0]), "Late");
    EXPECT_EQ(back.rules[0].localPort, 65535);
    ExportZone(Zone("Empty", {Rule("", 1)}), path);
    EXPECT_EQ(test::ReadFile(path).find("ZONERULE"), std::string::npos);
}

TEST_F(ZoneExchangeTest, ChildPositionsDecideSlotsAndWhitespaceDoesNotCount) {
    ZoneRecord zone;
    std::string text =
        "<?xml version='1.0'?>\n<MASTER_ZONE NAME=\"Office\" RESULT=\"1\">\n"
        "  <!--note-->\n  " +
        std::string(kRuleXml) + "\n  " + kRuleXml + "\n</MASTER_ZONE>\n";
    ASSERT_EQ(Import(text, zone), 0);
    EXPECT_EQ(ZoneName(zone), "Office");
    EXPECT_EQ(zone.result, 1u);
    EXPECT_TRUE(IsEmptySlot(zone.rules[0]));
    EXPECT_EQ(RuleName(zone.rules[1]), "Web");
    EXPECT_EQ(zone.rules[1].address, 0x0A010203u);
    EXPECT_EQ(zone.rules[1].mask, 0xFFFF0000u);
    EXPECT_EQ(zone.rules[1].remotePort, 80);
    EXPECT_EQ(zone.rules[1].direction, 2u);
    EXPECT_EQ(Bytes(&zone.rules[1], 44), Bytes(&zone.rules[2], 44));
    EXPECT_TRUE(IsEmptySlot(zone.rules[3]));
}

TEST_F(ZoneExchangeTest, ElevenRulesKeepTenAndOtherElementsLeaveGaps) {
    std::string rules;
    for (int i = 0; i < 11; ++i) {
        rules += i == 4 ? std::string("<OTHER/>") : std::string(kRuleXml);
    }
    ZoneRecord zone;
    ASSERT_EQ(Import("<MASTER_ZONE NAME=\"Z\">" + rules + "</MASTER_ZONE>", zone), 0);
    EXPECT_TRUE(IsEmptySlot(zone.rules[4]));
    EXPECT_EQ(RuleName(zone.rules[9]), "Web");
    EXPECT_EQ(zone.result, 0u);
}

TEST_F(ZoneExchangeTest, ValuesAreTakenAsTheyComeAndBadAddressesReadAsAllOnes) {
    ZoneRecord zone;
    ASSERT_EQ(Import("<MASTER_ZONE NAME=\"Z\" RESULT=\"7x\"><ZONERULE ENABLE=\"1\">"
                     "<NAME>abcdefghijklmnopqrst</NAME><IP>300.1.1.1</IP><MASK>bogus</MASK>"
                     "<PROTOCOL>7</PROTOCOL><REMOTEPORT>65537</REMOTEPORT><UNKNOWN>1</UNKNOWN>"
                     "<DIRECTION>1</DIRECTION><DIRECTION>2</DIRECTION>"
                     "</ZONERULE></MASTER_ZONE>",
                     zone),
              0);
    EXPECT_EQ(zone.result, 7u);
    const ZoneRule& rule = zone.rules[0];
    EXPECT_EQ(RuleName(rule), "abcdefghijklmno");
    EXPECT_EQ(rule.address, 0xFFFFFFFFu);
    EXPECT_EQ(rule.mask, 0xFFFFFFFFu);
    EXPECT_EQ(rule.protocol, 7u);
    EXPECT_EQ(rule.remotePort, 1);  // kept in 16 bits
    EXPECT_EQ(rule.direction, 2u);  // a repeated child overwrites
    EXPECT_EQ(rule.localPort, 0);   // missing
    EXPECT_EQ(rule.result, 0u);
}

TEST_F(ZoneExchangeTest, RefusedFilesLeaveTheRecordAlone) {
    ZoneRecord zone;
    EXPECT_EQ(Import("<MASTER_ZONE NAME=\"Z\"></MASTER_ZONE><!--trailing-->", zone), 1);
    EXPECT_EQ(Import("<OTHER_ZONE NAME=\"Z\"/>", zone), 1);
    EXPECT_EQ(Import("<MASTER_ZONE NAME=\"Z\"><ZONERULE>", zone), 1);
    EXPECT_EQ(Import("", zone), 1);
    EXPECT_EQ(Import(std::string("\0\xff\xfe garbage", 12), zone), 1);
    EXPECT_EQ(Bytes(&zone, 704), std::string(704, '\0'));
    zone = EmptyZone();
    EXPECT_EQ(ImportZone(zone, m_dir.File("missing.xml")), 1);
    ExportZone(PresetZones()[1], m_dir.File("no-such-dir/out.xml"));  // silently nothing
    EXPECT_FALSE(test::FileExists(m_dir.File("no-such-dir/out.xml")));
}

TEST_F(ZoneExchangeTest, LongZoneNamesAreCutAndKeepTheirTerminator) {
    ZoneRecord zone;
    std::string name(300, 'n');
    ASSERT_EQ(Import("<MASTER_ZONE NAME=\"" + name + "\"/>", zone), 0);
    EXPECT_EQ(ZoneName(zone), name.substr(0, 259));
}

TEST_F(ZoneExchangeTest, ParseZoneRuleNeedsTheExpectedElementName) {
    pugi::xml_document document;
    ASSERT_TRUE(document.load_string(kRuleXml));
    ZoneRule rule = EmptyRule();
    EXPECT_EQ(ParseZoneRule(document.first_child(), "RULE", rule), 1);
    EXPECT_EQ(ParseZoneRule(document.first_child(), "ZONERULE", rule), 0);
    EXPECT_EQ(rule.enabled, 1);
}

TEST(ExportFileNameTest, SpacesColonsAndSlashesAreReplaced) {
    EXPECT_EQ(MakeExportFileName("Office: A/B"), "Office.._A-B");
    EXPECT_EQ(MakeExportFileName("a\\b c"), "a-b_c");
    EXPECT_EQ(MakeExportFileName("Plain"), "Plain");
}

}  // namespace
}  // namespace qbrix::policy
