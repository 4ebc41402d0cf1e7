// Puts the socket provider library "q-brix.dll" into the socket-provider catalog and takes it
// out again. An installation is one hidden layered entry "KORVEL_PROVIDER" under a fixed GUID,
// one protocol chain "KORVELED_<covered name>" over every IPv4 TCP and UDP entry (each under a
// fresh GUID recorded in the registry), and a catalog order that puts the longest chains, and
// among equally long ones our own, first.
#pragma once

#include <string_view>
#include <vector>

#include "platform/SocketCatalog.h"
#include "platform/Uuid.h"
#include "platform/WinTypes.h"

namespace qbrix::provider_install {

using CatalogList = std::vector<platform::WSAPROTOCOL_INFOW>;
using CatalogIdList = std::vector<platform::DWORD>;
using GuidList = std::vector<platform::GUID>;

// {6D414F84-C6E9-4E01-AD6F-CB5398A96EDB}: the same in every installation, never stored.
inline constexpr platform::GUID LayeredProviderGuid = {
    0x6D414F84, 0xC6E9, 0x4E01, {0xAD, 0x6F, 0xCB, 0x53, 0x98, 0xA9, 0x6E, 0xDB}};

// The bare file name: the platform's loader finds the library by its search path.
inline constexpr char16_t kProviderPath[] = u"q-brix.dll";
inline constexpr char16_t kLayeredEntryName[] = u"KORVEL_PROVIDER";
inline constexpr char16_t kChainNamePrefix[] = u"KORVELED_";
// Matches both the layered entry and the chains.
inline constexpr char16_t kOwnEntryPrefix[] = u"KORVEL";

// The GUIDs of the chain entries the current install attempted, in the order attempted.
// Install empties it first; uninstall replaces it with what the registry holds.
extern GuidList g_chainGuidList;
void ResetChainGuidList();

class ProviderInstaller {
  public:
    // 0 when the layered entry was installed and the new order written, 1 on any failure.
    // Every step runs: earlier own entries are removed, and the chain GUIDs attempted are saved
    // whether the installation succeeded or not.
    int InstallLayeredProvider();
    // Removes the recorded chains and the layered entry; 0 in every case. The GUIDS record is
    // left as it is.
    int RemoveLayeredProvider();

    // The operations the two above are made of, each usable on its own.

    // 0 and the whole catalog in `list`, or 1 with `list` unchanged.
    int EnumerateCatalog(CatalogList& list);
    // 0 and the ProviderId of the first entry whose name begins with `prefix` (case-sensitive),
    // 1 when none does or the catalog cannot be read.
    int FindProviderByPrefix(std::u16string_view prefix, platform::GUID* providerId);
    // Removes entries named with `prefix` until none is left; retries a refused removal
    // without limit. Returns 1 (the final search's "not found").
    int RemoveProvidersByPrefix(std::u16string_view prefix);
    // The result of WSCInstallProvider for the layered entry; its error code in *errorCode.
    int InstallLayeredEntry(const CatalogIdList& chainIds, int* errorCode);
    // 0 when `entry` is not eligible or a chain was installed over it, 1 on any failure. The
    // new chain's GUID is appended to `guids` before its installation is attempted.
    int InstallChainOver(const platform::WSAPROTOCOL_INFOW& entry, platform::DWORD layeredId,
                         GuidList& guids);
    CatalogIdList BuildCatalogOrder(const CatalogList& list, platform::DWORD layeredId);
    void SaveChainGuids(const GuidList& guids);
    void LoadChainGuids(GuidList& guids);

    // The records the operations above install.

    // The layered IDs found in `list` in catalog order, then the smallest ID of all entries.
    static CatalogIdList CollectLayeredIds(const CatalogList& list);
    static platform::WSAPROTOCOL_INFOW MakeLayeredEntry(const CatalogIdList& chainIds);
    static bool IsEligibleForChain(const platform::WSAPROTOCOL_INFOW& entry);
    static platform::WSAPROTOCOL_INFOW MakeChainEntry(const platform::WSAPROTOCOL_INFOW& covered,
                                                      const platform::GUID& providerId,
                                                      platform::DWORD layeredId);

  private:
    int InstallAll();
};

}  // namespace qbrix::provider_install
