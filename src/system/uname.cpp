// uname: the system's names in the library's fixed record.
#include <liblocal/sysinfo.h>

#include <cerrno>
#include <cstring>

#include "system/uname.h"

namespace {
void put(char (&field)[QZ_UTSNAME_LENGTH], const std::string &s) {
  size_t n = s.size() < sizeof field - 1 ? s.size() : sizeof field - 1;
  std::memcpy(field, s.data(), n);
  std::memset(field + n, 0, sizeof field - n);
}
}  // namespace

extern "C" LL_API int ll_uname(struct ll_utsname *u) noexcept {
  if (!u) {
    errno = EFAULT;
    return -1;
  }
  ll::sys::Names names;
  if (!ll::sys::system_names(names)) return -1;
  put(u->sysname, names.sysname);
  put(u->nodename, names.nodename);
  put(u->release, names.release);
  put(u->version, names.version);
  put(u->machine, names.machine);
  return 0;
}
