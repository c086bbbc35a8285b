// The socket layer on Windows. Cancellable waits wait on the socket's event
// (WSAEventSelect) and the event of the current cancel generation together;
// select, which has no socket event of its own, watches a loopback datagram
// socket of the generation beside the caller's sockets. The cancel operation
// signals both and starts fresh ones for the next generation.
//
// Event selection switches a socket to non-blocking mode and ties one event
// to it: concurrent blocking calls on a socket share that event, and the last
// one gives the socket back in the mode its owner chose. Windows cannot be
// asked for a socket's mode, so the library remembers the modes set through
// it; a socket it never switched is blocking.
#include "frame/fault.h"
#include "frame/win32/win.h"

#include <io.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_map>
#include <vector>

#include "frame/areas.h"
#include "frame/syserr.h"
#include "net/socket_os.h"
#include "net/wakers.h"
#include <liblocal/syserr.h>

namespace ll::net {

int fail() noexcept {
  errno = socket_errno(WSAGetLastError());
  return -1;
}

namespace {

int fail_with(int e) noexcept {
  errno = socket_errno(e);
  return -1;
}

// ---- the cancel objects of one generation ----

struct Waker {
  HANDLE event;      // manual reset, set by the cancel
  SOCKET dgram;      // loopback datagram socket, sent one byte by the cancel
  sockaddr_in addr;  // its address
  int refs;
  bool retired;
};

Wakers<Waker> g_wakers;

void destroy(Waker *w) noexcept {
  if (w->event) CloseHandle(w->event);
  if (w->dgram != INVALID_SOCKET) closesocket(w->dgram);
  delete w;
}

void make_dgram(Waker *w) noexcept {
  SOCKET d = ::socket(AF_INET, SOCK_DGRAM, 0);
  if (d == INVALID_SOCKET) return;
  SetHandleInformation(reinterpret_cast<HANDLE>(d), HANDLE_FLAG_INHERIT, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int len = sizeof a;
  if (::bind(d, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
      ::getsockname(d, reinterpret_cast<sockaddr *>(&a), &len) != 0) {
    closesocket(d);
    return;
  }
  w->dgram = d;
  w->addr = a;
}

// The current generation's objects, held until release(). The datagram
// socket is made only for the waits that need it (select).
Waker *acquire(bool dgram) noexcept {
  int saved = WSAGetLastError();
  Waker *held = g_wakers.acquire([dgram](Waker *&w) {
    if (!w) w = new (std::nothrow) Waker{CreateEventW(nullptr, TRUE, FALSE, nullptr), INVALID_SOCKET, {}, 0, false};
    if (w && dgram && w->dgram == INVALID_SOCKET) make_dgram(w);
  });
  WSASetLastError(saved);
  return held;
}

void release(Waker *w) noexcept {
  int saved = WSAGetLastError();
  g_wakers.release(w, destroy);
  WSASetLastError(saved);
}

struct Held {
  Waker *w;
  explicit Held(bool dgram = false) : w(acquire(dgram)) {}
  ~Held() { release(w); }
  HANDLE event() const { return w ? w->event : nullptr; }
};

// ---- modes and borrowed sockets ----

struct SockState {
  bool nonblocking = false;  // the owner's mode
  int users = 0;             // blocking calls running under event selection
  HANDLE event = nullptr;    // their shared socket event
  long events = 0;
  bool closed = false;       // closed under its users: the value may be reused
};
std::mutex g_mode_mu;
std::unordered_map<SOCKET, SockState> g_state;

// Puts s under event selection for 'events' when its owner's mode is
// blocking; *ev receives the shared socket event. False for a non-blocking
// socket (*failed false) or on failure (*failed true, errno set).
bool borrow(SOCKET s, long events, HANDLE *ev, bool *failed) noexcept {
  *failed = false;
  std::lock_guard<std::mutex> lock(g_mode_mu);
  SockState *st;
  try {
    st = &g_state[s];
  } catch (...) {
    *failed = true;
    errno = QZ_EWOULDBLOCK;
    return false;
  }
  if (st->closed) {
    *failed = true;
    fail_with(WSAENOTSOCK);
    return false;
  }
  if (st->nonblocking) return false;
  if (st->users == 0) {
    st->event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (!st->event || WSAEventSelect(s, st->event, events) != 0) {
      int e = st->event ? WSAGetLastError() : WSAENOBUFS;
      if (st->event) CloseHandle(st->event);
      g_state.erase(s);
      *failed = true;
      fail_with(e);
      return false;
    }
    st->events = events;
  } else if ((st->events | events) != st->events) {
    st->events |= events;
    WSAEventSelect(s, st->event, st->events);
  }
  ++st->users;
  *ev = st->event;
  return true;
}

void give_back(SOCKET s) noexcept {
  int saved = WSAGetLastError();
  std::lock_guard<std::mutex> lock(g_mode_mu);
  auto it = g_state.find(s);
  if (it != g_state.end() && --it->second.users == 0) {
    CloseHandle(it->second.event);
    if (it->second.closed) {
      g_state.erase(it);
      WSASetLastError(saved);
      return;
    }
    WSAEventSelect(s, nullptr, 0);
    it->second.event = nullptr;
    it->second.events = 0;
    u_long mode = it->second.nonblocking ? 1 : 0;
    ioctlsocket(s, FIONBIO, &mode);
    if (!it->second.nonblocking) g_state.erase(it);
  }
  WSASetLastError(saved);
}

void forget(SOCKET s) noexcept {
  std::lock_guard<std::mutex> lock(g_mode_mu);
  auto it = g_state.find(s);
  if (it != g_state.end() && it->second.users == 0) g_state.erase(it);
}

// Waits for the socket event or the cancel: 1 socket, -1 cancelled (errno EINTR).
int wait_event(HANDLE sock_ev, const Held &h) noexcept {
  HANDLE hs[2] = {sock_ev, h.event()};
  DWORD n = hs[1] ? 2 : 1;
  DWORD r = WaitForMultipleObjects(n, hs, FALSE, INFINITE);
  if (r == WAIT_OBJECT_0) return 1;
  errno = EINTR;
  return -1;
}

void no_inherit(SOCKET s) noexcept { SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0); }

// The two gathered calls of Winsock 2, looked up once.
using WsaSendFn = int(WSAAPI *)(SOCKET, LPWSABUF, DWORD, LPDWORD, DWORD, LPWSAOVERLAPPED,
                                LPWSAOVERLAPPED_COMPLETION_ROUTINE);
using WsaRecvFn = int(WSAAPI *)(SOCKET, LPWSABUF, DWORD, LPDWORD, LPDWORD, LPWSAOVERLAPPED,
                                LPWSAOVERLAPPED_COMPLETION_ROUTINE);
WsaSendFn g_wsasend = nullptr;
WsaRecvFn g_wsarecv = nullptr;
std::once_flag g_load_once;

// Windows Sockets is started with the per-process area: making sure that
// area exists is the start-up.
void load_once() noexcept {
  std::call_once(g_load_once, [] {
    (void)ll::proc();
    HMODULE m = LoadLibraryW(L"WS2_32.DLL");
    if (!m) return;
    g_wsasend = reinterpret_cast<WsaSendFn>(reinterpret_cast<void *>(GetProcAddress(m, "WSASend")));
    g_wsarecv = reinterpret_cast<WsaRecvFn>(reinterpret_cast<void *>(GetProcAddress(m, "WSARecv")));
  });
}

}  // namespace

namespace os {

void load() noexcept { load_once(); }

void cancel() noexcept {
  Waker *w = g_wakers.retire();
  if (!w) return;
  int saved = WSAGetLastError();
  if (w->event) SetEvent(w->event);
  if (w->dgram != INVALID_SOCKET)
    ::sendto(w->dgram, "c", 1, 0, reinterpret_cast<const sockaddr *>(&w->addr), sizeof w->addr);
  WSASetLastError(saved);
  release(w);
}

qz_socket_t socket(int af, int type, int protocol) noexcept {
  load_once();
  // Not inheritable from birth where the system can do it.
  SOCKET s = LL_FAULT(socket) ? INVALID_SOCKET : WSASocketW(af, type, protocol, nullptr, 0, WSA_FLAG_OVERLAPPED | 0x80 /* NO_HANDLE_INHERIT */);
  if (s == INVALID_SOCKET && WSAGetLastError() == WSAEINVAL) s = ::socket(af, type, protocol);
  if (s == INVALID_SOCKET) return fail(), kBadSocket;
  no_inherit(s);
  forget(s);  // a reused value starts blocking
  return s;
}

qz_socket_t accept(qz_socket_t s, sockaddr *addr, qz_socklen_t *len) noexcept {
  HANDLE ev;
  bool failed;
  SOCKET r;
  if (!borrow(s, FD_ACCEPT, &ev, &failed)) {
    if (failed) return kBadSocket;
    r = ::accept(s, addr, len);
    if (r == INVALID_SOCKET) return fail(), kBadSocket;
  } else {
    Held h;
    for (;;) {
      r = ::accept(s, addr, len);
      if (r != INVALID_SOCKET) break;
      if (WSAGetLastError() != WSAEWOULDBLOCK) {
        fail();
        break;
      }
      if (wait_event(ev, h) < 0) break;
      ResetEvent(ev);
    }
    give_back(s);
    if (r == INVALID_SOCKET) return kBadSocket;
  }
  // The accepted socket carries the listener's event selection and mode:
  // it starts plain and blocking.
  WSAEventSelect(r, nullptr, 0);
  u_long zero = 0;
  ioctlsocket(r, FIONBIO, &zero);
  no_inherit(r);
  forget(r);
  return r;
}

int connect(qz_socket_t s, const sockaddr *name, qz_socklen_t len) noexcept {
  HANDLE ev;
  bool failed;
  if (!borrow(s, FD_CONNECT, &ev, &failed)) {
    if (failed) return -1;
    return ::connect(s, name, len) == 0 ? 0 : fail();
  }
  Held h;
  int r = ::connect(s, name, len);
  if (r != 0 && WSAGetLastError() == WSAEWOULDBLOCK) {
    for (;;) {
      if (wait_event(ev, h) < 0) {
        r = -1;
        break;
      }
      WSANETWORKEVENTS ne{};
      if (WSAEnumNetworkEvents(s, ev, &ne) != 0) {
        r = fail();
        break;
      }
      if (ne.lNetworkEvents & FD_CONNECT) {
        int err = ne.iErrorCode[FD_CONNECT_BIT];
        r = err ? fail_with(err) : 0;
        break;
      }
    }
  } else if (r != 0) {
    r = fail();
  }
  give_back(s);
  return r;
}

int select(qz_fd_set *rs, qz_fd_set *ws, qz_fd_set *es, const timeval *timeout) noexcept {
  for (qz_fd_set *set : {rs, ws, es})
    if (set) {
      if (set->fd_count < 0) set->fd_count = 0;
      if (set->fd_count > QZ_FD_SETSIZE) set->fd_count = QZ_FD_SETSIZE;
    }
  Held h(true);
  SOCKET wake = h.w ? h.w->dgram : INVALID_SOCKET;
  // The read set with the wake-up socket after the caller's sockets.
  struct Big {
    int32_t count;
    qz_socket_t array[QZ_FD_SETSIZE + 1];
  };
  Big *rd = nullptr;
  if (rs || wake != INVALID_SOCKET) {
    rd = static_cast<Big *>(std::malloc(sizeof(Big)));
    if (!rd) return fail_with(WSAENOBUFS);
    rd->count = 0;
    if (rs) {
      std::memcpy(rd->array, rs->fd_array, sizeof(qz_socket_t) * static_cast<size_t>(rs->fd_count));
      rd->count = rs->fd_count;
    }
    if (wake != INVALID_SOCKET) rd->array[rd->count++] = wake;
  }
  timeval tv, *tp = nullptr;
  if (timeout) {
    if (timeout->tv_sec < 0 || timeout->tv_usec < 0) {
      std::free(rd);
      return fail_with(WSAEINVAL);
    }
    tv = *timeout;
    tp = &tv;
  }
  int r = ::select(0, reinterpret_cast<fd_set *>(rd), reinterpret_cast<fd_set *>(ws), reinterpret_cast<fd_set *>(es), tp);
  if (r == SOCKET_ERROR) {
    std::free(rd);
    return fail();
  }
  bool cancelled = false;
  int ready = 0;
  if (rd) {
    int kept = 0;
    for (int i = 0; i < rd->count; ++i) {
      if (rd->array[i] == wake && wake != INVALID_SOCKET)
        cancelled = true;
      else if (rs)
        rs->fd_array[kept++] = rd->array[i];
    }
    if (rs) rs->fd_count = kept;
    ready += kept;
  }
  std::free(rd);
  if (cancelled) return fail_with(WSAEINTR);
  if (r == 0 && rs) rs->fd_count = 0;
  if (ws) ready += ws->fd_count;
  if (es) ready += es->fd_count;
  return ready;
}

int close(qz_socket_t s) noexcept {
  if (closesocket(s) != 0) return fail();
  // Calls of other threads waiting on this socket's event are woken: they
  // retry, find the socket gone and fail.
  std::lock_guard<std::mutex> lock(g_mode_mu);
  auto it = g_state.find(s);
  if (it == g_state.end()) return 0;
  if (it->second.users == 0) {
    g_state.erase(it);
  } else {
    it->second.closed = true;
    SetEvent(it->second.event);
  }
  return 0;
}

int bind(qz_socket_t s, const sockaddr *name, qz_socklen_t len) noexcept {
  return !LL_FAULT(socket) && ::bind(s, name, len) == 0 ? 0 : fail();
}

int listen(qz_socket_t s, int backlog) noexcept { return !LL_FAULT(socket) && ::listen(s, backlog) == 0 ? 0 : fail(); }

int getsockopt(qz_socket_t s, int level, int opt, char *val, qz_socklen_t *len) noexcept {
  return ::getsockopt(s, level, opt, val, len) == 0 ? 0 : fail();
}

int setsockopt(qz_socket_t s, int level, int opt, const char *val, int len) noexcept {
  return ::setsockopt(s, level, opt, val, len) == 0 ? 0 : fail();
}

bool buffer_option(int level, int opt) noexcept {
  return level == SOL_SOCKET && (opt == SO_SNDBUF || opt == SO_RCVBUF);
}

int getpeername(qz_socket_t s, sockaddr *name, qz_socklen_t *len) noexcept {
  return ::getpeername(s, name, len) == 0 ? 0 : fail();
}

int getsockname(qz_socket_t s, sockaddr *name, qz_socklen_t *len) noexcept {
  return ::getsockname(s, name, len) == 0 ? 0 : fail();
}

protoent *getprotobyname(const char *name) noexcept {
  load_once();
  protoent *p = ::getprotobyname(name);
  if (!p) fail();
  return p;
}

int ioctl(qz_socket_t s, long cmd, unsigned long *argp) noexcept {
  if (cmd == static_cast<long>(FIONBIO)) return set_nonblocking(s, *argp != 0) ? 0 : -1;
  // The word-sized controls only, as on POSIX.
  if (cmd != static_cast<long>(FIONREAD) && cmd != static_cast<long>(SIOCATMARK)) return fail_with(WSAEINVAL);
  u_long v = *argp;
  if (ioctlsocket(s, cmd, &v) != 0) return fail();
  *argp = v;
  return 0;
}

int recv(qz_socket_t s, char *buf, int len, int flags) noexcept {
  int r = ::recv(s, buf, len, flags);
  return r == SOCKET_ERROR ? fail() : r;
}

int recvfrom(qz_socket_t s, char *buf, int len, int flags, sockaddr *from, qz_socklen_t *fromlen) noexcept {
  int r = ::recvfrom(s, buf, len, flags, from, fromlen);
  return r == SOCKET_ERROR ? fail() : r;
}

int send(qz_socket_t s, const char *buf, int len, int flags) noexcept {
  int r = ::send(s, buf, len, flags);
  return r == SOCKET_ERROR ? fail() : r;
}

int sendto(qz_socket_t s, const char *buf, int len, int flags, const sockaddr *to, qz_socklen_t tolen) noexcept {
  int r = ::sendto(s, buf, len, flags, to, tolen);
  return r == SOCKET_ERROR ? fail() : r;
}

int shutdown(qz_socket_t s, int how) noexcept { return ::shutdown(s, how) == 0 ? 0 : fail(); }

bool set_nonblocking(qz_socket_t s, bool on) noexcept {
  std::lock_guard<std::mutex> lock(g_mode_mu);
  auto it = g_state.find(s);
  if (it != g_state.end() && it->second.users > 0) {
    // Under event selection: the mode takes effect when the blocking calls end.
    it->second.nonblocking = on;
    return true;
  }
  u_long mode = on ? 1 : 0;
  if (ioctlsocket(s, FIONBIO, &mode) != 0) return fail(), false;
  try {
    if (on)
      g_state[s].nonblocking = true;
    else if (it != g_state.end())
      g_state.erase(it);
  } catch (...) {
  }
  return true;
}

int send2(qz_socket_t s, const char *b1, int l1, const char *b2, int l2) noexcept {
  load_once();
  if (!g_wsasend) return -2;
  WSABUF v[2] = {{static_cast<ULONG>(l1), const_cast<char *>(b1)}, {static_cast<ULONG>(l2), const_cast<char *>(b2)}};
  DWORD sent = 0;
  if (g_wsasend(s, v, 2, &sent, 0, nullptr, nullptr) != 0) return fail();
  return static_cast<int>(sent);
}

int recv2(qz_socket_t s, char *b1, int l1, char *b2, int l2) noexcept {
  load_once();
  if (!g_wsarecv) return -2;
  WSABUF v[2] = {{static_cast<ULONG>(l1), b1}, {static_cast<ULONG>(l2), b2}};
  DWORD got = 0, flags = 0;
  if (g_wsarecv(s, v, 2, &got, &flags, nullptr, nullptr) != 0) return fail();
  return static_cast<int>(got);
}

void drain(qz_socket_t s) noexcept {
  ::shutdown(s, SD_SEND);
  char buf[2048];
  for (;;) {
    fd_set rd, ex;
    FD_ZERO(&rd);
    FD_ZERO(&ex);
    FD_SET(s, &rd);
    FD_SET(s, &ex);
    timeval tv = {30, 0};
    if (::select(0, &rd, nullptr, &ex, &tv) != 1) return;
    if (::recv(s, buf, sizeof buf, 0) <= 0) return;
  }
}

int host_name(char *buf, size_t size) noexcept {
  load_once();
  if (::gethostname(buf, static_cast<int>(size)) != 0) return fail();
  buf[size - 1] = 0;
  return 0;
}

bool computer_name(char *buf, size_t size) noexcept {
  wchar_t w[MAX_COMPUTERNAME_LENGTH + 1];
  DWORD n = MAX_COMPUTERNAME_LENGTH + 1;
  if (!GetComputerNameW(w, &n) || n == 0) return false;
  std::string u = win::narrow(w);
  std::strncpy(buf, u.c_str(), size - 1);
  buf[size - 1] = 0;
  return true;
}

int rt_write(int fd, const void *buf, size_t len) noexcept {
  return _write(fd, buf, len > INT_MAX ? INT_MAX : static_cast<unsigned>(len));
}

int rt_read(int fd, void *buf, size_t len) noexcept {
  return _read(fd, buf, len > INT_MAX ? INT_MAX : static_cast<unsigned>(len));
}

}  // namespace os
}  // namespace ll::net
