// The "Internet Log" page, offscreen, filled by the real activity poll from a scripted driver:
// the columns, the row icons, rows at the top and the row limit.
#include <gtest/gtest.h>

#include <QTreeWidget>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>

#include "core/Messages.h"
#include "driver/DriverControl.h"
#include "events/LogSettings.h"
#include "events/PollActivity.h"
#include "platform/Device.h"
#include "support/FakeDriverPeer.h"
#include "support/TempPlatform.h"
#include "ui/InternetLogPage.h"
#include "ui/LogList.h"

namespace qbrix::ui {
namespace {

using test::FakeDriverPeer;

driver::ActivityRecord MakeRecord(const std::string& application, const std::string& rule,
                                  std::uint32_t address, std::uint32_t direction,
                                  std::uint32_t result) {
    driver::ActivityRecord record{};
    driver::SetFieldText(record.application, application);
    driver::SetFieldText(record.connection.name, rule);
    record.connection.address = address;
    record.connection.remotePort = 80;
    record.connection.protocol = 1;
    record.connection.direction = direction;
    record.connection.result = result;
    return record;
}

class InternetLogPageTest : public ::testing::Test {
  protected:
    InternetLogPageTest() {
        events::ResetActivityPollFlag();
        driver::ResetDriverLink();
        platform::SetDeviceReplyTimeoutMs(500);
    }
    ~InternetLogPageTest() override {
        m_peer.reset();
        driver::ResetDriverLink();
        events::ResetActivityPollFlag();
        platform::SetDeviceReplyTimeoutMs(2000);
    }
    // A driver that answers the first activity read with `records`, then with nothing.
    void Serve(const std::vector<driver::ActivityRecord>& records) {
        auto pending =
            std::make_shared<std::string>(reinterpret_cast<const char*>(records.data()),
                                          records.size() * sizeof(driver::ActivityRecord));
        m_peer = std::make_unique<FakeDriverPeer>(
            platform::DeviceSocketPath(),
            [pending](const FakeDriverPeer::Request& request) -> std::optional<std::string> {
                if (request.header.code != driver::IOCTL_READ_ACTIVITY_EVENTS || pending->empty()) {
                    return FakeDriverPeer::Reply(true, 0, 0);
                }
                std::string batch = std::move(*pending);
                pending->clear();
                return FakeDriverPeer::Reply(true, 0, static_cast<platform::DWORD>(batch.size()),
                                             batch);
            });
        ASSERT_EQ(0, driver::OpenDriverDevice(1));
    }
    QString Text(int row, int column) const {
        return m_page.List()->topLevelItem(row)->text(column);
    }
    int Icon(int row) const {
        return m_page.List()->topLevelItem(row)->data(0, InternetLogPage::kIconRole).toInt();
    }

    test::TempPlatform m_platform;
    test::ScriptedMessages m_messages;
    std::unique_ptr<FakeDriverPeer> m_peer;
    InternetLogPage m_page;
};

TEST_F(InternetLogPageTest, ColumnsComeFromTheStringTable) {
    QTreeWidgetItem* header = m_page.List()->headerItem();
    ASSERT_EQ(m_page.List()->columnCount(), 5);
    EXPECT_EQ(header->text(0), "Activity of Applications");
    EXPECT_EQ(header->text(1), "Zone / Rule");
    EXPECT_EQ(header->text(2), "Address");
    EXPECT_EQ(header->text(3), "Date");
    EXPECT_EQ(header->text(4), "Time");
    EXPECT_EQ(m_page.List()->columnWidth(0), 150);
    EXPECT_EQ(m_page.List()->columnWidth(4), 80);
    EXPECT_EQ(m_page.Caption(), "Internet Log");
}

TEST_F(InternetLogPageTest, DecisionsGoOnTopWithTheirIcons) {
    Serve({MakeRecord("/usr/bin/browser", "Web", 0x5DB8D822, 2, 0),
           MakeRecord("/usr/sbin/ftpd", "Block", 0, 1, 1)});
    events::PollActivity(m_page).Run();
    ASSERT_EQ(m_page.RowCount(), 2);
    EXPECT_EQ(Text(0, 0), "/usr/sbin/ftpd");
    EXPECT_EQ(Text(0, 2), "");  // address 0 shows nothing
    EXPECT_EQ(Icon(0), 0);      // incoming, rejected
    EXPECT_EQ(Text(1, 1), "Web");
    EXPECT_EQ(Text(1, 2), "TCP 93.184.216.34:80");
    EXPECT_EQ(Icon(1), 3);  // outgoing, approved
    EXPECT_FALSE(m_page.List()->topLevelItem(1)->icon(0).isNull());
    EXPECT_TRUE(m_page.List()->updatesEnabled());
}

TEST_F(InternetLogPageTest, TheRowAfterTheLimitPushesOutTheOldest) {
    for (int i = 0; i < 1001; ++i) {
        events::ActivityRow row;
        row.application = "old " + std::to_string(i);
        m_page.InsertTopRow(row);
    }
    Serve({MakeRecord("/usr/bin/newest", "Web", 0x01020304, 2, 0)});
    events::PollActivity(m_page).Run();
    ASSERT_EQ(m_page.RowCount(), 1001);
    EXPECT_EQ(Text(0, 0), "/usr/bin/newest");
    EXPECT_EQ(Text(1000, 0), "old 1");
}

TEST_F(InternetLogPageTest, DeleteAsksThenEmptiesTheLogFileAndTheList) {
    events::ActivityRow row;
    row.application = "/usr/bin/browser";
    m_page.InsertTopRow(row);
    const std::string file = events::ReadInternetLogSettings().fileName;
    std::ofstream(file) << "line\r\n";
    m_messages.QueueBoxAnswer(core::IDNO);
    m_page.DeleteLog();
    ASSERT_EQ(m_messages.shown.size(), 1u);
    EXPECT_EQ(m_messages.shown[0].text, "Are You sure to delete log?");
    EXPECT_EQ(m_messages.shown[0].caption, "Deleting Log");
    EXPECT_EQ(m_page.RowCount(), 1);
    EXPECT_EQ(std::filesystem::file_size(file), 6u);

    m_page.DeleteLog();  // Yes
    EXPECT_EQ(m_page.RowCount(), 0);
    EXPECT_EQ(std::filesystem::file_size(file), 0u);

    // A log that cannot be written keeps its rows.
    m_page.InsertTopRow(row);
    const std::string directory = file + ".d";
    std::filesystem::create_directory(directory);
    DeleteLog(m_page.List(), directory);
    ASSERT_EQ(m_messages.shown.size(), 4u);
    EXPECT_EQ(m_messages.shown[3].text, "Cannot write log");
    EXPECT_EQ(m_messages.shown[3].caption, "Error");
    EXPECT_EQ(m_page.RowCount(), 1);
}

}  // namespace
}  // namespace qbrix::ui
