// The error-number space on POSIX. Operating-system codes are errno values:
// a marked code is the errno of the failed call with the flag bit added, its
// message is the C library's (strerror_r), and its common number is the errno
// value itself.
#include <cerrno>
#include <cstring>

#include "frame/syserr.h"

namespace ll {
namespace {

// strerror_r comes in two forms; both are accepted.
[[maybe_unused]] const char *pick(int r, const char *buf) { return r == 0 ? buf : nullptr; }
[[maybe_unused]] const char *pick(const char *r, const char *) { return r; }

bool known(const char *text) { return text && *text && std::strncmp(text, "Unknown error", 13) != 0; }

}  // namespace

namespace os {

int last_error() noexcept { return errno; }

bool system_message(int code, char *out, size_t size) noexcept {
  char tmp[512];
  tmp[0] = 0;
  const char *text = pick(strerror_r(code, tmp, sizeof tmp), tmp);
  if (!known(text)) return false;
  std::strncpy(out, text, size - 1);
  out[size - 1] = 0;
  return true;
}

const char *runtime_text(int code) noexcept {
  thread_local char tmp[512];
  tmp[0] = 0;
  const char *text = pick(strerror_r(code, tmp, sizeof tmp), tmp);
  // The runtime's name for a number it does not know, without the number.
  return known(text) ? text : "Unknown error";
}

int common_errno(int syscode) noexcept { return (syscode >= 1 && syscode <= 134) ? syscode : -1; }

}  // namespace os

int socket_errno(int e) noexcept {
  switch (e) {
    case 0: case EINTR: return 4;
    case EBADF: return 9;
    case EACCES: return 13;
    case EFAULT: return 14;
    case EINVAL: return 22;
    case EMFILE: return 24;
    case EAGAIN: return 135;
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK: return 135;
#endif
    case ENOBUFS: return 135;  // retried like "would block"
    case EINPROGRESS: return 136;
    case EALREADY: return 137;
    case ENOTSOCK: return 138;
    case EDESTADDRREQ: return 139;
    case EMSGSIZE: return 140;
    case EPROTOTYPE: return 141;
    case ENOPROTOOPT: return 142;
    case EPROTONOSUPPORT: return 143;
    case ESOCKTNOSUPPORT: return 144;
    case EOPNOTSUPP: return 145;
    case EPFNOSUPPORT: return 146;
    case EAFNOSUPPORT: return 147;
    case EADDRINUSE: return 148;
    case EADDRNOTAVAIL: return 149;
    case ENETDOWN: return 150;
    case ENETUNREACH: return 151;
    case ENETRESET: return 152;
    case ECONNABORTED: return 153;
    case ECONNRESET: return 154;
    case EISCONN: return 156;
    case ENOTCONN: return 157;
    case ESHUTDOWN: return 158;
    case ETOOMANYREFS: return 159;
    case ETIMEDOUT: return 160;
    case ECONNREFUSED: return 161;
    case ELOOP: return 162;
    case EHOSTDOWN: return 164;
    case EHOSTUNREACH: return 165;
    case EUSERS: return 168;
    case EDQUOT: return 169;
    case ESTALE: return 170;
    case EREMOTE: return 171;
    default: return e;  // ENAMETOOLONG, ENOTEMPTY, ...: the runtime's own numbers
  }
}

}  // namespace ll
