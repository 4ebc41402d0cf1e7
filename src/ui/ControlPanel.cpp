#include "ui/ControlPanel.h"

#include <QCloseEvent>
#include <QComboBox>
#include <QCursor>
#include <QDesktopServices>
#include <QFileInfo>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QTabWidget>
#include <QUrl>
#include <QVBoxLayout>

#include "core/Messages.h"
#include "core/StringTable.h"
#include "platform/Platform.h"
#include "platform/Processes.h"
#include "ui/AboutBox.h"
#include "ui/AnsiText.h"
#include "ui/Icons.h"

namespace qbrix::ui {

namespace {

constexpr char kVersionText[] = "3.1.091";
constexpr int kTipLength = 127;
constexpr int kHelpMissingText = 124;
constexpr int kNoHelpViewerText = 125;

QString Str(int id) {
    return FromAnsi(core::LoadString(id));
}

}  // namespace

ControlPanel::ControlPanel(PanelParts parts, QWidget* parent)
    : QWidget(parent, Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint),
      m_parts(std::move(parts)) {
    setObjectName("ControlPanel");
    setWindowTitle(Str(67) + " " + kVersionText);
    setWindowIcon(AppIcon());

    auto* layout = new QVBoxLayout(this);

    // The panel's own zone controls: the "Zone Override" selector in the "Zone Profile" group.
    m_zoneProfile = new QGroupBox(Str(83), this);
    auto* zoneLayout = new QHBoxLayout(m_zoneProfile);
    zoneLayout->addWidget(new QLabel(Str(79), m_zoneProfile));
    m_zoneOverride = new QComboBox(m_zoneProfile);
    m_zoneOverride->setObjectName("ZoneOverride");
    m_zoneOverride->addItem(QString());
    m_zoneOverride->setMinimumContentsLength(20);
    if (m_parts.bindZoneOverride) {
        m_parts.bindZoneOverride(m_zoneOverride);
    }
    zoneLayout->addWidget(m_zoneOverride);
    zoneLayout->addStretch(1);
    layout->addWidget(m_zoneProfile);

    m_tabs = new QTabWidget(this);
    for (PropertyPage* page : m_parts.pages) {
        m_tabs->addTab(page, page->Caption());
    }
    layout->addWidget(m_tabs, 1);

    auto* buttons = new QHBoxLayout();
    buttons->addStretch(1);
    m_closeButton = new QPushButton(Str(23), this);
    m_closeButton->setObjectName("1");
    m_closeButton->setDefault(true);
    connect(m_closeButton, &QPushButton::clicked, this, &ControlPanel::HidePanel);
    buttons->addWidget(m_closeButton);
    layout->addLayout(buttons);
    resize(720, 520);

    // Every page but Statistics is brought to life once, then the first page is shown.
    for (int index : {m_parts.settingsPageIndex, 5, 6, 1, 2, 0}) {
        if (index < m_tabs->count()) {
            m_tabs->setCurrentIndex(index);
        }
    }

    m_tray = std::make_unique<QSystemTrayIcon>(AppIcon(16));
    m_tray->setToolTip(Str(24).left(kTipLength));
    connect(m_tray.get(), &QSystemTrayIcon::activated, this, &ControlPanel::OnTrayActivated);
    AddTrayIcon();

    m_timer.setInterval(kTimerPeriodMs);
    connect(&m_timer, &QTimer::timeout, this, &ControlPanel::OnTimer);
    m_timer.start();
}

ControlPanel::~ControlPanel() {
    m_timer.stop();
    if (m_tray != nullptr) {
        m_tray->hide();
    }
}

void ControlPanel::AddTrayIcon() {
    // A failed tray call is not reported: without a notification area the panel is reached by
    // starting the program again with a display.
    m_tray->show();
}

void ControlPanel::OnTrayActivated(QSystemTrayIcon::ActivationReason reason) {
    if (reason == QSystemTrayIcon::Trigger) {
        ShowPanel(-1);
    } else if (reason == QSystemTrayIcon::Context) {
        // Built anew on every right click, closed when the user clicks elsewhere.
        activateWindow();
        std::unique_ptr<QMenu> menu(BuildTrayMenu());
        m_trayMenu = menu.get();
        menu->exec(QCursor::pos());
    }
}

QMenu* ControlPanel::BuildTrayMenu() {
    auto* menu = new QMenu();
    QMenu* contentRules = menu->addMenu(Str(85));
    if (m_parts.fillContentRulesMenu) {
        m_parts.fillContentRulesMenu(contentRules, isVisible());
    }
    contentRules->setEnabled(!contentRules->isEmpty());
    menu->addSeparator();
    auto add = [&](int stringId, int command, auto handler) {
        QAction* action = menu->addAction(Str(stringId));
        action->setData(command);
        connect(action, &QAction::triggered, this, handler);
    };
    add(26, kAboutCommand, [this] { ShowAbout(); });
    add(27, kSettingCommand, [this] { ShowPanel(m_parts.settingsPageIndex); });
    add(28, kShowPanelCommand, [this] { ShowPanel(0); });
    menu->addSeparator();
    add(30, kHelpCommand, [this] { OpenHelp(); });
    add(31, kExitCommand, [this] { ExitCommand(); });
    return menu;
}

void ControlPanel::ShowPanel(int pageIndex) {
    show();
    raise();
    activateWindow();
    if (pageIndex >= 0 && pageIndex < m_tabs->count()) {
        m_tabs->setCurrentIndex(pageIndex);
    }
}

void ControlPanel::ShowAbout() {
    if (m_aboutOpen) {
        return;
    }
    m_aboutOpen = true;
    AboutBox about(isVisible() ? this : nullptr);
    about.exec();
    m_aboutOpen = false;
}

void ControlPanel::OpenHelp() {
    const std::string path = platform::ProgramFile(kHelpFile);
    auto say = [&](int textId) {
        std::string text = core::LoadString(textId);
        if (std::size_t at = text.find("%s"); at != std::string::npos) {
            text.replace(at, 2, path);
        }
        core::CurrentMessages().MessageBox(text, core::LoadString(30),
                                           core::MB_OK | core::MB_ICONWARNING);
    };
    if (!QFileInfo(QFile::decodeName(path.c_str())).isFile()) {
        say(kHelpMissingText);
        return;
    }
    const QUrl url = QUrl::fromLocalFile(QFile::decodeName(path.c_str()));
    const bool opened = m_openUrl ? m_openUrl(url) : QDesktopServices::openUrl(url);
    if (!opened) {
        say(kNoHelpViewerText);
    }
}

void ControlPanel::PageSaveCheck() {
    auto* page = qobject_cast<PropertyPage*>(m_tabs->currentWidget());
    if (page == nullptr || !page->HasUnsavedChanges()) {
        return;
    }
    int answer = core::CurrentMessages().MessageBox(core::LoadString(72), core::LoadString(19),
                                                    core::MB_YESNO | core::MB_ICONQUESTION);
    page->SaveOrDiscard(answer == core::IDYES);
}

void ControlPanel::HidePanel() {
    PageSaveCheck();
    hide();
}

void ControlPanel::ExitCommand() {
    if (m_exitPromptOpen) {
        return;
    }
    m_exitPromptOpen = true;
    int answer = core::CurrentMessages().MessageBox(core::LoadString(32), core::LoadString(33),
                                                    core::MB_YESNO | core::MB_ICONQUESTION);
    m_exitPromptOpen = false;
    if (answer != core::IDYES) {
        return;
    }
    PageSaveCheck();
    m_closing = true;
    m_timer.stop();
    close();
    emit ExitRequested();
}

void ControlPanel::EndSession() {
    m_closing = true;
    m_timer.stop();
}

void ControlPanel::closeEvent(QCloseEvent* event) {
    // No close box, and Alt+F4 does nothing: only Exit or the end of the session closes the
    // panel.
    if (m_closing) {
        event->accept();
    } else {
        event->ignore();
    }
}

void ControlPanel::OnTimer() {
    // The tick runs from a posted call, not inside the timer's own activation: Qt does not fire a
    // timer again while its previous activation is still running, so a step that opens a modal
    // dialog (the question about a program, the details of a found item) would otherwise stop
    // every other step until the dialog closes. Posted calls are delivered by the dialog's loop,
    // and each step's re-entry flag keeps the step with the open dialog from running twice.
    QMetaObject::invokeMethod(
        this,
        [this] {
            if (!m_closing) {
                Tick();
            }
        },
        Qt::QueuedConnection);
}

void ControlPanel::Tick() {
    // The tick's process lookups (the question about a new program) share one view of the
    // processes.
    platform::ProcessSnapshot snapshot;
    m_parts.steps.Run();
    emit Ticked();
}

}  // namespace qbrix::ui
