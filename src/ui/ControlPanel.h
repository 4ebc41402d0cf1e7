// The control panel: the one top-level window, a tabbed sheet of pages that is hidden and shown
// but lives for the whole run. It owns the tray icon and its menu and the one-second timer that
// drives all polling. It has no close box and ignores Alt+F4; only the tray's Exit ends the
// program, after a warning that all Internet access will then be allowed.
#pragma once

#include <QPointer>
#include <QSystemTrayIcon>
#include <QTimer>
#include <QWidget>
#include <functional>
#include <memory>
#include <vector>

#include "core/ControlApp.h"
#include "core/MainLoopSteps.h"
#include "ui/PropertyPage.h"

class QComboBox;
class QGroupBox;
class QMenu;
class QPushButton;
class QTabWidget;
class QUrl;

namespace qbrix::ui {

// What the panel is built from: its pages in tab order and the work of each timer step.
struct PanelParts {
    // In tab order: Programs, content rules, Zones, Statistics, Settings, Internet Log,
    // Content Log. The panel takes ownership.
    std::vector<PropertyPage*> pages;
    int settingsPageIndex = 4;
    // The four steps of every tick.
    core::MainLoopSteps steps;
    // Binds the "Zone Override" selector (its empty first item is already there).
    std::function<void(QComboBox* selector)> bindZoneOverride;
    // Fills the tray's "Content Rules" pop-up; `greyed` while the panel is visible.
    std::function<void(QMenu* menu, bool greyed)> fillContentRulesMenu;
};

class ControlPanel : public QWidget, public core::MainWindow {
    Q_OBJECT
  public:
    static constexpr int kTimerPeriodMs = core::MainLoopSteps::kPeriodMs;
    static constexpr int kAboutCommand = 5008;
    static constexpr int kSettingCommand = 5009;
    static constexpr int kShowPanelCommand = 5010;
    static constexpr int kExitCommand = 5011;
    static constexpr int kHelpCommand = 5015;
    static constexpr char kHelpFile[] = "q-Brix.html";

    explicit ControlPanel(PanelParts parts, QWidget* parent = nullptr);
    ~ControlPanel() override;

    // Tray commands.
    void ShowPanel(int pageIndex);
    void ShowAbout();
    // Help: opens the help file of the program directory (the user's guide, rendered at build
    // time) with the desktop's viewer; a missing file or viewer is said in a message box.
    void OpenHelp();
    // What hands the help file to the desktop; QDesktopServices::openUrl unless replaced.
    void SetUrlOpener(std::function<bool(const QUrl&)> opener) { m_openUrl = std::move(opener); }
    void ExitCommand();
    // The session ends: the panel may close now and its timer stops, with neither the Exit
    // prompt nor the page save check (nothing is saved that the user did not save).
    void EndSession();
    // The OK ("Close") button: page save check, then hide.
    void HidePanel();
    // Asks the active page to save or discard its unsaved changes.
    void PageSaveCheck();
    // One timer tick: the four steps in order.
    void Tick();
    // The tray menu, built anew on every right click; the caller owns it.
    QMenu* BuildTrayMenu();
    // Adds the tray icon again (the notification area came back).
    void AddTrayIcon();

    QTabWidget* Tabs() const { return m_tabs; }
    QComboBox* ZoneOverrideSelector() const { return m_zoneOverride; }
    QSystemTrayIcon* TrayIcon() const { return m_tray.get(); }
    bool ExitConfirmed() const { return m_closing; }

  signals:
    // The user confirmed Exit: the application should end its event loop.
    void ExitRequested();
    // A timer tick has run its four steps.
    void Ticked();

  protected:
    void closeEvent(QCloseEvent* event) override;

  private:
    void OnTrayActivated(QSystemTrayIcon::ActivationReason reason);
    void OnTimer();

    PanelParts m_parts;
    QTabWidget* m_tabs = nullptr;
    QGroupBox* m_zoneProfile = nullptr;
    QComboBox* m_zoneOverride = nullptr;
    QPushButton* m_closeButton = nullptr;
    std::unique_ptr<QSystemTrayIcon> m_tray;
    QPointer<QMenu> m_trayMenu;
    QTimer m_timer;
    bool m_aboutOpen = false;
    bool m_exitPromptOpen = false;
    bool m_closing = false;
    std::function<bool(const QUrl&)> m_openUrl;
};

}  // namespace qbrix::ui
