// A scripted driver on the device socket, for tests of the device service and the request
// wrappers: each request frame is answered with whatever the script returns, well-formed or not.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/DeviceFrames.h"
#include "platform/WinTypes.h"

namespace qbrix::test {

class FakeDriverPeer {
  public:
    struct Request {
        platform::RequestHeader header;
        std::string input;
    };
    // Raw bytes to send back; an empty text sends nothing (a silent driver); nullopt closes the
    // connection.
    using Script = std::function<std::optional<std::string>(const Request&)>;

    FakeDriverPeer(std::string socketPath, Script script);
    ~FakeDriverPeer();
    FakeDriverPeer(const FakeDriverPeer&) = delete;
    FakeDriverPeer& operator=(const FakeDriverPeer&) = delete;

    // A well-formed reply frame.
    static std::string Reply(bool success, platform::DWORD error, platform::DWORD bytes,
                             const std::string& output = {});

    std::vector<Request> Requests();

  private:
    void Serve();

    std::string m_path;
    Script m_script;
    int m_listener = -1;
    int m_stop[2] = {-1, -1};
    std::mutex m_lock;
    std::vector<Request> m_requests;
    std::thread m_thread;
};

}  // namespace qbrix::test
