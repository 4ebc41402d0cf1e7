// q-brixctl: the administrator's and the tests' window into the program's state on a data root.
//   q-brixctl [--root DIR] catalog          list the socket-provider catalog
//   q-brixctl [--root DIR] catalog reset    restore the seeded base catalog
//   q-brixctl [--root DIR] av scan FILE [--engine NAME]   scan one file with an antivirus engine
//   q-brixctl [--root DIR] av test [--engine NAME]        run the antivirus self-test
//   q-brixctl [--root DIR] rule|unit|options ...           content rules and protocol options
//                                                          (see ContentCommand.h)
//   q-brixctl [--root DIR] zone ...         the zone store (see ZoneCommand.h)
//   q-brixctl [--root DIR] stats [show [PERIOD]]          the stored traffic statistics
//   q-brixctl [--root DIR] stats reset PERIOD             erase one breakdown
//   q-brixctl [--root DIR] app list|set IMAGE ZONE|delete IMAGE  the driver's programs
//                                                          (see AppCommand.h)
//   q-brixctl [--root DIR] filtering on|off               the driver's filtering switch
//   q-brixctl [--root DIR] --help|-h                      the usage, status 0
#include <iostream>
#include <string>
#include <vector>

#include "AppCommand.h"
#include "AvCommand.h"
#include "CatalogCommand.h"
#include "ContentCommand.h"
#include "StatsCommand.h"
#include "ZoneCommand.h"
#include "platform/posix/PosixPlatform.h"

namespace {

constexpr char kUsage[] =
    "usage: q-brixctl [--root DIR] catalog [reset]\n"
    "       q-brixctl [--root DIR] av (scan FILE | test) [--engine NAME]\n"
    "       q-brixctl [--root DIR] rule (list | export | import | delete | test) ...\n"
    "       q-brixctl [--root DIR] unit test --find P ... INPUT\n"
    "       q-brixctl [--root DIR] options (show | set SWITCH VALUE) ...\n"
    "       q-brixctl [--root DIR] zone list|dump|export|import|delete|lan ...\n"
    "       q-brixctl [--root DIR] stats [show [PERIOD] | reset PERIOD]\n"
    "       q-brixctl [--root DIR] app (list | set IMAGE ZONE | delete IMAGE)\n"
    "       q-brixctl [--root DIR] filtering on|off\n"
    "       q-brixctl --help\n";

// A usage error: the problem and the usage on the error stream, status 2.
int Usage(const std::string& problem) {
    std::cerr << "q-brixctl: " << problem << "\n" << kUsage;
    return 2;
}

bool IsHelp(const std::string& arg) {
    return arg == "--help" || arg == "-h";
}

}  // namespace

int main(int argc, char** argv) {
    using namespace qbrix;
    std::vector<std::string> args(argv + 1, argv + argc);
    platform::SystemInfo info = platform::DetectSystemInfo();
    if (!args.empty() && args[0] == "--root") {
        if (args.size() < 2) {
            return Usage("--root needs a directory");
        }
        info.dataRoot = args[1];
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.empty()) {
        return Usage("no command given");
    }
    if (IsHelp(args[0])) {
        std::cout << kUsage;
        return 0;
    }
    platform::ScopedPlatform installed(platform::MakePosixPlatform(info));
    std::string command = args[0];
    args.erase(args.begin());
    if (command == "catalog") {
        return tools::RunCatalogCommand(args, std::cout, std::cerr);
    }
    if (command == "app") {
        return tools::RunAppCommand(args, std::cout, std::cerr);
    }
    if (command == "filtering") {
        return tools::RunFilteringCommand(args, std::cout, std::cerr);
    }
    if (command == "stats") {
        return tools::RunStatsCommand(args, std::cout, std::cerr);
    }
    if (command == "av") {
        return tools::RunAvCommand(args, std::cout, std::cerr);
    }
    if (command == "rule") {
        return tools::RunRuleCommand(args, std::cout, std::cerr);
    }
    if (command == "unit") {
        return tools::RunUnitCommand(args, std::cout, std::cerr);
    }
    if (command == "options") {
        return tools::RunOptionsCommand(args, std::cout, std::cerr);
    }
    if (command == "zone") {
        return tools::RunZoneCommand(args, std::cout, std::cerr);
    }
    return Usage("unknown command '" + command + "'");
}
