// q-brix-event: plays the socket provider. Sends content events to the control program's
// mailslot of a data root, as the provider does from inside the programs it filters.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "events/ContentEvent.h"
#include "platform/Kernel.h"
#include "platform/Mailslot.h"
#include "platform/posix/PosixPlatform.h"

namespace {

using qbrix::events::ContentEvent;
namespace platform = qbrix::platform;

constexpr char kUsage[] =
    "usage: q-brix-event [--root DIR] --type N --address TEXT --name TEXT [--quarantine PATH]\n"
    "       q-brix-event [--root DIR] [--type N] --burst N\n"
    "       q-brix-event [--root DIR] --raw-size N\n"
    "       q-brix-event [--root DIR] demo\n"
    "       q-brix-event --help\n"
    "Sends content events to \\\\.\\mailslot\\korvel of the data root (default: $QBRIX_ROOT).\n";

struct Options {
    std::string root;
    long type = 3;
    std::string address;
    std::string name;
    std::string quarantine;
    long burst = -1;
    long rawSize = -1;
    bool demo = false;
    bool single = false;
};

// The provider fills the fields with a bounded copy: NUL-padded, no terminator at full width.
template <std::size_t N>
void CopyField(char (&field)[N], const std::string& text) {
    std::memcpy(field, text.data(), std::min(text.size(), N));
}

ContentEvent MakeEvent(long type, const std::string& address, const std::string& name,
                       const std::string& quarantine) {
    ContentEvent event;
    std::memset(&event, 0, sizeof(event));
    event.type = static_cast<std::int32_t>(type);
    CopyField(event.address, address);
    CopyField(event.name, name);
    CopyField(event.quarantine, quarantine);
    return event;
}

bool ParseNumber(const char* text, long* value) {
    char* end = nullptr;
    *value = std::strtol(text, &end, 10);
    return end != text && *end == '\0';
}

bool Parse(int argc, char** argv, Options* options) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "demo") {
            options->demo = true;
            continue;
        }
        if (i + 1 >= argc) {
            return false;
        }
        const char* value = argv[++i];
        if (arg == "--root") {
            options->root = value;
        } else if (arg == "--type") {
            if (!ParseNumber(value, &options->type)) {
                return false;
            }
        } else if (arg == "--address") {
            options->address = value;
            options->single = true;
        } else if (arg == "--name") {
            options->name = value;
            options->single = true;
        } else if (arg == "--quarantine") {
            options->quarantine = value;
        } else if (arg == "--burst") {
            if (!ParseNumber(value, &options->burst) || options->burst < 0) {
                return false;
            }
        } else if (arg == "--raw-size") {
            if (!ParseNumber(value, &options->rawSize) || options->rawSize < 0 ||
                options->rawSize > 65000) {
                return false;
            }
        } else {
            return false;
        }
    }
    int jobs = (options->demo ? 1 : 0) + (options->burst >= 0 ? 1 : 0) +
               (options->rawSize >= 0 ? 1 : 0) + (options->single ? 1 : 0);
    return jobs == 1;
}

std::vector<ContentEvent> DemoEvents() {
    return {
        MakeEvent(0, "pop3://mail.example.net/INBOX/17", "invoice.exe (Eicar-Test-Signature)",
                  "/var/lib/q-brix/quarantine/invoice.exe"),
        MakeEvent(3, "http://www.example.com/download/tool.zip", "tool.zip (Eicar-Test-Signature)",
                  "/var/lib/q-brix/quarantine/tool.zip"),
        MakeEvent(4, "http://www.example.com/news", "Banner ads", ""),
        MakeEvent(5, "pop3://mail.example.net/INBOX/18", "Subject marker", ""),
        MakeEvent(2, "pop3://mail.example.net/INBOX/19", "report.doc (W97M.Test)",
                  "/var/lib/q-brix/quarantine/report.doc"),
    };
}

bool Send(platform::HANDLE writer, const void* data, std::size_t size) {
    platform::DWORD written = 0;
    if (!platform::WriteMailslot(writer, data, static_cast<platform::DWORD>(size), &written) ||
        written != size) {
        std::fprintf(stderr, "q-brix-event: write failed: %s",
                     platform::GetErrorMessageText(platform::GetLastError()).c_str());
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    Options options;
    if (!Parse(argc, argv, &options)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    platform::SystemInfo info = platform::DetectSystemInfo();
    if (!options.root.empty()) {
        info.dataRoot = options.root;
    }
    platform::ScopedPlatform scope(platform::MakePosixPlatform(info));

    platform::HANDLE writer = platform::OpenMailslotWriter(qbrix::events::kContentMailslotName);
    if (writer == platform::INVALID_HANDLE_VALUE) {
        std::fprintf(stderr, "q-brix-event: no control program reads %s under %s: %s",
                     qbrix::events::kContentMailslotName, info.dataRoot.c_str(),
                     platform::GetErrorMessageText(platform::GetLastError()).c_str());
        return 1;
    }
    bool ok = true;
    if (options.demo) {
        for (const ContentEvent& event : DemoEvents()) {
            ok = ok && Send(writer, &event, sizeof(event));
        }
    } else if (options.burst >= 0) {
        for (long i = 0; ok && i < options.burst; ++i) {
            ContentEvent event = MakeEvent(options.type, "burst", "event " + std::to_string(i), "");
            ok = Send(writer, &event, sizeof(event));
        }
    } else if (options.rawSize >= 0) {
        std::vector<char> message(static_cast<std::size_t>(options.rawSize), '\0');
        ContentEvent event = MakeEvent(options.type, "raw", "raw message", "");
        std::memcpy(message.data(), &event, std::min(message.size(), sizeof(event)));
        ok = Send(writer, message.data(), message.size());
    } else {
        ContentEvent event =
            MakeEvent(options.type, options.address, options.name, options.quarantine);
        ok = Send(writer, &event, sizeof(event));
    }
    platform::CloseHandle(writer);
    return ok ? 0 : 1;
}
