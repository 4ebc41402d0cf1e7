#include "content/LspSettings.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "content/TranslationFrame.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "support/TempPlatform.h"

namespace qbrix::content {
namespace {

using core::RegistryKey;

class LspSettingsTest : public ::testing::Test {
  protected:
    void SetUp() override { m_settings.Reset(); }
    test::TempPlatform m_platform;
    LspSettings m_settings;
};

std::vector<std::string> ValueNames(const std::string& suffix, const char* root) {
    RegistryKey key(suffix, root);
    std::vector<std::string> names;
    key.ListValueNames(names);
    return names;
}

TEST_F(LspSettingsTest, FirstLoadFillsDefaultsAndWritesTheWholeTree) {
    LoadLspSettings(m_settings, 0);
    for (std::size_t row = 0; row < kProtocolCount; ++row) {
        const ProtocolOptions& options = OptionsOf(m_settings, row);
        EXPECT_EQ(options.enableAV, 1u);
        EXPECT_EQ(options.enableAVLOG, 1u);
        EXPECT_EQ(options.blockAV, 1u);
        EXPECT_EQ(options.enableREG, 1u);
        EXPECT_EQ(options.maxSize, 100000u);
        EXPECT_EQ(options.maxAvTimeout, 5000u);
        EXPECT_EQ(options.timeOut, 5000u);
        EXPECT_EQ(options.lecEnable, 0u);
        EXPECT_EQ(options.lecLog, 0u);
        EXPECT_EQ(options.leading, "-------");
        EXPECT_EQ(ValueNames(kProtocolTable[row].protocolKey, core::kLspRootPath),
                  (std::vector<std::string>{"EnableAV", "EnableAVLOG", "BlockAV", "EnableREG",
                                            "MaxSize", "MaxAvTimeout", "LecLog", "LecEnable",
                                            "TimeOut", "Leading", "Trailing", "Before"}));
    }
    EXPECT_EQ(m_settings.quarantine, "c:\\Program files\\q-Brix\\quarantine");
    EXPECT_EQ(ValueNames(core::kAvSuffix, core::kLspRootPath),
              (std::vector<std::string>{"Quarantine", "AVName", "Repository"}));
    EXPECT_EQ(ValueNames("", core::kLecConnectorPath),
              (std::vector<std::string>{"URL", "Ticket", "Options_EMail", "Options_HTML"}));
    RegistryKey connector("", core::kLecConnectorPath);
    EXPECT_EQ(connector.GetString("Options_HTML", nullptr), HtmlOptionFragment());
    EXPECT_EQ(m_settings.loaded, 1u);
}

TEST_F(LspSettingsTest, LoadsOncePerRunUnlessForced) {
    LoadLspSettings(m_settings, 0);
    {
        RegistryKey lec(core::kLecSuffix, core::kLspRootPath);
        lec.SetString("SrcLang", "de");
    }
    LoadLspSettings(m_settings, 0);
    EXPECT_EQ(m_settings.srcLang, "");
    LoadLspSettings(m_settings, 1);
    EXPECT_EQ(m_settings.srcLang, "de");
}

TEST_F(LspSettingsTest, WrongTypeIsReplacedByDefault) {
    {
        RegistryKey http(kProtocolTable[kHttpRow].protocolKey, core::kLspRootPath);
        http.SetString("MaxSize", "500");
        http.SetDword("EnableREG", 0);
    }
    LoadLspSettings(m_settings, 0);
    EXPECT_EQ(OptionsOf(m_settings, kHttpRow).maxSize, 100000u);
    EXPECT_EQ(OptionsOf(m_settings, kHttpRow).enableREG, 0u);
    RegistryKey http(kProtocolTable[kHttpRow].protocolKey, core::kLspRootPath);
    EXPECT_EQ(http.GetDword("MaxSize", 1), 100000u);
}

TEST_F(LspSettingsTest, SaveWritesSwitchesAndLanguagesButNotTheRest) {
    LoadLspSettings(m_settings, 0);
    ProtocolOptions& pop3 = OptionsOf(m_settings, kPop3Row);
    pop3.enableAV = 0;
    pop3.maxSize = 1234;
    pop3.lecEnable = 1;
    pop3.leading = "changed";
    m_settings.destLang = "fr";
    m_settings.avName = "changed";
    SaveProtocolOptions(m_settings);

    LspSettings fresh;
    LoadLspSettings(fresh, 0);
    EXPECT_EQ(OptionsOf(fresh, kPop3Row).enableAV, 0u);
    EXPECT_EQ(OptionsOf(fresh, kPop3Row).maxSize, 1234u);
    EXPECT_EQ(OptionsOf(fresh, kPop3Row).lecEnable, 1u);
    EXPECT_EQ(OptionsOf(fresh, kPop3Row).leading, "-------");
    EXPECT_EQ(OptionsOf(fresh, kHttpRow).enableAV, 1u);
    EXPECT_EQ(fresh.destLang, "fr");
    EXPECT_EQ(fresh.avName, "");
    EXPECT_EQ(LoadAvEngineName(fresh), "");
}

TEST_F(LspSettingsTest, RequestFramesCarryTheirProtocolsFragment) {
    {
        RegistryKey lec(core::kLecSuffix, core::kLspRootPath);
        lec.SetString("SrcLang", "en");
        lec.SetString("DestLang", "<de>");
    }
    LoadLspSettings(m_settings, 0);
    const std::string& http = OptionsOf(m_settings, kHttpRow).requestHead;
    const std::string& pop3 = OptionsOf(m_settings, kPop3Row).requestHead;
    EXPECT_EQ(http,
              "<SOAP:Envelope xmlns:SOAP=\"http://schemas.xmlsoap.org/soap/envelope/\" "
              "SOAP:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">"
              "<SOAP:Body xmlns:t='urn:korvel-soft:lec-translation'><Translate>"
              "<t:sourceLang>en</t:sourceLang><t:targetLang><de></t:targetLang>"
              "<TicketValue></TicketValue><t:Options><t:Option Name=\"Origin\">q-brix</t:Option>"
              "<t:Option Name=\"HTML\">1</t:Option><t:Option Name=\"TransVersion\">0</t:Option>"
              "<t:Option Name=\"CorrespondingWord\">0</t:Option>"
              "<t:Option Name=\"SetCharSetForWebPageToUTF8\">1</t:Option></t:Options>"
              "<sourceText xml:space=\"preserve\">");
    EXPECT_NE(pop3.find("<t:Option Name=\"HTML\">0</t:Option>"), std::string::npos);
    EXPECT_EQ(OptionsOf(m_settings, kPop3Row).requestTail,
              "</sourceText></Translate></SOAP:Body></SOAP:Envelope>");
}

TEST_F(LspSettingsTest, StoredFragmentReplacesTheDefault) {
    {
        RegistryKey connector("", core::kLecConnectorPath);
        connector.SetString("Options_EMail", "<t:Options/>");
        connector.SetString("Ticket", "T1");
    }
    LoadLspSettings(m_settings, 0);
    const std::string& pop3 = OptionsOf(m_settings, kPop3Row).requestHead;
    EXPECT_NE(pop3.find("<TicketValue>T1</TicketValue><t:Options/><sourceText"), std::string::npos);
}

}  // namespace
}  // namespace qbrix::content
