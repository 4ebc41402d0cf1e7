// q-brix: the control program. The first letter of the command text picks the job: I installs
// the filtering components, D removes them, T runs with them installed for this run only, and
// anything else starts the control program.
#include <csignal>
#include <string>

#include "app/AppLinks.h"
#include "core/ControlApp.h"
#include "platform/posix/PosixPlatform.h"

namespace {

std::string CommandText(int argc, char** argv) {
    std::string text;
    for (int i = 1; i < argc; ++i) {
        if (i > 1) {
            text.push_back(' ');
        }
        text.append(argv[i]);
    }
    return text;
}

// Runs until the session ends (SIGTERM, SIGINT or SIGHUP).
void WaitForSessionEnd() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGHUP);
    int received = 0;
    sigwait(&signals, &received);
}

}  // namespace

int main(int argc, char** argv) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    using namespace qbrix;
    platform::ScopedPlatform platform(platform::MakePosixPlatform(platform::DetectSystemInfo()));
    app::AppLinks links;
    core::ControlApp application(links, CommandText(argc, argv));
    if (application.InitInstance()) {
        WaitForSessionEnd();
    }
    return application.ExitInstance();
}
