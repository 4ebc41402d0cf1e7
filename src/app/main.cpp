// q-brix: the control program. The first letter of the command text picks the job: I installs
// the filtering components, D removes them, T runs with them installed for this run only, and
// anything else starts the control program. Run by root on the machine's data root, I also
// opens that root to the administrator groups and D closes it again. `q-brix --render-pages DIR`
// writes a PNG of every page and dialog instead.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "app/AppLinks.h"
#include "app/AppShell.h"
#include "core/ControlApp.h"
#include "events/ContentEventQueue.h"
#include "platform/posix/LiveMode.h"
#include "platform/posix/PosixPlatform.h"

#ifdef QBRIX_HAVE_UI
#include <QApplication>

#include "app/PanelFactory.h"
#include "ui/ControlPanel.h"
#include "ui/PageRenderer.h"
#endif

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

int RenderPagesMain(int argc, char** argv) {
#ifdef QBRIX_HAVE_UI
    if (argc != 3) {
        std::fprintf(stderr, "usage: q-brix --render-pages DIR\n");
        return 2;
    }
    QApplication application(argc, argv);
    qbrix::ui::ControlPanel panel(qbrix::app::BuildPanelParts());
    QStringList written = qbrix::ui::RenderPages(panel, QString::fromLocal8Bit(argv[2]));
    for (const QString& file : written) {
        std::printf("%s\n", file.toLocal8Bit().constData());
    }
    return written.isEmpty() ? 1 : 0;
#else
    (void)argc;
    (void)argv;
    std::fprintf(stderr, "q-brix: this build has no user interface\n");
    return 1;
#endif
}

// Installed by root on the machine's data root, the product is the machine's: every
// administrator uses that root from now on, and a root of his own again once it is removed.
void ShareOrUnshareMachineRoot(qbrix::core::StartCommand command) {
    using namespace qbrix;
    const std::string& root = platform::Current().Info().dataRoot;
    if (::geteuid() != 0 || root != platform::kMachineDataRoot) {
        return;
    }
    if (command == core::StartCommand::Install && platform::ShareMachineDataRoot(root) != 0) {
        std::fprintf(stderr, "q-brix: cannot share %s with the administrator groups\n",
                     root.c_str());
    } else if (command == core::StartCommand::Deinstall) {
        platform::UnshareMachineDataRoot(root);
    }
}

// The driver's mode is part of the installation: `q-brix I --live` chooses live mode (and, on the
// machine's root where systemd runs, a unit that starts the live driver at boot); a bare
// `q-brix I` chooses the simulated driver; `q-brix D` removes both.
void ApplyDriverMode(qbrix::core::StartCommand command, const std::string& commandText) {
    using namespace qbrix;
    if (command != core::StartCommand::Install && command != core::StartCommand::Deinstall) {
        return;
    }
    const std::string& root = platform::Current().Info().dataRoot;
    bool live = command == core::StartCommand::Install && platform::AsksForLiveMode(commandText);
    if (!platform::SetDriverMode(root, live)) {
        std::fprintf(stderr, "q-brix: cannot write the driver mode in %s\n", root.c_str());
    }
    bool machine = ::geteuid() == 0 && root == platform::kMachineDataRoot;
    if (live && machine && platform::SystemdRuns()) {
        if (!platform::InstallDriverUnit(platform::kSystemUnitDirectory,
                                         platform::ProgramFile("q-brix-driver"), root, true)) {
            std::fprintf(stderr, "q-brix: cannot install %s\n", platform::kDriverUnitName);
        }
    } else if (!live && machine) {
        platform::RemoveDriverUnit(platform::kSystemUnitDirectory, platform::SystemdRuns());
    }
}

}  // namespace

int main(int argc, char** argv) {
    using namespace qbrix;
    platform::ScopedPlatform platform(platform::MakePosixPlatform(platform::DetectSystemInfo()));
    if (argc >= 2 && std::strcmp(argv[1], "--render-pages") == 0) {
        int rendered = RenderPagesMain(argc, argv);
        events::ResetContentEventQueue();
        return rendered;
    }
    app::AppShell shell(argc, argv);
    app::AppLinks links(shell);
    core::ControlApp application(links, CommandText(argc, argv));
    // The end of the session shuts the protection down at once, as the session-end notification
    // does; ExitInstance then runs the shutdown a second time, which only releases and logs.
    shell.SetSessionEndHandler([&application] { application.ShutdownProtection(); });
    if (application.InitInstance()) {
        shell.Run();
    }
    ShareOrUnshareMachineRoot(core::ParseStartCommand(CommandText(argc, argv)));
    ApplyDriverMode(core::ParseStartCommand(CommandText(argc, argv)), CommandText(argc, argv));
    int result = application.ExitInstance();
    if (shell.ScriptFailed()) {
        result = 1;
    }
    // The content-event reader uses the platform: it stops before the platform goes.
    events::ResetContentEventQueue();
    return result;
}
