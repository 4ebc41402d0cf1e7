#include "app/PanelFactory.h"

#include <memory>

#include "antivirus/AntivirusSelfTest.h"
#include "app/MainLoop.h"
#include "content/LspSettings.h"
#include "ui/ContentLogPage.h"
#include "ui/ContentPage.h"
#include "ui/InternetLogPage.h"
#include "ui/ProgramsPage.h"
#include "ui/SettingsPage.h"
#include "ui/StatisticsPage.h"
#include "ui/UnattendedScript.h"
#include "ui/ZoneSelector.h"
#include "ui/ZonesPage.h"

namespace qbrix::app {

ui::PanelParts BuildPanelParts() {
    ui::PanelParts parts;
    auto* programs = new ui::ProgramsPage();
    auto* contentPage = new ui::ContentPage(content::g_lspSettings);
    auto* internetLog = new ui::InternetLogPage();
    auto* contentLog = new ui::ContentLogPage();
    parts.pages = {
        programs,
        contentPage,
        new ui::ZonesPage(),
        new ui::StatisticsPage(stats::StatPeriods()),
        new ui::SettingsPage(ui::MakeDefaultZoneBinding(),
                             [](const std::string& engineName) {
                                 antivirus::RunAntivirusSelfTest(engineName.c_str());
                             }),
        internetLog,
        contentLog,
    };
    parts.bindZoneOverride = ui::BindOverrideSelector;
    // The statistics' clock is the system's, moved on by an unattended run's script.
    parts.steps = BuildMainLoopSteps(
        [programs] { programs->AskPendingApplication(); }, *internetLog, *contentLog,
        [] { return stats::StatisticsTick::SystemClock() + ui::UnattendedScript::ClockOffset(); });
    parts.fillContentRulesMenu = [contentPage](QMenu* menu, bool greyed) {
        contentPage->FillTrayMenu(menu, greyed);
    };
    return parts;
}

}  // namespace qbrix::app
