// qzstrcmp with 32-byte compares into mask registers, for processors with
// AVX-512BW and VL. The build compiles this file alone with wide instructions
// enabled (see src/CMakeLists.txt); the routine is only handed out after
// asking the processor and the system, so the rest of the library runs
// anywhere.
#include "text/strutil_internal.h"

#if defined(__AVX512BW__) && defined(__x86_64__)
#include <immintrin.h>

#include <cstdint>

namespace ll::text {
namespace {

// Lanes of the 32 bytes va (from x) and vb that agree and hold neither a
// terminator nor "[" in x.
__attribute__((target("avx512vl"), always_inline)) inline uint32_t plain_lanes(__m256i va, __m256i vb) noexcept {
  // min(c, c ^ '[') is zero exactly for a terminator and a "[".
  const __m256i special = _mm256_min_epu8(va, _mm256_xor_si256(va, _mm256_set1_epi8('[')));
  return _mm256_mask_cmpeq_epi8_mask(_mm256_test_epi8_mask(special, special), va, vb);
}

__attribute__((target("avx512vl"), always_inline)) inline uint32_t plain_lanes(const unsigned char *x,
                                                                               const unsigned char *y) noexcept {
  return plain_lanes(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(x)),
                     _mm256_loadu_si256(reinterpret_cast<const __m256i *>(y)));
}

// The same for the lanes in 'keep' only; the others are not read at all
// (a masked load does not fault on them) and count as plain.
__attribute__((target("avx512vl"), always_inline)) inline uint32_t plain_lanes(const unsigned char *x,
                                                                               const unsigned char *y,
                                                                               uint32_t keep) noexcept {
  return plain_lanes(_mm256_maskz_loadu_epi8(keep, x), _mm256_maskz_loadu_epi8(keep, y)) | ~keep;
}

// Steps of 64 bytes (two 32-byte compares into one mask) while both texts
// agree and hold neither a terminator nor "[" (no tag can begin before the
// first "["). A block is read whole even past a text's end, but never across
// a page boundary (where the next page might not be mapped), which is why
// the sanitizers are told to look away. The bytes left before a page end
// are taken with masked loads, which read nothing past it.
__attribute__((target("avx512vl"), no_sanitize("address", "thread"))) int compare_blocks(const char *a,
                                                                                         const char *b) noexcept {
  const auto *x = reinterpret_cast<const unsigned char *>(a);
  const auto *y = reinterpret_cast<const unsigned char *>(b);
  size_t i = 0;
  for (;;) {
    const uintptr_t ox = reinterpret_cast<uintptr_t>(x + i) & 4095u, oy = reinterpret_cast<uintptr_t>(y + i) & 4095u;
    const uintptr_t far = ox > oy ? ox : oy;
    if (__builtin_expect(far <= 4096u - 64u, 1)) {
      // Steps that start at or before 'last' lie inside the pages of both texts.
      const size_t last = i + (4096u - 64u - far);
      do {
        const uint64_t plain = plain_lanes(x + i, y + i) | uint64_t{plain_lanes(x + i + 32, y + i + 32)} << 32;
        if (plain != ~uint64_t{0}) return compare_from(x, y, i + static_cast<size_t>(__builtin_ctzll(~plain)));
        i += 64;
      } while (i <= last);
    } else {
      // The 1 to 63 bytes left before the nearer page end, with masked loads.
      const size_t n = 4096u - far;
      const uint64_t keep = _bzhi_u64(~uint64_t{0}, static_cast<unsigned>(n));
      const uint64_t plain = plain_lanes(x + i, y + i, static_cast<uint32_t>(keep)) |
                             uint64_t{plain_lanes(x + i + 32, y + i + 32, static_cast<uint32_t>(keep >> 32))} << 32;
      if (plain != ~uint64_t{0}) return compare_from(x, y, i + static_cast<size_t>(__builtin_ctzll(~plain)));
      i += n;
    }
  }
}

}  // namespace

StrcmpFn wide_strcmp() noexcept {
  __builtin_cpu_init();
  // Every extension this file is compiled with, since the compiler may use
  // any of them anywhere in it.
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl") &&
      __builtin_cpu_supports("avx512vbmi2") && __builtin_cpu_supports("bmi2"))
    return compare_blocks;
  return nullptr;
}

}  // namespace ll::text

#else

namespace ll::text {
StrcmpFn wide_strcmp() noexcept { return nullptr; }
}  // namespace ll::text

#endif
