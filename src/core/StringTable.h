// The string table: user texts by number, carried inside the program.
#pragma once

#include <cstddef>
#include <string>

namespace qbrix::core {

struct StringTableEntry {
    int id;
    const char* text;
};

// The text of string `id`, or an empty text when the table has no such string.
std::string LoadString(int id);

namespace detail {
extern const StringTableEntry kStringTable[];
extern const std::size_t kStringTableSize;
}  // namespace detail

}  // namespace qbrix::core
