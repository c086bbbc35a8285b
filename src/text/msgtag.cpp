// Message tags: encoding, decoding, finding, removing and gathering them, and
// comparisons that look through them.
#include <liblocal/msgtag.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <climits>
#include <cstdint>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "text/strutil_internal.h"

namespace ll::text {

size_t tag_length(const char *p) noexcept {
  if (p[0] != ' ' || p[1] != '[') return 0;
  const char *q = p + 2;
  while (is_tag_char(*q)) ++q;
  if (*q != ']' || q == p + 2) return 0;
  return static_cast<size_t>(q + 1 - p);
}

}  // namespace ll::text

namespace {

using ll::text::is_space;
using ll::text::is_tag_char;
using ll::text::tag_length;

// Tag digits of n; a negative number is "Z", zero is no digits.
char *encode(char *out, int n) noexcept {
  if (n < 0) {
    *out++ = 'Z';
    return out;
  }
  char tmp[8];
  int k = 0;
  for (auto v = static_cast<unsigned>(n); v; v >>= 5) {
    const unsigned d = v & 31u;
    tmp[k++] = static_cast<char>(d <= 8 ? '1' + d : 'A' + (d - 9));
  }
  while (k) *out++ = tmp[--k];
  return out;
}

// The comparison loop shared by all four: 'fold' upper-cases, 'limit' is the
// number of bytes looked at (SIZE_MAX: no limit). A tag is skipped only when
// it begins within the limit.
template <bool Fold>
int compare_through_tags(const unsigned char *a, const unsigned char *b, size_t limit) noexcept {
  size_t i = 0, j = 0;
  for (;;) {
    while (i < limit && a[i] == ' ') {
      const size_t t = tag_length(reinterpret_cast<const char *>(a + i));
      if (!t) break;
      i += t;
    }
    while (j < limit && b[j] == ' ') {
      const size_t t = tag_length(reinterpret_cast<const char *>(b + j));
      if (!t) break;
      j += t;
    }
    int ca = i < limit ? a[i] : 0;
    int cb = j < limit ? b[j] : 0;
    if (Fold) {
      ca = std::toupper(ca);
      cb = std::toupper(cb);
    }
    if (ca != cb) return ca - cb;
    if (!ca) return 0;
    ++i;
    ++j;
  }
}

inline bool has_zero_byte(uint64_t v) noexcept { return ((v - 0x0101010101010101ull) & ~v & 0x8080808080808080ull) != 0; }
template <unsigned N>
inline bool block_safe(const unsigned char *p) noexcept {
  return (reinterpret_cast<uintptr_t>(p) & 4095u) <= 4096u - N;
}

// Block loads may read past a text's end within its page, which the
// sanitizers rightly take for reads of memory the text does not own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define LL_WORD_SCAN 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(memory_sanitizer) || __has_feature(thread_sanitizer)
#define LL_WORD_SCAN 0
#endif
#endif
#ifndef LL_WORD_SCAN
#define LL_WORD_SCAN 1
#endif

// qzstrcmp with the blocks of the build: sixteen bytes (SSE2) or eight
// (words) at a time, one under the address sanitizer.
int compare_base(const char *a, const char *b) noexcept {
  const auto *x = reinterpret_cast<const unsigned char *>(a);
  const auto *y = reinterpret_cast<const unsigned char *>(b);
  size_t i = 0;
  // Many bytes at a time while both texts agree and hold no terminator and
  // no "[" (a tag cannot begin before the first "["); loads never cross into
  // the next page, where the texts might end.
#if LL_WORD_SCAN && defined(__SSE2__)
  const __m128i zero = _mm_setzero_si128(), brackets = _mm_set1_epi8('[');
  // Bytes of a block that agree and are neither a terminator nor "[".
  auto plain = [&](size_t at) {
    const __m128i va = _mm_loadu_si128(reinterpret_cast<const __m128i *>(x + at));
    const __m128i vb = _mm_loadu_si128(reinterpret_cast<const __m128i *>(y + at));
    const __m128i special = _mm_or_si128(_mm_cmpeq_epi8(va, zero), _mm_cmpeq_epi8(va, brackets));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_andnot_si128(special, _mm_cmpeq_epi8(va, vb))));
  };
  for (;;) {
    const size_t room = std::min(4096u - (reinterpret_cast<uintptr_t>(x + i) & 4095u),
                                 4096u - (reinterpret_cast<uintptr_t>(y + i) & 4095u));
    if (room < 16) {
      if (x[i] == y[i] && x[i] && x[i] != '[') {
        ++i;
        continue;
      }
      break;
    }
    const size_t stop_at = i + room - 15;
    unsigned m = 0xFFFFu;
    while (i < stop_at && (m = plain(i)) == 0xFFFFu) i += 16;
    if (m != 0xFFFFu) {
      i += static_cast<size_t>(__builtin_ctz(~m));
      break;
    }
  }
#elif LL_WORD_SCAN
  constexpr uint64_t kBrackets = 0x5B5B5B5B5B5B5B5Bull;
  while (block_safe<8>(x + i) && block_safe<8>(y + i)) {
    uint64_t wa, wb;
    std::memcpy(&wa, x + i, 8);
    std::memcpy(&wb, y + i, 8);
    if (wa != wb || has_zero_byte(wa) || has_zero_byte(wa ^ kBrackets)) break;
    i += 8;
  }
#endif
  while (x[i] == y[i] && x[i] && x[i] != '[') ++i;
  return ll::text::compare_from(x, y, i);
}

// The routine for this processor: the wide one when the processor and the
// system support it, else the blocks of the build. Chosen on the first call
// (which may come before the library's own initialisers have run).
int first_compare(const char *a, const char *b) noexcept;
std::atomic<ll::text::StrcmpFn> chosen_compare{first_compare};
int first_compare(const char *a, const char *b) noexcept {
  ll::text::StrcmpFn f = ll::text::wide_strcmp();
  if (!f) f = compare_base;
  chosen_compare.store(f, std::memory_order_relaxed);
  return f(a, b);
}

}  // namespace

int ll::text::compare_tagged(const unsigned char *a, const unsigned char *b) noexcept {
  return compare_through_tags<false>(a, b, SIZE_MAX);
}

extern "C" {

LL_API int append_msg_suffix(char *text, int first, int second) noexcept {
  if (!text) return 0;
  char *p = text + std::strlen(text);
  *p++ = ' ';
  *p++ = '[';
  p = encode(p, first);
  *p++ = '0';
  p = encode(p, second);
  *p++ = ']';
  *p = '\0';
  return 0;
}

LL_API int from_base32(const char *s) noexcept {
  if (!s) return 0;
  uint32_t v = 0;
  for (; *s && *s != '0' && *s != ']'; ++s) {
    if (!is_tag_char(*s)) continue;
    const int add = (*s >= '1' && *s <= '9') ? *s - '1' : *s - '8';
    v = (v << 5) + static_cast<uint32_t>(add);
  }
  return static_cast<int>(v);
}

LL_API int extract_msg_suffix(const char *tag, int *first, int *second) noexcept {
  if (!tag || !is_tag_char(*tag)) return -1;
  const char *zero = std::strchr(tag, '0');
  if (!zero || !zero[1]) return -1;
  if (first) *first = from_base32(tag);
  if (second) *second = from_base32(zero + 1);
  return 0;
}

LL_API char *strmsg(const char *s) noexcept {
  if (!s) return nullptr;
  for (const char *p = s; (p = std::strstr(p, " [")) != nullptr; ++p)
    if (tag_length(p)) return const_cast<char *>(p);
  return nullptr;
}

LL_API char *strip_msg_ids(char *s) noexcept {
  if (!s || !*s) return s;
  char *from = s + (tag_length(s) ? 1 : 0);
  while (char *t = strmsg(from)) {
    const size_t n = tag_length(t);
    std::memmove(t, t + n, std::strlen(t + n) + 1);
    from = t;
  }
  return s;
}

LL_API char *gather_msg_ids(char *s) noexcept {
  if (!s || !*s) return s;
  constexpr size_t kBudget = 100;
  char combined[kBudget + 8];
  size_t used = 0;
  char *from = s + (tag_length(s) ? 1 : 0);
  while (char *t = strmsg(from)) {
    const size_t n = tag_length(t);
    const size_t inner = n - 3;  // without " [" and "]"
    const size_t prefix = used ? 1 : 2;
    if (prefix + inner < kBudget - used) {
      std::memcpy(combined + used, used ? "-" : " [", prefix);
      std::memcpy(combined + used + prefix, t + 2, inner);
      used += prefix + inner;
    }
    std::memmove(t, t + n, std::strlen(t + n) + 1);
    from = t;
  }
  if (!used) return s;
  combined[used++] = ']';
  char *end = s + std::strlen(s);
  while (end > s && is_space(end[-1])) --end;
  std::memmove(end + used, end, std::strlen(end) + 1);
  std::memcpy(end, combined, used);
  return s;
}

LL_API int qzstrcmp(const char *a, const char *b) noexcept {
  return chosen_compare.load(std::memory_order_relaxed)(a, b);
}

// Test seam: qzstrcmp by routine (0 the blocks of the build, 1 the wide
// one); INT_MIN when this processor has no such routine.
LL_API int llt_qzstrcmp_variant(int which, const char *a, const char *b) noexcept {
  static const ll::text::StrcmpFn routines[] = {compare_base, ll::text::wide_strcmp()};
  if (which < 0 || which >= static_cast<int>(sizeof routines / sizeof *routines) || !routines[which]) return INT_MIN;
  return routines[which](a, b);
}

LL_API int qzstricmp(const char *a, const char *b) noexcept {
  return compare_through_tags<true>(reinterpret_cast<const unsigned char *>(a),
                                    reinterpret_cast<const unsigned char *>(b), SIZE_MAX);
}

LL_API int qzstrncmp(const char *a, const char *b, size_t n) noexcept {
  if (!n) return 0;
  return compare_through_tags<false>(reinterpret_cast<const unsigned char *>(a),
                                     reinterpret_cast<const unsigned char *>(b), n);
}

LL_API int qzstrnicmp(const char *a, const char *b, size_t n) noexcept {
  if (!n) return 0;
  return compare_through_tags<true>(reinterpret_cast<const unsigned char *>(a),
                                    reinterpret_cast<const unsigned char *>(b), n);
}

}  // extern "C"
