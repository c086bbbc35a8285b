// The socket layer on POSIX. Cancellable waits poll the socket together with
// a wake-up descriptor of the current cancel generation: the cancel operation
// signals that descriptor and starts a fresh one, so every wait begun before
// it ends with EINTR and every wait begun after it blocks normally.
//
// accept and connect on a blocking socket run on the socket switched to
// non-blocking for the duration of the call (a second thread that takes the
// pending connection first must not leave us stuck in the system call); the
// switch is shared by concurrent callers and undone by the last one.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "frame/fault.h"
#include "frame/syserr.h"
#include "net/socket_os.h"
#include "net/wakers.h"
#include <liblocal/syserr.h>

static_assert(std::is_same_v<qz_socklen_t, socklen_t>, "qz_socklen_t must be socklen_t");

namespace ll::net {

// A value that is no open descriptor is "not a socket", as Windows reports it.
int fail() noexcept {
  errno = errno == EBADF ? QZ_ENOTSOCK : socket_errno(errno);
  return -1;
}

namespace {

int fail_with(int e) noexcept {
  errno = e;
  return fail();
}

// ---- wake-up descriptors, one per cancel generation ----

struct Waker {
  int fd;
  uint32_t gen;
  int refs;
  bool retired;
};

Wakers<Waker> g_wakers;

// A fork child starts with no waker of its own: the parent's stays the
// parent's, so a cancel in either process never wakes the other's waits. The
// child's copy of the parent's descriptor is closed (no thread of the child
// can be waiting on it).
void fork_prepare() { g_wakers.mu.lock(); }
void fork_parent() { g_wakers.mu.unlock(); }
void fork_child() {
  if (Waker *w = g_wakers.current) {
    if (w->fd >= 0) ::close(w->fd);
    delete w;
    g_wakers.current = nullptr;
  }
  g_wakers.mu.unlock();
}

// Installed before the first waker exists, so that no fork can copy one
// unseen.
void watch_forks() noexcept {
  static std::once_flag once;
  std::call_once(once, [] { pthread_atfork(fork_prepare, fork_parent, fork_child); });
}

// The waker of the current generation, held until release().
Waker *acquire() noexcept {
  watch_forks();
  return g_wakers.acquire([](Waker *&w) {
    if (!w) w = new (std::nothrow) Waker{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK),
                                         g_generation.load(std::memory_order_relaxed), 0, false};
  });
}

void release(Waker *w) noexcept {
  g_wakers.release(w, [](Waker *dead) {
    if (dead->fd >= 0) ::close(dead->fd);
    delete dead;
  });
}

struct Held {
  Waker *w = acquire();
  ~Held() { release(w); }
  int fd() const { return w ? w->fd : -1; }
};


// Polls fds (the last one the waker's) until one is ready. 1 ready, 0 timed
// out, -1 with errno (EINTR when cancelled or interrupted).
int wait_poll(pollfd *fds, nfds_t n, int timeout_ms) noexcept {
  int r = ::poll(fds, n, timeout_ms);
  if (r < 0) return fail();
  if (r == 0) return 0;
  if (fds[n - 1].fd >= 0 && fds[n - 1].revents) {
    errno = EINTR;
    return -1;
  }
  return 1;
}

int wait_one(int s, short events, const Held &h) noexcept {
  pollfd fds[2] = {{s, events, 0}, {h.fd(), POLLIN, 0}};
  return wait_poll(fds, 2, -1);
}

// ---- blocking sockets borrowed in non-blocking mode ----

struct Borrowed {
  int users;
  bool blocking_after;  // the mode to restore when the last user leaves
  bool closed = false;  // closed under its users: the number may be reused
};
std::mutex g_mode_mu;
std::unordered_map<int, Borrowed> g_borrowed;

// True when the call must act as a blocking one: the socket is then in
// non-blocking mode until give_back(). False for a caller's non-blocking
// socket (nothing changed) or a failure (errno set, *failed true).
bool borrow(int s, bool *failed) noexcept {
  *failed = false;
  std::lock_guard<std::mutex> lock(g_mode_mu);
  auto it = g_borrowed.find(s);
  if (it != g_borrowed.end()) {
    if (it->second.closed) {
      // A new descriptor with the number of one closed under a waiting call.
      *failed = true;
      errno = EBADF;
      fail();
      return false;
    }
    if (!it->second.blocking_after) return false;
    ++it->second.users;
    return true;
  }
  int fl = ::fcntl(s, F_GETFL);
  if (fl < 0 || (!(fl & O_NONBLOCK) && ::fcntl(s, F_SETFL, fl | O_NONBLOCK) < 0)) {
    *failed = true;
    fail();
    return false;
  }
  if (fl & O_NONBLOCK) return false;
  try {
    g_borrowed.emplace(s, Borrowed{1, true});
  } catch (...) {
    ::fcntl(s, F_SETFL, fl);
    *failed = true;
    errno = QZ_ENOBUFS;
    return false;
  }
  return true;
}

void give_back(int s) noexcept {
  int saved = errno;
  std::lock_guard<std::mutex> lock(g_mode_mu);
  auto it = g_borrowed.find(s);
  if (it != g_borrowed.end() && --it->second.users == 0) {
    bool restore = it->second.blocking_after && !it->second.closed;
    g_borrowed.erase(it);
    int fl = restore ? ::fcntl(s, F_GETFL) : -1;
    if (fl >= 0) ::fcntl(s, F_SETFL, fl & ~O_NONBLOCK);
  }
  errno = saved;
}

bool is_again(int e) { return e == EAGAIN || e == EWOULDBLOCK; }

}  // namespace

namespace os {

void load() noexcept {}

void cancel() noexcept {
  Waker *w = g_wakers.retire();
  if (!w) return;
  if (w->fd >= 0) {
    uint64_t one = 1;
    ssize_t n = ::write(w->fd, &one, sizeof one);
    (void)n;
  }
  release(w);
}

qz_socket_t socket(int af, int type, int protocol) noexcept {
  int s = LL_FAULT(socket) ? -1 : ::socket(af, type | SOCK_CLOEXEC, protocol);
  return s < 0 ? fail() : s;
}

qz_socket_t accept(qz_socket_t s, sockaddr *addr, qz_socklen_t *len) noexcept {
  bool failed;
  if (!borrow(s, &failed)) {
    if (failed) return -1;
    int r = ::accept4(s, addr, len, SOCK_CLOEXEC);
    return r < 0 ? fail() : r;
  }
  Held h;
  int r;
  for (;;) {
    r = ::accept4(s, addr, len, SOCK_CLOEXEC);
    if (r >= 0) break;
    if (!is_again(errno)) {
      r = fail();
      break;
    }
    if (wait_one(s, POLLIN, h) < 0) {
      r = -1;
      break;
    }
  }
  give_back(s);
  return r;
}

int connect(qz_socket_t s, const sockaddr *name, qz_socklen_t len) noexcept {
  bool failed;
  if (!borrow(s, &failed)) {
    if (failed) return -1;
    if (::connect(s, name, len) == 0) return 0;
    // A connection in progress on a non-blocking socket is "would block", as
    // on Windows.
    if (errno == EINPROGRESS) return fail_with(EWOULDBLOCK);
    return fail();
  }
  Held h;
  int r = ::connect(s, name, len);
  if (r < 0 && errno == EINPROGRESS) {
    r = wait_one(s, POLLOUT, h);
    if (r > 0) {
      int err = 0;
      socklen_t el = sizeof err;
      if (::getsockopt(s, SOL_SOCKET, SO_ERROR, &err, &el) < 0) err = errno;
      r = err ? fail_with(err) : 0;
    }
  } else if (r < 0) {
    r = fail();
  }
  give_back(s);
  return r;
}

int select(qz_fd_set *rs, qz_fd_set *ws, qz_fd_set *es, const timeval *timeout) noexcept {
  int timeout_ms = -1;
  if (timeout) {
    if (timeout->tv_sec < 0 || timeout->tv_usec < 0) return fail_with(EINVAL);
    long long ms = static_cast<long long>(timeout->tv_sec) * 1000 + (timeout->tv_usec + 999) / 1000;
    timeout_ms = ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
  }
  qz_fd_set *sets[3] = {rs, ws, es};
  const short want[3] = {POLLIN, POLLOUT, POLLPRI};
  size_t total = 0;
  for (qz_fd_set *set : sets)
    if (set) {
      if (set->fd_count < 0) set->fd_count = 0;
      if (set->fd_count > QZ_FD_SETSIZE) set->fd_count = QZ_FD_SETSIZE;
      total += static_cast<size_t>(set->fd_count);
    }
  // One poll entry per socket and set, then the waker; small waits stay on the stack.
  pollfd small[33];
  std::vector<pollfd> big;
  pollfd *fds = small;
  if (total + 1 > sizeof small / sizeof small[0]) {
    try {
      big.resize(total + 1);
    } catch (...) {
      return fail_with(ENOBUFS);
    }
    fds = big.data();
  }
  size_t n = 0;
  for (int k = 0; k < 3; ++k)
    if (sets[k])
      for (int i = 0; i < sets[k]->fd_count; ++i) fds[n++] = {sets[k]->fd_array[i], want[k], 0};
  Held h;
  fds[n] = {h.fd(), POLLIN, 0};
  int r = wait_poll(fds, n + 1, timeout_ms);
  if (r < 0) return -1;
  n = 0;
  int ready = 0;
  for (int k = 0; k < 3; ++k) {
    if (!sets[k]) continue;
    int kept = 0, count = sets[k]->fd_count;
    for (int i = 0; i < count; ++i, ++n) {
      short ev = fds[n].revents;
      if (ev & POLLNVAL) return fail_with(EBADF);
      bool yes = k == 2 ? (ev & POLLPRI) != 0 : (ev & (want[k] | POLLERR | POLLHUP)) != 0;
      if (yes) sets[k]->fd_array[kept++] = sets[k]->fd_array[i];
    }
    sets[k]->fd_count = kept;
    ready += kept;
  }
  return ready;
}

int close(qz_socket_t s) noexcept {
  {
    // Calls of other threads blocked on this socket are woken (shut down,
    // they fail) rather than left waiting on a descriptor that is gone.
    std::lock_guard<std::mutex> lock(g_mode_mu);
    auto it = g_borrowed.find(s);
    if (it != g_borrowed.end() && !it->second.closed) {
      it->second.closed = true;
      ::shutdown(s, SHUT_RDWR);
    }
  }
  return ::close(s) < 0 ? fail() : 0;
}

int bind(qz_socket_t s, const sockaddr *name, qz_socklen_t len) noexcept {
  return LL_FAULT(socket) || ::bind(s, name, len) < 0 ? fail() : 0;
}

int listen(qz_socket_t s, int backlog) noexcept { return LL_FAULT(socket) || ::listen(s, backlog) < 0 ? fail() : 0; }

int getsockopt(qz_socket_t s, int level, int opt, char *val, qz_socklen_t *len) noexcept {
  return ::getsockopt(s, level, opt, val, len) < 0 ? fail() : 0;
}

int setsockopt(qz_socket_t s, int level, int opt, const char *val, int len) noexcept {
  return ::setsockopt(s, level, opt, val, static_cast<socklen_t>(len)) < 0 ? fail() : 0;
}

bool buffer_option(int level, int opt) noexcept {
  return level == SOL_SOCKET && (opt == SO_SNDBUF || opt == SO_RCVBUF);
}

int getpeername(qz_socket_t s, sockaddr *name, qz_socklen_t *len) noexcept {
  return ::getpeername(s, name, len) < 0 ? fail() : 0;
}

int getsockname(qz_socket_t s, sockaddr *name, qz_socklen_t *len) noexcept {
  return ::getsockname(s, name, len) < 0 ? fail() : 0;
}

protoent *getprotobyname(const char *name) noexcept {
  // Per-thread storage, as the resolver calls have.
  thread_local protoent ent;
  thread_local char buf[1024];
  protoent *res = nullptr;
  int e = ::getprotobyname_r(name, &ent, buf, sizeof buf, &res);
  if (e || !res) {
    fail_with(e ? e : ENOENT);
    return nullptr;
  }
  return res;
}

int ioctl(qz_socket_t s, long cmd, unsigned long *argp) noexcept {
  int v = static_cast<int>(*argp);
  const auto c = static_cast<unsigned long>(cmd);
  if (c == static_cast<unsigned long>(FIONBIO)) return set_nonblocking(s, v != 0) ? 0 : -1;
  // Only the controls whose argument is one word: any other would have the
  // system read or write a record of its own size at the caller's word.
  if (c != static_cast<unsigned long>(FIONREAD) && c != static_cast<unsigned long>(SIOCATMARK))
    return fail_with(EINVAL);
  if (::ioctl(s, c, &v) < 0) return fail();
  *argp = static_cast<unsigned long>(v);
  return 0;
}

int recv(qz_socket_t s, char *buf, int len, int flags) noexcept {
  ssize_t r = ::recv(s, buf, static_cast<size_t>(len), flags);
  return r < 0 ? fail() : static_cast<int>(r);
}

int recvfrom(qz_socket_t s, char *buf, int len, int flags, sockaddr *from, qz_socklen_t *fromlen) noexcept {
  ssize_t r = ::recvfrom(s, buf, static_cast<size_t>(len), flags, from, fromlen);
  return r < 0 ? fail() : static_cast<int>(r);
}

int send(qz_socket_t s, const char *buf, int len, int flags) noexcept {
  // A peer that has gone away is an error number, not a signal.
  ssize_t r = ::send(s, buf, static_cast<size_t>(len), flags | MSG_NOSIGNAL);
  return r < 0 ? fail() : static_cast<int>(r);
}

int sendto(qz_socket_t s, const char *buf, int len, int flags, const sockaddr *to, qz_socklen_t tolen) noexcept {
  ssize_t r = ::sendto(s, buf, static_cast<size_t>(len), flags | MSG_NOSIGNAL, to, tolen);
  return r < 0 ? fail() : static_cast<int>(r);
}

int shutdown(qz_socket_t s, int how) noexcept { return ::shutdown(s, how) < 0 ? fail() : 0; }

bool set_nonblocking(qz_socket_t s, bool on) noexcept {
  {
    // A socket the library has borrowed keeps its borrowed mode; the caller's
    // choice takes effect when the last blocking call on it ends.
    std::lock_guard<std::mutex> lock(g_mode_mu);
    auto it = g_borrowed.find(s);
    if (it != g_borrowed.end()) {
      it->second.blocking_after = !on;
      return true;
    }
  }
  int fl = ::fcntl(s, F_GETFL);
  if (fl < 0) return fail(), false;
  int nf = on ? (fl | O_NONBLOCK) : (fl & ~O_NONBLOCK);
  if (nf != fl && ::fcntl(s, F_SETFL, nf) < 0) return fail(), false;
  return true;
}

int send2(qz_socket_t s, const char *b1, int l1, const char *b2, int l2) noexcept {
  iovec v[2] = {{const_cast<char *>(b1), static_cast<size_t>(l1)}, {const_cast<char *>(b2), static_cast<size_t>(l2)}};
  msghdr m{};
  m.msg_iov = v;
  m.msg_iovlen = 2;
  ssize_t r = ::sendmsg(s, &m, MSG_NOSIGNAL);
  return r < 0 ? fail() : static_cast<int>(r);
}

int recv2(qz_socket_t s, char *b1, int l1, char *b2, int l2) noexcept {
  iovec v[2] = {{b1, static_cast<size_t>(l1)}, {b2, static_cast<size_t>(l2)}};
  msghdr m{};
  m.msg_iov = v;
  m.msg_iovlen = 2;
  ssize_t r = ::recvmsg(s, &m, 0);
  return r < 0 ? fail() : static_cast<int>(r);
}

void drain(qz_socket_t s) noexcept {
  ::shutdown(s, SHUT_WR);
  char buf[2048];
  for (;;) {
    pollfd p = {s, POLLIN | POLLPRI, 0};
    if (::poll(&p, 1, 30000) != 1) return;
    if (::recv(s, buf, sizeof buf, MSG_DONTWAIT) <= 0) return;
  }
}

int host_name(char *buf, size_t size) noexcept {
  if (::gethostname(buf, size) < 0) return fail();
  buf[size - 1] = 0;
  return 0;
}

bool computer_name(char *buf, size_t size) noexcept {
  utsname u;
  if (::uname(&u) < 0 || !u.nodename[0]) return false;
  std::strncpy(buf, u.nodename, size - 1);
  buf[size - 1] = 0;
  return true;
}

int rt_write(int fd, const void *buf, size_t len) noexcept {
  ssize_t r = ::write(fd, buf, len);
  return r < 0 ? -1 : static_cast<int>(r);
}

int rt_read(int fd, void *buf, size_t len) noexcept {
  ssize_t r = ::read(fd, buf, len);
  return r < 0 ? -1 : static_cast<int>(r);
}

}  // namespace os
}  // namespace ll::net
