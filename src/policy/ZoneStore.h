// The zone store: one REG_BINARY value of 704 bytes per zone under the GUI key's "ZoneList",
// named by the zone name. Loading rebuilds `g_zones`; an empty store is first filled with the
// built-in zones (the LAN-derived ones when a LAN is found, and the seven presets). Saving
// rewrites the whole key, and committing also re-sends every application whose zone still
// exists to the driver.
#pragma once

#include "core/RegistryKey.h"
#include "policy/ZoneList.h"

namespace qbrix::policy {

inline constexpr char kLanOnlyZone[] = "LAN only";
inline constexpr char kLanInternetZone[] = "LAN Internet";
inline constexpr char kLanDownloadZone[] = "LAN Download";

// Whether filling an empty store may ask the user the Zone Wizard question (the program does; a
// command-line tool never asks and goes on as after No).
enum class FirstRun { AskWizard, NoWizard };

// (Re)builds g_zones from the store; an empty store is filled first. Values of another type or
// size are skipped. 0, or the store's error when the zone list cannot be read (g_zones is then
// empty and nothing is asked or written).
platform::LONG LoadZones(FirstRun firstRun = FirstRun::AskWizard);
// Rewrites "ZoneList" from g_zones in list order, as one change of the store; a later zone of a
// name overwrites an earlier one, an empty name becomes the key's unnamed value. 0, or the
// store's error (the stored list is then unchanged).
platform::LONG SaveZones();
// Stores a zone named `zoneName` (result Disable) made of the LAN zone's enabled rules and then
// the enabled ones of the four extra rules, as long as fewer than ten are held.
void ComposeZone(core::RegistryKey& key, const char* zoneName, const ZoneRecord& lanZone,
                 const ZoneRule& rule1, const ZoneRule& rule2, const ZoneRule& rule3,
                 const ZoneRule& rule4);
// The built-in zones of an empty store: with a LAN, the wizard question, "LAN only",
// "LAN Internet" and "LAN Download"; always the seven presets.
void CreateFirstRunZones(core::RegistryKey& key, FirstRun firstRun = FirstRun::AskWizard);
// SaveZones, then every application the driver lists whose bound zone is found in g_zones is
// sent again with that zone's current bytes. Returns the number of applications sent; the
// result of SaveZones goes to `saved` when given.
int CommitZones(platform::LONG* saved = nullptr);

// The counter behind "Zone %d" of new zones on the Zones page (never reset while running).
extern int g_newZoneCounter;

}  // namespace qbrix::policy
