// Resolver calls shared by both back-ends: the calls under the name-service
// lock, and their answers in plain form for the host identity cache.
#include <liblocal/hostid.h>

#include <cerrno>
#include <mutex>

#include "net/hostid_os.h"

namespace ll::net {

bool resolve_name(const char *name, Answer &out) noexcept {
  std::lock_guard<std::recursive_mutex> lock(ns_lock());
  try {
    return os::to_answer(qzmo_gethostbyname(name), out);
  } catch (...) {
    return false;
  }
}

bool resolve_addr(const std::string &addr, int type, Answer &out) noexcept {
  std::lock_guard<std::recursive_mutex> lock(ns_lock());
  try {
    return os::to_answer(qzmo_gethostbyaddr(addr.data(), static_cast<int>(addr.size()), type), out);
  } catch (...) {
    return false;
  }
}

}  // namespace ll::net

extern "C" {

LL_API struct hostent *qzgethostbyname(const char *name) noexcept {
  if (!name) {
    errno = EINVAL;
    return nullptr;
  }
  return ll::net::os::by_name(name);
}

LL_API struct hostent *qzgethostbyaddr(const char *addr, int len, int type) noexcept {
  if (!addr || len <= 0) {
    errno = EINVAL;
    return nullptr;
  }
  return ll::net::os::by_addr(addr, len, type);
}

LL_API struct hostent *qzmo_gethostbyname(const char *name) noexcept {
  std::lock_guard<std::recursive_mutex> lock(ll::net::ns_lock());
  return qzgethostbyname(name);
}

LL_API struct hostent *qzmo_gethostbyaddr(const char *addr, int len, int type) noexcept {
  std::lock_guard<std::recursive_mutex> lock(ll::net::ns_lock());
  return qzgethostbyaddr(addr, len, type);
}

}  // extern "C"
