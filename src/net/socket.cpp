// The socket layer's portable half: the exported wrappers, descriptor sets,
// gathered I/O rules, the send cap, option copying, the RPC service table and
// the host-name cache. The platform calls and the cancellable waits are in
// the back-ends (socket_os.h).
#include <liblocal/socket.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "net/socket_os.h"
#include <liblocal/catalog.h>
#include <liblocal/frame.h>
#include <liblocal/memory.h>
#include <liblocal/msgtag.h>
#include <liblocal/output.h>
#include <liblocal/strutil.h>
#include <liblocal/syserr.h>

namespace ll::net {

std::atomic<uint32_t> g_generation{0};

namespace {

int bad(int e) noexcept {
  errno = e;
  return -1;
}

// A set's count as it can be used: a negative count is an empty set, a count
// above the capacity a full one.
int usable_count(const qz_fd_set *set) noexcept {
  int32_t n = set->fd_count;
  if (n < 0) return 0;
  return n > QZ_FD_SETSIZE ? QZ_FD_SETSIZE : n;
}

// The product's RPC services: no aliases; the table ends with an empty row.
char *g_no_aliases[] = {nullptr};
rpcent g_rpc_table[] = {
    {const_cast<char *>("backupd"), g_no_aliases, 0x20010001},
    {const_cast<char *>("clientd"), g_no_aliases, 0x20010002},
    {const_cast<char *>("mediad"), g_no_aliases, 0x20010003},
    {const_cast<char *>("indexd"), g_no_aliases, 0x20010004},
    {const_cast<char *>("schedd"), g_no_aliases, 0x20010005},
    {const_cast<char *>("jobd"), g_no_aliases, 0x20010006},
    {const_cast<char *>("volumed"), g_no_aliases, 0x20010007},
    {const_cast<char *>("agentd"), g_no_aliases, 0x20010008},
    {nullptr, nullptr, 0},
};

// The host name, asked once per process.
struct HostNameCache {
  std::mutex mu;
  bool filled = false;
  char name[64] = {};
};
HostNameCache g_host;

int fill_host_name() noexcept {
  std::lock_guard<std::mutex> lock(g_host.mu);
  if (g_host.filled) return 0;
  char buf[64] = {};
  if (os::host_name(buf, sizeof buf) != 0 || !buf[0]) {
    int kept = errno;
    if (!os::computer_name(buf, sizeof buf) || !buf[0]) return bad(kept);
    lcase(buf);
  }
  buf[sizeof buf - 1] = 0;
  std::memcpy(g_host.name, buf, sizeof buf);
  g_host.filled = true;
  return 0;
}

int clamp_len(size_t n) noexcept { return n > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(n); }

}  // namespace

}  // namespace ll::net

using namespace ll::net;

extern "C" {

LL_API int Tcp_Is_Loaded(void) noexcept {
  static std::once_flag once;
  std::call_once(once, [] { os::load(); });
  return 1;
}

LL_API void qz_socancel(void) noexcept { os::cancel(); }

LL_API uint32_t qz_socancel_generation(void) noexcept { return g_generation.load(std::memory_order_acquire); }

LL_API qz_socket_t qzsocket(int af, int type, int protocol) noexcept { return os::socket(af, type, protocol); }

LL_API qz_socket_t qzaccept(qz_socket_t s, struct sockaddr *addr, qz_socklen_t *addrlen) noexcept {
  return os::accept(s, addr, addrlen);
}

LL_API int qzconnect(qz_socket_t s, const struct sockaddr *name, qz_socklen_t namelen) noexcept {
  return os::connect(s, name, namelen);
}

LL_API int qz_select(int, qz_fd_set *readfds, qz_fd_set *writefds, qz_fd_set *exceptfds,
                     struct timeval *timeout) noexcept {
  return os::select(readfds, writefds, exceptfds, timeout);
}

LL_API int qzbind(qz_socket_t s, const struct sockaddr *name, qz_socklen_t namelen) noexcept {
  return os::bind(s, name, namelen);
}

LL_API int qzlisten(qz_socket_t s, int backlog) noexcept { return os::listen(s, backlog); }

LL_API int qzgetsockopt(qz_socket_t s, int level, int optname, char *optval, qz_socklen_t *optlen) noexcept {
  return os::getsockopt(s, level, optname, optval, optlen);
}

LL_API int qzsetsockopt(qz_socket_t s, int level, int optname, const char *optval, int optlen) noexcept {
  if (!optval) return bad(EFAULT);
  if (optlen < 1 || optlen > 4) return bad(EINVAL);
  // One word, copied: the caller's value is never changed.
  int32_t word = 0;
  std::memcpy(&word, optval, static_cast<size_t>(optlen));
  if (optlen == 4 && os::buffer_option(level, optname) && word <= kBufMin) word = kBufMin;
  return os::setsockopt(s, level, optname, reinterpret_cast<const char *>(&word), optlen);
}

LL_API int qzgetpeername(qz_socket_t s, struct sockaddr *name, qz_socklen_t *namelen) noexcept {
  return os::getpeername(s, name, namelen);
}

LL_API int qzgetsockname(qz_socket_t s, struct sockaddr *name, qz_socklen_t *namelen) noexcept {
  return os::getsockname(s, name, namelen);
}

LL_API struct protoent *qzgetprotobyname(const char *name) noexcept {
  if (!name) {
    errno = EINVAL;
    return nullptr;
  }
  return os::getprotobyname(name);
}

LL_API int qzsoioctl(qz_socket_t s, long cmd, unsigned long *argp) noexcept {
  if (!argp) return bad(EFAULT);
  return os::ioctl(s, cmd, argp);
}

LL_API int qzrecv(qz_socket_t s, char *buf, int len, int flags) noexcept {
  if (len < 0) return bad(EINVAL);
  return os::recv(s, buf, len, flags);
}

LL_API int qzrecvfrom(qz_socket_t s, char *buf, int len, int flags, struct sockaddr *from,
                      qz_socklen_t *fromlen) noexcept {
  if (len < 0) return bad(EINVAL);
  return os::recvfrom(s, buf, len, flags, from, fromlen);
}

LL_API int qzsend(qz_socket_t s, const char *buf, int len, int flags) noexcept {
  if (len < 0) return bad(EINVAL);
  return os::send(s, buf, len > kSendMax ? kSendMax : len, flags);
}

LL_API int qzsendto(qz_socket_t s, const char *buf, int len, int flags, const struct sockaddr *to,
                    qz_socklen_t tolen) noexcept {
  if (len < 0) return bad(EINVAL);
  return os::sendto(s, buf, len, flags, to, tolen);
}

LL_API int qzshutdown(qz_socket_t s, int how) noexcept { return os::shutdown(s, how); }

LL_API int qzsoblock(qz_socket_t s) noexcept { return os::set_nonblocking(s, false) ? 1 : 0; }

LL_API int qzsononblock(qz_socket_t s) noexcept { return os::set_nonblocking(s, true) ? 1 : 0; }

LL_API int qzsoclose(qz_socket_t s) noexcept {
  uint32_t gen = g_generation.load(std::memory_order_acquire);
  for (;;) {
    if (os::close(s) == 0) return 0;
    if (errno != QZ_EWOULDBLOCK) return -1;
    if (g_generation.load(std::memory_order_acquire) != gen) return bad(EINTR);
    delay(0);
  }
}

LL_API int qzsocloselinger(qz_socket_t s) noexcept {
  if (s == kBadSocket) return 0;
  int saved = errno;
  os::drain(s);
  qzsoclose(s);
  errno = saved;
  return 0;
}

LL_API int qzgethostname(char *buf, int len) noexcept {
  if (len < 0) return bad(EINVAL);
  if (fill_host_name() != 0) return -1;
  if (len == 0) return 0;
  if (!buf) return bad(EFAULT);
  std::strncpy(buf, g_host.name, static_cast<size_t>(len));
  return 0;
}

LL_API int sendv(qz_socket_t s, const struct iovec *vec, int count) noexcept {
  if (!vec || count <= 0) return bad(EINVAL);
  if (count == 2) {
    int l1 = clamp_len(vec[0].iov_len), l2 = clamp_len(vec[1].iov_len);
    if (static_cast<long long>(l1) + l2 > kSendMax) {
      if (l1 >= kSendMax) {
        l1 = kSendMax;
        l2 = 0;
      } else {
        l2 = kSendMax - l1;
      }
    }
    int r = os::send2(s, static_cast<const char *>(vec[0].iov_base), l1, static_cast<const char *>(vec[1].iov_base), l2);
    if (r != -2) return r;
  }
  return qzsend(s, static_cast<const char *>(vec[0].iov_base), clamp_len(vec[0].iov_len), 0);
}

LL_API int recvv(qz_socket_t s, struct iovec *vec, int count) noexcept {
  if (!vec || count <= 0) return bad(EINVAL);
  if (count == 2) {
    int r = os::recv2(s, static_cast<char *>(vec[0].iov_base), clamp_len(vec[0].iov_len),
                      static_cast<char *>(vec[1].iov_base), clamp_len(vec[1].iov_len));
    if (r != -2) return r;
  }
  return qzrecv(s, static_cast<char *>(vec[0].iov_base), clamp_len(vec[0].iov_len), 0);
}

LL_API int ll_writev(int fd, const struct iovec *vec, int) noexcept {
  if (!vec) return bad(EINVAL);
  return os::rt_write(fd, vec[0].iov_base, vec[0].iov_len);
}

LL_API int ll_readv(int fd, const struct iovec *vec, int) noexcept {
  if (!vec) return bad(EINVAL);
  return os::rt_read(fd, vec[0].iov_base, vec[0].iov_len);
}

LL_API struct rpcent *ll_getrpcbyname(const char *name) noexcept {
  if (!name) return nullptr;
  for (rpcent *r = g_rpc_table; r->r_name; ++r)
    if (qzstricmp(r->r_name, name) == 0) return r;
  return nullptr;
}

LL_API struct rpcent *ll_getrpcbynumber(int number) noexcept {
  for (rpcent *r = g_rpc_table; r->r_name; ++r)
    if (r->r_number == number) return r;
  return nullptr;
}

LL_API void QZ_FD_ZERO(qz_fd_set *set) noexcept {
  if (set) set->fd_count = 0;
}

LL_API void QZ_FD_SET(qz_socket_t s, qz_fd_set *set) noexcept {
  if (!set) return;
  int n = usable_count(set);
  set->fd_count = n;
  for (int i = 0; i < n; ++i)
    if (set->fd_array[i] == s) return;
  if (n >= QZ_FD_SETSIZE) {
    char line[512], fmt[512];
    qzsnprintf(line, sizeof line,
               qzcatgets_buf(fmt, sizeof fmt, Catd, 17, 290,
                             "Number of sockets over limit, some sockets will be ignored. (FD_SETSIZE %d)."),
               QZ_FD_SETSIZE);
    printerr("%s\n", line);
    return;
  }
  set->fd_array[n] = s;
  set->fd_count = n + 1;
}

LL_API void QZ_FD_CLR(qz_socket_t s, qz_fd_set *set) noexcept {
  if (!set) return;
  int n = usable_count(set);
  set->fd_count = n;
  for (int i = 0; i < n; ++i) {
    if (set->fd_array[i] != s) continue;
    std::memmove(&set->fd_array[i], &set->fd_array[i + 1], sizeof(qz_socket_t) * static_cast<size_t>(n - i - 1));
    set->fd_count = n - 1;
    return;
  }
}

LL_API int QZ_FD_ISSET(qz_socket_t s, const qz_fd_set *set) noexcept {
  if (!set) return 0;
  int n = usable_count(set);
  for (int i = 0; i < n; ++i)
    if (set->fd_array[i] == s) return 1;
  return 0;
}

}  // extern "C"
