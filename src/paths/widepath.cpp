// Conversions at the file-name boundary: UTF-8 paths to the wide form the
// file calls take, and UTF-8 to the ANSI side for display.
#include <liblocal/utf8.h>

#include <cerrno>
#include <cstring>
#include <cwchar>

#include "paths/widepath.h"

extern "C" {

LL_API int utf8towidepath(const char *path, qzwchar_t *wide, size_t count) noexcept {
  if (!path || !*path || !wide || count == 0) {
    errno = EINVAL;
    return -1;
  }
  return ll::paths::wide_path(path, wide, count);
}

LL_API size_t ansi_mbs_tolerance(char *out, const char *s, size_t size) noexcept {
  if (out && size) *out = 0;
  if (!s || (out && size == 0)) return 0;
  size_t bytes = 0;
  std::mbstate_t st{};
  char tmp[16];
  for (const char *p = s; *p;) {
    size_t avail = 0;
    while (avail < 6 && p[avail]) ++avail;
    qzwchar_t wc = 0;
    int len = utf8_mbtowc(&wc, p, avail);
    size_t produced;
    if (len <= 0) {
      // Not UTF-8: taken to be in the ANSI code page already.
      tmp[0] = *p;
      produced = 1;
      len = 1;
    } else if (len == 1) {
      tmp[0] = *p;
      produced = 1;
    } else if (len > 3) {
      tmp[0] = '|';  // beyond 16 bits: no ANSI form
      produced = 1;
    } else {
      produced = std::wcrtomb(tmp, static_cast<wchar_t>(wc), &st);
      if (produced == static_cast<size_t>(-1) || produced == 0 || produced > sizeof tmp) {
        st = std::mbstate_t{};
        tmp[0] = '|';
        produced = 1;
      }
    }
    if (out) {
      if (bytes + produced + 1 > size) break;
      std::memcpy(out + bytes, tmp, produced);
    }
    bytes += produced;
    p += len;
  }
  if (out) out[bytes] = 0;
  return bytes;
}

}  // extern "C"
