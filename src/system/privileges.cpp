// SetPrivileges: the rights a backup and restore program uses, enabled where
// the process holds them; the ones it lacks are noted, never a failure.
#include <liblocal/output.h>
#include <liblocal/security.h>

#include "system/privileges.h"

namespace {
const char *const kNames[] = {"SeBackupPrivilege",         "SeRestorePrivilege",
                              "SeSecurityPrivilege",       "SeTakeOwnershipPrivilege",
                              "SeChangeNotifyPrivilege",   "SeCreateSymbolicLinkPrivilege",
                              "SeManageVolumePrivilege",   "SeIncreaseQuotaPrivilege",
                              "SeAssignPrimaryTokenPrivilege", "SeImpersonatePrivilege",
                              "SeShutdownPrivilege"};
constexpr unsigned kCount = sizeof kNames / sizeof kNames[0];
static_assert((1u << kCount) - 1 == QZ_PRIV_ALL);
}  // namespace

extern "C" {

LL_API const char *qz_privilege_name(unsigned int priv) noexcept {
  for (unsigned i = 0; i < kCount; ++i)
    if (priv == 1u << i) return kNames[i];
  return nullptr;
}

LL_API int SetPrivileges(void) noexcept {
  int held = ll::priv::enable(QZ_PRIV_ALL);
  if (held < 0) {
    dprintf(3, "privileges of the process cannot be read\n");
    return -1;
  }
  for (unsigned i = 0; i < kCount; ++i)
    if (!(static_cast<unsigned>(held) & 1u << i)) dprintf(3, "privilege %s not held\n", kNames[i]);
  return held;
}

}  // extern "C"
