// Security identifiers and the membership test of the Windows security API. The built-in
// ADVAPI32.DLL module exports CheckTokenMembership; on Linux the Administrators group
// (S-1-5-32-544) is root or a member of one of the administrator groups "sudo", "admin" or
// "wheel".
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "platform/WinTypes.h"

namespace qbrix::platform {

struct SID {
    std::array<BYTE, 6> authority{};
    std::vector<DWORD> subAuthorities;
};
using PSID = SID*;

inline constexpr std::array<BYTE, 6> SECURITY_NT_AUTHORITY = {0, 0, 0, 0, 0, 5};
inline constexpr DWORD SECURITY_BUILTIN_DOMAIN_RID = 32;
inline constexpr DWORD DOMAIN_ALIAS_RID_ADMINS = 544;

BOOL AllocateAndInitializeSid(const std::array<BYTE, 6>& authority, BYTE count, DWORD s0,
                              DWORD s1, DWORD s2, DWORD s3, DWORD s4, DWORD s5, DWORD s6,
                              DWORD s7, PSID* sid);
void FreeSid(PSID sid);

// The signature of ADVAPI32's CheckTokenMembership, looked up at run time by the callers.
using CheckTokenMembershipFn = BOOL (*)(void* token, PSID sid, BOOL* isMember);

class Libraries;
struct UserIdentity;

// Whether the user counts as a member of the Administrators group (root or an administrator
// group), as CheckTokenMembership answers.
bool IsLinuxAdministrator(const UserIdentity& user);

// Registers the built-in system modules (ADVAPI32.DLL, and the process listing's PSAPI.DLL and
// KERNEL32.DLL) with a platform's libraries.
void RegisterSystemModules(Libraries& libraries);

}  // namespace qbrix::platform
