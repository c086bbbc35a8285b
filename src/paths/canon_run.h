// Canonical form of a path, a block of bytes at a time.
//
// A path is read as a sequence of pairs: a leading character (a separator, or
// the path's first character, whatever it is) and the component after it.
// Only three things ever need a look at single bytes: a separator followed by
// another separator (a run to collapse), by a dot (perhaps a "." or ".."
// component), or by the end (trailing separators go). Everything else is
// copied a block at a time with the other separator turned into the chosen
// one, and the first colon raises the letters before it as it passes by.
//
// The pass is written once over a 16-byte "block" type: two words (any
// processor) or an SSE2 register. canon_wide.cpp has a 64-byte pass of its
// own for AVX-512, chosen at run time, which shares the rest of this file. Everything here has internal linkage
// on purpose: each file that includes it compiles its own copy for its own
// instruction set, and the linker can never pick a wide copy for a caller on
// a processor without the wide instructions.
//
// canon_reference (canon.cpp) says step by step what the answer must be; the
// tests and the fuzz target hold every block type to it.
#pragma once

#include <liblocal/path.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "paths/paths.h"

namespace ll::paths {
namespace {

inline void upper_range(char *from, char *to) {
  for (char *p = from; p < to; ++p)
    if (*p >= 'a' && *p <= 'z') *p = static_cast<char>(*p - 32);
}

inline size_t lowest_bit(uint64_t m) { return static_cast<size_t>(__builtin_ctzll(m)); }
// The low n bits, 1 <= n <= 64.
inline uint64_t low_bits(size_t n) { return ~0ull >> (64 - n); }
// The low n bits, 0 <= n <= 64.
inline uint64_t below(size_t n) { return n ? low_bits(n) : 0; }

// n < 16 bytes of p as two little-endian words, the rest zero; reads only
// [p, p + n). Overlapping loads avoid a byte loop.
inline void tail_words(const char *p, size_t n, uint64_t &lo, uint64_t &hi) {
  lo = hi = 0;
  if (n >= 8) {
    std::memcpy(&lo, p, 8);
    if (n > 8) {
      std::memcpy(&hi, p + n - 8, 8);
      hi >>= 8 * (16 - n);
    }
  } else if (n >= 4) {
    uint32_t a, b;
    std::memcpy(&a, p, 4);
    std::memcpy(&b, p + n - 4, 4);
    lo = a | (static_cast<uint64_t>(b) << (8 * (n - 4)));
  } else if (n) {
    const auto u = [p](size_t i) { return static_cast<uint64_t>(static_cast<unsigned char>(p[i])); };
    lo = u(0) | (u(n / 2) << (8 * (n / 2))) | (u(n - 1) << (8 * (n - 1)));
  }
}

// The first n (< 16) bytes of t to p, without a byte loop (the overlapping
// stores write the same bytes twice).
inline void copy_head(char *p, const char *t, size_t n) {
  if (n >= 8) {
    std::memcpy(p, t, 8);
    if (n > 8) std::memcpy(p + n - 8, t + n - 8, 8);
  } else if (n >= 4) {
    std::memcpy(p, t, 4);
    std::memcpy(p + n - 4, t + n - 4, 4);
  } else if (n) {
    p[0] = t[0];
    p[n / 2] = t[n / 2];
    p[n - 1] = t[n - 1];
  }
}

// Lanes [from, to) set, the others clear (0 <= from <= to <= 16).
alignas(16) const unsigned char kLaneOnes[48] = {
    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0};

// Sixteen bytes in two words, for any processor.
struct WordBlock {
  static constexpr size_t W = 16;
  uint64_t lo, hi;
  static constexpr uint64_t kOnes = 0x0101010101010101ull, kLow7 = 0x7F7F7F7F7F7F7F7Full;
  // 0x80 in every byte of x equal to c, nothing elsewhere (exact).
  static uint64_t equal(uint64_t x, char c) {
    const uint64_t v = x ^ (kOnes * static_cast<unsigned char>(c));
    return ~(((v & kLow7) + kLow7) | v | kLow7);
  }
  // One bit per byte of a 0x80-per-byte mask, byte 0 in bit 0.
  static uint64_t bits(uint64_t m) { return ((m >> 7) * 0x0102040810204080ull) >> 56; }

  static size_t length(const char *s) { return std::strlen(s); }
  static WordBlock load(const char *p) {
    WordBlock b;
    std::memcpy(&b.lo, p, 8);
    std::memcpy(&b.hi, p + 8, 8);
    return b;
  }
  static WordBlock load_n(const char *p, size_t n) {
    WordBlock b;
    tail_words(p, n, b.lo, b.hi);
    return b;
  }
  uint64_t mask(char c) const { return bits(equal(lo, c)) | (bits(equal(hi, c)) << 8); }
  uint64_t mask2(char a, char c) const {
    return bits(equal(lo, a) | equal(lo, c)) | (bits(equal(hi, a) | equal(hi, c)) << 8);
  }
  void replace(char from, char to) {
    const uint64_t d = static_cast<unsigned char>(from ^ to);
    lo ^= (equal(lo, from) >> 7) * d;
    hi ^= (equal(hi, from) >> 7) * d;
  }
  static WordBlock lanes(size_t from, size_t to) {
    const char *t = reinterpret_cast<const char *>(kLaneOnes);
    const WordBlock a = load(t + 16 - from), b = load(t + 32 - to);
    return {a.lo & b.lo, a.hi & b.hi};
  }
  // Lanes of a where m is set, of b elsewhere.
  static WordBlock select(WordBlock m, WordBlock a, WordBlock b) {
    return {(a.lo & m.lo) | (b.lo & ~m.lo), (a.hi & m.hi) | (b.hi & ~m.hi)};
  }
  void store(char *p) const {
    std::memcpy(p, &lo, 8);
    std::memcpy(p + 8, &hi, 8);
  }
  void store_n(char *p, size_t n) const {
    char t[16];
    store(t);
    copy_head(p, t, n);
  }
  // ASCII letters in lanes [from, to) to uppercase.
  void raise(size_t from, size_t to) {
    char t[16];
    store(t);
    upper_range(t + from, t + to);
    *this = load(t);
  }
};

#if defined(__SSE2__)
struct Sse2Block {
  static constexpr size_t W = 16;
  __m128i v;
  static size_t length(const char *s) { return std::strlen(s); }
  static Sse2Block load(const char *p) { return {_mm_loadu_si128(reinterpret_cast<const __m128i *>(p))}; }
  static Sse2Block load_n(const char *p, size_t n) {
    uint64_t lo, hi;
    tail_words(p, n, lo, hi);
    return {_mm_set_epi64x(static_cast<long long>(hi), static_cast<long long>(lo))};
  }
  __m128i eq(char c) const { return _mm_cmpeq_epi8(v, _mm_set1_epi8(c)); }
  uint64_t mask(char c) const { return static_cast<uint32_t>(_mm_movemask_epi8(eq(c))); }
  uint64_t mask2(char a, char c) const {
    return static_cast<uint32_t>(_mm_movemask_epi8(_mm_or_si128(eq(a), eq(c))));
  }
  void replace(char from, char to) {
    v = _mm_xor_si128(v, _mm_and_si128(eq(from), _mm_set1_epi8(static_cast<char>(from ^ to))));
  }
  static Sse2Block lanes(size_t from, size_t to) {
    const char *t = reinterpret_cast<const char *>(kLaneOnes);
    return {_mm_and_si128(load(t + 16 - from).v, load(t + 32 - to).v)};
  }
  static Sse2Block select(Sse2Block m, Sse2Block a, Sse2Block b) {
    return {_mm_or_si128(_mm_and_si128(m.v, a.v), _mm_andnot_si128(m.v, b.v))};
  }
  void store(char *p) const { _mm_storeu_si128(reinterpret_cast<__m128i *>(p), v); }
  void store_n(char *p, size_t n) const {
    alignas(16) char t[16];
    _mm_store_si128(reinterpret_cast<__m128i *>(t), v);
    copy_head(p, t, n);
  }
  void raise(size_t from, size_t to) {
    const __m128i lower = _mm_and_si128(_mm_cmpgt_epi8(v, _mm_set1_epi8('a' - 1)), _mm_cmplt_epi8(v, _mm_set1_epi8('z' + 1)));
    v = _mm_sub_epi8(v, _mm_and_si128(_mm_and_si128(lower, lanes(from, to).v), _mm_set1_epi8(32)));
  }
};
using BaseBlock = Sse2Block;
#else
using BaseBlock = WordBlock;
#endif

// One pass of canonical form over [start, end) into region, which is either
// where start points (in place) or a separate buffer of at least
// end - start + 1 bytes. With raise_drive the letters before the first colon
// are raised. Returns the end of the output (region itself when nothing is
// left).
template <class Block>
char *canon_run(const char *const start, const char *const end, char *const region, char sep, bool raise_drive) {
  constexpr size_t W = Block::W;
  const char alt = sep == kBackslash ? '/' : sep;  // the other spelling of a separator
  const auto is_sep = [sep, alt](char c) { return c == sep || c == alt; };
  const bool in_place = start == region;
  const char *r = start;
  char *w = region;
  if (r == end) return w;

  // Length of a "." or ".." component at c, or 0.
  const auto dots = [&](const char *c) -> size_t {
    if (c == end || *c != '.') return 0;
    if (c + 1 == end || is_sep(c[1])) return 1;
    if (c[1] == '.' && (c + 2 == end || is_sep(c[2]))) return 2;
    return 0;
  };

  bool colon_seen = !raise_drive || *r == ':';
  const auto raise_before = [&](uint64_t colon, char *at) {
    upper_range(region, at + lowest_bit(colon));
    colon_seen = true;
  };
  bool copying = false;  // r is inside a component (else at a separator or the end)
  if (!is_sep(*r)) {
    // The first character leads the first component the way a separator would.
    if (const size_t d = dots(r + 1)) {
      r += 1 + d;
    } else {
      *w++ = *r++;
      copying = true;
    }
  }

  for (;;) {
    while (copying) {
      const size_t avail = static_cast<size_t>(end - r);
      if (!avail) return w;
      uint64_t seps, dot, stop;
      size_t k;
      if (avail > W) {
        // A whole block and a byte after it: stored as it is up to the first
        // separator followed by a separator, a dot or the end.
        Block x = Block::load(r);
        seps = x.mask2(sep, alt);
        dot = x.mask('.');
        const char after = r[W];
        stop = seps & (((seps | dot) >> 1) | (static_cast<uint64_t>(is_sep(after) || after == '.') << (W - 1)));
        if (sep != alt) x.replace(alt, sep);
        k = stop ? lowest_bit(stop) : W;
        // The whole register is written unless, in place with the writer
        // less than a block behind, that would overwrite bytes not yet read.
        if (__builtin_expect(!stop || !in_place || static_cast<size_t>(r - w - 1) >= W - 1, 1))
          x.store(w);
        else
          x.store_n(w, k);
        if (!colon_seen) {
          if (const uint64_t colon = x.mask(':') & below(k)) raise_before(colon, w);
        }
        if (__builtin_expect(!stop, 1)) {
          r += W;
          w += W;
          continue;
        }
        if (k + 4 > W) {  // what follows the separator is not all in view
          r += k;
          w += k;
          break;
        }
      } else {
        // The last block, 1 to W bytes. With a block's worth of input before
        // the end and of output before w, it is read as the block that ends
        // the input and written merged into what memory holds: no byte
        // loops, no write past what it owns.
        const uint64_t valid = low_bits(avail);
        size_t lane = W - avail;  // the lane of r in x
        const bool merge = static_cast<size_t>(r - start) >= lane && static_cast<size_t>(w - region) >= lane;
        Block x = merge ? Block::load(end - W) : Block::load_n(r, avail);
        if (!merge) lane = 0;
        seps = (x.mask2(sep, alt) >> lane) & valid;
        dot = (x.mask('.') >> lane) & valid;
        stop = seps & (((seps | dot) >> 1) | (1ull << (avail - 1)));
        k = stop ? lowest_bit(stop) : avail;
        if (sep != alt) x.replace(alt, sep);
        if (merge)
          Block::select(Block::lanes(lane, lane + k), x, Block::load(w - lane)).store(w - lane);
        else
          x.store_n(w, k);
        if (!colon_seen) {
          if (const uint64_t colon = (x.mask(':') >> lane) & below(k)) raise_before(colon, w);
        }
        if (!stop) return w + k;
        seps |= 1ull << avail;  // the end counts as a separator below
      }
      // The separator in lane k, with the three lanes after it in view:
      // one of a run or the last, a "." or ".." after it, or a component.
      const uint64_t s = seps >> k, d = dot >> k;
      w += k;
      if (s & 2) {
        r += k + 1;
      } else if ((d & 2) && (s & 4)) {
        r += k + 2;
      } else if ((d & 6) == 6 && (s & 8)) {
        r += k + 3;
        if (w != region) {
          char *q = w - 1;
          while (q > region && *q != sep) --q;
          w = q;
        }
      } else {
        *w++ = sep;  // (perhaps not yet stored, in place)
        r += k + 1;
      }
    }
    copying = true;
    // At a separator: collapse the run, drop "." and fold "..", stop at the end.
    for (;;) {
      while (r < end && is_sep(*r)) ++r;
      if (r == end) return w;
      const size_t d = dots(r);
      if (!d) break;
      if (d == 2 && w != region) {
        char *q = w - 1;
        while (q > region && *q != sep) --q;
        w = q;
      }
      r += d;
    }
    *w++ = sep;
  }
}

// n bytes from src to dst (which may be src) with slashes turned into
// backslashes and the letters in [raise_from, raise_to) raised.
template <class Block>
void copy_prefix(const char *src, size_t n, char *dst, size_t raise_from, size_t raise_to) {
  for (size_t i = 0; i < n; i += Block::W) {
    const size_t m = n - i < Block::W ? n - i : Block::W;
    Block x = m == Block::W ? Block::load(src + i) : Block::load_n(src + i, m);
    x.replace('/', kBackslash);
    const size_t from = raise_from > i ? raise_from - i : 0;
    const size_t to = raise_to > i ? (raise_to - i < m ? raise_to - i : m) : 0;
    if (from < to) x.raise(from, to);
    if (m == Block::W)
      x.store(dst + i);
    else
      x.store_n(dst + i, m);
  }
}

// The first separator (either spelling) in [p, end), or end.
template <class Block>
const char *find_sep(const char *p, const char *end) {
  for (; p < end; p += Block::W) {
    const size_t avail = static_cast<size_t>(end - p);
    const Block x = avail >= Block::W ? Block::load(p) : Block::load_n(p, avail);
    const uint64_t seps = x.mask2(kBackslash, '/') & (avail >= Block::W ? ~0ull : low_bits(avail));
    if (seps) return p + lowest_bit(seps);
  }
  return end;
}

inline bool unc_sep(char c) { return c == kBackslash || c == '/'; }

// Whether [s, end) starts with lit, letters compared without case and a
// backslash in lit matching either separator.
inline bool starts_nocase(const char *s, const char *end, const char *lit) {
  for (; *lit; ++s, ++lit) {
    if (s == end) return false;
    if (*lit == kBackslash ? !unc_sep(*s) : (*s | 32) != (*lit | 32)) return false;
  }
  return true;
}

const char kRoot[] = "/";

using RunFn = char *(*)(const char *, const char *, char *, char, bool);

// canon_dirsep on one block type (and a pass over it: canon_run unless the
// block's file has a better one). name and buf are not null.
template <class Block, RunFn Run = canon_run<Block>>
void canon_impl(const char *name, char *buf, char sep) {
  const bool bs = sep == kBackslash;
  size_t len = Block::length(name);
  if (bs && len && name[len - 1] == '"') --len;  // the stray closing quote
  // A buffer that overlaps the name without being it: work on a copy in buf.
  if (buf != name && buf < name + len + 1 && name < buf + len + 1) {
    std::memmove(buf, name, len);
    name = buf;
  }
  const char *const end = name + len;
  if (bs && len >= 2 && unc_sep(name[0]) && unc_sep(name[1])) {
    // A UNC name, read as its backslash spelling: the host (and the share
    // of a file share) is raised and kept, and only a file share's path
    // after the share is folded. "\\?\" without "UNC\" is not UNC.
    const char *host = name + 2;
    if (name[2] == '?') host = starts_nocase(name + 3, end, "\\UNC\\") ? name + 8 : nullptr;
    if (host) {
      const char *host_end = find_sep<Block>(host, end);
      const char *raise_end = host_end, *file = nullptr;
      if (host_end != end) {
        const char *obj = host_end + 1;
        const bool share = !(starts_nocase(obj, end, "pipe\\") || starts_nocase(obj, end, "PhysicalDrive") ||
                             (obj + 1 < end && obj[1] == ':') || starts_nocase(obj, end, "Tape"));
        if (share) {
          raise_end = find_sep<Block>(obj, end);
          if (raise_end != end) file = raise_end;
        }
      }
      const size_t keep = static_cast<size_t>((file ? file : end) - name);
      copy_prefix<Block>(name, keep, buf, static_cast<size_t>(host - name), static_cast<size_t>(raise_end - name));
      *(file ? Run(file, end, buf + keep, sep, false) : buf + keep) = 0;
      return;
    }
  }
  char *w = Run(name, end, buf, sep, bs);
  if (w == buf)
    std::memcpy(buf, kRoot, sizeof kRoot);
  else
    *w = 0;
}

}  // namespace
}  // namespace ll::paths
