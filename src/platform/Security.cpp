#include "platform/Security.h"

#include <algorithm>

#include "platform/Platform.h"
#include "platform/Processes.h"

namespace qbrix::platform {

namespace {

bool IsAdministratorsSid(const SID& sid) {
    return sid.authority == SECURITY_NT_AUTHORITY &&
           sid.subAuthorities ==
               std::vector<DWORD>{SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS};
}

// Only the caller's own token (a null handle) is supported, which is all the system asks.
BOOL CheckTokenMembership(void* token, PSID sid, BOOL* isMember) {
    if (token != nullptr || sid == nullptr || isMember == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    *isMember = IsAdministratorsSid(*sid) && IsLinuxAdministrator(Current().Info().user) ? 1 : 0;
    return 1;
}

}  // namespace

bool IsLinuxAdministrator(const UserIdentity& user) {
    static const char* const kAdminGroups[] = {"sudo", "admin", "wheel"};
    if (user.uid == 0) {
        return true;
    }
    return std::any_of(user.groups.begin(), user.groups.end(), [](const std::string& g) {
        return std::find(std::begin(kAdminGroups), std::end(kAdminGroups), g) !=
               std::end(kAdminGroups);
    });
}

BOOL AllocateAndInitializeSid(const std::array<BYTE, 6>& authority, BYTE count, DWORD s0,
                              DWORD s1, DWORD s2, DWORD s3, DWORD s4, DWORD s5, DWORD s6,
                              DWORD s7, PSID* sid) {
    if (sid == nullptr || count == 0 || count > 8) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    const DWORD all[8] = {s0, s1, s2, s3, s4, s5, s6, s7};
    *sid = new SID{authority, std::vector<DWORD>(all, all + count)};
    return 1;
}

void FreeSid(PSID sid) { delete sid; }

void RegisterSystemModules(Libraries& libraries) {
    libraries.RegisterBuiltin(
        "ADVAPI32.DLL",
        {{"CheckTokenMembership", reinterpret_cast<void*>(&CheckTokenMembership)}});
    RegisterProcessModules(libraries);
}

}  // namespace qbrix::platform
