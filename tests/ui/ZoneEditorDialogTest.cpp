// The "Zone Editor" dialog and the zone selectors on screen, offscreen: what the fields show and
// enable, what a user's edits store and report, and selectors that send to a recording driver.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QClipboard>
#include <QComboBox>
#include <QGuiApplication>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QTest>

#include "PolicyTestSupport.h"
#include "UiTestSupport.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "ui/IpAddressEdit.h"
#include "ui/ZoneEditorDialog.h"
#include "ui/ZoneSelector.h"

namespace qbrix::ui {
namespace {

using namespace policy::test_support;
using test_support::Child;
using test_support::ScriptedPresenter;

class ZoneEditorDialogTest : public ::testing::Test {
  protected:
    ZoneEditorDialogTest() {
        policy::ZoneRule mail = Rule("Mail", 1, 0x0A000001, 25);
        mail.mask = 0xFFFFFF00;
        mail.protocol = 1;
        mail.direction = 2;
        mail.localPort = 1025;
        m_zone = Zone("Office", {mail, Rule("Web", 0)}, 1);
    }
    int Edit(ScriptedPresenter::Script script, const char* fixedName = nullptr) {
        ScriptedPresenter presenter(std::move(script));
        QtZoneEditorLauncher launcher;
        return launcher.Edit(m_zone, "Rule ", nullptr, fixedName);
    }

    ::qbrix::test::TempPlatform m_platform;
    ::qbrix::test::ScriptedMessages m_messages;
    CleanPolicyState m_state;
    policy::ZoneRecord m_zone{};
};

TEST_F(ZoneEditorDialogTest, OpeningShowsTheFirstRuleAndItsEnableRules) {
    ZoneEditorDialog dialog(m_zone, "Rule ", nullptr);
    EXPECT_EQ(Child<QLineEdit>(dialog, "ZoneName")->text(), "Office");
    EXPECT_EQ(Child<QComboBox>(dialog, "ZoneResult")->currentText(), "Disable");
    auto* rules = Child<QListWidget>(dialog, "RuleList");
    ASSERT_EQ(rules->count(), 2);
    EXPECT_EQ(rules->currentRow(), 0);
    EXPECT_EQ(Child<QLineEdit>(dialog, "RuleName")->text(), "Mail");
    EXPECT_TRUE(Child<QCheckBox>(dialog, "PortCheck")->isChecked());
    EXPECT_EQ(Child<QLineEdit>(dialog, "Port")->text(), "25");
    EXPECT_EQ(Child<IpAddressEdit>(dialog, "Address")->Text(), "10.0.0.1");
    EXPECT_EQ(Child<IpAddressEdit>(dialog, "Mask")->Text(), "255.255.255.0");
    EXPECT_EQ(Child<QComboBox>(dialog, "Protocol")->currentText(), "TCP");
    EXPECT_EQ(Child<QComboBox>(dialog, "Direction")->currentText(), "Outgoing");
    EXPECT_TRUE(Child<QLineEdit>(dialog, "Port")->isEnabled());

    // The switched-off second rule: only its "Name" box accepts input.
    rules->setCurrentRow(1);
    EXPECT_EQ(Child<QLineEdit>(dialog, "RuleName")->text(), "Web");
    EXPECT_FALSE(Child<QCheckBox>(dialog, "NameCheck")->isChecked());
    EXPECT_FALSE(Child<QLineEdit>(dialog, "RuleName")->isEnabled());
    EXPECT_FALSE(Child<QCheckBox>(dialog, "PortCheck")->isEnabled());
    EXPECT_FALSE(Child<QComboBox>(dialog, "Result")->isEnabled());
    Child<QCheckBox>(dialog, "NameCheck")->click();
    EXPECT_TRUE(Child<QLineEdit>(dialog, "RuleName")->isEnabled());
    EXPECT_TRUE(Child<QCheckBox>(dialog, "PortCheck")->isEnabled());
    EXPECT_FALSE(Child<QLineEdit>(dialog, "Port")->isEnabled());
    dialog.Finish();
}

TEST_F(ZoneEditorDialogTest, ClearingPortAndUpdatingKeepsTheLocalPortAndReportsAChange) {
    int changed = Edit([](QDialog& dialog) {
        Child<QCheckBox>(dialog, "PortCheck")->click();
        Child<QPushButton>(dialog, "Update")->click();
        return int(QDialog::Accepted);
    });
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(m_zone.rules[0].remotePort, 0);
    EXPECT_EQ(m_zone.rules[0].localPort, 1025);
    EXPECT_EQ(m_zone.rules[0].address, 0x0A000001u);
}

TEST_F(ZoneEditorDialogTest, TypingOnlyStoresButReportsNoChange) {
    int changed = Edit([](QDialog& dialog) {
        auto* name = Child<QLineEdit>(dialog, "RuleName");
        name->selectAll();
        QTest::keyClicks(name, "ABCDEFGHIJKLMNOPQRST");
        auto* zoneName = Child<QLineEdit>(dialog, "ZoneName");
        zoneName->selectAll();
        QTest::keyClicks(zoneName, "Branch office");
        Child<QPushButton>(dialog, "Update")->click();
        return int(QDialog::Rejected);
    });
    EXPECT_EQ(changed, 0);
    EXPECT_EQ(std::string(driver::FieldText(m_zone.rules[0].name)), "ABCDEFGHIJKLMNO");
    EXPECT_EQ(policy::ZoneName(m_zone), "Branch office");
}

TEST_F(ZoneEditorDialogTest, InsertDeleteAndF3OnTheRuleList) {
    policy::g_newRuleCounter = 3;
    m_messages.QueueBoxAnswer(core::IDYES);
    int changed = Edit([](QDialog& dialog) {
        auto* rules = Child<QListWidget>(dialog, "RuleList");
        QTest::keyClick(rules, Qt::Key_Insert);
        EXPECT_EQ(rules->count(), 3);
        EXPECT_EQ(rules->currentItem()->text(), "Rule  4");
        EXPECT_FALSE(Child<QCheckBox>(dialog, "NameCheck")->isChecked());
        QTest::keyClick(rules, Qt::Key_F3);
        EXPECT_TRUE(Child<QCheckBox>(dialog, "NameCheck")->isChecked());
        rules->setCurrentRow(2);
        QTest::keyClick(rules, Qt::Key_Delete);  // "Web" goes
        EXPECT_EQ(rules->count(), 2);
        return int(QDialog::Accepted);
    });
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(m_messages.shown.at(0).text, "Delete Rule?");
    EXPECT_EQ(std::string(driver::FieldText(m_zone.rules[0].name)), "Rule  4");
    EXPECT_EQ(m_zone.rules[0].enabled, 1);
    EXPECT_EQ(std::string(driver::FieldText(m_zone.rules[1].name)), "Mail");
    EXPECT_EQ(m_zone.rules[2].name[0], '\0');
}

TEST_F(ZoneEditorDialogTest, AFixedNameLocksTheZoneResult) {
    ZoneEditorDialog dialog(m_zone, "Rule ", "Repeated rules group corrector");
    EXPECT_EQ(Child<QLineEdit>(dialog, "ZoneName")->text(), "Repeated rules group corrector");
    EXPECT_FALSE(Child<QComboBox>(dialog, "ZoneResult")->isEnabled());
    dialog.Finish();
}

TEST_F(ZoneEditorDialogTest, AddressByNameFillsOnlyTheAddressField) {
    ZoneEditorDialog dialog(m_zone, "Rule ", nullptr);
    Child<QLineEdit>(dialog, "Host")->setText("localhost");
    Child<QPushButton>(dialog, "AddressByName")->click();
    EXPECT_EQ(Child<IpAddressEdit>(dialog, "Address")->Text(), "127.0.0.1");
    Child<QLineEdit>(dialog, "Host")->setText("no-such-host.invalid");
    Child<QPushButton>(dialog, "AddressByName")->click();
    EXPECT_EQ(m_messages.shown.back().text, "Cannot find address");
    EXPECT_EQ(Child<IpAddressEdit>(dialog, "Address")->Text(), "127.0.0.1");
    dialog.Finish();
}

TEST_F(ZoneEditorDialogTest, AZoneNameOf259CharactersSurvivesAndLongerInputIsCut) {
    const std::string longest(259, 'z');
    driver::SetFieldText(m_zone.name, longest);
    EXPECT_EQ(Edit({}), 0);
    EXPECT_EQ(policy::ZoneName(m_zone), longest);
    Edit([](QDialog& dialog) {
        auto* name = Child<QLineEdit>(dialog, "ZoneName");
        name->clear();
        QTest::keyClicks(name, QString(300, 'y'));
        return int(QDialog::Accepted);
    });
    EXPECT_EQ(policy::ZoneName(m_zone), std::string(259, 'y'));
}

// The address and the mask are four fields of 0 to 255. A key that does not fit is refused
// with a beep; an incomplete address is refused by Update and Close with a beep and stays in
// its field, and the rule keeps its stored address until the user completes it.
TEST_F(ZoneEditorDialogTest, AddressFieldsTakeFourNumbersAndRefuseAnIncompleteAddress) {
    int changed = Edit([this](QDialog& dialog) {
        auto* address = Child<IpAddressEdit>(dialog, "Address");
        QLineEdit* last = address->Field(3);
        last->selectAll();
        QTest::keyClicks(last, "25");
        QTest::keyClicks(last, "6");  // 256
        QTest::keyClicks(last, "x");
        EXPECT_EQ(address->Text(), "10.0.0.25");
        EXPECT_EQ(m_messages.beeps.size(), 2u);
        last->selectAll();
        QTest::keyClick(last, Qt::Key_Backspace);
        EXPECT_EQ(address->Text(), "10.0.0.");
        EXPECT_FALSE(address->IsComplete());

        Child<QPushButton>(dialog, "Update")->click();
        EXPECT_EQ(m_messages.beeps.size(), 3u);
        EXPECT_EQ(m_zone.rules[0].address, 0x0A000001u);
        dialog.reject();  // Escape: refused as well, the dialog stays open
        EXPECT_EQ(m_messages.beeps.size(), 4u);
        EXPECT_EQ(address->Text(), "10.0.0.");
        EXPECT_FALSE(static_cast<ZoneEditorDialog&>(dialog).Finished());

        QTest::keyClicks(last, "7");
        Child<QPushButton>(dialog, "Update")->click();
        EXPECT_EQ(m_messages.beeps.size(), 4u);
        // An incomplete mask is refused the same way.
        auto* mask = Child<IpAddressEdit>(dialog, "Mask");
        mask->Field(1)->selectAll();
        QTest::keyClick(mask->Field(1), Qt::Key_Backspace);
        Child<QPushButton>(dialog, "Update")->click();
        EXPECT_EQ(m_messages.beeps.size(), 5u);
        QTest::keyClicks(mask->Field(1), "255");
        // A dotted address pasted into a field fills the fields from there on.
        address->Field(0)->selectAll();
        QGuiApplication::clipboard()->setText("192.168.1.20");
        address->Field(0)->paste();
        EXPECT_EQ(address->Text(), "192.168.1.20");
        return int(QDialog::Accepted);
    });
    EXPECT_EQ(changed, 0);
    EXPECT_EQ(m_zone.rules[0].address, 0xC0A80114u);
    EXPECT_EQ(m_zone.rules[0].mask, 0xFFFFFF00u);
    EXPECT_EQ(m_messages.beeps.size(), 5u);
}

// A window closed regardless (the presenter's or the session's end) keeps the stored address
// of a rule whose address was left incomplete.
TEST_F(ZoneEditorDialogTest, AClosingForcedOnAnIncompleteAddressKeepsTheStoredOne) {
    ZoneEditorDialog dialog(m_zone, "Rule ", nullptr);
    auto* address = Child<IpAddressEdit>(dialog, "Address");
    address->Field(2)->selectAll();
    QTest::keyClick(address->Field(2), Qt::Key_Backspace);
    dialog.Finish();
    EXPECT_EQ(m_zone.rules[0].address, 0x0A000001u);
    EXPECT_EQ(m_zone.rules[0].mask, 0xFFFFFF00u);
}

class ZoneSelectorTest : public ::testing::Test {
  protected:
    ZoneSelectorTest() {
        policy::g_zones.Append(Zone("Internet Client", {Rule("Local Enable")}, 1));
        policy::g_zones.Append(Zone("DisableAll", {}, 1));
    }
    std::string Stored(const char* name) {
        core::RegistryKey key("", core::kGuiRootPath);
        return key.GetString(name, "<none>");
    }
    ::qbrix::test::TempPlatform m_platform;
    ::qbrix::test::ScriptedMessages m_messages;
    CleanPolicyState m_state;
};

TEST_F(ZoneSelectorTest, OverrideSendsEachChoiceAtOnceAndTheEmptyItemClearsIt) {
    RecordingDriver driver;
    core::RegistryKey("", core::kGuiRootPath).SetString("OvrZone", "disableall");
    QComboBox box;
    BindOverrideSelector(&box);
    ASSERT_EQ(box.count(), 3);
    EXPECT_EQ(box.itemText(0), "");
    EXPECT_EQ(box.currentIndex(), 2);  // the stored choice, found ignoring case
    EXPECT_TRUE(driver.zones.empty());

    box.setCurrentIndex(1);
    emit box.activated(1);
    ASSERT_EQ(driver.zones.size(), 1u);
    EXPECT_EQ(policy::ZoneName(driver.zones[0]), "Internet Client");
    EXPECT_EQ(Stored("OvrZone"), "Internet Client");

    box.setCurrentIndex(0);
    emit box.activated(0);
    ASSERT_EQ(driver.zones.size(), 2u);
    policy::ZoneRecord zero = policy::EmptyZone();
    EXPECT_EQ(Bytes(&driver.zones[1], sizeof zero), Bytes(&zero, sizeof zero));
    EXPECT_EQ(Stored("OvrZone"), "");
}

TEST_F(ZoneSelectorTest, DefaultZoneBindingFillsFromTheStoreAndApplies) {
    RecordingDriver driver;
    core::RegistryKey("", core::kGuiRootPath).SetString("DefZone", "Internet Client");
    DefaultZoneBinding binding = MakeDefaultZoneBinding();
    QComboBox box;
    binding.fill(&box);
    ASSERT_EQ(box.count(), 2);
    EXPECT_EQ(box.currentText(), "Internet Client");
    box.setCurrentIndex(1);
    binding.applySelection(&box);
    ASSERT_EQ(driver.zones.size(), 1u);
    EXPECT_EQ(policy::ZoneName(driver.zones[0]), "DisableAll");
    EXPECT_EQ(Stored("DefZone"), "DisableAll");
}

}  // namespace
}  // namespace qbrix::ui
