// Resolver calls and the interface list on POSIX: the reentrant resolver
// calls, answers copied to the calling thread's storage.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "frame/areas.h"
#include "frame/syserr.h"
#include "net/hostent_copy.h"
#include "net/hostid_os.h"
#include <liblocal/hostid.h>

namespace ll::net {
namespace {

// Resolver failures as on Windows: 1101 not found, 1102 try again, 1103 no
// recovery, 1104 no address.
constexpr int kNameErrBase = 1100;

void set_h_errno(int h) noexcept {
  if (h >= 1 && h <= 4)
    errno = kNameErrBase + h;
  else
    errno = socket_errno(errno ? errno : ENOENT);
}

struct Resolved {
  std::vector<char> buf = std::vector<char>(2048);
  hostent tmp{};
  HostCopy<hostent> copy;
};

Resolved &area() { return *ll::thread_area<Resolved>(); }

template <class Call> hostent *resolve(Call call) noexcept {
  Resolved &r = area();
  for (;;) {
    hostent *res = nullptr;
    int herr = 0;
    int e = call(&r.tmp, r.buf.data(), r.buf.size(), &res, &herr);
    if (e == ERANGE && r.buf.size() < (1u << 20)) {
      try {
        r.buf.resize(r.buf.size() * 2);
      } catch (...) {
        errno = 135;
        return nullptr;
      }
      continue;
    }
    if (!res) {
      if (e && !herr) errno = e;
      set_h_errno(herr);
      return nullptr;
    }
    return r.copy.keep(res);
  }
}

// A test seam's answer, copied like the resolver's.
hostent *seam_answer(void *h) noexcept {
  if (!h) {
    errno = kNameErrBase + HOST_NOT_FOUND;
    return nullptr;
  }
  return area().copy.keep(static_cast<hostent *>(h));
}

}  // namespace

namespace os {

bool to_answer(const hostent *h, Answer &out) { return plain_answer(h, out); }

int own_addrs(std::vector<uint32_t> &out) noexcept {
  ifaddrs *list = nullptr;
  if (getifaddrs(&list) != 0) return 0;
  try {
    for (ifaddrs *i = list; i; i = i->ifa_next)
      if (i->ifa_addr && i->ifa_addr->sa_family == AF_INET)
        out.push_back(reinterpret_cast<sockaddr_in *>(i->ifa_addr)->sin_addr.s_addr);
  } catch (...) {
    freeifaddrs(list);
    return -1;
  }
  freeifaddrs(list);
  return static_cast<int>(out.size());
}

hostent *by_name(const char *name) noexcept {
  if (g_seam_byname) return seam_answer(g_seam_byname(name));
  return resolve([name](hostent *ret, char *buf, size_t len, hostent **res, int *herr) {
    return gethostbyname_r(name, ret, buf, len, res, herr);
  });
}

hostent *by_addr(const char *addr, int len, int type) noexcept {
  if (g_seam_byaddr) return seam_answer(g_seam_byaddr(addr, len, type));
  return resolve([=](hostent *ret, char *buf, size_t blen, hostent **res, int *herr) {
    return gethostbyaddr_r(addr, static_cast<socklen_t>(len), type, ret, buf, blen, res, herr);
  });
}

}  // namespace os
}  // namespace ll::net
