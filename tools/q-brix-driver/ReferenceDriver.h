// The driver side of the control protocol, in process: application records, default and
// override zones, the filtering state, pending questions, activity records and traffic counters,
// and the zone evaluation of simulated connections. The socket server (DriverServer) and the
// tests drive it through Handle and Inject.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "Connection.h"
#include "driver/DriverRecords.h"
#include "platform/WinTypes.h"

namespace qbrix::refdriver {

struct Reply {
    bool success = false;
    platform::DWORD error = 0;
    platform::DWORD bytesTransferred = 0;
    std::string output;
};

class ReferenceDriver {
  public:
    using Clock = std::chrono::steady_clock;

    // The driver keeps any number of applications; a list request returns as many as the
    // caller's room holds (the control program gives room for 75), in the order the programs
    // first became known.
    static constexpr std::size_t kMaxQuestions = 32;
    static constexpr std::size_t kMaxActivity = 1000;

    struct Options {
        std::string versionText = "\\3.0";
        bool nineX = false;  // 9x-style time stamps in the activity records
        std::chrono::milliseconds holdTime{30000};
        // A driver that never runs dry (tests of the activity poll): every activity read is
        // answered with as many records as fit, the real decisions first, then made-up ones.
        bool flood = false;
        // Called for every decision, at once or when a held connection is released (live mode
        // gives the packets their verdicts here).
        std::function<void(const Connection&, bool approved)> onDecided;
    };

    ReferenceDriver();
    explicit ReferenceDriver(Options options);

    // One control request: the code, its input, and the room the caller gave for output.
    Reply Handle(platform::DWORD code, std::string_view input, platform::DWORD outputCapacity);

    // A simulated connection attempt; returns what became of it ("approved ...", "rejected ...",
    // "held ...").
    std::string Inject(const Connection& connection, Clock::time_point now = Clock::now());

    void SetOnDecided(std::function<void(const Connection&, bool approved)> onDecided) {
        m_options.onDecided = std::move(onDecided);
    }

    // Adds bytes an approved connection moved to its program's counter (0 TCP in, 1 TCP out,
    // 2 UDP in, 3 UDP out); nothing when the program is not known (any more).
    void AddTraffic(std::string_view image, int counter, std::uint64_t bytes);

    // Decides held connections whose question was not answered in time by the default zone.
    void Tick(Clock::time_point now = Clock::now());
    // When the next held connection runs out, or time_point::max() when none is held.
    Clock::time_point NextDeadline() const;

    std::string Status() const;
    std::uint32_t FilteringState() const { return m_filtering; }
    std::size_t AppCount() const { return m_apps.size(); }
    std::size_t QuestionCount() const { return m_questions.size(); }
    std::size_t HeldCount() const { return m_held.size(); }
    std::size_t ActivityCount() const { return m_activity.size(); }

  private:
    struct Held {
        Connection connection;
        Clock::time_point deadline;
    };

    driver::AppRecord* FindApp(std::string_view image);
    std::string Decide(const Connection& connection, driver::AppRecord* app);
    void ReleaseHeld(std::string_view image);
    bool Asked(std::string_view image) const;
    std::uint64_t TimeStamp() const;
    driver::ActivityRecord FloodRecord();

    Reply VersionReply(platform::DWORD outputCapacity) const;
    Reply UpsertApp(const driver::AppRecord& record);

    Options m_options;
    std::uint32_t m_filtering = 1;
    driver::ZoneRecord m_defaultZone{};
    driver::ZoneRecord m_overrideZone{};
    bool m_overrideSet = false;
    std::vector<driver::AppRecord> m_apps;
    std::deque<driver::AppRecord> m_questions;
    std::vector<std::string> m_asked;  // images whose question is not answered yet
    std::vector<Held> m_held;
    std::deque<driver::ActivityRecord> m_activity;
    std::uint32_t m_floodCount = 0;
};

// Whether a rule's criteria all hold for the connection (the enabled switch is not looked at).
bool RuleMatches(const driver::ZoneRule& rule, const Connection& connection);

}  // namespace qbrix::refdriver
