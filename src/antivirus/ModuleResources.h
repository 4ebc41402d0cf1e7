// The program's own binary resources, found by type and numeric ID as in the program's module.
// They are compiled into the program from the files under resources/ (see
// cmake/BinaryResources.cmake), so no separate resource file travels with it.
#pragma once

#include <cstddef>
#include <string_view>

namespace qbrix::antivirus {

struct ModuleResource {
    const char* type;
    int id;
    const unsigned char* data;
    std::size_t size;
};

// The resource of `type` (compared without regard to case, as resource types are) and `id`, or
// null when the program has none.
const ModuleResource* FindModuleResource(std::string_view type, int id);

namespace detail {
extern const ModuleResource kModuleResources[];
extern const std::size_t kModuleResourceCount;
}  // namespace detail

}  // namespace qbrix::antivirus
