// Texts of the errno space, the reduction of operating-system codes to the
// common numbers, and the one-line error report.
#include "frame/syserr.h"

#include <cerrno>
#include <cstring>

#include "frame/areas.h"
#include "frame/format.h"
#include <liblocal/catalog.h>
#include <liblocal/output.h>
#include <liblocal/syserr.h>
#include <liblocal/utf8.h>

namespace ll {
namespace {

struct SocketText {
  const char *text;
  int catalog;
};

// errno 135 + index; the catalog numbers are those the texts always had.
const SocketText kSocketTexts[] = {
    {"Operation would block", 141},
    {"Operation now in progress", 98},
    {"Operation already in progress", 99},
    {"Socket operation on non-socket", 100},
    {"Destination address required", 101},
    {"Message too long", 102},
    {"Protocol wrong type for socket", 103},
    {"Protocol not available", 104},
    {"Protocol not supported", 105},
    {"Socket type not supported", 106},
    {"Operation not supported on socket", 107},
    {"Protocol family not supported", 108},
    {"Address family not supported by protocol family", 142},
    {"Address already in use", 110},
    {"Can't assign requested address", 111},
    {"Network is down", 112},
    {"Network is unreachable", 113},
    {"Network dropped connection on reset", 114},
    {"Software caused connection abort", 115},
    {"Connection reset by peer", 116},
    {"No buffer space available", 117},
    {"Socket is already connected", 118},
    {"Socket is not connected", 119},
    {"Can't send after socket shutdown", 120},
    {"Too many references: can't splice", 121},
    {"Connection timed out", 122},
    {"Connection refused", 123},
    {"Too many levels of symbolic links", 124},
    {"File name too long", 143},
    {"Host is down", 126},
    {"No route to host", 127},
    {"Directory not empty", 131},
    {"Too many processes", 144},
    {"Too many users", 145},
    {"Disc quota exceeded", 146},
    {"Stale NFS file handle", 147},
    {"Too many levels of remote in path", 148},
};
static_assert(sizeof kSocketTexts / sizeof kSocketTexts[0] == 171 - 135 + 1);

// Runtime texts converted to UTF-8: one buffer per thread.
struct RuntimeText {
  char text[12288];
};

}  // namespace

char *text_buffer() noexcept { return thr()->scratch; }

int marked_last_error() noexcept {
  const int c = os::last_error();
  return c ? (c | kSysErrFlag) : 0;
}

int set_errno_from_os() noexcept {
  const int v = marked_last_error();
  errno = v;
  return v;
}

}  // namespace ll

extern "C" {

LL_API char *qzmo_strerror(int code) noexcept {
  if (code >= QZ_ESOCK_FIRST && code <= QZ_ESOCK_LAST) {
    const ll::SocketText &t = ll::kSocketTexts[code - QZ_ESOCK_FIRST];
    return qzcatgets_buf(ll::text_buffer(), ll::kTextBuffer, Catd, 17, t.catalog, t.text);
  } else if (code & QZ_SYSERR_FLAG) {
    return nt_syserror(code & ~QZ_SYSERR_FLAG);
  } else if (const char *rt = ll::os::runtime_text(code)) {
    char *buf = ll::thread_area<ll::RuntimeText>()->text;
    oem_to_utf8(rt, buf, sizeof(ll::RuntimeText::text));
    if (*buf || !*rt) return buf;
  }
  char *buf = ll::text_buffer();
  char fmt[256];
  ll::format(buf, ll::kTextBuffer, ll::catalog_format(149, "Error %d\n", fmt, sizeof fmt), code);
  return buf;
}

LL_API char *nt_syserror(int code) noexcept {
  char text[ll::kTextBuffer];
  char *buf = ll::text_buffer();
  if (!ll::os::system_message(code, text, sizeof text)) {
    char fmt[256];
    ll::format(buf, ll::kTextBuffer, ll::catalog_format(35, "unknown error %d (0x%x)", fmt, sizeof fmt), code, code);
    return buf;
  }
  size_t j = 0;
  for (size_t i = 0; text[i] && j < ll::kTextBuffer - 1; ++i)
    if (text[i] != '\r' && text[i] != '\n') buf[j++] = text[i];
  buf[j] = 0;
  return buf;
}

LL_API int nt_to_posix_errno(int code) noexcept {
  if (!(code & QZ_SYSERR_FLAG)) return code;
  const int common = ll::os::common_errno(code & ~QZ_SYSERR_FLAG);
  return common >= 0 ? common : code;
}

LL_API int qzperror(const char *prefix) noexcept {
  const int e = errno;
  const char *text = qzmo_strerror(e);
  if (!prefix) return qzfprintf(stderr, "%s\n", text);
  return qzfprintf(stderr, "%s: %s\n", prefix, text);
}

}  // extern "C"
