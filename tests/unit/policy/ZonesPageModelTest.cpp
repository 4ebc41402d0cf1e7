// The Zones page's logic: new zone names, the modified flag after edits, deletion, import over
// a zone of the same name, and leaving the page with or without saving.
#include <gtest/gtest.h>

#include "PolicyTestSupport.h"
#include "policy/ZoneExchange.h"
#include "policy/ZonesPageModel.h"

namespace qbrix::policy {
namespace {

using namespace test_support;

class ZonesPageModelTest : public ::testing::Test {
  protected:
    ZonesPageModelTest() { m_page.Initialize(); }
    int RowOf(const char* text) {
        for (int i = 0; i < m_page.Count(); ++i) {
            if (m_page.Rows()[i].text == text) {
                return i;
            }
        }
        return -1;
    }
    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
    CleanPolicyState m_state;
    FixedInterfaces m_interfaces;
    test::TempDirectory m_dir;
    ZonesPageModel m_page;
};

TEST_F(ZonesPageModelTest, NewZonesAreCountedAndAlwaysMarkThePage) {
    ScriptedZoneEditor editor;
    ASSERT_EQ(m_page.Count(), 7);
    EXPECT_EQ(m_page.Selected(), 0);
    m_page.New(nullptr);
    m_page.New(nullptr);
    EXPECT_TRUE(m_page.Modified());
    EXPECT_EQ(m_page.Rows()[7].text, "Zone 1");
    EXPECT_EQ(m_page.Rows()[8].text, "Zone 2");
    EXPECT_EQ(m_page.Selected(), 8);
    EXPECT_EQ(ZoneName(g_zones.At(8)), "Zone 2");
}

TEST_F(ZonesPageModelTest, TypedEditsChangeTheZoneWithoutMarkingThePage) {
    ScriptedZoneEditor typing([](ZoneEditorModel& model) {
        model.SetZoneNameText("Renamed");
        model.Fields().port = 8080;
        model.Update();
    });
    m_page.Select(RowOf("Disable External"));
    m_page.Edit(nullptr);
    EXPECT_FALSE(m_page.Modified());
    EXPECT_EQ(m_page.Rows()[m_page.Selected()].text, "Renamed");
    ASSERT_NE(FindZone("Renamed"), nullptr);
    m_page.Leave(false);  // discarded: the store still has the old zone
    EXPECT_EQ(FindZone("Renamed"), nullptr);
    EXPECT_NE(RowOf("Disable External"), -1);

    ScriptedZoneEditor clicking([](ZoneEditorModel& model) { model.Toggle(); });
    m_page.Select(RowOf("Disable External"));
    m_page.Edit(nullptr);
    EXPECT_TRUE(m_page.Modified());
    m_page.Leave(true);
    EXPECT_FALSE(m_page.Modified());
    m_page.Initialize();
    EXPECT_EQ(FindZone("Disable External")->rules[0].enabled, 0);
}

TEST_F(ZonesPageModelTest, DeleteAsksAndSelectsTheNextOrLastRow) {
    m_page.Select(6);
    m_messages.QueueBoxAnswer(core::IDNO);
    EXPECT_EQ(m_page.Delete(), 0);
    EXPECT_EQ(m_page.Delete(), 1);
    EXPECT_EQ(m_messages.shown.back().text, "Delete Zone?");
    EXPECT_EQ(m_page.Count(), 6);
    EXPECT_EQ(g_zones.Size(), 6u);
    EXPECT_EQ(m_page.Selected(), 5);
    m_page.Select(0);
    EXPECT_EQ(m_page.Delete(), 1);
    EXPECT_EQ(m_page.Selected(), 0);
    EXPECT_EQ(m_page.Rows()[0].text, "Internet Download");
}

TEST_F(ZonesPageModelTest, ImportOverAZoneOfTheSameNameKeepsTheRowTextAndMovesTheZone) {
    std::string file = m_dir.File("zone.xml");
    ExportZone(Zone("internet client", {Rule("Only")}, 0), file);
    int row = RowOf("Internet Client");
    m_messages.QueueBoxAnswer(core::IDNO);
    EXPECT_EQ(m_page.Import(file), 0);
    EXPECT_EQ(g_zones.Size(), 7u);
    EXPECT_EQ(m_page.Import(file), 1);
    EXPECT_EQ(m_messages.shown.back().text, "Overwrite existing Rule?");
    EXPECT_EQ(m_page.Rows()[row].text, "Internet Client");
    EXPECT_EQ(ZoneName(*m_page.Rows()[row].zone), "internet client");
    EXPECT_EQ(ZoneName(g_zones.At(6)), "internet client");
    EXPECT_EQ(FindZone("Internet Client"), nullptr);
    EXPECT_EQ(m_page.Selected(), row);
    EXPECT_TRUE(m_page.Modified());

    ExportZone(Zone("Fresh", {}), file);
    EXPECT_EQ(m_page.Import(file), 1);
    EXPECT_EQ(m_page.Rows().back().text, "Fresh");
    EXPECT_EQ(m_page.Import(m_dir.File("missing.xml")), 0);
}

TEST_F(ZonesPageModelTest, ExportOffersTheCleanedNameOfTheSelectedZone) {
    m_page.Select(RowOf("Internet Client"));
    EXPECT_EQ(m_page.ExportFileName(), "Internet_Client");
    ASSERT_EQ(m_page.Export(m_dir.File("out.xml")), 1);
    ZoneRecord back = EmptyZone();
    ASSERT_EQ(ImportZone(back, m_dir.File("out.xml")), 0);
    EXPECT_EQ(Bytes(&back, 704), Bytes(FindZone("Internet Client"), 704));
    m_page.Select(-1);
    EXPECT_EQ(m_page.ExportFileName(), "");
    EXPECT_EQ(m_page.Export(m_dir.File("none.xml")), 0);
}

}  // namespace
}  // namespace qbrix::policy
