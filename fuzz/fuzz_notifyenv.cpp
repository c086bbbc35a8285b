// The service manager's socket variable on arbitrary values: an accepted
// value always gives an address that fits, of exactly the right length.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "proc/posix/notify.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string v = std::string(reinterpret_cast<const char *>(data), size).c_str();
  sockaddr_un a;
  socklen_t len = 0;
  if (!ll::svc::os::notify_address(v.c_str(), &a, &len)) {
    if ((v[0] == '@' && v.size() >= 2 && v.size() <= sizeof a.sun_path) || (v[0] == '/' && v.size() < sizeof a.sun_path))
      abort();  // a usable value refused
    return 0;
  }
  const size_t base = offsetof(sockaddr_un, sun_path);
  if (len > sizeof a || a.sun_family != AF_UNIX) abort();
  if (v[0] == '@') {
    if (len != base + v.size() || a.sun_path[0] != '\0' || std::memcmp(a.sun_path + 1, v.data() + 1, v.size() - 1))
      abort();
  } else if (len != base + v.size() + 1 || std::strcmp(a.sun_path, v.c_str()) != 0) {
    abort();
  }
  return 0;
}
