#include "app/PanelFactory.h"

#include <memory>

#include "antivirus/AntivirusSelfTest.h"
#include "content/LspSettings.h"
#include "core/StringTable.h"
#include "events/PollContent.h"
#include "stats/StatisticsTick.h"
#include "ui/ContentLogPage.h"
#include "ui/ContentPage.h"
#include "ui/SettingsPage.h"

namespace qbrix::app {

namespace {
QString Str(int id) {
    return QString::fromStdString(core::LoadString(id));
}
}  // namespace

ui::PanelParts BuildPanelParts() {
    ui::PanelParts parts;
    auto* contentPage = new ui::ContentPage(content::g_lspSettings);
    auto* contentLog = new ui::ContentLogPage();
    auto contentPoll = std::make_shared<events::PollContent>(*contentLog);
    parts.drainContentEvents = [contentPoll] { contentPoll->Run(); };
    // Pages whose subsystems are not in this build yet say what they will hold.
    parts.pages = {
        new ui::PlaceholderPage("Programs",
                                "The programs known to the firewall and the zone of each."),
        contentPage,
        new ui::PlaceholderPage("Zones", "The zones and their address rules."),
        new ui::PlaceholderPage("Statistics",
                                "Traffic per program by hour, day, weekday and month."),
        new ui::SettingsPage(ui::DefaultZoneBinding{},
                             [](const std::string& engineName) {
                                 antivirus::RunAntivirusSelfTest(engineName.c_str());
                             }),
        new ui::PlaceholderPage(Str(113), "The firewall's connection decisions."),
        contentLog,
    };
    parts.fillContentRulesMenu = [contentPage](QMenu* menu, bool greyed) {
        contentPage->FillTrayMenu(menu, greyed);
    };
    // The Internet log page is not in this build yet: once it is, it implements
    // events::ActivityLogView and parts.pollActivity runs events::PollActivity(page).Run().
    auto statistics = std::make_shared<stats::StatisticsTick>();
    parts.refreshStatistics = [statistics] { statistics->Run(); };
    return parts;
}

}  // namespace qbrix::app
