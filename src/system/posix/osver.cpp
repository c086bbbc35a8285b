// Operating-system class on POSIX. Every POSIX system has full wide-character
// file support, so it is of the NT kind: class 2 for a server, 3 for a
// workstation. A host counts as a workstation when it is set up to start a
// graphical desktop (a display manager is configured, or the boot target is
// the graphical one); otherwise it is a server.
#include "system/osver.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>

namespace ll::sys {

int compute_class() noexcept {
  if (access("/etc/X11/default-display-manager", F_OK) == 0) return 3;
  char target[PATH_MAX];
  ssize_t n = readlink("/etc/systemd/system/default.target", target, sizeof target - 1);
  if (n > 0) {
    target[n] = 0;
    if (std::strstr(target, "graphical.target")) return 3;
  }
  return 2;
}

bool version(int &major, int &minor, int &platform_id) noexcept {
  utsname u;
  if (uname(&u) != 0) return false;
  char *end = nullptr;
  major = static_cast<int>(std::strtol(u.release, &end, 10));
  minor = (end && *end == '.') ? static_cast<int>(std::strtol(end + 1, nullptr, 10)) : 0;
  platform_id = 2;  // the NT kind
  return major > 0;
}

std::string host_os_name(int) noexcept {
  utsname u;
  if (uname(&u) != 0) return "Linux";
  if (std::strcmp(u.sysname, "SunOS") == 0) return u.release[0] == '5' ? "Solaris" : "SunOS";
  if (std::strcmp(u.sysname, "AIX") == 0) return "AixOS";
  if (std::strcmp(u.sysname, "HP-UX") == 0) return "HpOS";
  return u.sysname;
}

int processors() noexcept {
  long n = sysconf(_SC_NPROCESSORS_ONLN);
  return n > 0 ? static_cast<int>(n) : 0;
}

}  // namespace ll::sys
