#include "ReferenceDriver.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include "driver/DriverControl.h"
#include "platform/Text.h"

namespace qbrix::refdriver {

using driver::ActivityRecord;
using driver::AppRecord;
using driver::ZoneRecord;
using driver::ZoneRule;
using platform::DWORD;

namespace {

Reply Failure(DWORD error) {
    return Reply{false, error, 0, {}};
}

Reply Done(DWORD bytes, std::string output = {}) {
    return Reply{true, 0, bytes, std::move(output)};
}

template <typename T>
std::string Bytes(const T& record) {
    return std::string(reinterpret_cast<const char*>(&record), sizeof(record));
}

template <typename T>
T Record(std::string_view input) {
    T record{};
    std::memcpy(&record, input.data(), sizeof(T));
    return record;
}

bool AllZero(const ZoneRecord& zone) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&zone);
    return std::all_of(bytes, bytes + sizeof(zone), [](unsigned char b) { return b == 0; });
}

}  // namespace

bool RuleMatches(const ZoneRule& rule, const Connection& connection) {
    if (rule.protocol != 0 && rule.protocol != connection.protocol) {
        return false;
    }
    if (rule.direction != 0 && rule.direction != connection.direction) {
        return false;
    }
    if (rule.address != 0) {
        // A rule without a mask names one host.
        std::uint32_t mask = rule.mask != 0 ? rule.mask : 0xFFFFFFFFu;
        if ((connection.address & mask) != (rule.address & mask)) {
            return false;
        }
    }
    if (rule.remotePort != 0 && rule.remotePort != connection.remotePort) {
        return false;
    }
    if (rule.localPort != 0 && rule.localPort != connection.localPort) {
        return false;
    }
    return true;
}

ReferenceDriver::ReferenceDriver() : ReferenceDriver(Options{}) {}

ReferenceDriver::ReferenceDriver(Options options) : m_options(std::move(options)) {}

AppRecord* ReferenceDriver::FindApp(std::string_view image) {
    for (AppRecord& app : m_apps) {
        if (platform::EqualsIgnoreCase(driver::FieldText(app.imageName), image)) {
            return &app;
        }
    }
    return nullptr;
}

bool ReferenceDriver::Asked(std::string_view image) const {
    return std::any_of(m_asked.begin(), m_asked.end(), [image](const std::string& asked) {
        return platform::EqualsIgnoreCase(asked, image);
    });
}

ActivityRecord ReferenceDriver::FloodRecord() {
    ActivityRecord record{};
    record.timeStamp = TimeStamp();
    driver::SetFieldText(record.application, "C:\\flood\\flood.exe");
    record.connection.enabled = 1;
    driver::SetFieldText(record.connection.name, "Flood");
    record.connection.address = 0xC6336400u + (m_floodCount++ & 0xFFu);  // 198.51.100.x
    record.connection.mask = 0xFFFFFFFFu;
    record.connection.remotePort = 80;
    record.connection.protocol = 1;
    record.connection.direction = 2;
    record.connection.result = 1;
    return record;
}

std::uint64_t ReferenceDriver::TimeStamp() const {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (!m_options.nineX) {
        // 100 ns units since 1601.
        constexpr std::uint64_t kEpochDifference = 11644473600ULL;
        return (static_cast<std::uint64_t>(now.tv_sec) + kEpochDifference) * 10000000ULL +
               static_cast<std::uint64_t>(now.tv_nsec) / 100;
    }
    tm local{};
    localtime_r(&now.tv_sec, &local);
    std::uint32_t date = static_cast<std::uint32_t>(((local.tm_year - 80) << 9) |
                                                    ((local.tm_mon + 1) << 5) | local.tm_mday);
    std::uint32_t time = static_cast<std::uint32_t>((local.tm_hour << 11) | (local.tm_min << 5) |
                                                    (local.tm_sec / 2));
    std::uint32_t milliseconds = static_cast<std::uint32_t>(now.tv_nsec / 1000000);
    return (static_cast<std::uint64_t>((date << 16) | time) << 32) | milliseconds;
}

std::string ReferenceDriver::Decide(const Connection& connection, AppRecord* app) {
    std::string decidedBy;
    std::uint32_t result = 0;
    if (m_filtering == 0) {
        decidedBy = "filtering off";
    } else {
        const ZoneRecord& zone = m_overrideSet    ? m_overrideZone
                                 : app != nullptr ? app->zone
                                                  : m_defaultZone;
        bool matched = false;
        for (const ZoneRule& rule : zone.rules) {
            if (driver::FieldText(rule.name).empty() || rule.enabled != 1 ||
                !RuleMatches(rule, connection)) {
                continue;
            }
            decidedBy = std::string(driver::FieldText(rule.name));
            result = rule.result;
            matched = true;
            break;
        }
        if (!matched) {
            decidedBy = std::string(driver::FieldText(zone.name));
            result = zone.result;
        }
    }

    ActivityRecord activity{};
    activity.timeStamp = TimeStamp();
    std::string application = connection.path;
    if (application.empty() && app != nullptr) {
        application = std::string(driver::FieldText(app->path));
    }
    if (application.empty()) {
        application = connection.image.empty() ? "(unknown program)" : connection.image;
    }
    driver::SetFieldText(activity.application, application);
    activity.connection.enabled = 1;
    driver::SetFieldText(activity.connection.name, decidedBy);
    activity.connection.address = connection.address;
    activity.connection.mask = 0xFFFFFFFFu;
    activity.connection.localPort = connection.localPort;
    activity.connection.remotePort = connection.remotePort;
    activity.connection.protocol = connection.protocol;
    activity.connection.direction = connection.direction;
    activity.connection.result = result;
    if (m_activity.size() == kMaxActivity) {
        m_activity.pop_front();  // the oldest decision goes when nobody reads them
    }
    m_activity.push_back(activity);

    // Only approved traffic moves bytes.
    if (result == 0 && app != nullptr) {
        int counter = (connection.protocol == 2 ? 2 : 0) + (connection.direction == 2 ? 1 : 0);
        app->counters[counter].Set(app->counters[counter].Value() + connection.bytes);
    }
    if (m_options.onDecided) {
        m_options.onDecided(connection, result == 0);
    }
    return std::string(result == 0 ? "approved" : "rejected") + " by " + decidedBy;
}

void ReferenceDriver::AddTraffic(std::string_view image, int counter, std::uint64_t bytes) {
    if (AppRecord* app = FindApp(image); app != nullptr && counter >= 0 && counter < 4) {
        app->counters[counter].Set(app->counters[counter].Value() + bytes);
    }
}

std::string ReferenceDriver::Inject(const Connection& connection, Clock::time_point now) {
    // A connection nobody owns (any more) cannot be asked about: the default zone decides.
    if (m_filtering == 0 || connection.image.empty()) {
        return Decide(connection, FindApp(connection.image));
    }
    if (AppRecord* app = FindApp(connection.image); app != nullptr) {
        return Decide(connection, app);
    }
    if (!Asked(connection.image)) {
        if (m_questions.size() == kMaxQuestions) {
            return Decide(connection, nullptr);
        }
        AppRecord question{};
        driver::SetFieldText(question.imageName, connection.image);
        driver::SetFieldText(question.path, connection.path);
        ZoneRule& attempt = question.zone.rules[0];
        attempt.address = connection.address;
        attempt.mask = 0xFFFFFFFFu;
        attempt.localPort = connection.localPort;
        attempt.remotePort = connection.remotePort;
        attempt.protocol = connection.protocol;
        attempt.direction = connection.direction;
        m_questions.push_back(question);
        m_asked.push_back(connection.image);
    }
    m_held.push_back(Held{connection, now + m_options.holdTime});
    return "held until the program is known";
}

void ReferenceDriver::ReleaseHeld(std::string_view image) {
    std::erase_if(m_asked, [image](const std::string& asked) {
        return platform::EqualsIgnoreCase(asked, image);
    });
    std::vector<Held> released;
    std::erase_if(m_held, [&](const Held& held) {
        if (!platform::EqualsIgnoreCase(held.connection.image, image)) {
            return false;
        }
        released.push_back(held);
        return true;
    });
    for (const Held& held : released) {
        Decide(held.connection, FindApp(image));
    }
}

void ReferenceDriver::Tick(Clock::time_point now) {
    std::vector<Held> expired;
    std::erase_if(m_held, [&](const Held& held) {
        if (held.deadline > now) {
            return false;
        }
        expired.push_back(held);
        return true;
    });
    for (const Held& held : expired) {
        Decide(held.connection, FindApp(held.connection.image));
    }
}

ReferenceDriver::Clock::time_point ReferenceDriver::NextDeadline() const {
    Clock::time_point next = Clock::time_point::max();
    for (const Held& held : m_held) {
        next = std::min(next, held.deadline);
    }
    return next;
}

std::string ReferenceDriver::Status() const {
    return "filtering " + std::to_string(m_filtering) + " apps " + std::to_string(m_apps.size()) +
           " questions " + std::to_string(m_questions.size()) + " held " +
           std::to_string(m_held.size()) + " events " + std::to_string(m_activity.size()) +
           " override " + (m_overrideSet ? "on" : "off");
}

Reply ReferenceDriver::VersionReply(DWORD outputCapacity) const {
    std::string answer = m_options.versionText;
    answer.push_back('\0');
    if (outputCapacity < answer.size()) {
        return Failure(platform::ERROR_INSUFFICIENT_BUFFER);
    }
    answer.resize(std::min<DWORD>(outputCapacity, driver::kVersionReplySize), '\0');
    DWORD size = static_cast<DWORD>(answer.size());
    return Done(size, std::move(answer));
}

Reply ReferenceDriver::UpsertApp(const AppRecord& record) {
    std::string_view image = driver::FieldText(record.imageName);
    if (image.empty()) {
        return Failure(platform::ERROR_INVALID_PARAMETER);
    }
    AppRecord* app = FindApp(image);
    if (app == nullptr) {
        m_apps.push_back(record);
        app = &m_apps.back();
        std::memset(app->counters, 0, sizeof(app->counters));
    } else {
        // The counters are the driver's own: a record from the program does not reset them.
        AppRecord updated = record;
        std::memcpy(updated.counters, app->counters, sizeof(updated.counters));
        *app = updated;
    }
    app->reserved = 0;
    ReleaseHeld(image);
    return Done(sizeof(AppRecord));
}

Reply ReferenceDriver::Handle(DWORD code, std::string_view input, DWORD outputCapacity) {
    auto inputIs = [&input](std::size_t size) { return input.size() == size; };
    switch (code) {
        case driver::IOCTL_GET_VERSION:
            return VersionReply(outputCapacity);
        case driver::IOCTL_SET_FILTERING_STATE:
            if (!inputIs(4)) {
                break;
            }
            std::memcpy(&m_filtering, input.data(), 4);
            if (m_filtering == 0) {
                // Everything passes now, held connections included.
                std::vector<Held> held;
                held.swap(m_held);
                m_asked.clear();
                for (const Held& entry : held) {
                    Decide(entry.connection, FindApp(entry.connection.image));
                }
            }
            return Done(4);
        case driver::IOCTL_SET_APP_COUNTERS: {
            if (!inputIs(sizeof(AppRecord))) {
                break;
            }
            auto record = Record<AppRecord>(input);
            AppRecord* app = FindApp(driver::FieldText(record.imageName));
            if (app == nullptr) {
                return Failure(platform::ERROR_FILE_NOT_FOUND);
            }
            std::memcpy(app->counters, record.counters, sizeof(app->counters));
            return Done(sizeof(AppRecord));
        }
        case driver::IOCTL_GET_APP_COUNTERS:
        case driver::IOCTL_GET_APP_RECORD: {
            if (!inputIs(sizeof(AppRecord))) {
                break;
            }
            if (outputCapacity < sizeof(AppRecord)) {
                return Failure(platform::ERROR_INSUFFICIENT_BUFFER);
            }
            auto record = Record<AppRecord>(input);
            AppRecord* app = FindApp(driver::FieldText(record.imageName));
            if (app == nullptr) {
                return Failure(platform::ERROR_FILE_NOT_FOUND);
            }
            return Done(sizeof(AppRecord), Bytes(*app));
        }
        case driver::IOCTL_SET_DEFAULT_ZONE:
        case driver::IOCTL_SET_OVERRIDE_ZONE: {
            if (!inputIs(sizeof(ZoneRecord))) {
                break;
            }
            auto zone = Record<ZoneRecord>(input);
            if (code == driver::IOCTL_SET_DEFAULT_ZONE) {
                m_defaultZone = zone;
            } else {
                // An all-zero zone is the empty choice: no override.
                m_overrideZone = zone;
                m_overrideSet = !AllZero(zone);
            }
            return Done(sizeof(ZoneRecord));
        }
        case driver::IOCTL_TAKE_PENDING_QUESTION:
            if (!inputIs(0) && !inputIs(sizeof(AppRecord))) {
                break;
            }
            if (outputCapacity < sizeof(AppRecord)) {
                return Failure(platform::ERROR_INSUFFICIENT_BUFFER);
            }
            if (m_questions.empty()) {
                return Done(0);
            } else {
                AppRecord question = m_questions.front();
                m_questions.pop_front();
                return Done(sizeof(AppRecord), Bytes(question));
            }
        case driver::IOCTL_ANSWER_PENDING_QUESTION:
        case driver::IOCTL_SET_APP_RECORD:
            if (!inputIs(sizeof(AppRecord))) {
                break;
            }
            return UpsertApp(Record<AppRecord>(input));
        case driver::IOCTL_DELETE_APP_RECORD: {
            if (!inputIs(sizeof(AppRecord))) {
                break;
            }
            auto record = Record<AppRecord>(input);
            std::string_view image = driver::FieldText(record.imageName);
            // A program with connections in flight is running: it cannot go.
            if (std::any_of(m_held.begin(), m_held.end(), [image](const Held& held) {
                    return platform::EqualsIgnoreCase(held.connection.image, image);
                })) {
                return Failure(platform::ERROR_BUSY);
            }
            std::erase_if(m_apps, [image](const AppRecord& app) {
                return platform::EqualsIgnoreCase(driver::FieldText(app.imageName), image);
            });
            return Done(sizeof(AppRecord));
        }
        case driver::IOCTL_LIST_APP_RECORDS: {
            if (!inputIs(0)) {
                break;
            }
            std::size_t count =
                std::min<std::size_t>(m_apps.size(), outputCapacity / sizeof(AppRecord));
            std::string output;
            for (std::size_t i = 0; i < count; ++i) {
                output += Bytes(m_apps[i]);
            }
            DWORD size = static_cast<DWORD>(output.size());
            return Done(size, std::move(output));
        }
        case driver::IOCTL_READ_ACTIVITY_EVENTS: {
            if (!inputIs(0)) {
                break;
            }
            std::size_t count =
                std::min<std::size_t>(m_activity.size(), outputCapacity / sizeof(ActivityRecord));
            std::string output;
            for (std::size_t i = 0; i < count; ++i) {
                output += Bytes(m_activity.front());
                m_activity.pop_front();
            }
            for (std::size_t i = count;
                 m_options.flood && i < outputCapacity / sizeof(ActivityRecord); ++i) {
                output += Bytes(FloodRecord());
            }
            DWORD size = static_cast<DWORD>(output.size());
            return Done(size, std::move(output));
        }
        default:
            return Failure(platform::ERROR_INVALID_FUNCTION);
    }
    return Failure(platform::ERROR_INVALID_PARAMETER);
}

}  // namespace qbrix::refdriver
