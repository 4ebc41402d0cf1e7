// The version details of an executable: its file description and, when wanted, the text of
// eight version strings, each followed by "\r\n".
#pragma once

#include <string>
#include <string_view>

namespace qbrix::policy {

// The keys of the details, in the order they are written.
inline constexpr const char* kVersionDetailKeys[] = {
    "Comments",       "CompanyName",      "FileDescription", "InternalName",
    "LegalCopyright", "OriginalFilename", "ProductName",     "ProductVersion"};

// 0 when the file has a version resource with a translation table (the first language and code
// page are used); then `fileDescription` holds "FileDescription" (empty when it has none) and,
// with `wantDetails`, `details` the non-empty values of the keys above. Both are emptied first.
int GetVersionDetails(std::string_view path, std::string& fileDescription, std::string& details,
                      bool wantDetails);

}  // namespace qbrix::policy
