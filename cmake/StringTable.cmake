# Turns resources/strings.txt (lines "NUMBER<TAB>TEXT", TEXT written with C escapes) into a C++
# source holding the string table, so the program carries its texts without a resource file.
function(qbrix_generate_string_table input output)
    file(STRINGS ${input} lines ENCODING UTF-8)
    set(body "")
    foreach(line IN LISTS lines)
        if(line MATCHES "^#" OR line STREQUAL "")
            continue()
        endif()
        if(NOT line MATCHES "^([0-9]+)\t(.*)$")
            message(FATAL_ERROR "${input}: malformed string table line: ${line}")
        endif()
        string(APPEND body "    {${CMAKE_MATCH_1}, \"${CMAKE_MATCH_2}\"},\n")
    endforeach()
    file(CONFIGURE OUTPUT ${output} CONTENT
"// Generated from resources/strings.txt; do not edit.
#include \"core/StringTable.h\"

namespace qbrix::core::detail {
const StringTableEntry kStringTable[] = {
${body}};
const std::size_t kStringTableSize = sizeof(kStringTable) / sizeof(kStringTable[0]);
}  // namespace qbrix::core::detail
" @ONLY)
endfunction()
