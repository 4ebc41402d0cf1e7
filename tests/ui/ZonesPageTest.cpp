// The "Zones" page, offscreen: the rows, the keys and commands, the exchange files through the
// file dialogs, the deliberate modified-flag rules, the page save check, the first-run wizard and
// names outside ASCII through the page, the editor and the selectors.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QKeyEvent>
#include <QLineEdit>
#include <QPushButton>
#include <QTest>
#include <QTreeWidget>
#include <algorithm>
#include <fstream>

#include "PolicyTestSupport.h"
#include "UiTestSupport.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "ui/DialogSetup.h"
#include "ui/QtMessages.h"
#include "ui/ZoneSelector.h"
#include "ui/ZonesPage.h"

namespace qbrix::ui {
namespace {

using namespace policy::test_support;
using test_support::Child;
using test_support::ScriptedPresenter;

QStringList RowTexts(ZonesPage& page) {
    QStringList texts;
    for (int i = 0; i < page.List()->topLevelItemCount(); ++i) {
        texts << page.List()->topLevelItem(i)->text(0);
    }
    return texts;
}

std::vector<std::string> StoredZones() {
    core::RegistryKey key(core::kZoneListSuffix, core::kGuiRootPath);
    std::vector<std::string> names;
    key.ListValueNames(names);
    std::sort(names.begin(), names.end());
    return names;
}

class ZonesPageTest : public ::testing::Test {
  protected:
    void SelectRow(ZonesPage& page, const QString& text) {
        auto found = page.List()->findItems(text, Qt::MatchExactly);
        ASSERT_EQ(found.size(), 1) << text.toStdString();
        page.List()->setCurrentItem(found[0]);
    }

    ::qbrix::test::TempPlatform m_platform;
    ::qbrix::test::ScriptedMessages m_messages;
    CleanPolicyState m_state;
    FixedInterfaces m_interfaces;  // no LAN: the store starts with the seven presets
    DialogSetup m_dialogs{false};
    ScriptedPresenter m_presenter;
};

TEST_F(ZonesPageTest, AnEmptyStoreWithoutALanShowsThePresetsWithoutAskingAnything) {
    ZonesPage page;
    EXPECT_EQ(RowTexts(page).size(), 7);
    EXPECT_TRUE(RowTexts(page).contains("Internet Client"));
    EXPECT_EQ(page.List()->currentItem(), page.List()->topLevelItem(0));
    EXPECT_TRUE(m_messages.shown.empty());
    EXPECT_FALSE(page.HasUnsavedChanges());
}

TEST_F(ZonesPageTest, AnEditThatOnlyTypedLeavesThePageUnmodified) {
    ZonesPage page;
    SelectRow(page, "Internet Client");
    m_presenter.SetScript([](QDialog& dialog) {
        auto* name = Child<QLineEdit>(dialog, "ZoneName");
        name->selectAll();
        QTest::keyClicks(name, "Client");
        return int(QDialog::Accepted);
    });
    QTest::keyClick(page.List(), Qt::Key_Space);
    EXPECT_EQ(m_presenter.titles, std::vector<std::string>{"Zone Editor"});
    EXPECT_TRUE(RowTexts(page).contains("Client"));  // the row follows the record's new name
    EXPECT_FALSE(page.HasUnsavedChanges());

    // A click on a check box counts as a change.
    m_presenter.SetScript([](QDialog& dialog) {
        Child<QCheckBox>(dialog, "PortCheck")->click();
        return int(QDialog::Accepted);
    });
    QTest::keyClick(page.List(), Qt::Key_Space);
    EXPECT_TRUE(page.HasUnsavedChanges());
}

TEST_F(ZonesPageTest, NewDeleteSaveAndDiscard) {
    ZonesPage page;
    QTest::keyClick(page.List(), Qt::Key_Insert);
    EXPECT_EQ(RowTexts(page).back(), "Zone 1");
    EXPECT_EQ(page.List()->currentItem()->text(0), "Zone 1");
    EXPECT_TRUE(page.HasUnsavedChanges());
    Child<QPushButton>(page, "Save")->click();
    EXPECT_FALSE(page.HasUnsavedChanges());
    EXPECT_EQ(StoredZones().size(), 8u);

    // Delete asks; No keeps the zone.
    SelectRow(page, "Zone 1");
    m_messages.QueueBoxAnswer(core::IDNO);
    QTest::keyClick(page.List(), Qt::Key_Delete);
    EXPECT_EQ(RowTexts(page).size(), 8);
    m_messages.QueueBoxAnswer(core::IDYES);
    QTest::keyClick(page.List(), Qt::Key_Delete);
    EXPECT_EQ(m_messages.shown.back().text, "Delete Zone?");
    EXPECT_EQ(RowTexts(page).size(), 7);
    EXPECT_EQ(page.List()->currentItem()->text(0), RowTexts(page).back());
    EXPECT_TRUE(page.HasUnsavedChanges());

    // Leaving with No reloads the store: the deleted zone is back.
    page.SaveOrDiscard(false);
    EXPECT_FALSE(page.HasUnsavedChanges());
    EXPECT_TRUE(RowTexts(page).contains("Zone 1"));
    EXPECT_EQ(StoredZones().size(), 8u);
}

TEST_F(ZonesPageTest, ExportAndImportThroughTheFileDialogs) {
    ::qbrix::test::TempDirectory files;
    ZonesPage page;
    SelectRow(page, "Internet Client");
    const std::string path = files.File("client.xml");
    m_messages.QueueFileAnswer(path);
    page.ExportZone();
    ASSERT_FALSE(::qbrix::test::ReadFile(path).empty());
    EXPECT_NE(::qbrix::test::ReadFile(path).find("MASTER_ZONE"), std::string::npos);

    // Importing the same zone asks about overwriting; Yes reuses the row.
    m_messages.QueueFileAnswer(path);
    m_messages.QueueBoxAnswer(core::IDYES);
    page.ImportZone();
    EXPECT_EQ(m_messages.shown.back().text, "Overwrite existing Rule?");
    EXPECT_EQ(RowTexts(page).size(), 7);
    EXPECT_EQ(page.List()->currentItem()->text(0), "Internet Client");
    EXPECT_TRUE(page.HasUnsavedChanges());

    // Cancel in the file dialog does nothing.
    page.SaveOrDiscard(true);
    m_messages.QueueFileAnswer("");
    page.ImportZone();
    EXPECT_FALSE(page.HasUnsavedChanges());
}

TEST_F(ZonesPageTest, ANameInTheCodePageSurvivesTheEditorAndTheSelectors) {
    ::qbrix::test::TempDirectory files;
    const std::string path = files.File("cafe.xml");
    std::ofstream(path, std::ios::binary)
        << "<MASTER_ZONE NAME='Caf\xC3\xA9 \xE2\x82\xAC'><ZONERULE ENABLE='1'>"
           "<NAME>R\xC3\xA9gle</NAME></ZONERULE></MASTER_ZONE>";
    const std::string name = "Caf\xE9 \x80";  // windows-1252
    ZonesPage page;
    m_messages.QueueFileAnswer(path);
    page.ImportZone();
    ASSERT_NE(policy::FindZone(name), nullptr);
    EXPECT_EQ(page.List()->currentItem()->text(0), QString::fromUtf8("Caf\xC3\xA9 \xE2\x82\xAC"));

    // Opening and closing the editor leaves the zone and its rule as they are.
    QString shownRule;
    m_presenter.SetScript([&](QDialog& dialog) {
        shownRule = Child<QLineEdit>(dialog, "RuleName")->text();
        return int(QDialog::Accepted);
    });
    QTest::keyClick(page.List(), Qt::Key_Space);
    EXPECT_EQ(shownRule, QString::fromUtf8("R\xC3\xA9gle"));
    const policy::ZoneRecord* zone = policy::FindZone(name);
    ASSERT_NE(zone, nullptr);
    EXPECT_EQ(policy::RuleName(zone->rules[0]), "R\xE9gle");

    QComboBox box;
    ComboBoxItems items(&box);
    policy::AppZoneCombo selector(items);
    selector.Fill(nullptr, name.c_str());
    policy::ZoneRecord chosen = policy::EmptyZone();
    ASSERT_EQ(selector.GetSelectedZone(chosen), 0);
    EXPECT_EQ(policy::ZoneName(chosen), name);
}

TEST_F(ZonesPageTest, TheDialogsUseTheRuleFileFilterAndTheZonesFileName) {
    ZonesPage page;
    SelectRow(page, "Disable External");
    m_messages.QueueFileAnswer("");
    page.ExportZone();
    ASSERT_FALSE(m_messages.shown.empty());
    EXPECT_EQ(m_messages.shown.back().kind, "save");
    EXPECT_EQ(m_messages.shown.back().text, "Disable_External");
    EXPECT_EQ(m_messages.shown.back().filter, "Rule Files (*.xml)|*.xml|All Files (*.*)|*.*||");
    // The dialog's labels name each pattern once.
    EXPECT_EQ(QtFilter(m_messages.shown.back().filter), "Rule Files (*.xml);;All Files (*.*)");
    EXPECT_EQ(QtFilter("Logs|*.log;*.txt|"), "Logs (*.log *.txt)");
}

TEST_F(ZonesPageTest, LanWithoutANetworkSaysSoAndChangesNothing) {
    ZonesPage page;
    Child<QPushButton>(page, "LAN")->click();
    EXPECT_EQ(m_messages.shown.back().text, "No Lan found");
    EXPECT_FALSE(page.HasUnsavedChanges());
    EXPECT_EQ(m_presenter.presented, 0);
}

TEST(ZonesPageFirstRun, TheWizardQuestionOpensTheEditorOnTheLanZone) {
    ::qbrix::test::TempPlatform platform;
    ::qbrix::test::ScriptedMessages messages;
    CleanPolicyState state;
    FixedInterfaces interfaces;
    interfaces.Add(0xC0A8010A, 0xFFFFFF00, "Realtek PCI Fast Ethernet Adapter", 2);
    DialogSetup dialogs(false);
    std::string shownRule;
    ScriptedPresenter presenter([&](QDialog& dialog) {
        shownRule = Child<QLineEdit>(dialog, "RuleName")->text().toStdString();
        return int(QDialog::Accepted);
    });
    messages.QueueBoxAnswer(core::IDYES);
    ZonesPage page;
    ASSERT_FALSE(messages.shown.empty());
    EXPECT_EQ(messages.shown[0].text, "Run Zone Wizard to configure Trusted Zone?");
    EXPECT_EQ(presenter.presented, 1);
    EXPECT_EQ(shownRule, "NET Realtek PCI");
    EXPECT_TRUE(RowTexts(page).contains("LAN Internet"));
    EXPECT_EQ(RowTexts(page).size(), 10);
}

}  // namespace
}  // namespace qbrix::ui
