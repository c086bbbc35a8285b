// The event log on POSIX: the system log, written as datagrams to its local
// socket in the traditional local form
//   "<priority>Mmm dd hh:mm:ss identity[pid]: [category n, type] text".
// The socket is connected once and kept (close-on-exec). A missing or broken
// log drops the event at once; a listener whose queue is full gets at most a
// short bounded wait, and none while it stays full.
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include "frame/fault.h"
#include "proc/eventlog.h"
#include <liblocal/eventlog.h>
#include <liblocal/output.h>

namespace ll::evlog {
namespace {

constexpr const char *kDefaultSocket = "/dev/log";
constexpr int kFacilityUser = 1 << 3;
// Longest wait for room in a full listener's queue (or its backlog).
constexpr int kRoomWaitMs = 50;

struct Log {
  std::mutex lock;
  std::string path = kDefaultSocket;
  int fd = -1;
  bool stream = false;   // the listener takes a stream: messages end with a NUL
  bool stalled = false;  // the listener's queue stayed full: no more waiting
  time_t stamp_time = -1;
  char stamp[24] = {};   // "Mmm dd hh:mm:ss" of stamp_time
};

Log &log() {
  // Never destroyed: usable until the very end. A fork waits for an event
  // being written, so that the child never inherits the lock held.
  static Log *l = [] {
    auto *made = new Log;
    ::pthread_atfork([] { log().lock.lock(); }, [] { log().lock.unlock(); }, [] { log().lock.unlock(); });
    return made;
  }();
  return *l;
}

void close_locked(Log &l) {
  if (l.fd >= 0) ::close(l.fd);
  l.fd = -1;
  l.stalled = false;
}

int open_socket(int type) {
  const int fd = LL_FAULT(socket) ? -1 : ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  const timeval limit{0, kRoomWaitMs * 1000};
  if (fd >= 0) ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  return fd;
}

bool connect_locked(Log &l) {
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  if (l.path.empty() || l.path.size() >= sizeof sa.sun_path) return false;
  std::memcpy(sa.sun_path, l.path.c_str(), l.path.size() + 1);
  for (int type : {SOCK_DGRAM, SOCK_STREAM}) {
    int fd = open_socket(type);
    if (fd < 0) return false;
    if (!LL_FAULT(socket) && ::connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0) {
      l.fd = fd;
      l.stream = type == SOCK_STREAM;
      return true;
    }
    const int e = errno;
    ::close(fd);
    if (e != EPROTOTYPE) return false;  // only a stream listener is worth a second try
  }
  return false;
}

// One send of the whole message; false when it did not go (the socket is
// then closed, so that the next event connects again). A listener whose queue
// is full gets a short wait for room (the socket's send time-out); one that
// stays full is taken as stalled, and later events do not wait for it until
// it takes one again.
bool send_locked(Log &l, const char *msg, size_t len) {
  const ssize_t r = LL_FAULT(socket) ? -1 : ::send(l.fd, msg, len, MSG_NOSIGNAL | (l.stalled ? MSG_DONTWAIT : 0));
  if (r == static_cast<ssize_t>(len)) {
    l.stalled = false;
    return true;
  }
  if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) && !l.stream) {
    l.stalled = true;
    return false;
  }
  // a stream that took part of a message is out of step: start over
  close_locked(l);
  return false;
}

int priority(int type) {
  switch (type) {
    case QZ_EVENT_ERROR: return 3;          // err
    case QZ_EVENT_WARNING: return 4;        // warning
    case QZ_EVENT_AUDIT_SUCCESS:
    case QZ_EVENT_AUDIT_FAILURE: return 5;  // notice
    default: return 6;                      // info
  }
}

// The identity: the program name, with blanks, controls and the characters
// that delimit the header replaced.
void identity(char *out, size_t size) {
  const char *name = getMyname();
  size_t n = 0;
  for (; name && name[n] && n + 1 < size; ++n) {
    const unsigned char c = static_cast<unsigned char>(name[n]);
    out[n] = (c <= ' ' || c == 0x7F || c == ':' || c == '[' || c == ']') ? '_' : static_cast<char>(c);
  }
  if (n == 0) out[n++] = '-';
  out[n] = 0;
}

}  // namespace

int os::setup_source(const char *) noexcept { return 1; }

int os::report(const char *, int type, int category, uint32_t, const char *utf8) noexcept {
  char msg[kMessageCap + 256];
  char ident[64], tbuf[16];
  identity(ident, sizeof ident);
  const time_t now = ::time(nullptr);
  Log &l = log();
  std::lock_guard<std::mutex> g(l.lock);
  if (now != l.stamp_time) {
    std::tm tm{};
    ::localtime_r(&now, &tm);
    static const char *const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::snprintf(l.stamp, sizeof l.stamp, "%s %2d %02d:%02d:%02d", kMonths[tm.tm_mon % 12], tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec);
    l.stamp_time = now;
  }
  int head = std::snprintf(msg, 256, "<%d>%s %s[%d]: [category %d, %s] ", kFacilityUser | priority(type), l.stamp,
                           ident, static_cast<int>(::getpid()), category, type_name(type, tbuf));
  if (head < 0 || head >= 256) return 0;
  size_t len = static_cast<size_t>(head) + to_log_text(utf8, msg + head, kMessageCap);
  if (l.fd < 0 && !connect_locked(l)) return 0;
  const size_t out = l.stream ? len + 1 : len;  // a stream listener splits at the NUL
  if (send_locked(l, msg, out)) return 1;
  // a listener that went away and came back: one more try on a new connection
  if (l.fd >= 0 || !connect_locked(l)) return 0;
  return send_locked(l, msg, l.stream ? len + 1 : len) ? 1 : 0;
}

void os::close() noexcept {
  Log &l = log();
  std::lock_guard<std::mutex> g(l.lock);
  close_locked(l);
}

}  // namespace ll::evlog

// Test seam: the log socket's path (null: the system's).
extern "C" LL_API void llt_eventlog_socket(const char *path) noexcept {
  ll::evlog::Log &l = ll::evlog::log();
  std::lock_guard<std::mutex> g(l.lock);
  ll::evlog::close_locked(l);
  l.path = path ? path : ll::evlog::kDefaultSocket;
}
