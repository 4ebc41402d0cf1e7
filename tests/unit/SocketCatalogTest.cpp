// The socket-provider catalog of the platform: seeding, the enumerate/install/deinstall/order
// calls with their error codes, the store layout and the fault hooks.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/Platform.h"
#include "platform/SocketCatalog.h"
#include "platform/Utf16.h"
#include "support/TempPlatform.h"

namespace qbrix::platform {
namespace {

constexpr char kEntriesPath[] =
    "SYSTEM\\CurrentControlSet\\Services\\WinSock2\\Parameters\\Protocol_Catalog9\\Catalog_"
    "Entries";
constexpr GUID kTcpipGuid = {
    0xE70F1AA0, 0xAB8B, 0x11CF, {0x8C, 0xA3, 0x00, 0x80, 0x5F, 0x48, 0xA1, 0x92}};
constexpr GUID kOurGuid = {
    0x11111111, 0x2222, 0x4333, {0x84, 0x44, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55}};

WSAPROTOCOL_INFOW Entry(const std::u16string& name, int chainLen = 1) {
    WSAPROTOCOL_INFOW entry{};
    entry.ProtocolChain.ChainLen = chainLen;
    entry.iAddressFamily = WS_AF_INET;
    entry.iSocketType = WS_SOCK_STREAM;
    entry.iProtocol = WS_IPPROTO_TCP;
    std::memcpy(entry.szProtocol, name.data(), name.size() * sizeof(char16_t));
    return entry;
}

class SocketCatalogTest : public ::testing::Test {
  protected:
    ~SocketCatalogTest() override { ResetSocketCatalogFaults(); }

    std::vector<WSAPROTOCOL_INFOW> Enumerate(const int* protocols = nullptr) {
        DWORD size = 0;
        int error = 0;
        EXPECT_EQ(SOCKET_ERROR, WSCEnumProtocols(protocols, nullptr, &size, &error));
        EXPECT_EQ(WSAENOBUFS, error);
        std::vector<WSAPROTOCOL_INFOW> list(size / sizeof(WSAPROTOCOL_INFOW));
        int count = WSCEnumProtocols(protocols, list.data(), &size, &error);
        EXPECT_EQ(static_cast<int>(list.size()), count);
        return list;
    }
    std::vector<DWORD> Ids() {
        std::vector<DWORD> ids;
        for (const WSAPROTOCOL_INFOW& entry : Enumerate()) {
            ids.push_back(entry.dwCatalogEntryId);
        }
        return ids;
    }
    int Install(const GUID& guid, const WSAPROTOCOL_INFOW& entry, int* error) {
        return WSCInstallProvider(&guid, u"q-brix.dll", &entry, 1, error);
    }
    static std::string Name(const WSAPROTOCOL_INFOW& entry) {
        return Utf16ToUtf8(BoundedUtf16(entry.szProtocol, WSAPROTOCOL_LEN + 1));
    }
    // Overwrites the stored record of the entry at `position` (1-based) with raw bytes.
    void StoreRaw(int position, const std::vector<BYTE>& bytes, DWORD type = REG_BINARY) {
        char name[16];
        std::snprintf(name, sizeof(name), "%012d", position);
        HKEY key = nullptr;
        DWORD disposition = 0;
        Registry& reg = Current().Reg();
        ASSERT_EQ(0, reg.CreateKeyEx(HKEY_LOCAL_MACHINE, std::string(kEntriesPath) + "\\" + name, 0,
                                     KEY_ALL_ACCESS, &key, &disposition));
        ASSERT_EQ(0, reg.SetValueEx(key, "PackedCatalogItem", type, bytes.data(),
                                    static_cast<DWORD>(bytes.size())));
        reg.CloseKey(key);
    }
    std::vector<BYTE> ReadRaw(int position) {
        char name[16];
        std::snprintf(name, sizeof(name), "%012d", position);
        HKEY key = nullptr;
        Registry& reg = Current().Reg();
        std::vector<BYTE> bytes(2000);
        DWORD size = static_cast<DWORD>(bytes.size());
        DWORD type = 0;
        EXPECT_EQ(0, reg.OpenKeyEx(HKEY_LOCAL_MACHINE, std::string(kEntriesPath) + "\\" + name,
                                   KEY_READ, &key));
        EXPECT_EQ(0, reg.QueryValueEx(key, "PackedCatalogItem", &type, bytes.data(), &size));
        EXPECT_EQ(REG_BINARY, type);
        reg.CloseKey(key);
        bytes.resize(size);
        return bytes;
    }

    test::TempPlatform m_platform;
};

TEST_F(SocketCatalogTest, FirstUseSeedsTheBaseProvidersFrom1001) {
    std::vector<WSAPROTOCOL_INFOW> list = Enumerate();
    ASSERT_EQ(6u, list.size());
    const char* const names[] = {"MSAFD Tcpip [TCP/IP]",   "MSAFD Tcpip [UDP/IP]",
                                 "MSAFD Tcpip [RAW/IP]",   "MSAFD Tcpip [TCP/IPv6]",
                                 "MSAFD Tcpip [UDP/IPv6]", "MSAFD Tcpip [RAW/IPv6]"};
    const int types[] = {WS_SOCK_STREAM, WS_SOCK_DGRAM, WS_SOCK_RAW};
    const int protocols[] = {WS_IPPROTO_TCP, WS_IPPROTO_UDP, WS_IPPROTO_IP};
    for (std::size_t i = 0; i < list.size(); ++i) {
        const WSAPROTOCOL_INFOW& entry = list[i];
        EXPECT_EQ(1001 + i, entry.dwCatalogEntryId);
        EXPECT_EQ(names[i], Name(entry));
        EXPECT_EQ(BASE_PROTOCOL, entry.ProtocolChain.ChainLen);
        EXPECT_EQ(i < 3 ? WS_AF_INET : WS_AF_INET6, entry.iAddressFamily);
        EXPECT_EQ(i < 3 ? 16 : 28, entry.iMaxSockAddr);
        EXPECT_EQ(types[i % 3], entry.iSocketType);
        EXPECT_EQ(protocols[i % 3], entry.iProtocol);
        EXPECT_NE(0u, entry.dwServiceFlags1 & XP1_IFS_HANDLES);
    }
    EXPECT_EQ(kTcpipGuid, list[0].ProviderId);
    EXPECT_EQ(list[0].ProviderId, list[2].ProviderId);
    EXPECT_FALSE(list[0].ProviderId == list[3].ProviderId);
    // One key per entry holding the 888-byte record: the path, then the record.
    std::vector<BYTE> raw = ReadRaw(1);
    ASSERT_EQ(888u, raw.size());
    EXPECT_STREQ("%SystemRoot%\\system32\\mswsock.dll", reinterpret_cast<const char*>(raw.data()));
    EXPECT_EQ(0, std::memcmp(raw.data() + 260, &list[0], sizeof(WSAPROTOCOL_INFOW)));
}

TEST_F(SocketCatalogTest, EnumerationReportsTheSizeNeededAndFilters) {
    Enumerate();
    int error = 0;
    DWORD size = sizeof(WSAPROTOCOL_INFOW);
    WSAPROTOCOL_INFOW one{};
    EXPECT_EQ(SOCKET_ERROR, WSCEnumProtocols(nullptr, &one, &size, &error));
    EXPECT_EQ(WSAENOBUFS, error);
    EXPECT_EQ(6 * sizeof(WSAPROTOCOL_INFOW), size);
    EXPECT_EQ(SOCKET_ERROR, WSCEnumProtocols(nullptr, &one, nullptr, &error));
    EXPECT_EQ(WSAEFAULT, error);

    const int udpOnly[] = {WS_IPPROTO_UDP, 0};
    std::vector<WSAPROTOCOL_INFOW> udp = Enumerate(udpOnly);
    ASSERT_EQ(2u, udp.size());
    EXPECT_EQ(1002u, udp[0].dwCatalogEntryId);
    EXPECT_EQ(1005u, udp[1].dwCatalogEntryId);
}

TEST_F(SocketCatalogTest, InstallAppendsUnderTheGivenGuidWithNewIds) {
    WSAPROTOCOL_INFOW entries[2] = {Entry(u"first"), Entry(u"second", 0)};
    entries[0].dwCatalogEntryId = 5;  // ignored: the catalog hands out the ids
    int error = 0;
    ASSERT_EQ(0, WSCInstallProvider(&kOurGuid, u"q-brix.dll", entries, 2, &error));
    std::vector<WSAPROTOCOL_INFOW> list = Enumerate();
    ASSERT_EQ(8u, list.size());
    EXPECT_EQ("first", Name(list[6]));
    EXPECT_EQ(1007u, list[6].dwCatalogEntryId);
    EXPECT_EQ(1008u, list[7].dwCatalogEntryId);
    EXPECT_EQ(kOurGuid, list[6].ProviderId);
    EXPECT_EQ(kOurGuid, list[7].ProviderId);
    char16_t path[32];
    int length = 32;
    ASSERT_EQ(0, WSCGetProviderPath(&kOurGuid, path, &length, &error));
    EXPECT_EQ(std::u16string(u"q-brix.dll"), path);
    length = 3;
    EXPECT_EQ(SOCKET_ERROR, WSCGetProviderPath(&kOurGuid, path, &length, &error));
    EXPECT_EQ(WSAEFAULT, error);
    EXPECT_EQ(11, length);

    // The same GUID again is refused and changes nothing.
    EXPECT_EQ(SOCKET_ERROR, Install(kOurGuid, Entry(u"third"), &error));
    EXPECT_EQ(WSAEINVAL, error);
    EXPECT_EQ(8u, Enumerate().size());
}

TEST_F(SocketCatalogTest, InstallRefusesMalformedArguments) {
    int error = 0;
    WSAPROTOCOL_INFOW entry = Entry(u"x");
    EXPECT_EQ(SOCKET_ERROR, WSCInstallProvider(nullptr, u"q-brix.dll", &entry, 1, &error));
    EXPECT_EQ(WSAEFAULT, error);
    EXPECT_EQ(SOCKET_ERROR, WSCInstallProvider(&kOurGuid, u"q-brix.dll", &entry, 0, &error));
    EXPECT_EQ(WSAEINVAL, error);
    EXPECT_EQ(SOCKET_ERROR, WSCInstallProvider(&kOurGuid, u"", &entry, 1, &error));
    EXPECT_EQ(WSAEINVAL, error);
    EXPECT_EQ(SOCKET_ERROR, Install(kOurGuid, Entry(u"x", 8), &error));
    EXPECT_EQ(WSAEINVAL, error);
    EXPECT_EQ(SOCKET_ERROR, Install(kOurGuid, Entry(u"x", -1), &error));
    EXPECT_EQ(WSAEINVAL, error);
    WSAPROTOCOL_INFOW unterminated = Entry(u"");
    std::fill(std::begin(unterminated.szProtocol), std::end(unterminated.szProtocol), u'A');
    EXPECT_EQ(SOCKET_ERROR, Install(kOurGuid, unterminated, &error));
    EXPECT_EQ(WSAEINVAL, error);
    EXPECT_EQ(6u, Enumerate().size());
}

TEST_F(SocketCatalogTest, DeinstallRemovesEveryEntryOfTheProviderAndIdsAreNotReused) {
    int error = 0;
    ASSERT_EQ(0, Install(kOurGuid, Entry(u"ours"), &error));
    ASSERT_EQ(0, WSCDeinstallProvider(&kTcpipGuid, &error));
    EXPECT_EQ((std::vector<DWORD>{1004, 1005, 1006, 1007}), Ids());
    EXPECT_EQ(SOCKET_ERROR, WSCDeinstallProvider(&kTcpipGuid, &error));
    EXPECT_EQ(WSAEINVAL, error);
    EXPECT_EQ(SOCKET_ERROR, WSCDeinstallProvider(nullptr, &error));
    EXPECT_EQ(WSAEFAULT, error);
    ASSERT_EQ(0, WSCDeinstallProvider(&kOurGuid, &error));
    ASSERT_EQ(0, Install(kOurGuid, Entry(u"again"), &error));
    EXPECT_EQ((std::vector<DWORD>{1004, 1005, 1006, 1008}), Ids());
}

TEST_F(SocketCatalogTest, OrderWriteAcceptsOnlyAPermutationOfTheCurrentIds) {
    const DWORD reversed[] = {1006, 1005, 1004, 1003, 1002, 1001};
    ASSERT_EQ(0, WSCWriteProviderOrder(reversed, 6));
    EXPECT_EQ(std::vector<DWORD>(std::begin(reversed), std::end(reversed)), Ids());

    const DWORD tooFew[] = {1001, 1002, 1003, 1004, 1005};
    const DWORD repeated[] = {1001, 1001, 1003, 1004, 1005, 1006};
    const DWORD unknown[] = {1001, 1002, 1003, 1004, 1005, 1999};
    EXPECT_EQ(WSAEINVAL, WSCWriteProviderOrder(tooFew, 5));
    EXPECT_EQ(WSAEINVAL, WSCWriteProviderOrder(repeated, 6));
    EXPECT_EQ(WSAEINVAL, WSCWriteProviderOrder(unknown, 6));
    EXPECT_EQ(WSAEFAULT, WSCWriteProviderOrder(nullptr, 6));
    EXPECT_EQ(std::vector<DWORD>(std::begin(reversed), std::end(reversed)), Ids());
}

TEST_F(SocketCatalogTest, CatalogPersistsAcrossPlatformInstances) {
    int error = 0;
    ASSERT_EQ(0, Install(kOurGuid, Entry(u"ours"), &error));
    const DWORD order[] = {1007, 1001, 1002, 1003, 1004, 1005, 1006};
    ASSERT_EQ(0, WSCWriteProviderOrder(order, 7));
    m_platform.SetUser(1000, {"users"});  // a new platform on the same data root
    std::vector<WSAPROTOCOL_INFOW> list = Enumerate();
    ASSERT_EQ(7u, list.size());
    EXPECT_EQ("ours", Name(list[0]));
    EXPECT_EQ(std::vector<DWORD>(std::begin(order), std::end(order)), Ids());
    ASSERT_EQ(0, Install(GUID{1, 2, 3, {4}}, Entry(u"next"), &error));
    EXPECT_EQ(1008u, Enumerate().back().dwCatalogEntryId);
}

TEST_F(SocketCatalogTest, DamagedStoreFailsEveryCallUntilReset) {
    const std::vector<WSAPROTOCOL_INFOW> seeded = Enumerate();
    StoreRaw(2, std::vector<BYTE>(100, 0));  // a short record
    int error = 0;
    DWORD size = 0;
    EXPECT_EQ(SOCKET_ERROR, WSCEnumProtocols(nullptr, nullptr, &size, &error));
    EXPECT_EQ(WSANO_RECOVERY, error);
    EXPECT_EQ(SOCKET_ERROR, Install(kOurGuid, Entry(u"x"), &error));
    EXPECT_EQ(WSANO_RECOVERY, error);
    EXPECT_EQ(SOCKET_ERROR, WSCDeinstallProvider(&kTcpipGuid, &error));
    EXPECT_EQ(WSANO_RECOVERY, error);
    const DWORD order[] = {1001};
    EXPECT_EQ(WSANO_RECOVERY, WSCWriteProviderOrder(order, 1));
    EXPECT_EQ(100u, ReadRaw(2).size());  // nothing was overwritten

    // A record of the right size whose chain length is out of range is damaged too.
    std::vector<BYTE> record = ReadRaw(1);
    StoreRaw(2, record);
    std::int32_t badLength = 9;
    std::memcpy(record.data() + 260 + offsetof(WSAPROTOCOL_INFOW, ProtocolChain), &badLength, 4);
    StoreRaw(3, record);
    EXPECT_EQ(SOCKET_ERROR, WSCEnumProtocols(nullptr, nullptr, &size, &error));
    EXPECT_EQ(WSANO_RECOVERY, error);

    ASSERT_EQ(0, ResetSocketCatalog());
    std::vector<WSAPROTOCOL_INFOW> again = Enumerate();
    ASSERT_EQ(seeded.size(), again.size());
    EXPECT_EQ(0, std::memcmp(seeded.data(), again.data(), seeded.size() * sizeof(seeded[0])));
}

TEST_F(SocketCatalogTest, FaultHooksFailTheirCallWithTheirCodeAndChangeNothing) {
    Enumerate();
    int error = 0;
    g_socketCatalogFaults.install = [](const GUID&, const WSAPROTOCOL_INFOW& entry) {
        return Name(entry) == "refused" ? WSANO_RECOVERY : 0;
    };
    EXPECT_EQ(SOCKET_ERROR, Install(kOurGuid, Entry(u"refused"), &error));
    EXPECT_EQ(WSANO_RECOVERY, error);
    EXPECT_EQ(0, Install(kOurGuid, Entry(u"accepted"), &error));

    g_socketCatalogFaults.deinstall = [](const GUID&) { return WSAEINVAL; };
    EXPECT_EQ(SOCKET_ERROR, WSCDeinstallProvider(&kOurGuid, &error));
    EXPECT_EQ(WSAEINVAL, error);

    g_socketCatalogFaults.writeOrder = [](const DWORD*, DWORD) { return WSANO_RECOVERY; };
    const DWORD order[] = {1007, 1001, 1002, 1003, 1004, 1005, 1006};
    EXPECT_EQ(WSANO_RECOVERY, WSCWriteProviderOrder(order, 7));

    g_socketCatalogFaults.enumerate = [] { return WSANO_RECOVERY; };
    DWORD size = 0;
    EXPECT_EQ(SOCKET_ERROR, WSCEnumProtocols(nullptr, nullptr, &size, &error));
    EXPECT_EQ(WSANO_RECOVERY, error);

    ResetSocketCatalogFaults();
    EXPECT_EQ((std::vector<DWORD>{1001, 1002, 1003, 1004, 1005, 1006, 1007}), Ids());
}

}  // namespace
}  // namespace qbrix::platform
