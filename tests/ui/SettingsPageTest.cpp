// The Settings page, offscreen: first-run defaults, the numeric size fields, saving, the default
// zone and Browse.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QImage>
#include <QLineEdit>
#include <QPushButton>
#include <QTest>
#include <vector>

#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Platform.h"
#include "support/TempPlatform.h"
#include "ui/BitmapCheckBox.h"
#include "ui/Icons.h"
#include "ui/SettingsPage.h"

namespace qbrix::ui {
namespace {

using namespace qbrix::platform;

class SettingsPageTest : public ::testing::Test {
  protected:
    std::vector<std::string> ValueNames(const char* suffix, const char* root) {
        core::RegistryKey key(suffix, root);
        std::vector<std::string> names;
        key.ListValueNames(names);
        return names;
    }
    std::unique_ptr<SettingsPage> MakePage() {
        DefaultZoneBinding zones;
        zones.fill = [this](QComboBox* list) {
            ++m_fills;
            list->clear();
            list->addItems({"Trusted", "Internet"});
        };
        zones.applySelection = [this](QComboBox* list) {
            m_applied.push_back(list->currentText().toStdString());
        };
        return std::make_unique<SettingsPage>(
            zones, [this](const std::string& engine) { m_selfTests.push_back(engine); });
    }
    template <typename T>
    T* Find(SettingsPage& page, const char* id) {
        T* widget = page.findChild<T*>(id);
        EXPECT_NE(nullptr, widget) << id;
        return widget;
    }

    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
    int m_fills = 0;
    std::vector<std::string> m_selfTests;
    std::vector<std::string> m_applied;
};

TEST_F(SettingsPageTest, FirstOpeningWritesEveryDefault) {
    auto page = MakePage();
    EXPECT_EQ((std::vector<std::string>{"FileName", "FileSize", "UseLog"}),
              ValueNames(core::kFwLogSuffix, core::kGuiRootPath));
    EXPECT_EQ((std::vector<std::string>{"UseLog", "FileSize", "FileName"}),
              ValueNames(core::kLspLogSuffix, core::kGuiRootPath));
    core::RegistryKey fw(core::kFwLogSuffix, core::kGuiRootPath);
    EXPECT_EQ(m_platform.ProgramDirectory() + "firewall.log", fw.GetString("FileName", "x"));
    EXPECT_EQ(1u, fw.GetDword("FileSize", 9));
    EXPECT_EQ(1u, fw.GetDword("UseLog", 9));
    core::RegistryKey av(core::kAvSuffix, core::kLspRootPath);
    EXPECT_EQ(m_platform.ProgramDirectory() + "quarantine", av.GetString("Quarantine", "x"));
    EXPECT_EQ("", av.GetString("AVName", "x"));
    EXPECT_EQ("Disabled", Find<QComboBox>(*page, "266")->currentText().toStdString());
    EXPECT_FALSE(page->HasUnsavedChanges());
}

// The two "Write Log File" boxes draw their box from the bitmaps 119 (not ticked), 120 (ticked)
// and 121 (held down), and what they show on screen follows.
TEST_F(SettingsPageTest, LogBoxesAreBitmapCheckBoxes) {
    auto page = MakePage();
    page->resize(600, 500);
    for (const char* id : {"205", "206"}) {
        auto* box = Find<BitmapCheckBox>(*page, id);
        ASSERT_NE(nullptr, box);
        box->setChecked(false);
        EXPECT_EQ(119, box->CurrentBitmap());
        QImage unticked = box->grab().toImage();
        box->setDown(true);
        EXPECT_EQ(121, box->CurrentBitmap());
        box->setDown(false);
        box->setChecked(true);
        EXPECT_EQ(120, box->CurrentBitmap());
        QImage ticked = box->grab().toImage();
        EXPECT_NE(unticked, ticked) << id;
        // The ticked box shows the settings set's blue tick somewhere.
        bool blue = false;
        for (int y = 0; y < ticked.height() && !blue; ++y) {
            for (int x = 0; x < 24 && x < ticked.width() && !blue; ++x) {
                QColor pixel = ticked.pixelColor(x, y);
                blue = pixel.blue() > 150 && pixel.red() < 120;
            }
        }
        EXPECT_TRUE(blue) << id;
    }
    EXPECT_TRUE(CheckBoxBitmap(122).isNull());
    EXPECT_EQ(QSize(13, 13), CheckBoxBitmap(116).size());
}

TEST_F(SettingsPageTest, SizeFieldsKeepANumberFromOneToAHundred) {
    auto page = MakePage();
    auto* size = Find<QLineEdit>(*page, "208");
    size->setFocus();
    size->selectAll();
    QTest::keyClicks(size, "42");
    EXPECT_EQ("42", size->text().toStdString());
    EXPECT_TRUE(m_messages.beeps.empty());
    QTest::keyClicks(size, "0");  // 420
    EXPECT_EQ("42", size->text().toStdString());
    QTest::keyClicks(size, "x");
    EXPECT_EQ("42", size->text().toStdString());
    size->selectAll();
    QTest::keyClick(size, Qt::Key_Backspace);  // empty
    EXPECT_EQ("42", size->text().toStdString());
    EXPECT_EQ(3u, m_messages.beeps.size());
    QTest::mouseClick(page->findChild<QWidget*>("207")->findChild<QWidget*>("up"), Qt::LeftButton);
    EXPECT_EQ("43", size->text().toStdString());
}

// A stored FileSize outside 1 to 100 is shown as it is and saved unchanged; the bound applies
// to what the user types or steps.
class SettingsPageStoredSizeTest : public SettingsPageTest,
                                   public ::testing::WithParamInterface<unsigned> {};

TEST_P(SettingsPageStoredSizeTest, SaveKeepsAStoredSizeNobodyEdited) {
    const unsigned stored = GetParam();
    for (const char* suffix : {core::kFwLogSuffix, core::kLspLogSuffix}) {
        core::RegistryKey(suffix, core::kGuiRootPath).SetDword(core::kFileSizeValue, stored);
    }
    auto page = MakePage();
    EXPECT_EQ(QString::number(stored), Find<QLineEdit>(*page, "208")->text());
    EXPECT_EQ(QString::number(stored), Find<QLineEdit>(*page, "212")->text());
    Find<QPushButton>(*page, "216")->click();
    for (const char* suffix : {core::kFwLogSuffix, core::kLspLogSuffix}) {
        EXPECT_EQ(stored,
                  core::RegistryKey(suffix, core::kGuiRootPath).GetDword(core::kFileSizeValue, 9))
            << suffix;
    }
    EXPECT_TRUE(m_messages.beeps.empty());
}

INSTANTIATE_TEST_SUITE_P(OutOfRange, SettingsPageStoredSizeTest,
                         ::testing::Values(0u, 42u, 101u, 3000000000u));

TEST_F(SettingsPageTest, SaveStoresTheFieldsInTheirOrder) {
    auto page = MakePage();
    Find<QComboBox>(*page, "266")->setCurrentText("Unasoft");
    Find<QCheckBox>(*page, "206")->setChecked(false);
    Find<QLineEdit>(*page, "217")->setText("/srv/quarantine");
    Find<QPushButton>(*page, "216")->click();
    core::RegistryKey av(core::kAvSuffix, core::kLspRootPath);
    EXPECT_EQ("Unasoft", av.GetString("AVName", "x"));
    EXPECT_EQ("/srv/quarantine", av.GetString("Quarantine", "x"));
    EXPECT_EQ(0u, core::RegistryKey(core::kLspLogSuffix, core::kGuiRootPath).GetDword("UseLog", 9));
    EXPECT_FALSE(page->HasUnsavedChanges());
    // A stored name selects the entry that begins with it, whatever its case.
    av.SetString("AVName", "sophos");
    page->SaveOrDiscard(false);
    EXPECT_EQ("Sophos", Find<QComboBox>(*page, "266")->currentText().toStdString());
    // ClamAV, chosen outside the page, is shown after the four and kept by a save.
    av.SetString("AVName", "ClamAV");
    page->SaveOrDiscard(false);
    EXPECT_EQ("ClamAV", Find<QComboBox>(*page, "266")->currentText().toStdString());
    EXPECT_EQ(5, Find<QComboBox>(*page, "266")->count());
    Find<QPushButton>(*page, "216")->click();
    EXPECT_EQ("ClamAV", av.GetString("AVName", "x"));
}

TEST_F(SettingsPageTest, ChoosingADefaultZoneAppliesAtOnceAndMarksModified) {
    auto page = MakePage();
    auto* zones = Find<QComboBox>(*page, "274");
    EXPECT_EQ(1, m_fills);
    zones->setCurrentIndex(1);
    emit zones->activated(1);
    EXPECT_EQ(std::vector<std::string>{"Internet"}, m_applied);
    EXPECT_TRUE(page->HasUnsavedChanges());
    Find<QComboBox>(*page, "266")->setCurrentText("NOD32");  // chosen, not saved
    Find<QPushButton>(*page, "301")->click();
    EXPECT_EQ(std::vector<std::string>{"NOD32"}, m_selfTests);
}

TEST_F(SettingsPageTest, BrowseMarksModifiedAndDiscardReloads) {
    auto page = MakePage();
    auto* path = Find<QLineEdit>(*page, "209");
    std::string stored = path->text().toStdString();
    Find<QPushButton>(*page, "210")->click();  // cancelled: nothing changes
    EXPECT_FALSE(page->HasUnsavedChanges());
    m_messages.QueueFileAnswer("/var/log/fw.log");
    Find<QPushButton>(*page, "210")->click();
    EXPECT_EQ("/var/log/fw.log", path->text().toStdString());
    EXPECT_TRUE(page->HasUnsavedChanges());
    page->SaveOrDiscard(false);
    EXPECT_EQ(stored, path->text().toStdString());
    EXPECT_FALSE(page->HasUnsavedChanges());
}

}  // namespace
}  // namespace qbrix::ui
