#include "provider_install/ProviderInstaller.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "core/DiagLog.h"
#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Utf16.h"

namespace qbrix::provider_install {

using platform::DWORD;
using platform::GUID;
using platform::WSAPROTOCOL_INFOW;

GuidList g_chainGuidList;

void ResetChainGuidList() {
    g_chainGuidList.clear();
}

namespace {

// The smallest-ID search starts here, not at 0xFFFFFFFF, so an ID at or above it never counts.
constexpr DWORD kNoSmallestId = 0x0FFFFFFF;
constexpr char kGuidsKeyName[] = "GUIDS";
constexpr std::size_t kNameWidth = platform::WSAPROTOCOL_LEN + 1;

std::u16string_view EntryName(const WSAPROTOCOL_INFOW& entry) {
    return platform::BoundedUtf16(entry.szProtocol, kNameWidth);
}

// Catalog names go to the diagnostic log in the system's narrow encoding. (A "%ls" conversion
// would depend on the C library's locale, which drops the whole line for any non-ASCII name.)
std::string LogName(const WSAPROTOCOL_INFOW& entry) {
    return platform::Utf16ToUtf8(EntryName(entry));
}

std::string GuidText(const GUID& guid) {
    std::string text;
    platform::UuidToStringA(&guid, &text);
    return text;
}

void SetName(WSAPROTOCOL_INFOW& entry, std::u16string_view name) {
    std::memset(entry.szProtocol, 0, sizeof(entry.szProtocol));
    std::size_t count = std::min<std::size_t>(name.size(), platform::WSAPROTOCOL_LEN);
    // Never keep half of a UTF-16 pair at the cut.
    if (count > 0 && count < name.size() && name[count - 1] >= 0xD800 &&
        name[count - 1] <= 0xDBFF) {
        --count;
    }
    std::memcpy(entry.szProtocol, name.data(), count * sizeof(char16_t));
}

// The two-call enumeration (size, then entries) that every catalog read uses. Returns the call's
// result: the entry count or SOCKET_ERROR.
int EnumerateInto(CatalogList& buffer, int* errorCode) {
    DWORD size = 0;
    *errorCode = 0;
    platform::WSCEnumProtocols(nullptr, nullptr, &size, errorCode);
    buffer.assign(size / sizeof(WSAPROTOCOL_INFOW), WSAPROTOCOL_INFOW{});
    size = static_cast<DWORD>(buffer.size() * sizeof(WSAPROTOCOL_INFOW));
    *errorCode = 0;
    int count = platform::WSCEnumProtocols(nullptr, buffer.data(), &size, errorCode);
    if (count != platform::SOCKET_ERROR) {
        buffer.resize(static_cast<std::size_t>(count));
    }
    return count;
}

}  // namespace

int ProviderInstaller::InstallLayeredProvider() {
    RemoveProvidersByPrefix(kOwnEntryPrefix);
    g_chainGuidList.clear();
    int result = InstallAll();
    SaveChainGuids(g_chainGuidList);
    return result;
}

int ProviderInstaller::RemoveLayeredProvider() {
    LoadChainGuids(g_chainGuidList);
    for (const GUID& guid : g_chainGuidList) {
        int error = 0;
        platform::WSCDeinstallProvider(&guid, &error);
        core::DiagLog("\nDeInstalled %s ", GuidText(guid).c_str());
    }
    int error = 0;
    platform::WSCDeinstallProvider(&LayeredProviderGuid, &error);
    return 0;
}

int ProviderInstaller::InstallAll() {
    CatalogList catalog;
    if (EnumerateCatalog(catalog) != 0) {
        return 1;
    }
    int error = 0;
    if (InstallLayeredEntry(CollectLayeredIds(catalog), &error) != 0) {
        core::DiagLog("\ninstall error %d", error);
        return 1;
    }
    if (EnumerateCatalog(catalog) != 0) {
        return 1;
    }
    const WSAPROTOCOL_INFOW* layered = nullptr;
    for (const WSAPROTOCOL_INFOW& entry : catalog) {
        if (entry.ProviderId == LayeredProviderGuid) {
            layered = &entry;
            break;
        }
    }
    if (layered == nullptr) {
        return 1;
    }
    const DWORD layeredId = layered->dwCatalogEntryId;
    // One failing entry does not keep the others from being covered.
    for (const WSAPROTOCOL_INFOW& entry : catalog) {
        InstallChainOver(entry, layeredId, g_chainGuidList);
    }
    // A failed read keeps the list of the previous read, which still names every entry but
    // the new chains; the order write then refuses it.
    EnumerateCatalog(catalog);
    CatalogIdList order = BuildCatalogOrder(catalog, layeredId);
    int rc = platform::WSCWriteProviderOrder(order.empty() ? nullptr : order.data(),
                                             static_cast<DWORD>(order.size()));
    return rc != 0 ? 1 : 0;
}

int ProviderInstaller::EnumerateCatalog(CatalogList& list) {
    CatalogList buffer;
    int error = 0;
    if (EnumerateInto(buffer, &error) == platform::SOCKET_ERROR) {
        return 1;
    }
    list = std::move(buffer);
    return 0;
}

int ProviderInstaller::FindProviderByPrefix(std::u16string_view prefix, GUID* providerId) {
    CatalogList buffer;
    int error = 0;
    int count = EnumerateInto(buffer, &error);
    core::DiagLog("\n num of protocols %d error %d", count, error);
    if (count == platform::SOCKET_ERROR) {
        return 1;
    }
    for (const WSAPROTOCOL_INFOW& entry : buffer) {
        if (EntryName(entry).substr(0, prefix.size()) == prefix) {
            *providerId = entry.ProviderId;
            return 0;
        }
    }
    return 1;
}

int ProviderInstaller::RemoveProvidersByPrefix(std::u16string_view prefix) {
    GUID found{};
    int result = FindProviderByPrefix(prefix, &found);
    // No attempt limit on purpose: an entry the platform refuses to remove is tried again
    // until it goes, so that no entry of ours is ever left behind in the catalog.
    while (result == 0) {
        int error = 0;
        if (platform::WSCDeinstallProvider(&found, &error) != 0) {
            core::DiagLog("\n deinst by name %s %d", GuidText(found).c_str(), error);
        }
        result = FindProviderByPrefix(prefix, &found);
    }
    return result;
}

CatalogIdList ProviderInstaller::CollectLayeredIds(const CatalogList& list) {
    CatalogIdList ids;
    DWORD smallest = kNoSmallestId;
    for (const WSAPROTOCOL_INFOW& entry : list) {
        if (entry.ProtocolChain.ChainLen == platform::LAYERED_PROTOCOL) {
            ids.push_back(entry.dwCatalogEntryId);
        }
        smallest = std::min(smallest, entry.dwCatalogEntryId);
    }
    if (smallest != kNoSmallestId) {
        ids.push_back(smallest);
    }
    return ids;
}

WSAPROTOCOL_INFOW ProviderInstaller::MakeLayeredEntry(const CatalogIdList& chainIds) {
    WSAPROTOCOL_INFOW entry{};
    entry.dwProviderFlags = platform::PFL_HIDDEN;
    entry.ProviderId = LayeredProviderGuid;
    entry.ProtocolChain.ChainLen = platform::LAYERED_PROTOCOL;
    // The chain elements are filled although the length stays 0: the layered entries that
    // existed before, then the catalog's smallest ID, as far as seven elements go.
    std::size_t count = std::min<std::size_t>(chainIds.size(), platform::MAX_PROTOCOL_CHAIN);
    for (std::size_t i = 0; i < count; ++i) {
        entry.ProtocolChain.ChainEntries[i] = chainIds[i];
    }
    entry.iAddressFamily = platform::WS_AF_INET;
    entry.iMaxSockAddr = 16;
    entry.iMinSockAddr = 16;
    entry.iSocketType = platform::WS_SOCK_STREAM;
    entry.iProtocol = platform::WS_IPPROTO_TCP;
    SetName(entry, kLayeredEntryName);
    return entry;
}

int ProviderInstaller::InstallLayeredEntry(const CatalogIdList& chainIds, int* errorCode) {
    WSAPROTOCOL_INFOW entry = MakeLayeredEntry(chainIds);
    int error = 0;
    int rc = platform::WSCInstallProvider(&LayeredProviderGuid, kProviderPath, &entry, 1, &error);
    if (errorCode != nullptr) {
        *errorCode = error;
    }
    return rc;
}

bool ProviderInstaller::IsEligibleForChain(const WSAPROTOCOL_INFOW& entry) {
    return entry.ProtocolChain.ChainLen >= platform::BASE_PROTOCOL &&
           entry.iAddressFamily == platform::WS_AF_INET &&
           (entry.iSocketType == platform::WS_SOCK_STREAM ||
            entry.iSocketType == platform::WS_SOCK_DGRAM) &&
           (entry.iProtocol == platform::WS_IPPROTO_TCP ||
            entry.iProtocol == platform::WS_IPPROTO_UDP);
}

WSAPROTOCOL_INFOW ProviderInstaller::MakeChainEntry(const WSAPROTOCOL_INFOW& covered,
                                                    const GUID& providerId, DWORD layeredId) {
    WSAPROTOCOL_INFOW entry = covered;
    // The provider hands out its own socket handles, which are not file-system handles.
    entry.dwServiceFlags1 &= ~platform::XP1_IFS_HANDLES;
    entry.ProviderId = providerId;
    // A covered name longer than 246 characters does not fit behind the prefix in the 255
    // characters of the field: the chain's name is cut at 255 characters, keeping its
    // terminator and its prefix, so that removal by prefix still finds it.
    std::u16string name(kChainNamePrefix);
    name.append(EntryName(covered));
    SetName(entry, name);
    platform::WSAPROTOCOLCHAIN& chain = entry.ProtocolChain;
    const int length = covered.ProtocolChain.ChainLen;
    chain.ChainLen = length + 1;
    if (length == platform::BASE_PROTOCOL) {
        // A base entry's own chain elements are not trusted.
        chain.ChainEntries[1] = covered.dwCatalogEntryId;
    } else {
        for (int i = platform::MAX_PROTOCOL_CHAIN - 2; i >= 0; --i) {
            chain.ChainEntries[i + 1] = chain.ChainEntries[i];
        }
    }
    chain.ChainEntries[0] = layeredId;
    return entry;
}

int ProviderInstaller::InstallChainOver(const WSAPROTOCOL_INFOW& entry, DWORD layeredId,
                                        GuidList& guids) {
    if (!IsEligibleForChain(entry)) {
        return 0;
    }
    if (entry.ProtocolChain.ChainLen >= platform::MAX_PROTOCOL_CHAIN) {
        core::DiagLog("\n Max chain length reached %s", LogName(entry).c_str());
        return 1;
    }
    GUID guid{};
    if (platform::UuidCreate(&guid) != platform::RPC_S_OK) {
        return 1;
    }
    // Listed before the attempt: a chain whose installation fails is still removed later.
    guids.push_back(guid);
    WSAPROTOCOL_INFOW chain = MakeChainEntry(entry, guid, layeredId);
    int error = 0;
    if (platform::WSCInstallProvider(&guid, kProviderPath, &chain, 1, &error) != 0) {
        return 1;
    }
    core::DiagLog("\nInstalled over %s.", LogName(entry).c_str());
    return 0;
}

CatalogIdList ProviderInstaller::BuildCatalogOrder(const CatalogList& list, DWORD layeredId) {
    CatalogIdList order;
    for (int length = platform::MAX_PROTOCOL_CHAIN; length >= 0; --length) {
        for (bool own : {true, false}) {
            for (const WSAPROTOCOL_INFOW& entry : list) {
                if (entry.ProtocolChain.ChainLen == length &&
                    (entry.ProtocolChain.ChainEntries[0] == layeredId) == own) {
                    order.push_back(entry.dwCatalogEntryId);
                }
            }
        }
    }
    return order;
}

void ProviderInstaller::SaveChainGuids(const GuidList& guids) {
    core::RegistryKey root("", core::kLspRootPath);
    core::RegistryKey::DeleteKeyTree(root.Handle(), kGuidsKeyName);
    core::RegistryKey record(core::kGuidsSuffix, core::kLspRootPath);
    for (const GUID& guid : guids) {
        record.SetString(GuidText(guid), "");
    }
}

void ProviderInstaller::LoadChainGuids(GuidList& guids) {
    guids.clear();
    core::RegistryKey record(core::kGuidsSuffix, core::kLspRootPath);
    std::vector<std::string> names;
    record.ListValueNames(names);
    for (const std::string& name : names) {
        GUID guid{};
        // A name that is not a GUID cannot stand for one of our chains: skip it.
        if (platform::UuidFromStringA(name, &guid) == platform::RPC_S_OK) {
            guids.push_back(guid);
        }
    }
}

}  // namespace qbrix::provider_install
