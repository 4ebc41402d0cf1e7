#include "app/PanelFactory.h"

#include "antivirus/AntivirusSelfTest.h"
#include "core/StringTable.h"
#include "ui/ProgramsPage.h"
#include "ui/SettingsPage.h"
#include "ui/ZoneSelector.h"
#include "ui/ZonesPage.h"

namespace qbrix::app {

namespace {
QString Str(int id) { return QString::fromStdString(core::LoadString(id)); }
}  // namespace

ui::PanelParts BuildPanelParts() {
    ui::PanelParts parts;
    // Pages whose subsystems are not in this build yet say what they will hold.
    auto* programs = new ui::ProgramsPage();
    parts.pages = {
        programs,
        new ui::PlaceholderPage("Content Options",
                                "The content rules of web and e-mail traffic and their options."),
        new ui::ZonesPage(),
        new ui::PlaceholderPage("Statistics", "Traffic per program by hour, day, weekday and month."),
        new ui::SettingsPage(ui::MakeDefaultZoneBinding(),
                             [](const std::string& engineName) {
                                 antivirus::RunAntivirusSelfTest(engineName.c_str());
                             }),
        new ui::PlaceholderPage(Str(113), "The firewall's connection decisions."),
        new ui::PlaceholderPage(Str(112), "The content processor's events."),
    };
    parts.bindZoneOverride = ui::BindOverrideSelector;
    parts.askPendingApplication = [programs] { programs->AskPendingApplication(); };
    return parts;
}

}  // namespace qbrix::app
