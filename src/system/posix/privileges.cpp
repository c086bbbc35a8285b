// Process privileges on POSIX: nothing is changed; the answer is the
// capabilities in the effective set that stand for the backup rights.
#include "system/privileges.h"

#include <unistd.h>
#ifdef __linux__
#include <linux/capability.h>
#include <sys/syscall.h>
#endif

#include <liblocal/security.h>

namespace ll::priv {

int enable(unsigned wanted) noexcept {
  unsigned held = 0;
#ifdef __linux__
  __user_cap_header_struct head{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capget, &head, data) != 0) return geteuid() == 0 ? static_cast<int>(wanted & 0xFu) : -1;
  auto has = [&data](int cap) { return (data[cap / 32].effective >> (cap % 32) & 1u) != 0; };
  if (has(CAP_DAC_READ_SEARCH)) held |= QZ_PRIV_BACKUP;
  if (has(CAP_DAC_OVERRIDE)) held |= QZ_PRIV_RESTORE;
  if (has(CAP_FOWNER)) held |= QZ_PRIV_SECURITY;
  if (has(CAP_CHOWN)) held |= QZ_PRIV_TAKE_OWNERSHIP;
#else
  if (geteuid() == 0) held = QZ_PRIV_BACKUP | QZ_PRIV_RESTORE | QZ_PRIV_SECURITY | QZ_PRIV_TAKE_OWNERSHIP;
#endif
  return static_cast<int>(held & wanted);
}

}  // namespace ll::priv
