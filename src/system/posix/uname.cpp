// The system names on POSIX: the system's own uname.
#include "system/uname.h"

#include <sys/utsname.h>

namespace ll::sys {

bool system_names(Names &out) noexcept {
  struct ::utsname u;
  if (::uname(&u) != 0) return false;
  out.sysname = u.sysname;
  out.nodename = u.nodename;
  out.release = u.release;
  out.version = u.version;
  out.machine = u.machine;
  return true;
}

}  // namespace ll::sys
