# Turns binary files into a C++ source holding them as byte arrays, so the program carries its
# binary resources (type, numeric ID, bytes) without a resource file. Arguments after `output`
# come in triples: TYPE ID FILE.
function(qbrix_generate_binary_resources output)
    set(arrays "")
    set(entries "")
    set(index 0)
    set(args ${ARGN})
    list(LENGTH args count)
    while(index LESS count)
        list(GET args ${index} type)
        math(EXPR next "${index} + 1")
        list(GET args ${next} id)
        math(EXPR next "${index} + 2")
        list(GET args ${next} file)
        file(READ ${file} hex HEX)
        string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
        string(REGEX REPLACE "((0x..,){16})" "\\1\n    " bytes "${bytes}")
        string(APPEND arrays "const unsigned char kResource${id}[] = {\n    ${bytes}\n};\n")
        string(APPEND entries "    {\"${type}\", ${id}, kResource${id}, sizeof(kResource${id})},\n")
        set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
        math(EXPR index "${index} + 3")
    endwhile()
    file(CONFIGURE OUTPUT ${output} CONTENT
"// Generated from the files under resources/; do not edit.
#include \"antivirus/ModuleResources.h\"

namespace qbrix::antivirus::detail {
namespace {
${arrays}}  // namespace
const ModuleResource kModuleResources[] = {
${entries}};
const std::size_t kModuleResourceCount = sizeof(kModuleResources) / sizeof(kModuleResources[0]);
}  // namespace qbrix::antivirus::detail
" @ONLY)
endfunction()
