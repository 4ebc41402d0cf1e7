// The provider catalog installer over the platform's socket catalog: the records it installs,
// the catalog order, the GUIDS record, its log lines and its failure paths.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/RegistryKey.h"
#include "core/RegistryPaths.h"
#include "platform/Platform.h"
#include "platform/SocketCatalog.h"
#include "platform/Utf16.h"
#include "provider_install/ProviderInstaller.h"
#include "support/TempPlatform.h"

namespace qbrix::provider_install {
namespace {

using namespace qbrix::platform;

std::string Name(const WSAPROTOCOL_INFOW& entry) {
    return Utf16ToUtf8(BoundedUtf16(entry.szProtocol, WSAPROTOCOL_LEN + 1));
}

std::string Text(const GUID& guid) {
    std::string text;
    UuidToStringA(&guid, &text);
    return text;
}

WSAPROTOCOL_INFOW Entry(const std::u16string& name, int family, int type, int protocol,
                        int chainLen = BASE_PROTOCOL) {
    WSAPROTOCOL_INFOW entry{};
    entry.dwServiceFlags1 = XP1_IFS_HANDLES | XP1_GUARANTEED_DELIVERY;
    entry.dwProviderFlags = PFL_MATCHES_PROTOCOL_ZERO;
    entry.ProtocolChain.ChainLen = chainLen;
    entry.iAddressFamily = family;
    entry.iSocketType = type;
    entry.iProtocol = protocol;
    std::memcpy(entry.szProtocol, name.data(), name.size() * sizeof(char16_t));
    return entry;
}

WSAPROTOCOL_INFOW Tcp(const std::u16string& name, int chainLen = BASE_PROTOCOL) {
    return Entry(name, WS_AF_INET, WS_SOCK_STREAM, WS_IPPROTO_TCP, chainLen);
}

class ProviderInstallerTest : public ::testing::Test {
  protected:
    ProviderInstallerTest() {
        ResetChainGuidList();
        core::RegistryKey(core::kAvSuffix, core::kLspRootPath).SetDword(core::kDiagLogValue, 1);
        std::filesystem::create_directories(m_platform.ProgramDirectory() + "quarantine");
    }
    ~ProviderInstallerTest() override {
        ResetSocketCatalogFaults();
        ResetUuidCreateFault();
        ResetChainGuidList();
    }

    std::string Log() const {
        return test::ReadFile(m_platform.ProgramDirectory() + "quarantine/gui.log." +
                              std::to_string(GetCurrentProcessId()) + ".BRIX");
    }
    void ClearLog() const {
        std::filesystem::remove(m_platform.ProgramDirectory() + "quarantine/gui.log." +
                                std::to_string(GetCurrentProcessId()) + ".BRIX");
    }
    CatalogList Catalog() {
        CatalogList list;
        EXPECT_EQ(0, m_installer.EnumerateCatalog(list));
        return list;
    }
    std::vector<std::string> Names() {
        std::vector<std::string> names;
        for (const WSAPROTOCOL_INFOW& entry : Catalog()) {
            names.push_back(Name(entry));
        }
        return names;
    }
    const WSAPROTOCOL_INFOW* Find(const CatalogList& list, const std::string& name) {
        for (const WSAPROTOCOL_INFOW& entry : list) {
            if (Name(entry) == name) {
                return &entry;
            }
        }
        return nullptr;
    }
    // Replaces the seeded catalog by `entries`, each installed as a provider of its own.
    std::vector<DWORD> UseCatalog(const std::vector<WSAPROTOCOL_INFOW>& entries) {
        int error = 0;
        for (const WSAPROTOCOL_INFOW& entry : Catalog()) {
            WSCDeinstallProvider(&entry.ProviderId, &error);
        }
        std::vector<DWORD> ids;
        for (const WSAPROTOCOL_INFOW& entry : entries) {
            GUID guid{};
            EXPECT_EQ(RPC_S_OK, UuidCreate(&guid));
            EXPECT_EQ(0, WSCInstallProvider(&guid, u"other.dll", &entry, 1, &error));
            ids.push_back(Catalog().back().dwCatalogEntryId);
        }
        return ids;
    }
    std::vector<std::string> GuidValueNames() {
        core::RegistryKey key(core::kGuidsSuffix, core::kLspRootPath);
        std::vector<std::string> names;
        key.ListValueNames(names);
        return names;
    }
    bool GuidsKeyExists() {
        HKEY key = nullptr;
        LONG rc = Current().Reg().OpenKeyEx(HKEY_LOCAL_MACHINE,
                                            std::string(core::kLspRootPath) + core::kGuidsSuffix,
                                            KEY_READ, &key);
        if (rc == 0) {
            Current().Reg().CloseKey(key);
        }
        return rc == 0;
    }
    static std::string RawCatalog(const CatalogList& list) {
        return std::string(reinterpret_cast<const char*>(list.data()),
                           list.size() * sizeof(WSAPROTOCOL_INFOW));
    }

    test::TempPlatform m_platform;
    ProviderInstaller m_installer;
};

// --- Installation on the seeded catalog ---------------------------------------------------

TEST_F(ProviderInstallerTest, FreshCatalogGetsLayeredEntryChainsOrderAndGuidRecord) {
    ASSERT_EQ(0, m_installer.InstallLayeredProvider());
    CatalogList list = Catalog();
    ASSERT_EQ(9u, list.size());

    // Own chains first, then the base entries in their old order, the layered entry last.
    std::vector<DWORD> ids;
    for (const WSAPROTOCOL_INFOW& entry : list) {
        ids.push_back(entry.dwCatalogEntryId);
    }
    EXPECT_EQ((std::vector<DWORD>{1008, 1009, 1001, 1002, 1003, 1004, 1005, 1006, 1007}), ids);

    const WSAPROTOCOL_INFOW& layered = list[8];
    EXPECT_EQ("KORVEL_PROVIDER", Name(layered));
    EXPECT_EQ(LayeredProviderGuid, layered.ProviderId);
    EXPECT_EQ(PFL_HIDDEN, layered.dwProviderFlags);
    EXPECT_EQ(0, layered.ProtocolChain.ChainLen);
    EXPECT_EQ(1001u, layered.ProtocolChain.ChainEntries[0]);  // the smallest id, no layered ones
    EXPECT_EQ(0u, layered.ProtocolChain.ChainEntries[1]);

    const WSAPROTOCOL_INFOW& tcp = list[0];
    EXPECT_EQ("KORVELED_MSAFD Tcpip [TCP/IP]", Name(tcp));
    EXPECT_EQ(2, tcp.ProtocolChain.ChainLen);
    EXPECT_EQ(1007u, tcp.ProtocolChain.ChainEntries[0]);
    EXPECT_EQ(1001u, tcp.ProtocolChain.ChainEntries[1]);
    EXPECT_EQ(0u, tcp.dwServiceFlags1 & XP1_IFS_HANDLES);
    EXPECT_EQ(list[2].dwServiceFlags1 & ~XP1_IFS_HANDLES, tcp.dwServiceFlags1);
    EXPECT_EQ("KORVELED_MSAFD Tcpip [UDP/IP]", Name(list[1]));
    EXPECT_EQ(1002u, list[1].ProtocolChain.ChainEntries[1]);

    // Every own entry is served by the bare library name.
    for (const GUID& guid : {LayeredProviderGuid, tcp.ProviderId, list[1].ProviderId}) {
        char16_t path[64];
        int length = 64;
        int error = 0;
        ASSERT_EQ(0, WSCGetProviderPath(&guid, path, &length, &error));
        EXPECT_EQ(std::u16string(u"q-brix.dll"), path);
    }

    ASSERT_EQ(2u, g_chainGuidList.size());
    EXPECT_EQ(tcp.ProviderId, g_chainGuidList[0]);
    EXPECT_EQ(list[1].ProviderId, g_chainGuidList[1]);
    EXPECT_EQ((std::vector<std::string>{Text(g_chainGuidList[0]), Text(g_chainGuidList[1])}),
              GuidValueNames());
    core::RegistryKey key(core::kGuidsSuffix, core::kLspRootPath);
    BYTE data[8] = {9, 9};
    DWORD size = sizeof(data);
    DWORD type = 0;
    ASSERT_EQ(0, Current().Reg().QueryValueEx(key.Handle(), Text(g_chainGuidList[0]), &type, data,
                                              &size));
    EXPECT_EQ(REG_SZ, type);
    EXPECT_EQ(1u, size);
    EXPECT_EQ(0, data[0]);

    EXPECT_EQ(
        "\n num of protocols 6 error 0"
        "\nInstalled over MSAFD Tcpip [TCP/IP]."
        "\nInstalled over MSAFD Tcpip [UDP/IP].",
        Log());
}

TEST_F(ProviderInstallerTest, InstallTwiceThenUninstallLeavesTheSeededCatalog) {
    const std::string seeded = RawCatalog(Catalog());
    ASSERT_EQ(0, m_installer.InstallLayeredProvider());
    GuidList first = g_chainGuidList;
    ASSERT_EQ(0, m_installer.InstallLayeredProvider());
    std::vector<std::string> names = Names();
    EXPECT_EQ(1, std::count(names.begin(), names.end(), "KORVEL_PROVIDER"));
    EXPECT_EQ(9u, names.size());
    EXPECT_NE(first, g_chainGuidList);
    EXPECT_EQ(2u, GuidValueNames().size());

    ClearLog();
    EXPECT_EQ(0, m_installer.RemoveLayeredProvider());
    EXPECT_EQ(seeded, RawCatalog(Catalog()));
    EXPECT_EQ("\nDeInstalled " + Text(g_chainGuidList[0]) + " \nDeInstalled " +
                  Text(g_chainGuidList[1]) + " ",
              Log());
    EXPECT_EQ(2u, GuidValueNames().size());  // the record stays
}

TEST_F(ProviderInstallerTest, OnlyIpv4TcpAndUdpEntriesAreCovered) {
    UseCatalog({Tcp(u"v4 tcp"), Entry(u"v4 udp", WS_AF_INET, WS_SOCK_DGRAM, WS_IPPROTO_UDP),
                Entry(u"v6 tcp", WS_AF_INET6, WS_SOCK_STREAM, WS_IPPROTO_TCP),
                Entry(u"v4 raw", WS_AF_INET, WS_SOCK_RAW, WS_IPPROTO_IP)});
    ASSERT_EQ(0, m_installer.InstallLayeredProvider());
    CatalogList list = Catalog();
    ASSERT_EQ(7u, list.size());
    EXPECT_EQ("KORVELED_v4 tcp", Name(list[0]));
    EXPECT_EQ("KORVELED_v4 udp", Name(list[1]));
    EXPECT_EQ(2, list[0].ProtocolChain.ChainLen);
    EXPECT_EQ(2, list[1].ProtocolChain.ChainLen);
    EXPECT_EQ(2u, g_chainGuidList.size());
}

TEST_F(ProviderInstallerTest, ChainOfSixBecomesSevenAndChainOfSevenIsLoggedAndSkipped) {
    std::vector<DWORD> ids = UseCatalog({Tcp(u"six", 6), Tcp(u"seven", 7)});
    ASSERT_EQ(0, m_installer.InstallLayeredProvider());
    CatalogList list = Catalog();
    ASSERT_EQ(4u, list.size());
    // Both are 7 long now: ours first.
    EXPECT_EQ("KORVELED_six", Name(list[0]));
    EXPECT_EQ(7, list[0].ProtocolChain.ChainLen);
    EXPECT_EQ("seven", Name(list[1]));
    EXPECT_EQ("six", Name(list[2]));
    EXPECT_EQ(1u, g_chainGuidList.size());
    EXPECT_NE(std::string::npos, Log().find("\n Max chain length reached seven"));
}

// --- The records ------------------------------------------------------------------------

TEST_F(ProviderInstallerTest, LayeredEntryCarriesChainElementsDespiteLengthZero) {
    WSAPROTOCOL_INFOW entry =
        ProviderInstaller::MakeLayeredEntry({11, 12, 13, 14, 15, 16, 17, 18, 19});
    EXPECT_EQ(0u, entry.dwServiceFlags1);
    EXPECT_EQ(PFL_HIDDEN, entry.dwProviderFlags);
    EXPECT_EQ(LayeredProviderGuid, entry.ProviderId);
    EXPECT_EQ(0u, entry.dwCatalogEntryId);
    EXPECT_EQ(0, entry.ProtocolChain.ChainLen);
    EXPECT_EQ(
        (std::vector<DWORD>{11, 12, 13, 14, 15, 16, 17}),
        std::vector<DWORD>(entry.ProtocolChain.ChainEntries, entry.ProtocolChain.ChainEntries + 7));
    EXPECT_EQ(WS_AF_INET, entry.iAddressFamily);
    EXPECT_EQ(16, entry.iMaxSockAddr);
    EXPECT_EQ(16, entry.iMinSockAddr);
    EXPECT_EQ(WS_SOCK_STREAM, entry.iSocketType);
    EXPECT_EQ(WS_IPPROTO_TCP, entry.iProtocol);
    EXPECT_EQ(0, entry.iVersion);
    EXPECT_EQ(0u, entry.dwMessageSize);
    EXPECT_EQ("KORVEL_PROVIDER", Name(entry));

    // Layered ids in catalog order, then the smallest id; the sentinel itself is no id.
    CatalogList list = {Tcp(u"a"), Tcp(u"b", 0), Tcp(u"c", 0)};
    list[0].dwCatalogEntryId = 1500;
    list[1].dwCatalogEntryId = 1700;
    list[2].dwCatalogEntryId = 1600;
    EXPECT_EQ((CatalogIdList{1700, 1600, 1500}), ProviderInstaller::CollectLayeredIds(list));
    list = {Tcp(u"big")};
    list[0].dwCatalogEntryId = 0x0FFFFFFF;
    EXPECT_EQ(CatalogIdList{}, ProviderInstaller::CollectLayeredIds(list));
    list[0].dwCatalogEntryId = 0x0FFFFFFE;
    EXPECT_EQ(CatalogIdList{0x0FFFFFFE}, ProviderInstaller::CollectLayeredIds(list));
    EXPECT_EQ(CatalogIdList{}, ProviderInstaller::CollectLayeredIds({}));
}

TEST_F(ProviderInstallerTest, EightLayeredEntriesFillTheChainWithoutTheMinimum) {
    std::vector<WSAPROTOCOL_INFOW> entries;
    for (int i = 0; i < 8; ++i) {
        entries.push_back(Tcp(u"layer " + std::u16string(1, u'0' + i), 0));
    }
    entries.push_back(Tcp(u"base"));
    std::vector<DWORD> ids = UseCatalog(entries);
    ASSERT_EQ(0, m_installer.InstallLayeredProvider());
    CatalogList list = Catalog();
    const WSAPROTOCOL_INFOW* layered = Find(list, "KORVEL_PROVIDER");
    ASSERT_NE(nullptr, layered);
    EXPECT_EQ(std::vector<DWORD>(ids.begin(), ids.begin() + 7),
              std::vector<DWORD>(layered->ProtocolChain.ChainEntries,
                                 layered->ProtocolChain.ChainEntries + 7));
}

TEST_F(ProviderInstallerTest, ChainOverAnotherVendorsChainShiftsItsElements) {
    WSAPROTOCOL_INFOW vendor = Tcp(u"vendor", 2);
    vendor.dwCatalogEntryId = 1010;
    vendor.ProtocolChain.ChainEntries[0] = 1020;  // X
    vendor.ProtocolChain.ChainEntries[1] = 1001;  // B
    vendor.dwServiceFlags1 = XP1_IFS_HANDLES | XP1_GRACEFUL_CLOSE;
    vendor.dwProviderFlags = PFL_RECOMMENDED_PROTO_ENTRY;
    const GUID guid = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
    WSAPROTOCOL_INFOW chain = ProviderInstaller::MakeChainEntry(vendor, guid, 1030);
    EXPECT_EQ(3, chain.ProtocolChain.ChainLen);
    EXPECT_EQ(
        (std::vector<DWORD>{1030, 1020, 1001, 0, 0, 0, 0}),
        std::vector<DWORD>(chain.ProtocolChain.ChainEntries, chain.ProtocolChain.ChainEntries + 7));
    EXPECT_EQ(XP1_GRACEFUL_CLOSE, chain.dwServiceFlags1);
    EXPECT_EQ(PFL_RECOMMENDED_PROTO_ENTRY, chain.dwProviderFlags);
    EXPECT_EQ(guid, chain.ProviderId);
    EXPECT_EQ("KORVELED_vendor", Name(chain));

    // A base entry: its own id goes in place 1; its other elements are kept as they were.
    WSAPROTOCOL_INFOW base = Tcp(u"base");
    base.dwCatalogEntryId = 1001;
    base.ProtocolChain.ChainEntries[0] = 77;
    base.ProtocolChain.ChainEntries[2] = 88;
    chain = ProviderInstaller::MakeChainEntry(base, guid, 1030);
    EXPECT_EQ(2, chain.ProtocolChain.ChainLen);
    EXPECT_EQ(
        (std::vector<DWORD>{1030, 1001, 88, 0, 0, 0, 0}),
        std::vector<DWORD>(chain.ProtocolChain.ChainEntries, chain.ProtocolChain.ChainEntries + 7));
}

TEST_F(ProviderInstallerTest, CoveredNamesLongerThan246CharactersAreCutToTheField) {
    std::u16string longName(250, u'n');
    WSAPROTOCOL_INFOW chain = ProviderInstaller::MakeChainEntry(Tcp(longName), GUID{}, 1);
    EXPECT_EQ("KORVELED_" + std::string(246, 'n'), Name(chain));
    EXPECT_EQ(0, chain.szProtocol[WSAPROTOCOL_LEN]);
    std::u16string fits(246, u'f');
    chain = ProviderInstaller::MakeChainEntry(Tcp(fits), GUID{}, 1);
    EXPECT_EQ("KORVELED_" + std::string(246, 'f'), Name(chain));
    // A UTF-16 pair that would straddle the cut is left out whole.
    std::u16string pair(245, u'p');
    pair += u"\U0001F600";
    chain = ProviderInstaller::MakeChainEntry(Tcp(pair), GUID{}, 1);
    EXPECT_EQ("KORVELED_" + std::string(245, 'p'), Name(chain));
}

TEST_F(ProviderInstallerTest, EligibilityNeedsAChainIpv4AndTcpOrUdp) {
    EXPECT_TRUE(ProviderInstaller::IsEligibleForChain(Tcp(u"t")));
    EXPECT_TRUE(ProviderInstaller::IsEligibleForChain(
        Entry(u"u", WS_AF_INET, WS_SOCK_DGRAM, WS_IPPROTO_UDP, 3)));
    EXPECT_FALSE(ProviderInstaller::IsEligibleForChain(Tcp(u"layered", 0)));
    EXPECT_FALSE(ProviderInstaller::IsEligibleForChain(
        Entry(u"v6", WS_AF_INET6, WS_SOCK_STREAM, WS_IPPROTO_TCP)));
    EXPECT_FALSE(ProviderInstaller::IsEligibleForChain(
        Entry(u"raw", WS_AF_INET, WS_SOCK_RAW, WS_IPPROTO_TCP)));
    EXPECT_FALSE(
        ProviderInstaller::IsEligibleForChain(Entry(u"icmp", WS_AF_INET, WS_SOCK_DGRAM, 1)));
    GuidList guids;
    EXPECT_EQ(0, m_installer.InstallChainOver(Tcp(u"layered", 0), 1007, guids));
    EXPECT_TRUE(guids.empty());
    EXPECT_EQ(6u, Catalog().size());
}

// --- The order ---------------------------------------------------------------------------

TEST_F(ProviderInstallerTest, OrderPutsLongestChainsAndOwnChainsFirst) {
    auto entry = [](DWORD id, int length, DWORD first) {
        WSAPROTOCOL_INFOW e = Tcp(u"e", length);
        e.dwCatalogEntryId = id;
        e.ProtocolChain.ChainEntries[0] = first;
        return e;
    };
    CatalogList list = {entry(1000, 0, 1001), entry(1001, 1, 0), entry(1002, 1, 0),
                        entry(1003, 2, 1000), entry(1004, 2, 1000)};
    EXPECT_EQ((CatalogIdList{1003, 1004, 1001, 1002, 1000}),
              m_installer.BuildCatalogOrder(list, 1000));

    // Another vendor's chain of the same length follows ours; a longer one precedes both, and
    // the first-element test applies to base and layered entries too.
    list = {entry(1, 2, 50), entry(2, 0, 9), entry(3, 2, 9), entry(4, 3, 50),
            entry(5, 1, 0),  entry(6, 1, 9), entry(7, 0, 1)};
    EXPECT_EQ((CatalogIdList{4, 3, 1, 6, 5, 2, 7}), m_installer.BuildCatalogOrder(list, 9));
}

// --- The GUIDS record ----------------------------------------------------------------------

TEST_F(ProviderInstallerTest, GuidRecordIsReplacedWholeAndUnparsableNamesAreSkipped) {
    const GUID a = {0xA, 1, 0x4001, {0x80, 1, 2, 3, 4, 5, 6, 7}};
    const GUID b = {0xB, 2, 0x4002, {0x80, 1, 2, 3, 4, 5, 6, 8}};
    core::RegistryKey(core::kGuidsSuffix, core::kLspRootPath).SetString("stale", "x");
    m_installer.SaveChainGuids({a, b});
    EXPECT_EQ((std::vector<std::string>{Text(a), Text(b)}), GuidValueNames());

    core::RegistryKey(core::kGuidsSuffix, core::kLspRootPath).SetString("not a guid", "");
    GuidList loaded = {b, b, b};
    m_installer.LoadChainGuids(loaded);
    EXPECT_EQ((GuidList{a, b}), loaded);

    m_installer.SaveChainGuids({});
    EXPECT_TRUE(GuidsKeyExists());
    EXPECT_TRUE(GuidValueNames().empty());
}

// --- Failures ----------------------------------------------------------------------------

TEST_F(ProviderInstallerTest, FailingUuidCreationSkipsOnlyThatEntry) {
    int calls = 0;
    g_uuidCreateFault = [&calls] { return ++calls == 1 ? RPC_S_UUID_NO_ADDRESS : RPC_S_OK; };
    ASSERT_EQ(0, m_installer.InstallLayeredProvider());
    std::vector<std::string> names = Names();
    EXPECT_EQ("KORVELED_MSAFD Tcpip [UDP/IP]", names[0]);
    EXPECT_EQ(8u, names.size());
    EXPECT_EQ(1u, g_chainGuidList.size());
    EXPECT_EQ(1u, GuidValueNames().size());
}

TEST_F(ProviderInstallerTest, FailingChainInstallIsStillRecordedAndUninstalled) {
    g_socketCatalogFaults.install = [](const GUID&, const WSAPROTOCOL_INFOW& entry) {
        return Name(entry) == "KORVELED_MSAFD Tcpip [TCP/IP]" ? WSANO_RECOVERY : 0;
    };
    const std::string seeded = RawCatalog(Catalog());
    ASSERT_EQ(0, m_installer.InstallLayeredProvider());
    EXPECT_EQ(8u, Catalog().size());
    ASSERT_EQ(2u, g_chainGuidList.size());
    const std::string failed = Text(g_chainGuidList[0]);
    EXPECT_EQ((std::vector<std::string>{failed, Text(g_chainGuidList[1])}), GuidValueNames());
    EXPECT_EQ(std::string::npos, Log().find("Installed over MSAFD Tcpip [TCP/IP]"));

    ClearLog();
    EXPECT_EQ(0, m_installer.RemoveLayeredProvider());
    EXPECT_NE(std::string::npos, Log().find("\nDeInstalled " + failed + " "));
    EXPECT_EQ(seeded, RawCatalog(Catalog()));
}

TEST_F(ProviderInstallerTest, FailingLayeredInstallReturnsOneAndLeavesAnEmptyRecord) {
    m_installer.SaveChainGuids({GUID{1, 2, 3, {4}}});
    g_socketCatalogFaults.install = [](const GUID& guid, const WSAPROTOCOL_INFOW&) {
        return guid == LayeredProviderGuid ? WSANO_RECOVERY : 0;
    };
    EXPECT_EQ(1, m_installer.InstallLayeredProvider());
    EXPECT_TRUE(GuidsKeyExists());
    EXPECT_TRUE(GuidValueNames().empty());
    EXPECT_EQ(6u, Catalog().size());
    EXPECT_EQ("\n num of protocols 6 error 0\ninstall error 11003", Log());
}

TEST_F(ProviderInstallerTest, UninstallWithoutRecordCreatesItAndRemovesOnlyTheLayeredEntry) {
    int error = 0;
    ASSERT_EQ(0, m_installer.InstallLayeredEntry({1001}, &error));
    GuidList guids;
    ASSERT_EQ(0, m_installer.InstallChainOver(Catalog()[0], 1007, guids));
    ASSERT_FALSE(GuidsKeyExists());
    EXPECT_EQ(0, m_installer.RemoveLayeredProvider());
    EXPECT_TRUE(GuidsKeyExists());
    EXPECT_TRUE(GuidValueNames().empty());
    std::vector<std::string> names = Names();
    EXPECT_EQ(7u, names.size());
    EXPECT_EQ("KORVELED_MSAFD Tcpip [TCP/IP]", names.back());
}

TEST_F(ProviderInstallerTest, FailedOrderWriteReturnsOneAndTheNextInstallCleansUp) {
    g_socketCatalogFaults.writeOrder = [](const DWORD*, DWORD) { return WSANO_RECOVERY; };
    EXPECT_EQ(1, m_installer.InstallLayeredProvider());
    EXPECT_EQ(9u, Catalog().size());
    EXPECT_EQ(2u, GuidValueNames().size());  // saved although the install failed

    ResetSocketCatalogFaults();
    ASSERT_EQ(0, m_installer.InstallLayeredProvider());
    std::vector<std::string> names = Names();
    EXPECT_EQ(9u, names.size());
    EXPECT_EQ(1, std::count(names.begin(), names.end(), "KORVEL_PROVIDER"));
    EXPECT_EQ(1, std::count(names.begin(), names.end(), "KORVELED_MSAFD Tcpip [TCP/IP]"));
}

TEST_F(ProviderInstallerTest, FailedEnumerationEndsTheInstallWithOne) {
    g_socketCatalogFaults.enumerate = [] { return WSANO_RECOVERY; };
    EXPECT_EQ(1, m_installer.InstallLayeredProvider());
    EXPECT_EQ("\n num of protocols -1 error 11003", Log());
    EXPECT_TRUE(GuidsKeyExists());
    CatalogList kept = {Tcp(u"kept")};
    EXPECT_EQ(1, m_installer.EnumerateCatalog(kept));
    ASSERT_EQ(1u, kept.size());
    EXPECT_EQ("kept", Name(kept[0]));

    // Each read is two calls; the removal by prefix and the first read make four. The read
    // after the layered entry's installation fails: it stays in, nothing else is installed.
    int calls = 0;
    g_socketCatalogFaults.enumerate = [&calls] { return ++calls > 4 ? WSANO_RECOVERY : 0; };
    EXPECT_EQ(1, m_installer.InstallLayeredProvider());
    ResetSocketCatalogFaults();
    EXPECT_EQ(7u, Catalog().size());
    EXPECT_TRUE(g_chainGuidList.empty());

    // The read after the chains fails: the order is built from the earlier read, which lacks
    // the chains, so the order write refuses it and the result is 1 with the chains in place.
    m_installer.RemoveProvidersByPrefix(u"KORVEL");
    calls = 0;
    g_socketCatalogFaults.enumerate = [&calls] { return ++calls > 6 ? WSANO_RECOVERY : 0; };
    EXPECT_EQ(1, m_installer.InstallLayeredProvider());
    ResetSocketCatalogFaults();
    EXPECT_EQ(9u, Catalog().size());
    EXPECT_EQ(2u, GuidValueNames().size());
}

TEST_F(ProviderInstallerTest, RemovalByPrefixRetriesARefusedRemovalUntilItGoes) {
    ASSERT_EQ(0, m_installer.InstallLayeredProvider());
    int refusals = 0;
    g_socketCatalogFaults.deinstall = [&refusals](const GUID& guid) {
        return guid == LayeredProviderGuid && ++refusals <= 3 ? WSANO_RECOVERY : 0;
    };
    ClearLog();
    EXPECT_EQ(1, m_installer.RemoveProvidersByPrefix(u"KORVEL"));
    const std::string line =
        "\n deinst by name " + Text(LayeredProviderGuid) + " " + std::to_string(WSANO_RECOVERY);
    std::string log = Log();
    int count = 0;
    for (std::size_t at = log.find(line); at != std::string::npos; at = log.find(line, at + 1)) {
        ++count;
    }
    EXPECT_EQ(3, count);
    EXPECT_EQ(6u, Catalog().size());

    GUID found{};
    EXPECT_EQ(1, m_installer.FindProviderByPrefix(u"KORVEL", &found));
    EXPECT_EQ(0, m_installer.FindProviderByPrefix(u"MSAFD Tcpip [UDP", &found));
    EXPECT_EQ(Catalog()[0].ProviderId, found);
    EXPECT_EQ(1, m_installer.FindProviderByPrefix(u"msafd", &found));  // case-sensitive
}

TEST_F(ProviderInstallerTest, UnterminatedCoveredNameIsReadWithinItsField) {
    WSAPROTOCOL_INFOW entry = Tcp(std::u16string(255, u'z'));
    UseCatalog({entry});
    // Fill the terminator of the stored record too, as a foreign writer might have left it.
    HKEY key = nullptr;
    Registry& reg = Current().Reg();
    ASSERT_EQ(0, reg.OpenKeyEx(HKEY_LOCAL_MACHINE,
                               "SYSTEM\\CurrentControlSet\\Services\\WinSock2\\Parameters\\"
                               "Protocol_Catalog9\\Catalog_Entries\\000000000001",
                               KEY_ALL_ACCESS, &key));
    BYTE raw[888];
    DWORD size = sizeof(raw);
    DWORD type = 0;
    ASSERT_EQ(0, reg.QueryValueEx(key, "PackedCatalogItem", &type, raw, &size));
    char16_t z = u'z';
    std::memcpy(raw + 260 + offsetof(WSAPROTOCOL_INFOW, szProtocol) + 255 * 2, &z, 2);
    ASSERT_EQ(0, reg.SetValueEx(key, "PackedCatalogItem", REG_BINARY, raw, size));
    reg.CloseKey(key);

    ASSERT_EQ(0, m_installer.InstallLayeredProvider());
    CatalogList list = Catalog();
    ASSERT_EQ(3u, list.size());
    EXPECT_EQ("KORVELED_" + std::string(246, 'z'), Name(list[0]));
    EXPECT_NE(std::string::npos, Log().find("\nInstalled over " + std::string(256, 'z') + "."));
}

}  // namespace
}  // namespace qbrix::provider_install
