// q-brix: the control program. The first letter of the command text picks the job: I installs
// the filtering components, D removes them, T runs with them installed for this run only, and
// anything else starts the control program. `q-brix --render-pages DIR` writes a PNG of every
// page and dialog instead.
#include <cstdio>
#include <cstring>
#include <string>

#include "app/AppLinks.h"
#include "app/AppShell.h"
#include "core/ControlApp.h"
#include "events/ContentEventQueue.h"
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
    int result = application.ExitInstance();
    if (shell.ScriptFailed()) {
        result = 1;
    }
    // The content-event reader uses the platform: it stops before the platform goes.
    events::ResetContentEventQueue();
    return result;
}
