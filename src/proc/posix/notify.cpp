// The service manager's notify socket address.
#include "proc/posix/notify.h"

#include <cstddef>
#include <cstring>

namespace ll::svc::os {

bool notify_address(const char *v, sockaddr_un *a, socklen_t *len) noexcept {
  const size_t n = std::strlen(v);
  std::memset(a, 0, sizeof *a);
  a->sun_family = AF_UNIX;
  if (v[0] == '@') {
    if (n < 2 || n > sizeof a->sun_path) return false;
    std::memcpy(a->sun_path + 1, v + 1, n - 1);
    *len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + n);
    return true;
  }
  if (v[0] != '/' || n >= sizeof a->sun_path) return false;
  std::memcpy(a->sun_path, v, n + 1);
  *len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + n + 1);
  return true;
}

}  // namespace ll::svc::os
