// Helpers shared by the events tests: sending to the content mailslot as the provider does and
// waiting for the reader thread to queue what was sent.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "events/ContentEvent.h"
#include "events/ContentEventQueue.h"
#include "platform/Kernel.h"
#include "platform/Mailslot.h"

namespace qbrix::events::testing {

inline ContentEvent MakeEvent(std::int32_t type, const std::string& address,
                              const std::string& name, const std::string& quarantine = "") {
    ContentEvent event;
    std::memset(&event, 0, sizeof(event));
    event.type = type;
    std::memcpy(event.address, address.data(), std::min(address.size(), sizeof(event.address)));
    std::memcpy(event.name, name.data(), std::min(name.size(), sizeof(event.name)));
    std::memcpy(event.quarantine, quarantine.data(),
                std::min(quarantine.size(), sizeof(event.quarantine)));
    return event;
}

// Sends one message; false when there is no mailslot to send to.
inline bool SendRaw(const void* data, std::size_t size) {
    platform::HANDLE writer = platform::OpenMailslotWriter(kContentMailslotName);
    if (writer == platform::INVALID_HANDLE_VALUE) {
        return false;
    }
    platform::DWORD written = 0;
    bool ok = platform::WriteMailslot(writer, data, static_cast<platform::DWORD>(size), &written) &&
              written == size;
    platform::CloseHandle(writer);
    return ok;
}

inline bool Send(const ContentEvent& event) {
    return SendRaw(&event, sizeof(event));
}

// Waits until the process's queue holds `count` events (false after `timeoutMs`).
inline bool WaitQueued(std::size_t count, int timeoutMs = 5000) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (g_contentEvents.QueuedCount() < count) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// Compares long file contents by length and first difference (a textual diff of a megabyte of
// lines is too large to print).
inline ::testing::AssertionResult SameBytes(const std::string& expected,
                                            const std::string& actual) {
    if (expected == actual) {
        return ::testing::AssertionSuccess();
    }
    std::size_t at = 0;
    while (at < expected.size() && at < actual.size() && expected[at] == actual[at]) {
        ++at;
    }
    return ::testing::AssertionFailure()
           << "expected " << expected.size() << " bytes, got " << actual.size()
           << ", first difference at " << at << ": expected \"" << expected.substr(at, 40)
           << "\", got \"" << actual.substr(at, 40) << "\"";
}

}  // namespace qbrix::events::testing
