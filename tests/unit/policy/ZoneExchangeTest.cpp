// The zone exchange file: the written document, round trips of every preset, and the reader's
// rules for gaps, cut names, bad addresses and files it refuses; the documents both exchange
// files (zone and content rule) refuse or decode alike.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <pugixml.hpp>

#include "PolicyTestSupport.h"
#include "content/RuleXml.h"
#include "platform/Utf16.h"
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
    std::vector<ZoneRecord> zones(PresetZones().begin(), PresetZones().end());
    // Texts of blanks, and bytes of the whole code page, written as UTF-8.
    zones.push_back(Zone("  ", {Rule(" \t "), Rule("\xE9\x80\x81\x9D\xFF")}));
    std::string path = m_dir.File("blank.xml");
    ExportZone(zones.back(), path);
    EXPECT_NE(test::ReadFile(path).find("<NAME>\xC3\xA9\xE2\x82\xAC\xC2\x81\xC2\x9D\xC3\xBF<"),
              std::string::npos);
    for (const ZoneRecord& preset : zones) {
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

// A document, in the encoding given, through both importers: with %R the root (MASTER_ZONE,
// MASTER_RULE), %U a unit (ZONERULE, MAIN) and %E its text element (NAME, COMMENT).
enum class Encoding { kAsIs, kUtf8Mark, kUtf16Le, kUtf16Be, kUtf32Le, kUtf32Be, kUtf16LeNoMark };

struct DocumentCase {
    const char* label;
    Encoding encoding;
    const char* document;
    bool refused;
    const char* name = "";  // the root's NAME, in the code page
    const char* text = "";  // the text element's whole text
    const char* why = "";   // what a refusal says
};

// The text element holding `levels` nested elements around "x".
const char* Nested(int levels) {
    static std::map<int, std::string> documents;
    std::string& document = documents[levels];
    document = "<%R NAME='a'><%U><%E>";
    for (int i = 0; i < levels; ++i) {
        document += "<i>";
    }
    document += "x";
    for (int i = 0; i < levels; ++i) {
        document += "</i>";
    }
    document += "</%E></%U></%R>";
    return document.c_str();
}

std::string Encode(const std::string& text, Encoding encoding) {
    std::u16string wide = platform::Utf8ToUtf16(text);
    auto units = [&](int width, bool bigEndian, std::string mark) {
        for (char16_t unit : wide) {
            for (int i = 0; i < width; ++i) {
                int shift = 8 * (bigEndian ? width - 1 - i : i);
                mark.push_back(static_cast<char>(shift < 16 ? unit >> shift & 0xFF : 0));
            }
        }
        return mark;
    };
    using namespace std::string_literals;
    switch (encoding) {
        case Encoding::kUtf8Mark:
            return "\xEF\xBB\xBF" + text;
        case Encoding::kUtf16Le:
            return units(2, false, "\xFF\xFE");
        case Encoding::kUtf16Be:
            return units(2, true, "\xFE\xFF");
        case Encoding::kUtf32Le:
            return units(4, false, "\xFF\xFE\0\0"s);
        case Encoding::kUtf32Be:
            return units(4, true, "\0\0\xFE\xFF"s);
        case Encoding::kUtf16LeNoMark:
            return units(2, false, "");
        case Encoding::kAsIs:
            break;
    }
    return text;
}

std::string Fill(std::string document, bool zone) {
    const std::pair<const char*, const char*> names[] = {
        {"%R", zone ? "MASTER_ZONE" : "MASTER_RULE"},
        {"%U", zone ? "ZONERULE" : "MAIN"},
        {"%E", zone ? "NAME" : "COMMENT"}};
    for (auto [from, to] : names) {
        for (std::size_t at; (at = document.find(from)) != std::string::npos;) {
            document.replace(at, 2, to);
        }
    }
    return document;
}

class ExchangeDocumentTest : public ::testing::TestWithParam<DocumentCase> {
  protected:
    test::TempPlatform m_platform;
    test::TempDirectory m_dir;
};

TEST_P(ExchangeDocumentTest, BothImportersRefuseOrDecodeAlike) {
    const DocumentCase& c = GetParam();
    std::string path = m_dir.File("document.xml");
    std::ofstream(path, std::ios::binary) << Encode(Fill(c.document, true), c.encoding);
    ZoneRecord zone = EmptyZone();
    std::string zoneWhy;
    EXPECT_EQ(ImportZone(zone, path, &zoneWhy), c.refused ? 1 : 0);
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        << Encode(Fill(c.document, false), c.encoding);
    content::ContentRule rule;
    std::string ruleWhy;
    EXPECT_EQ(content::ImportContentRule(rule, path, &ruleWhy), c.refused ? 1 : 0);
    EXPECT_EQ(zoneWhy.empty(), !c.refused);
    if (*c.why != '\0') {
        EXPECT_EQ(zoneWhy, c.why);
        EXPECT_EQ(ruleWhy, c.why);
    }
    if (!c.refused) {
        EXPECT_EQ(ZoneName(zone), c.name);
        EXPECT_EQ(RuleName(zone.rules[0]), c.text);
        EXPECT_EQ(rule.name, c.name);
        EXPECT_EQ(rule.main.comment, c.text);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Documents, ExchangeDocumentTest,
    ::testing::Values(
        DocumentCase{"Plain", Encoding::kAsIs,
                     "<?xml version='1.0'?><%R NAME='a'><%U><%E>t</%E></%U></%R>\r\n", false, "a",
                     "t"},
        DocumentCase{"WholeTextAroundCommentsAndCdata", Encoding::kAsIs,
                     "<%R NAME='a'><%U><%E> x<!--c-->y<![CDATA[<z>]]>\t</%E></%U></%R>", false, "a",
                     " xy<z>\t"},
        DocumentCase{"Blanks", Encoding::kAsIs, "<%R NAME='  '><%U><%E> \t </%E></%U></%R>", false,
                     "  ", " \t "},
        DocumentCase{"References", Encoding::kAsIs,
                     "<%R NAME='&lt;&#233;&#x20AC;&#x100;'><%U><%E>&amp;&apos;</%E></%U></%R>",
                     false, "<\xE9\x80?", "&'"},
        DocumentCase{"UndefinedEntityInText", Encoding::kAsIs,
                     "<%R NAME='a'><%U><%E>&nbsp;</%E></%U></%R>", true, "", "",
                     "the file is not well-formed XML"},
        DocumentCase{"UndefinedEntityInAttribute", Encoding::kAsIs, "<%R NAME='&foo;'/>", true},
        DocumentCase{"NulReference", Encoding::kAsIs, "<%R NAME='&#0;'/>", true},
        DocumentCase{"LessThanInAttribute", Encoding::kAsIs, "<%R NAME='a<b'/>", true},
        DocumentCase{"DuplicateAttribute", Encoding::kAsIs, "<%R NAME='a' NAME='b'/>", true},
        DocumentCase{"TwoRoots", Encoding::kAsIs, "<OTHER/><%R NAME='a'/>", true},
        DocumentCase{"TextAfterRoot", Encoding::kAsIs, "<%R NAME='a'/>text", true},
        DocumentCase{"TextBeforeRoot", Encoding::kAsIs, "text<%R NAME='a'/>", true},
        DocumentCase{"Utf8", Encoding::kAsIs, "<%R NAME='\xC3\xA9\xE2\x82\xAC\xC4\x80'/>", false,
                     "\xE9\x80?"},
        DocumentCase{"InvalidUtf8", Encoding::kAsIs, "<%R NAME='\xE9'/>", true, "", "",
                     "the file is in an unsupported encoding or holds bytes invalid in its "
                     "encoding"},
        DocumentCase{"InvalidDeclaredUtf8", Encoding::kAsIs,
                     "<?xml version='1.0' encoding='UTF-8'?><%R NAME='\xC3'/>", true},
        DocumentCase{"Utf8Mark", Encoding::kUtf8Mark, "<%R NAME='\xC3\xA9'/>", false, "\xE9"},
        DocumentCase{"Utf16LittleEndian", Encoding::kUtf16Le,
                     "<?xml version='1.0' encoding='UTF-16'?><%R NAME='\xC3\xA9\xE2\x82\xAC'/>",
                     false, "\xE9\x80"},
        DocumentCase{"Utf16BigEndian", Encoding::kUtf16Be, "<%R NAME='\xC3\xA9'/>", false, "\xE9"},
        DocumentCase{"Utf16WithoutMark", Encoding::kUtf16LeNoMark,
                     "<?xml version='1.0'?><%R NAME='\xC3\xA9'/>", false, "\xE9"},
        DocumentCase{"Utf32LittleEndian", Encoding::kUtf32Le, "<%R NAME='\xC3\xA9'/>", false,
                     "\xE9"},
        DocumentCase{"Utf32BigEndian", Encoding::kUtf32Be, "<%R NAME='\xE2\x82\xAC'/>", false,
                     "\x80"},
        DocumentCase{"Latin1", Encoding::kAsIs,
                     "<?xml version='1.0' encoding='ISO-8859-1'?><%R NAME='\xE9\x80'/>", false,
                     "\xE9?"},
        DocumentCase{"Windows1252", Encoding::kAsIs,
                     "<?xml version=\"1.0\" encoding=\"windows-1252\"?><%R NAME='\xE9\x80\x81'/>",
                     false, "\xE9\x80\x81"},
        DocumentCase{"AsciiWithHighByte", Encoding::kAsIs,
                     "<?xml version='1.0' encoding='us-ascii'?><%R NAME='\xE9'/>", true},
        DocumentCase{"UnsupportedEncoding", Encoding::kAsIs,
                     "<?xml version='1.0' encoding='KOI8-R'?><%R NAME='a'/>", true},
        DocumentCase{"MarkAndDeclarationDisagree", Encoding::kUtf8Mark,
                     "<?xml version='1.0' encoding='ISO-8859-1'?><%R NAME='a'/>", true},
        DocumentCase{"NestedToTheLimit", Encoding::kAsIs, Nested(253), false, "a", "x"},
        DocumentCase{"NestedTooDeep", Encoding::kAsIs, Nested(60000), true, "", "",
                     "the file nests elements more than 256 levels deep"}),
    [](const ::testing::TestParamInfo<DocumentCase>& info) { return info.param.label; });

}  // namespace
}  // namespace qbrix::policy
