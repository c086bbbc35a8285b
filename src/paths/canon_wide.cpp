// The 64-byte block pass of canonical form, for processors with AVX-512BW.
// The build compiles this file alone with those instructions enabled (see
// src/CMakeLists.txt); the pass is only handed out after asking the processor
// and the system, so the rest of the library runs anywhere. Masked loads and
// stores take the last block without reading or writing a byte too many.
#include "paths/paths.h"

#if defined(__AVX512BW__) && defined(__x86_64__)
#include <immintrin.h>

#include "paths/canon_run.h"

namespace ll::paths {
namespace {

struct Avx512Block {
  static constexpr size_t W = 64;
  static constexpr bool kMaskedTail = true;
  __m512i v;
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

}  // namespace

CanonPass wide_pass() noexcept {
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("bmi2"))
    return canon_impl<Avx512Block>;
  return nullptr;
}

}  // namespace ll::paths

#else

namespace ll::paths {
CanonPass wide_pass() noexcept { return nullptr; }
}  // namespace ll::paths

#endif
