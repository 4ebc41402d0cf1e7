#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstring>

#include "platform/IpHelper.h"
#include "platform/Utf16.h"

namespace qbrix::platform {

namespace {

class GetifaddrsSource : public InterfaceSource {
  public:
    bool List(std::vector<InterfaceAddress>& addresses) override {
        addresses.clear();
        ifaddrs* list = nullptr;
        if (::getifaddrs(&list) != 0) {
            return false;
        }
        for (const ifaddrs* item = list; item != nullptr; item = item->ifa_next) {
            if (item->ifa_addr == nullptr || item->ifa_addr->sa_family != AF_INET) {
                continue;
            }
            InterfaceAddress entry;
            entry.address = reinterpret_cast<const sockaddr_in*>(item->ifa_addr)->sin_addr.s_addr;
            if (item->ifa_netmask != nullptr) {
                entry.mask =
                    reinterpret_cast<const sockaddr_in*>(item->ifa_netmask)->sin_addr.s_addr;
            }
            entry.interfaceIndex = ::if_nametoindex(item->ifa_name);
            entry.description = item->ifa_name;
            addresses.push_back(std::move(entry));
        }
        ::freeifaddrs(list);
        return true;
    }
};

std::atomic<InterfaceSource*> g_installedSource{nullptr};

InterfaceSource& CurrentSource() {
    InterfaceSource* source = g_installedSource.load();
    return source != nullptr ? *source : SystemInterfaceSource();
}

}  // namespace

InterfaceSource& SystemInterfaceSource() {
    static GetifaddrsSource source;
    return source;
}

ScopedInterfaceSource::ScopedInterfaceSource(InterfaceSource& source)
    : m_previous(g_installedSource.exchange(&source)) {}

ScopedInterfaceSource::~ScopedInterfaceSource() {
    g_installedSource.store(m_previous);
}

DWORD GetIpAddrTable(MIB_IPADDRTABLE* table, ULONG* size, BOOL order) {
    if (size == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    std::vector<InterfaceAddress> addresses;
    if (!CurrentSource().List(addresses)) {
        return ERROR_NOT_SUPPORTED;
    }
    if (order) {
        std::stable_sort(addresses.begin(), addresses.end(),
                         [](const InterfaceAddress& a, const InterfaceAddress& b) {
                             return NetworkToHost(a.address) < NetworkToHost(b.address);
                         });
    }
    std::size_t needed =
        offsetof(MIB_IPADDRTABLE, table) + addresses.size() * sizeof(MIB_IPADDRROW);
    needed = std::max(needed, sizeof(MIB_IPADDRTABLE));
    if (table == nullptr || *size < needed) {
        *size = static_cast<ULONG>(needed);
        return ERROR_INSUFFICIENT_BUFFER;
    }
    // The rows are written through the byte buffer: the record declares only the first one.
    auto* bytes = reinterpret_cast<unsigned char*>(table);
    DWORD count = static_cast<DWORD>(addresses.size());
    std::memcpy(bytes, &count, sizeof count);
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        MIB_IPADDRROW row{};
        row.dwAddr = addresses[i].address;
        row.dwIndex = addresses[i].interfaceIndex;
        row.dwMask = addresses[i].mask;
        row.dwBCastAddr = 1;
        row.dwReasmSize = 65535;
        std::memcpy(bytes + offsetof(MIB_IPADDRTABLE, table) + i * sizeof(MIB_IPADDRROW), &row,
                    sizeof row);
    }
    return ERROR_SUCCESS;
}

DWORD GetIfEntry(MIB_IFROW* row) {
    if (row == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    std::vector<InterfaceAddress> addresses;
    if (!CurrentSource().List(addresses)) {
        return ERROR_NOT_SUPPORTED;
    }
    auto found = std::find_if(addresses.begin(), addresses.end(), [&](const InterfaceAddress& a) {
        return a.interfaceIndex == row->dwIndex;
    });
    if (found == addresses.end()) {
        return ERROR_INVALID_DATA;
    }
    DWORD index = row->dwIndex;
    std::memset(row, 0, sizeof *row);
    row->dwIndex = index;
    std::u16string name = Utf8ToUtf16(found->description);
    std::memcpy(row->wszName, name.data(),
                std::min(name.size(), MAX_INTERFACE_NAME_LEN - 1) * sizeof(char16_t));
    std::size_t length = std::min(found->description.size(), MAXLEN_IFDESCR - 1);
    std::memcpy(row->bDescr, found->description.data(), length);
    row->dwDescrLen = static_cast<DWORD>(length);
    row->dwAdminStatus = 1;
    row->dwOperStatus = 1;
    return ERROR_SUCCESS;
}

std::vector<DWORD> ResolveHostAddresses(std::string_view hostName) {
    std::vector<DWORD> addresses;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* result = nullptr;
    if (::getaddrinfo(std::string(hostName).c_str(), nullptr, &hints, &result) != 0) {
        return addresses;
    }
    for (const addrinfo* item = result; item != nullptr; item = item->ai_next) {
        addresses.push_back(reinterpret_cast<const sockaddr_in*>(item->ai_addr)->sin_addr.s_addr);
    }
    ::freeaddrinfo(result);
    return addresses;
}

DWORD inet_addr(std::string_view text) {
    return ::inet_addr(std::string(text).c_str());
}

DWORD NetworkToHost(DWORD value) {
    return ntohl(value);
}
DWORD HostToNetwork(DWORD value) {
    return htonl(value);
}

}  // namespace qbrix::platform
