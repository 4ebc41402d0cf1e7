#include "CatalogCommand.h"

#include <cstdio>
#include <vector>

#include "platform/SocketCatalog.h"
#include "platform/Utf16.h"
#include "platform/Uuid.h"

namespace qbrix::tools {

namespace {

using namespace qbrix::platform;

std::string EntryType(const WSAPROTOCOL_INFOW& entry) {
    switch (entry.ProtocolChain.ChainLen) {
        case LAYERED_PROTOCOL:
            return "Layered Service Provider";
        case BASE_PROTOCOL:
            return "Base Service Provider";
        default:
            return "Layered Chain Entry";
    }
}

std::string Hex(DWORD value) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08x", value);
    return text;
}

std::u16string BoundedText(const WCHAR* text, std::size_t width) {
    std::size_t length = 0;
    while (length < width && text[length] != 0) {
        ++length;
    }
    return std::u16string(text, length);
}

std::string ProviderPath(const GUID& id) {
    WCHAR path[260] = {};
    int length = 260;
    int error = 0;
    if (WSCGetProviderPath(&id, path, &length, &error) != 0) {
        return "(unknown)";
    }
    return Utf16ToUtf8(BoundedText(path, 260));
}

void PrintEntry(const WSAPROTOCOL_INFOW& entry, std::ostream& out) {
    std::string guid;
    UuidToStringA(&entry.ProviderId, &guid);
    auto line = [&out](const char* label, const std::string& value) {
        std::string padded = std::string(label) + ":";
        padded.resize(36, ' ');
        out << padded << value << "\n";
    };
    out << "Winsock Catalog Provider Entry\n"
        << "------------------------------------------------------\n";
    line("Entry Type", EntryType(entry));
    line("Description", Utf16ToUtf8(BoundedText(entry.szProtocol, WSAPROTOCOL_LEN + 1)));
    line("Provider ID", "{" + guid + "}");
    line("Provider Path", ProviderPath(entry.ProviderId));
    line("Catalog Entry ID", std::to_string(entry.dwCatalogEntryId));
    line("Version", std::to_string(entry.iVersion));
    line("Address Family", std::to_string(entry.iAddressFamily));
    line("Max Address Length", std::to_string(entry.iMaxSockAddr));
    line("Min Address Length", std::to_string(entry.iMinSockAddr));
    line("Socket Type", std::to_string(entry.iSocketType));
    line("Protocol", std::to_string(entry.iProtocol));
    line("Service Flags", Hex(entry.dwServiceFlags1));
    line("Provider Flags", Hex(entry.dwProviderFlags));
    int length = entry.ProtocolChain.ChainLen;
    line("Protocol Chain Length", std::to_string(length));
    if (length > 1 && length <= MAX_PROTOCOL_CHAIN) {
        std::string chain;
        for (int i = 0; i < length; ++i) {
            chain += (i == 0 ? "" : " -> ") + std::to_string(entry.ProtocolChain.ChainEntries[i]);
        }
        line("Protocol Chain", chain);
    }
    out << "\n";
}

int ListCatalog(std::ostream& out, std::ostream& err) {
    DWORD size = 0;
    int error = 0;
    int count = WSCEnumProtocols(nullptr, nullptr, &size, &error);
    if (count == SOCKET_ERROR && error != WSAENOBUFS) {
        err << "ERROR: the socket catalog cannot be read (error " << error << ")\n";
        return 1;
    }
    std::vector<WSAPROTOCOL_INFOW> entries(size / sizeof(WSAPROTOCOL_INFOW) + 1);
    size = static_cast<DWORD>(entries.size() * sizeof(WSAPROTOCOL_INFOW));
    count = WSCEnumProtocols(nullptr, entries.data(), &size, &error);
    if (count == SOCKET_ERROR) {
        err << "ERROR: the socket catalog cannot be read (error " << error << ")\n";
        return 1;
    }
    out << "\n";
    for (int i = 0; i < count; ++i) {
        PrintEntry(entries[static_cast<std::size_t>(i)], out);
    }
    return 0;
}

}  // namespace

int RunCatalogCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (args.empty()) {
        return ListCatalog(out, err);
    }
    if (args.size() == 1 && args[0] == "reset") {
        if (ResetSocketCatalog() != 0) {
            err << "ERROR: the socket catalog could not be reset\n";
            return 1;
        }
        out << "The socket catalog holds the base providers only.\n";
        return 0;
    }
    err << "usage: q-brixctl [--root DIR] catalog [reset]\n";
    return 2;
}

}  // namespace qbrix::tools
