// The socket-provider catalog: the ordered list of protocol entries through which every socket
// the system opens is served, with the Windows Sockets service-provider calls that read and
// change it. Entries are `WSAPROTOCOL_INFOW` records; a provider is identified by the GUID of
// its entries and each entry by a 32-bit catalog id that the catalog hands out.
//
// Results follow the Windows calls: WSCEnumProtocols returns an entry count, WSCInstallProvider
// and WSCDeinstallProvider return 0, each of them SOCKET_ERROR (-1) on failure with the reason
// in *errorCode; WSCWriteProviderOrder returns the error code itself (0 on success).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "platform/Uuid.h"
#include "platform/WinTypes.h"

namespace qbrix::platform {

using WCHAR = char16_t;

inline constexpr int MAX_PROTOCOL_CHAIN = 7;
inline constexpr int WSAPROTOCOL_LEN = 255;  // characters of szProtocol before its terminator

// ChainLen values: a layered entry has no chain of its own, a base entry is a chain of one.
inline constexpr int LAYERED_PROTOCOL = 0;
inline constexpr int BASE_PROTOCOL = 1;

struct WSAPROTOCOLCHAIN {
    std::int32_t ChainLen;
    DWORD ChainEntries[MAX_PROTOCOL_CHAIN];
};
static_assert(sizeof(WSAPROTOCOLCHAIN) == 32);
static_assert(offsetof(WSAPROTOCOLCHAIN, ChainLen) == 0);
static_assert(offsetof(WSAPROTOCOLCHAIN, ChainEntries) == 4);

// The catalog record, field for field and offset for offset as the platform publishes it.
struct WSAPROTOCOL_INFOW {
    DWORD dwServiceFlags1;
    DWORD dwServiceFlags2;
    DWORD dwServiceFlags3;
    DWORD dwServiceFlags4;
    DWORD dwProviderFlags;
    GUID ProviderId;
    DWORD dwCatalogEntryId;
    WSAPROTOCOLCHAIN ProtocolChain;
    std::int32_t iVersion;
    std::int32_t iAddressFamily;
    std::int32_t iMaxSockAddr;
    std::int32_t iMinSockAddr;
    std::int32_t iSocketType;
    std::int32_t iProtocol;
    std::int32_t iProtocolMaxOffset;
    std::int32_t iNetworkByteOrder;
    std::int32_t iSecurityScheme;
    DWORD dwMessageSize;
    DWORD dwProviderReserved;
    WCHAR szProtocol[WSAPROTOCOL_LEN + 1];
};
static_assert(sizeof(WSAPROTOCOL_INFOW) == 628);
static_assert(offsetof(WSAPROTOCOL_INFOW, dwServiceFlags1) == 0);
static_assert(offsetof(WSAPROTOCOL_INFOW, dwServiceFlags2) == 4);
static_assert(offsetof(WSAPROTOCOL_INFOW, dwServiceFlags3) == 8);
static_assert(offsetof(WSAPROTOCOL_INFOW, dwServiceFlags4) == 12);
static_assert(offsetof(WSAPROTOCOL_INFOW, dwProviderFlags) == 16);
static_assert(offsetof(WSAPROTOCOL_INFOW, ProviderId) == 20);
static_assert(offsetof(WSAPROTOCOL_INFOW, dwCatalogEntryId) == 36);
static_assert(offsetof(WSAPROTOCOL_INFOW, ProtocolChain) == 40);
static_assert(offsetof(WSAPROTOCOL_INFOW, iVersion) == 72);
static_assert(offsetof(WSAPROTOCOL_INFOW, iAddressFamily) == 76);
static_assert(offsetof(WSAPROTOCOL_INFOW, iMaxSockAddr) == 80);
static_assert(offsetof(WSAPROTOCOL_INFOW, iMinSockAddr) == 84);
static_assert(offsetof(WSAPROTOCOL_INFOW, iSocketType) == 88);
static_assert(offsetof(WSAPROTOCOL_INFOW, iProtocol) == 92);
static_assert(offsetof(WSAPROTOCOL_INFOW, iProtocolMaxOffset) == 96);
static_assert(offsetof(WSAPROTOCOL_INFOW, iNetworkByteOrder) == 100);
static_assert(offsetof(WSAPROTOCOL_INFOW, iSecurityScheme) == 104);
static_assert(offsetof(WSAPROTOCOL_INFOW, dwMessageSize) == 108);
static_assert(offsetof(WSAPROTOCOL_INFOW, dwProviderReserved) == 112);
static_assert(offsetof(WSAPROTOCOL_INFOW, szProtocol) == 116);

// Windows Sockets numbers as the catalog records them. They carry a WS_ prefix because the C
// library defines macros of the plain names, some with other values (AF_INET6 is 10 there).
inline constexpr int WS_AF_INET = 2;
inline constexpr int WS_AF_INET6 = 23;
inline constexpr int WS_SOCK_STREAM = 1;
inline constexpr int WS_SOCK_DGRAM = 2;
inline constexpr int WS_SOCK_RAW = 3;
inline constexpr int WS_IPPROTO_IP = 0;
inline constexpr int WS_IPPROTO_TCP = 6;
inline constexpr int WS_IPPROTO_UDP = 17;

// dwServiceFlags1 bits.
inline constexpr DWORD XP1_CONNECTIONLESS = 0x00000001;
inline constexpr DWORD XP1_GUARANTEED_DELIVERY = 0x00000002;
inline constexpr DWORD XP1_GUARANTEED_ORDER = 0x00000004;
inline constexpr DWORD XP1_MESSAGE_ORIENTED = 0x00000008;
inline constexpr DWORD XP1_GRACEFUL_CLOSE = 0x00000020;
inline constexpr DWORD XP1_EXPEDITED_DATA = 0x00000040;
inline constexpr DWORD XP1_SUPPORT_BROADCAST = 0x00000200;
inline constexpr DWORD XP1_SUPPORT_MULTIPOINT = 0x00000400;
inline constexpr DWORD XP1_IFS_HANDLES = 0x00020000;

// dwProviderFlags bits.
inline constexpr DWORD PFL_MULTIPLE_PROTO_ENTRIES = 0x00000001;
inline constexpr DWORD PFL_RECOMMENDED_PROTO_ENTRY = 0x00000002;
inline constexpr DWORD PFL_HIDDEN = 0x00000004;
inline constexpr DWORD PFL_MATCHES_PROTOCOL_ZERO = 0x00000008;

inline constexpr int SOCKET_ERROR = -1;

// Windows Sockets error codes the catalog calls report.
inline constexpr int WSAEFAULT = 10014;
inline constexpr int WSAEINVAL = 10022;
inline constexpr int WSAENOBUFS = 10055;
inline constexpr int WSANO_RECOVERY = 11003;

// Copies the catalog, in catalog order, into `buffer`. `protocols` is null for every entry or a
// zero-terminated list of iProtocol values to keep. When `buffer` is null or *bufferLength
// (bytes) is too small, fails with WSAENOBUFS and sets *bufferLength to the size needed.
int WSCEnumProtocols(const int* protocols, WSAPROTOCOL_INFOW* buffer, DWORD* bufferLength,
                     int* errorCode);

// Appends the entries to the catalog under `providerId` (which replaces each entry's own
// ProviderId), each with a new catalog id, served by the library `providerDllPath`. Fails with
// WSAEINVAL when the GUID is already in the catalog or an entry is malformed (chain length
// outside 0..7, name without terminator), WSAEFAULT for missing arguments and WSANO_RECOVERY
// when the catalog cannot be read or written.
int WSCInstallProvider(const GUID* providerId, const WCHAR* providerDllPath,
                       const WSAPROTOCOL_INFOW* protocolInfoList, DWORD numberOfEntries,
                       int* errorCode);

// Removes every entry of the provider. WSAEINVAL when the catalog holds none.
int WSCDeinstallProvider(const GUID* providerId, int* errorCode);

// Rearranges the catalog into the order of `catalogEntryIds`, which must name every current
// entry exactly once (WSAEINVAL otherwise). Returns 0 or the error code.
int WSCWriteProviderOrder(const DWORD* catalogEntryIds, DWORD numberOfEntries);

// The library path of a provider (UTF-16, terminated). *pathLength is the buffer's size in
// characters; a short buffer fails with WSAEFAULT and *pathLength set to the size needed.
int WSCGetProviderPath(const GUID* providerId, WCHAR* path, int* pathLength, int* errorCode);

// Restores the seeded base catalog, discarding every installed provider (what an
// administrator's catalog reset does). Returns 0 or WSANO_RECOVERY.
int ResetSocketCatalog();

// Test hooks. Each one, when set, is called once its operation has checked its arguments; a
// nonzero result makes the operation fail with that error code before anything is changed.
// Process-wide: tests reset them when they are done.
struct SocketCatalogFaults {
    std::function<int()> enumerate;
    // Called with the provider GUID and the first entry to be installed.
    std::function<int(const GUID& providerId, const WSAPROTOCOL_INFOW& entry)> install;
    std::function<int(const GUID& providerId)> deinstall;
    std::function<int(const DWORD* catalogEntryIds, DWORD numberOfEntries)> writeOrder;
};
extern SocketCatalogFaults g_socketCatalogFaults;
void ResetSocketCatalogFaults();

}  // namespace qbrix::platform
