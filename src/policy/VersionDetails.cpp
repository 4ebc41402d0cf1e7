#include "policy/VersionDetails.h"

#include <cstdio>
#include <cstring>
#include <vector>

#include "platform/VersionInfo.h"

namespace qbrix::policy {

namespace {

// The string of `key` in the given translation; false when missing or empty.
bool QueryVersionString(const void* block, unsigned language, unsigned codePage, const char* key,
                        std::string& value) {
    char subBlock[128];
    std::snprintf(subBlock, sizeof subBlock, "\\StringFileInfo\\%04x%04x\\%s", language, codePage,
                  key);
    void* text = nullptr;
    platform::UINT length = 0;
    if (!platform::VerQueryValueA(block, subBlock, &text, &length) || length == 0) {
        return false;
    }
    value.assign(static_cast<const char*>(text), strnlen(static_cast<const char*>(text), length));
    return true;
}

}  // namespace

int GetVersionDetails(std::string_view path, std::string& fileDescription, std::string& details,
                      bool wantDetails) {
    fileDescription.clear();
    details.clear();
    platform::DWORD handle = 0;
    platform::DWORD size = platform::GetFileVersionInfoSizeA(path, &handle);
    if (size == 0) {
        return 1;
    }
    std::vector<unsigned char> block(size);
    if (!platform::GetFileVersionInfoA(path, handle, size, block.data())) {
        return 1;
    }
    void* translation = nullptr;
    platform::UINT length = 0;
    if (!platform::VerQueryValueA(block.data(), "\\VarFileInfo\\Translation", &translation,
                                  &length) ||
        length < 4) {
        return 1;
    }
    const auto* pair = static_cast<const unsigned char*>(translation);
    unsigned language = pair[0] | pair[1] << 8;
    unsigned codePage = pair[2] | pair[3] << 8;
    QueryVersionString(block.data(), language, codePage, "FileDescription", fileDescription);
    if (wantDetails) {
        for (const char* key : kVersionDetailKeys) {
            std::string value;
            if (QueryVersionString(block.data(), language, codePage, key, value) &&
                !value.empty()) {
                details += value;
                details += "\r\n";
            }
        }
    }
    return 0;
}

}  // namespace qbrix::policy
