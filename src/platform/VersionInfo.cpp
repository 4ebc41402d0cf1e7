#include "platform/VersionInfo.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "platform/CodePage.h"
#include "platform/PathNames.h"
#include "platform/Platform.h"
#include "platform/Text.h"
#include "platform/Utf16.h"

namespace qbrix::platform {

namespace {

constexpr std::uint32_t kResourceTypeVersion = 16;
constexpr std::uint32_t kSubdirectoryFlag = 0x80000000u;
constexpr int kResourceDirectoryIndex = 2;
constexpr std::size_t kMaxSections = 96;

std::uint16_t U16(const std::vector<std::uint8_t>& bytes, std::size_t at) {
    return static_cast<std::uint16_t>(bytes[at] | bytes[at + 1] << 8);
}
std::uint32_t U32(const std::vector<std::uint8_t>& bytes, std::size_t at) {
    return static_cast<std::uint32_t>(bytes[at]) | static_cast<std::uint32_t>(bytes[at + 1]) << 8 |
           static_cast<std::uint32_t>(bytes[at + 2]) << 16 |
           static_cast<std::uint32_t>(bytes[at + 3]) << 24;
}

// Reads parts of a file at given offsets; any short read counts as a malformed file.
class FileReader {
  public:
    explicit FileReader(const std::string& path) : m_in(path, std::ios::binary) {}
    bool IsOpen() const { return m_in.is_open(); }
    bool Read(std::uint64_t offset, std::size_t size, std::vector<std::uint8_t>& bytes) {
        bytes.assign(size, 0);
        m_in.clear();
        m_in.seekg(static_cast<std::streamoff>(offset));
        m_in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size));
        return m_in.good() || static_cast<std::size_t>(m_in.gcount()) == size;
    }

  private:
    std::ifstream m_in;
};

struct Section {
    std::uint32_t virtualAddress;
    std::uint32_t virtualSize;
    std::uint32_t rawSize;
    std::uint32_t rawOffset;
};

std::optional<std::uint64_t> RvaToOffset(const std::vector<Section>& sections, std::uint32_t rva) {
    for (const Section& section : sections) {
        std::uint32_t extent = std::max(section.virtualSize, section.rawSize);
        if (rva >= section.virtualAddress && rva - section.virtualAddress < extent) {
            std::uint32_t within = rva - section.virtualAddress;
            if (within >= section.rawSize) {
                return std::nullopt;
            }
            return std::uint64_t{section.rawOffset} + within;
        }
    }
    return std::nullopt;
}

// The raw RT_VERSION resource of a PE file (first name, first language), or the error.
DWORD ReadVersionResource(const std::string& path, std::vector<std::uint8_t>& resource) {
    std::string found = FindFileIgnoringCase(path);
    if (found.empty()) {
        return ERROR_FILE_NOT_FOUND;
    }
    FileReader file(found);
    if (!file.IsOpen()) {
        return ERROR_ACCESS_DENIED;
    }
    std::vector<std::uint8_t> bytes;
    if (!file.Read(0, 64, bytes) || bytes[0] != 'M' || bytes[1] != 'Z') {
        return ERROR_BAD_EXE_FORMAT;
    }
    std::uint32_t peOffset = U32(bytes, 0x3C);
    if (!file.Read(peOffset, 24, bytes) || std::memcmp(bytes.data(), "PE\0\0", 4) != 0) {
        return ERROR_BAD_EXE_FORMAT;
    }
    std::size_t sectionCount = U16(bytes, 6);
    std::size_t optionalSize = U16(bytes, 20);
    if (sectionCount > kMaxSections || optionalSize < 2) {
        return ERROR_BAD_EXE_FORMAT;
    }
    std::vector<std::uint8_t> optional;
    if (!file.Read(std::uint64_t{peOffset} + 24, optionalSize, optional)) {
        return ERROR_BAD_EXE_FORMAT;
    }
    std::uint16_t magic = U16(optional, 0);
    std::size_t countAt = magic == 0x20B ? 108 : magic == 0x10B ? 92 : 0;
    if (countAt == 0 || optionalSize < countAt + 4) {
        return ERROR_BAD_EXE_FORMAT;
    }
    std::uint32_t directories = U32(optional, countAt);
    std::size_t resourceAt = countAt + 4 + 8 * kResourceDirectoryIndex;
    if (directories <= kResourceDirectoryIndex || optionalSize < resourceAt + 8) {
        return ERROR_RESOURCE_DATA_NOT_FOUND;
    }
    std::uint32_t resourceRva = U32(optional, resourceAt);
    if (resourceRva == 0) {
        return ERROR_RESOURCE_DATA_NOT_FOUND;
    }
    std::vector<std::uint8_t> table;
    if (!file.Read(std::uint64_t{peOffset} + 24 + optionalSize, sectionCount * 40, table)) {
        return ERROR_BAD_EXE_FORMAT;
    }
    std::vector<Section> sections;
    for (std::size_t i = 0; i < sectionCount; ++i) {
        std::size_t at = i * 40;
        sections.push_back(
            {U32(table, at + 12), U32(table, at + 8), U32(table, at + 16), U32(table, at + 20)});
    }
    std::optional<std::uint64_t> root = RvaToOffset(sections, resourceRva);
    if (!root) {
        return ERROR_RESOURCE_DATA_NOT_FOUND;
    }
    // Three directory levels: type, name, language. The version resource is type 16; of the
    // names and languages below it the first is taken.
    std::uint32_t entryOffset = 0;
    for (int level = 0; level < 3; ++level) {
        std::vector<std::uint8_t> header;
        if (!file.Read(*root + entryOffset, 16, header)) {
            return ERROR_RESOURCE_DATA_NOT_FOUND;
        }
        std::size_t entries = std::size_t{U16(header, 12)} + U16(header, 14);
        std::vector<std::uint8_t> list;
        if (entries == 0 || !file.Read(*root + entryOffset + 16, entries * 8, list)) {
            return ERROR_RESOURCE_TYPE_NOT_FOUND;
        }
        std::optional<std::uint32_t> next;
        for (std::size_t i = 0; i < entries && !next; ++i) {
            std::uint32_t id = U32(list, i * 8);
            if (level > 0 || id == kResourceTypeVersion) {
                next = U32(list, i * 8 + 4);
            }
        }
        if (!next) {
            return ERROR_RESOURCE_TYPE_NOT_FOUND;
        }
        bool isDirectory = (*next & kSubdirectoryFlag) != 0;
        if (isDirectory != (level < 2)) {
            return ERROR_RESOURCE_DATA_NOT_FOUND;
        }
        entryOffset = *next & ~kSubdirectoryFlag;
    }
    std::vector<std::uint8_t> data;
    if (!file.Read(*root + entryOffset, 16, data)) {
        return ERROR_RESOURCE_DATA_NOT_FOUND;
    }
    std::uint32_t dataSize = U32(data, 4);
    std::optional<std::uint64_t> dataAt = RvaToOffset(sections, U32(data, 0));
    if (!dataAt || dataSize < 6 || dataSize > 0xFFFF || !file.Read(*dataAt, dataSize, resource)) {
        return ERROR_RESOURCE_DATA_NOT_FOUND;
    }
    std::uint16_t declared = U16(resource, 0);
    if (declared < 6 || declared > dataSize) {
        return ERROR_RESOURCE_DATA_NOT_FOUND;
    }
    resource.resize(declared);
    return ERROR_SUCCESS;
}

std::size_t Align4(std::size_t value) {
    return (value + 3) & ~std::size_t{3};
}

// The resource, then room for the narrow texts: twice its size and a terminator's worth.
std::size_t InfoBufferSize(std::size_t resourceSize) {
    return Align4(resourceSize) + 2 * resourceSize + 4;
}

// One node of the version tree: its key, its value and the range of its children.
struct VersionNode {
    std::size_t start = 0;
    std::size_t end = 0;
    std::u16string key;
    std::size_t valueAt = 0;
    std::size_t valueBytes = 0;
    std::uint16_t valueLength = 0;
    bool isText = false;
    std::size_t childrenAt = 0;
};

std::uint16_t BlockU16(const std::uint8_t* block, std::size_t at) {
    return static_cast<std::uint16_t>(block[at] | block[at + 1] << 8);
}

// Parses the node at `at`, which must lie within [at, limit).
std::optional<VersionNode> ParseNode(const std::uint8_t* block, std::size_t at, std::size_t limit) {
    if (at + 6 > limit) {
        return std::nullopt;
    }
    VersionNode node;
    node.start = at;
    std::size_t length = BlockU16(block, at);
    if (length < 6 || at + length > limit) {
        return std::nullopt;
    }
    node.end = at + length;
    node.valueLength = BlockU16(block, at + 2);
    node.isText = BlockU16(block, at + 4) == 1;
    std::size_t cursor = at + 6;
    while (true) {
        if (cursor + 2 > node.end) {
            return std::nullopt;
        }
        char16_t unit = BlockU16(block, cursor);
        cursor += 2;
        if (unit == 0) {
            break;
        }
        node.key.push_back(unit);
    }
    // A key that runs up to the node's end leaves no room for a value.
    node.valueAt = std::min(Align4(cursor), node.end);
    node.valueBytes = node.isText ? std::size_t{node.valueLength} * 2 : node.valueLength;
    node.valueBytes = std::min(node.valueBytes, node.end - node.valueAt);
    node.childrenAt = Align4(node.valueAt + node.valueBytes);
    return node;
}

bool KeyEquals(const std::u16string& key, std::string_view wanted) {
    return EqualsIgnoreCase(Utf16ToUtf8(key), wanted);
}

}  // namespace

DWORD GetFileVersionInfoSizeA(std::string_view path, DWORD* handle) {
    if (handle != nullptr) {
        *handle = 0;
    }
    std::vector<std::uint8_t> resource;
    if (DWORD error = ReadVersionResource(std::string(path), resource); error != ERROR_SUCCESS) {
        SetLastError(error);
        return 0;
    }
    return static_cast<DWORD>(InfoBufferSize(resource.size()));
}

BOOL GetFileVersionInfoA(std::string_view path, DWORD, DWORD size, void* data) {
    std::vector<std::uint8_t> resource;
    if (DWORD error = ReadVersionResource(std::string(path), resource); error != ERROR_SUCCESS) {
        SetLastError(error);
        return 0;
    }
    std::size_t needed = InfoBufferSize(resource.size());
    if (data == nullptr || size < needed) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    std::memset(data, 0, needed);
    std::memcpy(data, resource.data(), resource.size());
    return 1;
}

BOOL VerQueryValueA(const void* block, std::string_view subBlock, void** buffer, UINT* length) {
    if (block == nullptr || buffer == nullptr || length == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    *buffer = nullptr;
    *length = 0;
    const auto* bytes = static_cast<const std::uint8_t*>(block);
    std::size_t total = BlockU16(bytes, 0);
    std::optional<VersionNode> node = ParseNode(bytes, 0, total);
    while (node && !subBlock.empty()) {
        std::size_t separator = subBlock.find('\\');
        std::string_view component = subBlock.substr(0, separator);
        subBlock = separator == std::string_view::npos ? std::string_view()
                                                       : subBlock.substr(separator + 1);
        if (component.empty()) {
            continue;
        }
        std::optional<VersionNode> match;
        for (std::size_t at = node->childrenAt; at < node->end && !match;) {
            std::optional<VersionNode> child = ParseNode(bytes, at, node->end);
            if (!child) {
                break;
            }
            if (KeyEquals(child->key, component)) {
                match = child;
            }
            at = Align4(child->end);
        }
        node = match;
    }
    if (!node) {
        SetLastError(ERROR_RESOURCE_TYPE_NOT_FOUND);
        return 0;
    }
    auto* writable = static_cast<std::uint8_t*>(const_cast<void*>(block));
    if (!node->isText) {
        *buffer = writable + node->valueAt;
        *length = static_cast<UINT>(node->valueBytes);
        return 1;
    }
    // Texts are handed out narrow, in the program's code page, converted into the room after the
    // resource (see GetFileVersionInfoA): a value at offset o gets the bytes from 2 * o on, which
    // the text and its terminator cannot overrun.
    std::u16string text;
    for (std::size_t at = node->valueAt; at + 2 <= node->valueAt + node->valueBytes; at += 2) {
        char16_t unit = BlockU16(bytes, at);
        if (unit == 0) {
            break;
        }
        text.push_back(unit);
    }
    std::string narrow = Utf16ToAnsi(text);
    char* target = reinterpret_cast<char*>(writable + Align4(total) + 2 * node->valueAt);
    std::memcpy(target, narrow.data(), narrow.size());
    target[narrow.size()] = '\0';
    *buffer = target;
    *length = node->valueLength == 0 ? 0 : static_cast<UINT>(narrow.size() + 1);
    return 1;
}

}  // namespace qbrix::platform
