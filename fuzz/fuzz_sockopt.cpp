// Socket option records on real sockets: a caller's level, name, length and
// value bytes go through qzsetsockopt and qzgetsockopt, and the control
// calls through qzsoioctl, on a fresh unbound TCP, UDP or local socket per
// input. Nothing is bound, connected or sent, so nothing leaves the process.
//
// Input: one byte for the kind of socket, then records of 8 bytes:
//   op, level, name, length, value (4 bytes)
// op % 4: 0 set, 1 get, 2 control call, 3 blocking mode.
//
// What must hold: a length outside 1..4 is refused with EINVAL before the
// system sees it; the caller's value is never changed; a send or receive
// buffer asked for at 65536 or less reads back at least 65536; a failure
// leaves a library number (never one of the system's raw socket numbers);
// a control call other than FIONBIO, FIONREAD and SIOCATMARK is refused
// without touching its argument.
#include <liblocal/socket.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

struct Kind {
  int af, type;
};
constexpr Kind kKinds[] = {{AF_INET, SOCK_STREAM}, {AF_INET, SOCK_DGRAM},  {AF_INET6, SOCK_STREAM},
                           {AF_INET6, SOCK_DGRAM}, {AF_UNIX, SOCK_STREAM}, {AF_UNIX, SOCK_DGRAM}};

// Levels the kinds above answer to; any other byte is taken as a level too.
constexpr int kLevels[] = {SOL_SOCKET, IPPROTO_IP, IPPROTO_IPV6, IPPROTO_TCP, IPPROTO_UDP};

// Control calls: the three the layer takes, a harmless one it does not, and
// queries that would write a record larger than the caller's word.
constexpr long kControls[] = {FIONBIO, FIONREAD, SIOCATMARK, TIOCOUTQ, SIOCGIFCONF, SIOCGIFNAME, 0};

int level_of(uint8_t b) {
  constexpr size_t n = sizeof kLevels / sizeof kLevels[0];
  return b < 0xF0 ? kLevels[b % n] : b - 0xF0;
}

// Lengths: mostly around the one-word limit, now and then a wild one.
int length_of(uint8_t b, const uint8_t *value) {
  if (b < 0xF0) return static_cast<int>(b % 11) - 2;  // -2 .. 8
  int32_t wild;
  std::memcpy(&wild, value, 4);
  return wild;
}

// The system's own socket numbers (88..115 on Linux) are never handed out.
void check_failure() {
  if (errno == 0 || (errno >= 88 && errno <= 115)) std::abort();
}

int get_int(qz_socket_t s, int level, int name) {
  int v = -1;
  qz_socklen_t len = sizeof v;
  if (qzgetsockopt(s, level, name, reinterpret_cast<char *>(&v), &len) != 0) return -1;
  return v;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const Kind k = kKinds[data[0] % (sizeof kKinds / sizeof kKinds[0])];
  ++data;
  --size;
  qz_socket_t s = qzsocket(k.af, k.type, 0);
  if (s == QZ_INVALID_SOCKET) return 0;
  for (int records = 0; size >= 8 && records < 32; ++records, data += 8, size -= 8) {
    const int op = data[0] % 4, level = level_of(data[1]), name = data[2];
    const int len = length_of(data[3], data + 4);
    char value[4];
    std::memcpy(value, data + 4, 4);
    errno = 0;
    switch (op) {
      case 0: {
        const bool buffer = level == SOL_SOCKET && (name == SO_SNDBUF || name == SO_RCVBUF);
        const int before = buffer ? get_int(s, level, name) : 0;
        const int r = qzsetsockopt(s, level, name, value, len);
        if (std::memcmp(value, data + 4, 4) != 0) std::abort();  // the caller's value is theirs
        if (len < 1 || len > 4) {
          if (r != -1 || errno != EINVAL) std::abort();
          if (buffer && get_int(s, level, name) != before) std::abort();  // left as it was
        } else if (r != 0) {
          check_failure();
        } else if (buffer && len == 4 && get_int(s, level, name) < 65536) {
          std::abort();
        }
        break;
      }
      case 1: {
        // A buffer of exactly the length given: the sanitizer sees any
        // write past it.
        const size_t room = len > 0 && len <= 64 ? static_cast<size_t>(len) : 0;
        char *buf = static_cast<char *>(std::malloc(room ? room : 1));
        qz_socklen_t got = static_cast<qz_socklen_t>(room);
        if (qzgetsockopt(s, level, name, buf, &got) != 0)
          check_failure();
        else if (got > room)
          std::abort();
        std::free(buf);
        break;
      }
      case 2: {
        const long cmd = kControls[data[2] % (sizeof kControls / sizeof kControls[0])];
        unsigned long arg = 0;
        std::memcpy(&arg, value, 4);
        const unsigned long given = arg;
        const int r = qzsoioctl(s, cmd, &arg);
        if (cmd != FIONBIO && cmd != FIONREAD && cmd != SIOCATMARK) {
          if (r != -1 || errno != EINVAL || arg != given) std::abort();
        } else if (r != 0) {
          check_failure();
        }
        break;
      }
      default:
        if ((data[1] & 1 ? qzsononblock(s) : qzsoblock(s)) != 1) std::abort();
        break;
    }
  }
  if (qzsoclose(s) != 0) std::abort();
  return 0;
}
