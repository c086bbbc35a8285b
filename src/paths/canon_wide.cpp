// The 64-byte block pass of canonical form, for processors with AVX-512BW
// and VBMI2. The build compiles this file alone with those instructions
// enabled (see src/CMakeLists.txt); the pass is only handed out after asking
// the processor and the system, so the rest of the library runs anywhere.
// Masked loads and stores take the last block without reading or writing a
// byte too many.
#include "paths/paths.h"

#if defined(__AVX512BW__) && defined(__AVX512VBMI2__) && defined(__x86_64__)
#include <immintrin.h>

#include <cstdint>

#include "paths/canon_run.h"

namespace ll::paths {
namespace {

struct Avx512Block {
  static constexpr size_t W = 64;
  __m512i v;
  // Length of a string, a whole aligned 64-byte block at a time: an aligned
  // block never crosses a page, so reading the bytes around the string in
  // its blocks is safe, though they are not the string's (which is why the
  // sanitizers are told to look away).
  __attribute__((no_sanitize("address", "thread"))) static size_t length(const char *s) {
    const uintptr_t a = reinterpret_cast<uintptr_t>(s);
    const char *p = reinterpret_cast<const char *>(a & ~uintptr_t{63});
    __m512i x = _mm512_load_si512(p);
    uint64_t zero = _mm512_testn_epi8_mask(x, x) >> (a & 63);
    while (!zero) {
      p += 64;
      x = _mm512_load_si512(p);
      if (const uint64_t z = _mm512_testn_epi8_mask(x, x)) return static_cast<size_t>(p - s) + lowest_bit(z);
    }
    return lowest_bit(zero);
  }
  static Avx512Block load(const char *p) { return {_mm512_loadu_si512(p)}; }
  static Avx512Block load_n(const char *p, size_t n) { return {_mm512_maskz_loadu_epi8(low_bits(n), p)}; }
  uint64_t mask(char c) const { return _mm512_cmpeq_epi8_mask(v, _mm512_set1_epi8(c)); }
  uint64_t mask2(char a, char c) const { return mask(a) | mask(c); }
  void replace(char from, char to) { v = _mm512_mask_mov_epi8(v, mask(from), _mm512_set1_epi8(to)); }
  void store(char *p) const { _mm512_storeu_si512(p, v); }
  void store_n(char *p, size_t n) const {
    if (n) _mm512_mask_storeu_epi8(p, low_bits(n), v);
  }
  // ASCII letters in lanes [from, to) to uppercase.
  void raise(size_t from, size_t to) {
    const __mmask64 lanes = below(to) & ~below(from);
    const __mmask64 lower =
        _mm512_mask_cmplt_epu8_mask(lanes, _mm512_sub_epi8(v, _mm512_set1_epi8('a')), _mm512_set1_epi8(26));
    v = _mm512_mask_sub_epi8(v, lower, v, _mm512_set1_epi8(32));
  }
};

// Packs the lanes of x in keep to w; returns how many.
inline size_t store_kept(char *w, __m512i x, uint64_t keep) {
  const unsigned kept = static_cast<unsigned>(__builtin_popcountll(keep));
  _mm512_mask_storeu_epi8(w, _bzhi_u64(~0ull, kept), _mm512_maskz_compress_epi8(keep, x));
  return kept;
}

// The pass (canon_run's contract). A block with nothing to fold is copied as
// it is; a block with separator runs, a trailing separator or "." components
// drops them itself, packing the bytes it keeps, and a ".." is folded without
// leaving the loop, so no byte is looked at alone except the path's first
// character. Such a block decides its first 61 lanes (a ".." needs three
// bytes of look-ahead), 60 when a "." would straddle, or all of them at the
// end of the path.
__attribute__((always_inline)) inline char *run_packing(const char *const start, const char *const end,
                                                        char *const region, char sep, bool raise_drive) {
  const char alt = sep == kBackslash ? '/' : sep;
  const char *r = start;
  char *w = region;
  if (r == end) return w;
  bool colon_seen = !raise_drive || *r == ':';
  const auto is_sep = [sep, alt](char c) { return c == sep || c == alt; };
  if (!is_sep(*r)) {
    const char *c = r + 1;
    const auto ends = [&](const char *p) { return p == end || is_sep(*p); };
    if (c < end && *c == '.' && ends(c + 1))
      r += 2;
    else if (c < end && *c == '.' && c + 1 < end && c[1] == '.' && ends(c + 2))
      r += 3;
    else
      *w++ = *r++;
  }
  // The last separator written, while known (a fold forgets it): a ".."
  // then needs no look back at output just written by a masked store.
  char *last_sep = nullptr;
  // At the first colon among a block's lanes in span, the letters before it
  // are raised: those already written, and the block's own in the register
  // (reading them back just after a masked store would stall).
  const auto raise = [&](Avx512Block &x, uint64_t span) {
    if (const uint64_t colon = x.mask(':') & span) {
      upper_range(region, w);
      x.raise(0, lowest_bit(colon));
      colon_seen = true;
    }
  };
  for (;;) {
    const size_t avail = static_cast<size_t>(end - r);
    if (!avail) return w;
    Avx512Block x;
    uint64_t seps, dot, sep_end;
    size_t decided;
    if (avail >= 64) {
      x = Avx512Block::load(r);
      seps = x.mask2(sep, alt);
      dot = x.mask('.');
      const bool after = avail == 64 || is_sep(r[64]) || r[64] == '.';
      const uint64_t odd = seps & (((seps | dot) >> 1) | (static_cast<uint64_t>(after) << 63));
      if (sep != alt) x.replace(alt, sep);
      if (__builtin_expect(!odd, 1)) {
        if (!colon_seen) raise(x, ~0ull);
        x.store(w);  // all of it read, so safe in place too
        if (seps) last_sep = w + 63 - __builtin_clzll(seps);
        r += 64;
        w += 64;
        continue;
      }
      sep_end = seps;
      decided = 61;
    } else {
      const uint64_t valid = low_bits(avail);
      x = Avx512Block::load_n(r, avail);
      seps = x.mask2(sep, alt) & valid;
      dot = x.mask('.') & valid;
      sep_end = seps | (1ull << avail);
      if (sep != alt) x.replace(alt, sep);
      if (__builtin_expect(!(seps & ((sep_end | dot) >> 1)), 1)) {
        if (!colon_seen) raise(x, valid);
        x.store_n(w, avail);
        return w + avail;
      }
      decided = avail;
    }
    const uint64_t sep_dot = seps & (dot >> 1);
    const uint64_t one_dot = sep_dot & (sep_end >> 2);
    const uint64_t two_dots = sep_dot & (dot >> 2) & (sep_end >> 3);
    if (decided == 61 && ((one_dot >> 60) & 1)) decided = 60;
    uint64_t span = low_bits(decided);
    const uint64_t stop = two_dots & span;
    if (stop) span = (stop & (0 - stop)) - 1;
    const uint64_t keep = span & ~((seps & (sep_end >> 1)) | one_dot | (one_dot << 1));
    if (!colon_seen) raise(x, span);
    const uint64_t kept_seps = seps & keep;
    if (kept_seps) last_sep = w + __builtin_popcountll(keep & ((2ull << (63 - __builtin_clzll(kept_seps))) - 1)) - 1;
    w += store_kept(w, x.v, keep);
    if (!stop) {
      r += decided;
      continue;
    }
    r += lowest_bit(stop) + 3;
    if (last_sep) {
      w = last_sep;
      last_sep = nullptr;
    } else if (w != region) {
      char *q = w - 1;
      while (q > region && *q != sep) --q;
      w = q;
    }
  }
}

}  // namespace

CanonPass packing_pass() noexcept {
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
      __builtin_cpu_supports("avx512vbmi2") && __builtin_cpu_supports("bmi2"))
    return canon_impl<Avx512Block, run_packing>;
  return nullptr;
}

}  // namespace ll::paths

#else

namespace ll::paths {
CanonPass packing_pass() noexcept { return nullptr; }
}  // namespace ll::paths

#endif
