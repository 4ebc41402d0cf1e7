#include "antivirus/ModuleResources.h"

#include "platform/Text.h"

namespace qbrix::antivirus {

const ModuleResource* FindModuleResource(std::string_view type, int id) {
    for (std::size_t i = 0; i < detail::kModuleResourceCount; ++i) {
        const ModuleResource& resource = detail::kModuleResources[i];
        if (resource.id == id && platform::EqualsIgnoreCase(resource.type, type)) {
            return &resource;
        }
    }
    return nullptr;
}

}  // namespace qbrix::antivirus
