#include "app/PanelFactory.h"

#include <memory>

#include "antivirus/AntivirusSelfTest.h"
#include "content/LspSettings.h"
#include "events/PollActivity.h"
#include "events/PollContent.h"
#include "stats/StatisticsTick.h"
#include "ui/ContentLogPage.h"
#include "ui/ContentPage.h"
#include "ui/InternetLogPage.h"
#include "ui/SettingsPage.h"
#include "ui/StatisticsPage.h"

namespace qbrix::app {

ui::PanelParts BuildPanelParts() {
    ui::PanelParts parts;
    auto* contentPage = new ui::ContentPage(content::g_lspSettings);
    auto* internetLog = new ui::InternetLogPage();
    auto activityPoll = std::make_shared<events::PollActivity>(*internetLog);
    parts.pollActivity = [activityPoll] { activityPoll->Run(); };
    auto* contentLog = new ui::ContentLogPage();
    auto contentPoll = std::make_shared<events::PollContent>(*contentLog);
    parts.drainContentEvents = [contentPoll] { contentPoll->Run(); };
    // Pages whose subsystems are not in this build yet say what they will hold.
    parts.pages = {
        new ui::PlaceholderPage("Programs",
                                "The programs known to the firewall and the zone of each."),
        contentPage,
        new ui::PlaceholderPage("Zones", "The zones and their address rules."),
        new ui::StatisticsPage(stats::StatPeriods()),
        new ui::SettingsPage(ui::DefaultZoneBinding{},
                             [](const std::string& engineName) {
                                 antivirus::RunAntivirusSelfTest(engineName.c_str());
                             }),
        internetLog,
        contentLog,
    };
    parts.fillContentRulesMenu = [contentPage](QMenu* menu, bool greyed) {
        contentPage->FillTrayMenu(menu, greyed);
    };
    auto statistics = std::make_shared<stats::StatisticsTick>();
    parts.refreshStatistics = [statistics] { statistics->Run(); };
    return parts;
}

}  // namespace qbrix::app
