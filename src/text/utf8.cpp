// UTF-8 (the original 1-to-6-byte coding) to and from 16-bit wide characters
// and the ANSI side. Whole-text conversions never fail: what cannot be
// converted becomes '|'. Output sizes include the terminator, and nothing is
// ever written at or past out[size].
#include <liblocal/utf8.h>

#include <cwchar>
#include <cstdlib>
#include <cstring>

namespace {

struct Row {
  unsigned mask, lead, shift;
  unsigned long largest, smallest;
};
constexpr Row kRows[6] = {
    {0x80, 0x00, 0, 0x7F, 0},
    {0xE0, 0xC0, 6, 0x7FF, 0x80},
    {0xF0, 0xE0, 12, 0xFFFF, 0x800},
    {0xF8, 0xF0, 18, 0x1FFFFF, 0x10000},
    {0xFC, 0xF8, 24, 0x3FFFFFF, 0x200000},
    {0xFE, 0xFC, 30, 0x7FFFFFFF, 0x4000000},
};
constexpr char kBar = '|';

// Decodes one sequence; as utf8_mbtowc but without the null/terminator rules.
inline int decode(const unsigned char *s, size_t n, unsigned long &value) {
  if (n == 0) return -1;
  const unsigned c = s[0];
  if (c < 0x80) {  // the common case
    value = c;
    return 1;
  }
  unsigned long v = c;
  for (int i = 0; i < 6; ++i) {
    if ((c & kRows[i].mask) == kRows[i].lead) {
      v &= kRows[i].largest;
      if (v < kRows[i].smallest) return -1;
      value = v;
      return i + 1;
    }
    if (static_cast<size_t>(i + 1) >= n) return -1;
    const unsigned b = s[i + 1] ^ 0x80u;
    if (b > 63) return -1;
    v = v * 64 + b;
  }
  return -1;
}

inline int encode(char *out, unsigned wc) {
  int i = 0;
  while (kRows[i].largest < wc) ++i;
  out[0] = static_cast<char>((wc >> kRows[i].shift) | kRows[i].lead);
  for (int k = 1; k <= i; ++k) out[k] = static_cast<char>(0x80 | ((wc >> (kRows[i].shift - 6 * k)) & 0x3F));
  return i + 1;
}

}  // namespace

extern "C" {

LL_API int utf8_mbtowc(qzwchar_t *out, const char *s, size_t n) noexcept {
  if (!s) return 0;
  if (*s == '\0') {
    if (out) *out = 0;
    return 0;
  }
  unsigned long v;
  int len = decode(reinterpret_cast<const unsigned char *>(s), n, v);
  if (len > 0 && out) *out = static_cast<qzwchar_t>(v & 0xFFFF);
  return len;
}

LL_API int utf8_wctomb(char *out, qzwchar_t wc) noexcept {
  if (!out) return 0;
  return encode(out, static_cast<unsigned>(wc));
}

LL_API int utf8_mblen(const char *s, size_t n) noexcept { return utf8_mbtowc(nullptr, s, n); }

LL_API int utf8_mbslen(const char *s) noexcept {
  if (!s) return 0;
  auto *p = reinterpret_cast<const unsigned char *>(s);
  int count = 0;
  while (*p) {
    unsigned long v;
    int len = decode(p, 6, v);
    if (len < 0) return -1;
    p += len;
    ++count;
  }
  return count;
}

LL_API size_t utf8_wcstombs(char *out, const qzwchar_t *wide, size_t size) noexcept {
  if (!wide) {
    if (out && size) *out = 0;
    return 0;
  }
  size_t bytes = 0;
  char tmp[6];
  for (; *wide; ++wide) {
    int len = encode(tmp, static_cast<unsigned>(*wide));
    if (out) {
      if (bytes + static_cast<size_t>(len) + 1 > size) break;
      std::memcpy(out + bytes, tmp, static_cast<size_t>(len));
    }
    bytes += static_cast<size_t>(len);
  }
  if (out && size) out[bytes] = 0;
  return bytes;
}

LL_API size_t utf8_mbstowcs(qzwchar_t *out, const char *s, size_t count) noexcept {
  if (!out || count == 0) return 0;
  size_t n = 0;
  if (s) {
    auto *p = reinterpret_cast<const unsigned char *>(s);
    while (*p && n + 1 < count) {
      unsigned long v;
      size_t avail = 0;
      while (avail < 6 && p[avail]) ++avail;
      int len = decode(p, avail, v);
      if (len < 0) {
        out[n++] = static_cast<qzwchar_t>(kBar);
        ++p;
      } else {
        out[n++] = static_cast<qzwchar_t>(v & 0xFFFF);
        p += len;
      }
    }
  }
  out[n] = 0;
  return n;
}

LL_API size_t utf8_mbs(char *out, const char *s, size_t size) noexcept {
  if (!s) {
    if (out && size) *out = 0;
    return 0;
  }
  size_t bytes = 0;
  std::mbstate_t st{};
  const char *p = s;
  size_t left = std::strlen(s);
  char tmp[8];
  while (left) {
    wchar_t wc;
    const size_t most = static_cast<size_t>(MB_CUR_MAX);
    size_t r = std::mbrtowc(&wc, p, left < most ? left : most, &st);
    int len;
    if (r == static_cast<size_t>(-1) || r == static_cast<size_t>(-2) || r == 0) {
      st = std::mbstate_t{};
      tmp[0] = kBar;
      len = 1;
      r = 1;
    } else {
      const unsigned long v = static_cast<unsigned long>(wc);
      if (v > 0xFFFF) {
        tmp[0] = kBar;
        len = 1;
      } else {
        len = encode(tmp, static_cast<unsigned>(v));
      }
    }
    if (out) {
      if (bytes + static_cast<size_t>(len) + 1 > size) break;
      std::memcpy(out + bytes, tmp, static_cast<size_t>(len));
    }
    bytes += static_cast<size_t>(len);
    p += r;
    left -= r;
  }
  if (out && size) out[bytes] = 0;
  return bytes;
}

LL_API size_t ansi_mbs(char *out, const char *s, size_t size) noexcept {
  if (!s) {
    if (out && size) *out = 0;
    return 0;
  }
  size_t bytes = 0;
  auto *p = reinterpret_cast<const unsigned char *>(s);
  std::mbstate_t st{};
  char tmp[16];
  while (*p) {
    unsigned long v;
    size_t avail = 0;
    while (avail < 6 && p[avail]) ++avail;
    int len = decode(p, avail, v);
    size_t produced;
    if (len < 0) {
      tmp[0] = kBar;
      produced = 1;
      len = 1;
    } else {
      produced = std::wcrtomb(tmp, static_cast<wchar_t>(v & 0xFFFF), &st);
      if (produced == static_cast<size_t>(-1) || produced == 0) {
        st = std::mbstate_t{};
        tmp[0] = kBar;
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
  if (out && size) out[bytes] = 0;
  return bytes;
}

LL_API int ansi_mbslen(const char *s) noexcept { return utf8_mbslen(s); }

LL_API int widetoutf8(const qzwchar_t *wide, char *out, size_t size) noexcept {
  if (!wide || !out || !size) return 0;
  utf8_wcstombs(out, wide, size);
  return 1;
}

LL_API int utf8towide(const char *s, qzwchar_t *wide) noexcept {
  if (!s || !wide) return 0;
  utf8_mbstowcs(wide, s, std::strlen(s) + 1);
  return 1;
}

LL_API int asciitoutf8(const char *s, char *out, size_t size) noexcept {
  if (!s || !out || !size) return 0;
  utf8_mbs(out, s, size);
  return 1;
}

LL_API const char *get_utf8_codeset(void) noexcept { return "UTF-8"; }

}  // extern "C"
