// The socket-provider catalog kept in the emulated registry, laid out the way the platform keeps
// its own catalog:
//
//   HKLM\SYSTEM\CurrentControlSet\Services\WinSock2\Parameters\Protocol_Catalog9
//       Next_Catalog_Entry_ID   REG_DWORD   the catalog id the next installed entry receives
//       Catalog_Entries\000000000001 ... one key per entry, named by its 1-based position
//           PackedCatalogItem   REG_BINARY  PackedCatalogItem (888 bytes, below)
//
// Sub-keys enumerate in name order and the names are zero-padded, so the key order is the
// catalog order. The catalog is seeded with the base providers the first time it is used.
// A key whose record is missing, not exactly one PackedCatalogItem or has a chain length
// outside 0..7 makes the catalog unreadable: every call then fails with WSANO_RECOVERY and nothing
// is changed, until the catalog is reset.
//
// Changes within one process are serialised by a lock; like the platform's own calls, the
// catalog is not meant to be changed by two processes at the same moment.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Platform.h"
#include "platform/SocketCatalog.h"
#include "platform/Utf16.h"

namespace qbrix::platform {

SocketCatalogFaults g_socketCatalogFaults;

void ResetSocketCatalogFaults() {
    g_socketCatalogFaults = SocketCatalogFaults{};
}

namespace {

constexpr char kCatalogPath[] =
    "SYSTEM\\CurrentControlSet\\Services\\WinSock2\\Parameters\\Protocol_Catalog9";
constexpr char kEntriesKey[] = "Catalog_Entries";
constexpr char kItemValue[] = "PackedCatalogItem";
constexpr char kNextIdValue[] = "Next_Catalog_Entry_ID";
constexpr DWORD kFirstCatalogId = 1001;
constexpr std::size_t kPathBytes = 260;
constexpr char kBaseProviderPath[] = "%SystemRoot%\\system32\\mswsock.dll";

// One stored entry: the provider library's path (UTF-8, NUL-padded) and the record.
struct PackedCatalogItem {
    char ProviderPath[kPathBytes];
    WSAPROTOCOL_INFOW ProtocolInfo;
};
static_assert(sizeof(PackedCatalogItem) == 888);
static_assert(offsetof(PackedCatalogItem, ProviderPath) == 0);
static_assert(offsetof(PackedCatalogItem, ProtocolInfo) == 260);

// The base providers' GUIDs: one for the IPv4 entries, one for the IPv6 entries.
constexpr GUID kTcpipProviderId = {
    0xE70F1AA0, 0xAB8B, 0x11CF, {0x8C, 0xA3, 0x00, 0x80, 0x5F, 0x48, 0xA1, 0x92}};
constexpr GUID kTcpip6ProviderId = {
    0xF9EAB0C0, 0x26D4, 0x11D0, {0xBB, 0xBF, 0x00, 0xAA, 0x00, 0x6C, 0x34, 0xE4}};

std::mutex g_catalogLock;

bool SameItem(const PackedCatalogItem& a, const PackedCatalogItem& b) {
    return std::memcmp(&a, &b, sizeof(a)) == 0;
}

void SetName(WSAPROTOCOL_INFOW& info, std::u16string_view name) {
    std::memset(info.szProtocol, 0, sizeof(info.szProtocol));
    std::size_t count = std::min<std::size_t>(name.size(), WSAPROTOCOL_LEN);
    std::memcpy(info.szProtocol, name.data(), count * sizeof(WCHAR));
}

void SetPath(PackedCatalogItem& item, std::string_view path) {
    std::memset(item.ProviderPath, 0, sizeof(item.ProviderPath));
    std::memcpy(item.ProviderPath, path.data(), std::min(path.size(), kPathBytes - 1));
}

PackedCatalogItem BaseEntry(const GUID& providerId, DWORD catalogId, int family, int socketType,
                            int protocol, std::u16string_view name) {
    PackedCatalogItem item{};
    SetPath(item, kBaseProviderPath);
    WSAPROTOCOL_INFOW& info = item.ProtocolInfo;
    bool stream = socketType == WS_SOCK_STREAM;
    info.dwServiceFlags1 =
        XP1_IFS_HANDLES | (stream ? XP1_GUARANTEED_DELIVERY | XP1_GUARANTEED_ORDER |
                                        XP1_GRACEFUL_CLOSE | XP1_EXPEDITED_DATA
                                  : XP1_CONNECTIONLESS | XP1_MESSAGE_ORIENTED |
                                        XP1_SUPPORT_BROADCAST | XP1_SUPPORT_MULTIPOINT);
    info.dwProviderFlags = socketType == WS_SOCK_RAW
                               ? PFL_MATCHES_PROTOCOL_ZERO
                               : PFL_MATCHES_PROTOCOL_ZERO | PFL_RECOMMENDED_PROTO_ENTRY;
    info.ProviderId = providerId;
    info.dwCatalogEntryId = catalogId;
    info.ProtocolChain.ChainLen = BASE_PROTOCOL;
    info.iVersion = 2;
    info.iAddressFamily = family;
    info.iMaxSockAddr = family == WS_AF_INET ? 16 : 28;
    info.iMinSockAddr = info.iMaxSockAddr;
    info.iSocketType = socketType;
    info.iProtocol = protocol;
    info.iProtocolMaxOffset = socketType == WS_SOCK_RAW ? 255 : 0;
    info.dwMessageSize = stream ? 0 : 65467;
    SetName(info, name);
    return item;
}

std::vector<PackedCatalogItem> SeedItems() {
    return {
        BaseEntry(kTcpipProviderId, 1001, WS_AF_INET, WS_SOCK_STREAM, WS_IPPROTO_TCP,
                  u"MSAFD Tcpip [TCP/IP]"),
        BaseEntry(kTcpipProviderId, 1002, WS_AF_INET, WS_SOCK_DGRAM, WS_IPPROTO_UDP,
                  u"MSAFD Tcpip [UDP/IP]"),
        BaseEntry(kTcpipProviderId, 1003, WS_AF_INET, WS_SOCK_RAW, WS_IPPROTO_IP,
                  u"MSAFD Tcpip [RAW/IP]"),
        BaseEntry(kTcpip6ProviderId, 1004, WS_AF_INET6, WS_SOCK_STREAM, WS_IPPROTO_TCP,
                  u"MSAFD Tcpip [TCP/IPv6]"),
        BaseEntry(kTcpip6ProviderId, 1005, WS_AF_INET6, WS_SOCK_DGRAM, WS_IPPROTO_UDP,
                  u"MSAFD Tcpip [UDP/IPv6]"),
        BaseEntry(kTcpip6ProviderId, 1006, WS_AF_INET6, WS_SOCK_RAW, WS_IPPROTO_IP,
                  u"MSAFD Tcpip [RAW/IPv6]"),
    };
}

class ScopedKey {
  public:
    ScopedKey() = default;
    ~ScopedKey() {
        if (m_key != nullptr) {
            Current().Reg().CloseKey(m_key);
        }
    }
    ScopedKey(const ScopedKey&) = delete;
    ScopedKey& operator=(const ScopedKey&) = delete;
    HKEY* Out() { return &m_key; }
    HKEY Get() const { return m_key; }

  private:
    HKEY m_key = nullptr;
};

std::string EntryKeyName(std::size_t position) {
    char name[32];
    std::snprintf(name, sizeof(name), "%012zu", position + 1);
    return name;
}

// The catalog of one operation: the keys stay open while the operation reads and rewrites it.
class CatalogStore {
  public:
    // Opens the catalog, seeding it when it does not exist yet. 0 or WSANO_RECOVERY.
    int Open() {
        Registry& reg = Current().Reg();
        DWORD disposition = 0;
        if (reg.CreateKeyEx(HKEY_LOCAL_MACHINE, kCatalogPath, REG_OPTION_NON_VOLATILE,
                            KEY_ALL_ACCESS, m_root.Out(), &disposition) != 0 ||
            reg.CreateKeyEx(m_root.Get(), kEntriesKey, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS,
                            m_entries.Out(), &disposition) != 0) {
            return WSANO_RECOVERY;
        }
        if (disposition == REG_CREATED_NEW_KEY) {
            std::vector<PackedCatalogItem> seed = SeedItems();
            m_nextId = kFirstCatalogId + static_cast<DWORD>(seed.size());
            return Replace(std::move(seed)) == 0 ? SaveNextId() : WSANO_RECOVERY;
        }
        return Load();
    }

    const std::vector<PackedCatalogItem>& Items() const { return m_items; }
    DWORD TakeNextId() { return m_nextId++; }

    // Makes the stored catalog equal to `items`, writing only the positions that change.
    int Replace(std::vector<PackedCatalogItem> items) {
        for (std::size_t i = 0; i < items.size(); ++i) {
            if (i < m_items.size() && SameItem(m_items[i], items[i])) {
                continue;
            }
            if (WriteItem(i, items[i]) != 0) {
                return WSANO_RECOVERY;
            }
        }
        for (std::size_t i = items.size(); i < m_items.size(); ++i) {
            if (Current().Reg().DeleteKey(m_entries.Get(), EntryKeyName(i)) != 0) {
                return WSANO_RECOVERY;
            }
        }
        m_items = std::move(items);
        return 0;
    }

    int SaveNextId() {
        DWORD value = m_nextId;
        return Current().Reg().SetValueEx(m_root.Get(), kNextIdValue, REG_DWORD,
                                          reinterpret_cast<const BYTE*>(&value), sizeof(value)) == 0
                   ? 0
                   : WSANO_RECOVERY;
    }

  private:
    int Load() {
        Registry& reg = Current().Reg();
        DWORD highestId = 0;
        for (DWORD index = 0;; ++index) {
            char name[kMaxKeyNameLength + 1];
            DWORD nameSize = sizeof(name);
            LONG rc = reg.EnumKeyEx(m_entries.Get(), index, name, &nameSize);
            if (rc == static_cast<LONG>(ERROR_NO_MORE_ITEMS)) {
                break;
            }
            if (rc != 0) {
                return WSANO_RECOVERY;
            }
            ScopedKey entry;
            if (reg.OpenKeyEx(m_entries.Get(), std::string_view(name, nameSize), KEY_READ,
                              entry.Out()) != 0) {
                return WSANO_RECOVERY;
            }
            PackedCatalogItem item{};
            DWORD type = REG_NONE;
            DWORD size = sizeof(item);
            if (reg.QueryValueEx(entry.Get(), kItemValue, &type, reinterpret_cast<BYTE*>(&item),
                                 &size) != 0 ||
                type != REG_BINARY || size != sizeof(item) ||
                item.ProtocolInfo.ProtocolChain.ChainLen < LAYERED_PROTOCOL ||
                item.ProtocolInfo.ProtocolChain.ChainLen > MAX_PROTOCOL_CHAIN) {
                return WSANO_RECOVERY;
            }
            highestId = std::max(highestId, item.ProtocolInfo.dwCatalogEntryId);
            m_items.push_back(item);
        }
        DWORD stored = 0;
        DWORD type = REG_NONE;
        DWORD size = sizeof(stored);
        if (reg.QueryValueEx(m_root.Get(), kNextIdValue, &type, reinterpret_cast<BYTE*>(&stored),
                             &size) != 0 ||
            type != REG_DWORD || size != sizeof(stored)) {
            stored = 0;
        }
        // A lost or stale counter must never hand out an id that is still in use.
        m_nextId = std::max({stored, highestId + 1, kFirstCatalogId});
        return 0;
    }

    int WriteItem(std::size_t position, const PackedCatalogItem& item) {
        Registry& reg = Current().Reg();
        ScopedKey entry;
        DWORD disposition = 0;
        if (reg.CreateKeyEx(m_entries.Get(), EntryKeyName(position), REG_OPTION_NON_VOLATILE,
                            KEY_ALL_ACCESS, entry.Out(), &disposition) != 0) {
            return WSANO_RECOVERY;
        }
        return reg.SetValueEx(entry.Get(), kItemValue, REG_BINARY,
                              reinterpret_cast<const BYTE*>(&item), sizeof(item)) == 0
                   ? 0
                   : WSANO_RECOVERY;
    }

    ScopedKey m_root;
    ScopedKey m_entries;
    std::vector<PackedCatalogItem> m_items;
    DWORD m_nextId = kFirstCatalogId;
};

bool HasProvider(const std::vector<PackedCatalogItem>& items, const GUID& providerId) {
    for (const PackedCatalogItem& item : items) {
        if (item.ProtocolInfo.ProviderId == providerId) {
            return true;
        }
    }
    return false;
}

bool WantedProtocol(const int* protocols, int protocol) {
    if (protocols == nullptr) {
        return true;
    }
    for (const int* p = protocols; *p != 0; ++p) {
        if (*p == protocol) {
            return true;
        }
    }
    return false;
}

int Fail(int* errorCode, int code) {
    *errorCode = code;
    return SOCKET_ERROR;
}

}  // namespace

int WSCEnumProtocols(const int* protocols, WSAPROTOCOL_INFOW* buffer, DWORD* bufferLength,
                     int* errorCode) {
    if (errorCode == nullptr) {
        return SOCKET_ERROR;
    }
    if (bufferLength == nullptr) {
        return Fail(errorCode, WSAEFAULT);
    }
    if (g_socketCatalogFaults.enumerate) {
        if (int code = g_socketCatalogFaults.enumerate(); code != 0) {
            return Fail(errorCode, code);
        }
    }
    std::lock_guard guard(g_catalogLock);
    CatalogStore store;
    if (int code = store.Open(); code != 0) {
        return Fail(errorCode, code);
    }
    std::vector<const WSAPROTOCOL_INFOW*> selected;
    for (const PackedCatalogItem& item : store.Items()) {
        if (WantedProtocol(protocols, item.ProtocolInfo.iProtocol)) {
            selected.push_back(&item.ProtocolInfo);
        }
    }
    auto needed = static_cast<DWORD>(selected.size() * sizeof(WSAPROTOCOL_INFOW));
    if (*bufferLength < needed || (buffer == nullptr && needed > 0)) {
        *bufferLength = needed;
        return Fail(errorCode, WSAENOBUFS);
    }
    for (std::size_t i = 0; i < selected.size(); ++i) {
        std::memcpy(&buffer[i], selected[i], sizeof(WSAPROTOCOL_INFOW));
    }
    return static_cast<int>(selected.size());
}

int WSCInstallProvider(const GUID* providerId, const WCHAR* providerDllPath,
                       const WSAPROTOCOL_INFOW* protocolInfoList, DWORD numberOfEntries,
                       int* errorCode) {
    if (errorCode == nullptr) {
        return SOCKET_ERROR;
    }
    if (providerId == nullptr || providerDllPath == nullptr || protocolInfoList == nullptr) {
        return Fail(errorCode, WSAEFAULT);
    }
    std::u16string_view path16 = BoundedUtf16(providerDllPath, kPathBytes);
    std::string path = Utf16ToUtf8(path16);
    if (numberOfEntries == 0 || path.empty() || path16.size() == kPathBytes ||
        path.size() >= kPathBytes) {
        return Fail(errorCode, WSAEINVAL);
    }
    for (DWORD i = 0; i < numberOfEntries; ++i) {
        const WSAPROTOCOL_INFOW& entry = protocolInfoList[i];
        bool terminated = BoundedUtf16(entry.szProtocol, WSAPROTOCOL_LEN + 1).size() <=
                          static_cast<std::size_t>(WSAPROTOCOL_LEN);
        if (entry.ProtocolChain.ChainLen < 0 || entry.ProtocolChain.ChainLen > MAX_PROTOCOL_CHAIN ||
            !terminated) {
            return Fail(errorCode, WSAEINVAL);
        }
    }
    if (g_socketCatalogFaults.install) {
        if (int code = g_socketCatalogFaults.install(*providerId, protocolInfoList[0]); code != 0) {
            return Fail(errorCode, code);
        }
    }
    std::lock_guard guard(g_catalogLock);
    CatalogStore store;
    if (int code = store.Open(); code != 0) {
        return Fail(errorCode, code);
    }
    if (HasProvider(store.Items(), *providerId)) {
        return Fail(errorCode, WSAEINVAL);
    }
    const std::vector<PackedCatalogItem> before = store.Items();
    std::vector<PackedCatalogItem> after = before;
    for (DWORD i = 0; i < numberOfEntries; ++i) {
        PackedCatalogItem item{};
        SetPath(item, path);
        item.ProtocolInfo = protocolInfoList[i];
        item.ProtocolInfo.ProviderId = *providerId;
        item.ProtocolInfo.dwCatalogEntryId = store.TakeNextId();
        after.push_back(item);
    }
    if (store.Replace(std::move(after)) != 0 || store.SaveNextId() != 0) {
        // Take back whatever part of the installation reached the store.
        store.Replace(before);
        return Fail(errorCode, WSANO_RECOVERY);
    }
    return 0;
}

int WSCDeinstallProvider(const GUID* providerId, int* errorCode) {
    if (errorCode == nullptr) {
        return SOCKET_ERROR;
    }
    if (providerId == nullptr) {
        return Fail(errorCode, WSAEFAULT);
    }
    if (g_socketCatalogFaults.deinstall) {
        if (int code = g_socketCatalogFaults.deinstall(*providerId); code != 0) {
            return Fail(errorCode, code);
        }
    }
    std::lock_guard guard(g_catalogLock);
    CatalogStore store;
    if (int code = store.Open(); code != 0) {
        return Fail(errorCode, code);
    }
    std::vector<PackedCatalogItem> kept;
    for (const PackedCatalogItem& item : store.Items()) {
        if (!(item.ProtocolInfo.ProviderId == *providerId)) {
            kept.push_back(item);
        }
    }
    if (kept.size() == store.Items().size()) {
        return Fail(errorCode, WSAEINVAL);
    }
    if (store.Replace(std::move(kept)) != 0) {
        return Fail(errorCode, WSANO_RECOVERY);
    }
    return 0;
}

int WSCWriteProviderOrder(const DWORD* catalogEntryIds, DWORD numberOfEntries) {
    if (catalogEntryIds == nullptr && numberOfEntries > 0) {
        return WSAEFAULT;
    }
    if (g_socketCatalogFaults.writeOrder) {
        if (int code = g_socketCatalogFaults.writeOrder(catalogEntryIds, numberOfEntries);
            code != 0) {
            return code;
        }
    }
    std::lock_guard guard(g_catalogLock);
    CatalogStore store;
    if (int code = store.Open(); code != 0) {
        return code;
    }
    const std::vector<PackedCatalogItem>& items = store.Items();
    if (numberOfEntries != items.size()) {
        return WSAEINVAL;
    }
    std::vector<PackedCatalogItem> ordered;
    std::vector<bool> used(items.size(), false);
    for (DWORD i = 0; i < numberOfEntries; ++i) {
        std::size_t found = items.size();
        for (std::size_t j = 0; j < items.size(); ++j) {
            if (!used[j] && items[j].ProtocolInfo.dwCatalogEntryId == catalogEntryIds[i]) {
                found = j;
                break;
            }
        }
        if (found == items.size()) {
            return WSAEINVAL;  // unknown or repeated id
        }
        used[found] = true;
        ordered.push_back(items[found]);
    }
    return store.Replace(std::move(ordered));
}

int WSCGetProviderPath(const GUID* providerId, WCHAR* path, int* pathLength, int* errorCode) {
    if (errorCode == nullptr) {
        return SOCKET_ERROR;
    }
    if (providerId == nullptr || pathLength == nullptr) {
        return Fail(errorCode, WSAEFAULT);
    }
    std::lock_guard guard(g_catalogLock);
    CatalogStore store;
    if (int code = store.Open(); code != 0) {
        return Fail(errorCode, code);
    }
    for (const PackedCatalogItem& item : store.Items()) {
        if (item.ProtocolInfo.ProviderId == *providerId) {
            std::u16string text = Utf8ToUtf16(
                std::string_view(item.ProviderPath, strnlen(item.ProviderPath, kPathBytes)));
            auto needed = static_cast<int>(text.size() + 1);
            if (path == nullptr || *pathLength < needed) {
                *pathLength = needed;
                return Fail(errorCode, WSAEFAULT);
            }
            std::memcpy(path, text.c_str(), static_cast<std::size_t>(needed) * sizeof(WCHAR));
            return 0;
        }
    }
    return Fail(errorCode, WSAEINVAL);
}

int ResetSocketCatalog() {
    std::lock_guard guard(g_catalogLock);
    Registry& reg = Current().Reg();
    {
        ScopedKey root;
        LONG rc = reg.OpenKeyEx(HKEY_LOCAL_MACHINE, kCatalogPath, KEY_ALL_ACCESS, root.Out());
        if (rc == 0) {
            rc = DeleteRegistryTree(reg, root.Get(), kEntriesKey);
        }
        if (rc != 0 && rc != static_cast<LONG>(ERROR_FILE_NOT_FOUND)) {
            return WSANO_RECOVERY;
        }
    }
    CatalogStore store;
    return store.Open();
}

}  // namespace qbrix::platform
