// The reference driver served on the temporary data root's device socket from a thread of the
// test, with g_hDriver open on it. Connections are injected through the driver's control
// socket, so the driver is only ever touched by its own thread.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "DriverServer.h"
#include "ReferenceDriver.h"
#include "driver/DriverControl.h"
#include "driver/DriverErrors.h"

namespace qbrix::test {

class InProcessDriver {
  public:
    explicit InProcessDriver(std::string dataRoot) : m_server(m_driver, dataRoot) {
        m_dataRoot = std::move(dataRoot);
        std::string error;
        m_open = m_server.Open(&error) == 0;
        EXPECT_TRUE(m_open) << error;
        if (m_open) {
            m_thread = std::thread([this] { m_server.Run(); });
            EXPECT_EQ(0, driver::OpenDriverDevice(1));
        }
    }
    ~InProcessDriver() {
        driver::ResetDriverLink();
        driver::ResetDriverErrors();
        if (m_open) {
            m_server.Stop();
            m_thread.join();
        }
    }
    InProcessDriver(const InProcessDriver&) = delete;
    InProcessDriver& operator=(const InProcessDriver&) = delete;

    // Makes an application known with a zone that lets everything pass, so its traffic counts.
    void AddApp(const std::string& image, const std::string& path) {
        driver::AppRecord record{};
        driver::SetFieldText(record.imageName, image);
        driver::SetFieldText(record.path, path);
        driver::SetFieldText(record.zone.name, "EnableAll");
        ASSERT_EQ(0, driver::SetAppRecord(driver::g_hDriver, record));
    }
    // "connect ..." words as in a scenario; returns the driver's answer.
    std::string Connect(const std::string& words) {
        std::string answer;
        EXPECT_EQ(0, refdriver::SendControlCommand(m_dataRoot, "connect " + words, &answer))
            << answer;
        return answer;
    }

  private:
    refdriver::ReferenceDriver m_driver;
    refdriver::DriverServer m_server;
    std::string m_dataRoot;
    std::thread m_thread;
    bool m_open = false;
};

}  // namespace qbrix::test
