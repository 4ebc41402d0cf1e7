// The IPv4 interface services: the IP Helper calls GetIpAddrTable and GetIfEntry with their
// record layouts, and the Windows Sockets name functions the system uses (host-name lookup and
// dotted-address conversion). On Linux the addresses come from getifaddrs: one row per
// configured IPv4 address, the interface index from the interface name, the description the
// interface name itself. Tests may install their own interface list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/WinTypes.h"

namespace qbrix::platform {

using ULONG = std::uint32_t;

struct MIB_IPADDRROW {
    DWORD dwAddr;  // network byte order
    DWORD dwIndex;
    DWORD dwMask;  // network byte order
    DWORD dwBCastAddr;
    DWORD dwReasmSize;
    std::uint16_t unused1;
    std::uint16_t wType;
};
static_assert(sizeof(MIB_IPADDRROW) == 24);

struct MIB_IPADDRTABLE {
    DWORD dwNumEntries;
    MIB_IPADDRROW table[1];  // dwNumEntries rows follow in the caller's buffer
};
static_assert(offsetof(MIB_IPADDRTABLE, table) == 4);

inline constexpr std::size_t MAXLEN_PHYSADDR = 8;
inline constexpr std::size_t MAXLEN_IFDESCR = 256;
inline constexpr std::size_t MAX_INTERFACE_NAME_LEN = 256;

struct MIB_IFROW {
    char16_t wszName[MAX_INTERFACE_NAME_LEN];
    DWORD dwIndex;
    DWORD dwType;
    DWORD dwMtu;
    DWORD dwSpeed;
    DWORD dwPhysAddrLen;
    BYTE bPhysAddr[MAXLEN_PHYSADDR];
    DWORD dwAdminStatus;
    DWORD dwOperStatus;
    DWORD dwLastChange;
    DWORD dwInOctets;
    DWORD dwInUcastPkts;
    DWORD dwInNUcastPkts;
    DWORD dwInDiscards;
    DWORD dwInErrors;
    DWORD dwInUnknownProtos;
    DWORD dwOutOctets;
    DWORD dwOutUcastPkts;
    DWORD dwOutNUcastPkts;
    DWORD dwOutDiscards;
    DWORD dwOutErrors;
    DWORD dwOutQLen;
    DWORD dwDescrLen;
    BYTE bDescr[MAXLEN_IFDESCR];
};
static_assert(sizeof(MIB_IFROW) == 860);
static_assert(offsetof(MIB_IFROW, dwIndex) == 512);
static_assert(offsetof(MIB_IFROW, dwDescrLen) == 600);
static_assert(offsetof(MIB_IFROW, bDescr) == 604);

// One configured IPv4 address. Address and mask in network byte order.
struct InterfaceAddress {
    DWORD address = 0;
    DWORD mask = 0;
    DWORD interfaceIndex = 0;
    std::string description;
};

class InterfaceSource {
  public:
    virtual ~InterfaceSource() = default;
    // Every configured IPv4 address, in any order; false when the list cannot be had.
    virtual bool List(std::vector<InterfaceAddress>& addresses) = 0;
};

// The getifaddrs backend.
InterfaceSource& SystemInterfaceSource();

// Installs a source for the guard's lifetime.
class ScopedInterfaceSource {
  public:
    explicit ScopedInterfaceSource(InterfaceSource& source);
    ~ScopedInterfaceSource();
    ScopedInterfaceSource(const ScopedInterfaceSource&) = delete;
    ScopedInterfaceSource& operator=(const ScopedInterfaceSource&) = delete;

  private:
    InterfaceSource* m_previous;
};

// The address table in `table`, whose size in bytes is *size. Returns ERROR_INSUFFICIENT_BUFFER
// with *size set to the size needed when it does not fit, ERROR_INVALID_PARAMETER without a
// size, ERROR_NOT_SUPPORTED when the addresses cannot be listed. `order` sorts the rows by
// address, ascending.
DWORD GetIpAddrTable(MIB_IPADDRTABLE* table, ULONG* size, BOOL order);

// The interface of row->dwIndex: description (dwDescrLen bytes, no terminator counted) and
// index. ERROR_INVALID_DATA when no interface has that index.
DWORD GetIfEntry(MIB_IFROW* row);

// The addresses of a host name in network byte order, first one first; empty when the name
// cannot be resolved.
std::vector<DWORD> ResolveHostAddresses(std::string_view hostName);

// A dotted address ("127.0.0.1", and the shorter forms the sockets library accepts) as a
// network-order number; INADDR_NONE (0xFFFFFFFF) when the text is not an address.
DWORD inet_addr(std::string_view text);

// Conversion between network and host byte order.
DWORD NetworkToHost(DWORD value);
DWORD HostToNetwork(DWORD value);

}  // namespace qbrix::platform
