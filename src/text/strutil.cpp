// String utilities: hashing, case folding, number texts and parsers,
// percentages, trimming, searching and joining.
#include <liblocal/catalog.h>
#include <liblocal/frame.h>
#include <liblocal/memory.h>
#include <liblocal/msgtag.h>
#include <liblocal/output.h>
#include <liblocal/strutil.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "text/strutil_internal.h"
#include "frame/fault.h"

namespace ll::text {

void trace(int level, const char *fmt, ...) noexcept {
  if (Debug < level) return;
  va_list ap;
  va_start(ap, fmt);
  vdprintf(level, fmt, ap);
  va_end(ap);
}

namespace {
// Number of allocations still to succeed before the test seam makes them
// fail; negative: never fail.
std::atomic<int> g_allocs_before_failure{-1};

bool alloc_should_fail() noexcept {
  if (LL_FAULT(alloc)) return true;
  int n = g_allocs_before_failure.load(std::memory_order_relaxed);
  while (n >= 0) {
    if (g_allocs_before_failure.compare_exchange_weak(n, n - 1)) return n == 0;
  }
  return false;
}
}  // namespace

void *try_alloc(size_t size) noexcept { return alloc_should_fail() ? nullptr : std::malloc(size); }
void *try_calloc(size_t count, size_t size) noexcept {
  return alloc_should_fail() ? nullptr : std::calloc(count, size);
}

qzerror *record_no_memory(int number, const char *english) noexcept {
  // The record keeps the text it is given: it goes into the thread's own
  // record buffer (the catalog ring turns over while the record is set up),
  // or, when even that buffer cannot be had, the English text is used.
  char text[256];
  qzcatgets_buf(text, sizeof text, Catd, 17, number, english);
  if (qzerror *e = err_setstr(QZERR_T_SYSTEM, QZERR_NOTICE * 1000 + 12, "%s", text)) return e;
  return err_setall(QZERR_T_SYSTEM, QZERR_NOTICE, 12, english);
}

}  // namespace ll::text

namespace {

using ll::text::is_space;

constexpr char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
constexpr int kRing = 20;
constexpr int kNumLen = 65;

struct NumberRing {
  std::mutex lock;
  int next = 0;
  char buf[kRing][kNumLen];
};
NumberRing g_numbers;

char *next_number_buffer() noexcept {
  std::lock_guard<std::mutex> g(g_numbers.lock);
  char *b = g_numbers.buf[g_numbers.next];
  g_numbers.next = (g_numbers.next + 1) % kRing;
  return b;
}

// Digits of n in 'base', written backwards from the end of a 65-byte buffer.
char *digits_backwards(char *buf, uint64_t n, unsigned base, bool negative) noexcept {
  char *p = buf + kNumLen - 1;
  *p = '\0';
  do {
    *--p = kDigits[n % base];
    n /= base;
  } while (n);
  if (negative) *--p = '-';
  return p;
}

char *signed_text(char *buf, int64_t n) noexcept {
  const bool neg = n < 0;
  const uint64_t mag = neg ? 0 - static_cast<uint64_t>(n) : static_cast<uint64_t>(n);
  return digits_backwards(buf, mag, 10, neg);
}

char ascii_lower(char c) noexcept { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
char ascii_upper(char c) noexcept { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

int digit_value(char c) noexcept {
  c = ascii_upper(c);
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
  return 99;
}

// The common part of the two parsers: sign, base prefix and magnitude (with
// saturation at the largest 64-bit value).
struct Parsed {
  uint64_t value = 0;
  bool negative = false;
  bool overflow = false;
  bool ok = false;
  const char *end = nullptr;
};

Parsed parse_magnitude(const char *s, int base) noexcept {
  Parsed r;
  r.end = s;
  if (!s || base < 0 || base == 1 || base > 36) return r;
  const char *p = s;
  while (is_space(*p)) ++p;
  if (*p == '+' || *p == '-') r.negative = *p++ == '-';
  const bool hex_prefix = p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && digit_value(p[2]) < 16;
  if (base == 0) base = hex_prefix ? 16 : (p[0] == '0' ? 8 : 10);
  if (base == 16 && hex_prefix) p += 2;
  const uint64_t limit = UINT64_MAX / static_cast<unsigned>(base);
  for (int d; (d = digit_value(*p)) < base; ++p) {
    r.ok = true;
    if (r.value > limit || r.value * base > UINT64_MAX - static_cast<unsigned>(d)) {
      r.overflow = true;
      r.value = UINT64_MAX;
    } else if (!r.overflow) {
      r.value = r.value * base + static_cast<unsigned>(d);
    }
  }
  if (r.ok) r.end = p;
  return r;
}

}  // namespace

extern "C" {

LL_API void llt_text_fail_allocs(int after) noexcept { ll::text::g_allocs_before_failure = after; }

LL_API unsigned int hashstr(const char *s, unsigned int seed) noexcept {
  if (!s || !*s) return seed;
  uint32_t h = seed;
  for (; *s; ++s) h = h * 231u + static_cast<unsigned char>(ascii_lower(*s));
  return h ? h : 1;
}

LL_API char *lcase(char *s) noexcept {
  if (!s) return s;
  char *stop = strmsg(s);
  if (stop == s) return s;
  for (char *p = s; *p && p != stop; ++p) *p = ascii_lower(*p);
  return s;
}

LL_API char *ucase(char *s) noexcept {
  if (!s) return s;
  for (char *p = s; *p; ++p) *p = ascii_upper(*p);
  return s;
}

LL_API char *qz_uint64str_buf(char *buf, uint64_t n) noexcept {
  return buf ? digits_backwards(buf, n, 10, false) : nullptr;
}
LL_API char *qz_int64str_buf(char *buf, int64_t n) noexcept { return buf ? signed_text(buf, n) : nullptr; }
LL_API char *qz_uint64str(uint64_t n) noexcept { return digits_backwards(next_number_buffer(), n, 10, false); }
LL_API char *qz_uint64xstr(uint64_t n) noexcept { return digits_backwards(next_number_buffer(), n, 16, false); }
LL_API char *qz_int64str(int64_t n) noexcept { return signed_text(next_number_buffer(), n); }

LL_API uint64_t qz_strtoui64(const char *s, char **end, int base, int *error) noexcept {
  Parsed r = parse_magnitude(s, base);
  int err = 0;
  uint64_t v = r.value;
  if (!r.ok) {
    err = 22;
    v = 0;
  } else if (r.negative) {
    err = 34;
    v = 0;
  } else if (r.overflow) {
    err = 34;
  }
  if (end) *end = const_cast<char *>(r.end);
  if (error) *error = err;
  return v;
}

LL_API int64_t qz_strtoi64(const char *s, char **end, int base, int *error) noexcept {
  Parsed r = parse_magnitude(s, base);
  int err = 0;
  int64_t v = 0;
  constexpr uint64_t kMaxPos = static_cast<uint64_t>(INT64_MAX);
  if (!r.ok) {
    err = 22;
  } else if (r.negative) {
    if (r.overflow || r.value > kMaxPos + 1) {
      err = 34;
      v = INT64_MIN;
    } else {
      v = r.value == kMaxPos + 1 ? INT64_MIN : -static_cast<int64_t>(r.value);
    }
  } else if (r.overflow || r.value > kMaxPos) {
    err = 34;
    v = INT64_MAX;
  } else {
    v = static_cast<int64_t>(r.value);
  }
  if (end) *end = const_cast<char *>(r.end);
  if (error) *error = err;
  return v;
}

LL_API unsigned int safe_percent(unsigned int part, unsigned int whole) noexcept {
  if (whole == 0) return 0xFFFFFFFFu;
  if (static_cast<int>(part) >= 0 && part <= 21474836u) return part * 100u / whole;
  if (whole < 32768u) {
    // Integer division first; a result beyond 32 bits saturates just below
    // the "no whole" answer instead of wrapping.
    const uint64_t v = static_cast<uint64_t>(part / whole) * 100u;
    return v > 0xFFFFFFFEu ? 0xFFFFFFFEu : static_cast<unsigned int>(v);
  }
  return (part / 128u) * 100u / (whole / 128u);
}

LL_API int remove_enclosing_quotes(char *s) noexcept {
  if (!s) return 1;
  const size_t n = std::strlen(s);
  if (n >= 2 && s[0] == s[n - 1] && (s[0] == '"' || s[0] == '\'' || s[0] == '`')) {
    std::memmove(s, s + 1, n - 2);
    s[n - 2] = '\0';
  }
  return 0;
}

LL_API int remove_buffering_space(char *s) noexcept {
  if (!s) return 1;
  char *b = s;
  while (is_space(*b)) ++b;
  size_t n = std::strlen(b);
  while (n && is_space(b[n - 1])) --n;
  std::memmove(s, b, n);
  s[n] = '\0';
  return 0;
}

LL_API int remove_buffering_space_and_enclosing_quotes(char *s) noexcept {
  if (!s) return 1;
  for (char q : {'"', '\'', '`'}) {
    const char *first = std::strchr(s, q);
    if (!first) continue;
    const char *last = std::strrchr(s, q);
    if (last == first) continue;
    for (const char *p = s; p < first; ++p)
      if (!is_space(*p)) return 0;
    for (const char *p = last + 1; *p; ++p)
      if (!is_space(*p)) return 0;
    remove_buffering_space(s);
    remove_enclosing_quotes(s);
    return 0;
  }
  return 0;
}

LL_API int all_whitespace(const char *s) noexcept {
  if (!s) return 1;
  for (; *s; ++s)
    if (!is_space(*s)) return 0;
  return 1;
}

LL_API char *stristr(const char *haystack, const char *needle) noexcept {
  if (!haystack || !needle) return nullptr;
  if (!*needle) return const_cast<char *>(haystack);
  for (const char *h = haystack; *h; ++h) {
    size_t i = 0;
    while (needle[i] && h[i] && ascii_upper(h[i]) == ascii_upper(needle[i])) ++i;
    if (!needle[i]) return const_cast<char *>(h);
    if (!h[i]) break;
  }
  return nullptr;
}

LL_API char *qz_strvcat(char *buf, char **list, int separator) noexcept {
  if (!buf) {
    size_t need = 1;
    for (char **p = list; p && *p; ++p) need += std::strlen(*p) + (separator && p != list ? 1 : 0);
    buf = static_cast<char *>(xmalloc(need));
  }
  char *out = buf;
  for (char **p = list; p && *p; ++p) {
    if (separator && p != list) *out++ = static_cast<char>(separator);
    out = endstrcpy(out, *p);
  }
  *out = '\0';
  return buf;
}

LL_API char *qz_argvcat(char *buf, int count, char **texts, int separator) noexcept {
  if (count < 0) count = 0;
  char **list = static_cast<char **>(xmalloc((static_cast<size_t>(count) + 1) * sizeof(char *)));
  for (int i = 0; i < count; ++i) list[i] = texts[i];
  list[count] = nullptr;
  char *r = qz_strvcat(buf, list, separator);
  std::free(list);
  return r;
}

LL_API char *endstrcpy(char *dst, const char *src) noexcept {
  const size_t n = std::strlen(src);
  std::memcpy(dst, src, n + 1);
  return dst + n;
}

LL_API char *endstrncpy(char *dst, const char *src, size_t n) noexcept {
  for (size_t i = 0; i < n; ++i) {
    dst[i] = src[i];
    if (!src[i]) return dst + i;
  }
  return dst + n;
}

}  // extern "C"
