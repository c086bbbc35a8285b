// The POSIX cksum CRC: CRC-32, polynomial 0x04C11DB7, most significant bit
// first, state starting at 0 (not inverted), the length folded in at the end
// and the result complemented.
//
// Two update paths give the same state: a slice-by-8 table loop (always
// built), and carry-less multiplication folding 64 bytes at a time where the
// processor has PCLMULQDQ.
#include <cstdint>
#include <cstring>

#include "util/crc_read.h"
#include "util/digest_cpu.h"
#include <liblocal/digest.h>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define LL_CRC_X86 1
#endif

namespace {

using u8 = uint8_t;
using u32 = uint32_t;
using u64 = uint64_t;

constexpr u32 kPoly = 0x04C11DB7u;

struct Tables {
  u32 t[8][256];
};

constexpr Tables make_tables() {
  Tables s{};
  for (u32 i = 0; i < 256; ++i) {
    u32 c = i << 24;
    for (int k = 0; k < 8; ++k) c = (c & 0x80000000u) ? (c << 1) ^ kPoly : c << 1;
    s.t[0][i] = c;
  }
  for (int k = 1; k < 8; ++k)
    for (u32 i = 0; i < 256; ++i) {
      const u32 prev = s.t[k - 1][i];
      s.t[k][i] = (prev << 8) ^ s.t[0][prev >> 24];
    }
  return s;
}

constexpr Tables kTab = make_tables();
static_assert(kTab.t[0][1] == 0x04C11DB7u && kTab.t[0][255] == 0xB1F740B4u);

inline u32 step(u32 s, u8 b) { return (s << 8) ^ kTab.t[0][(s >> 24) ^ b]; }

u32 update_table(u32 s, const u8 *p, size_t n) {
  while (n >= 8) {
    const u32 w = s ^ ((u32)p[0] << 24 | (u32)p[1] << 16 | (u32)p[2] << 8 | p[3]);
    s = kTab.t[7][w >> 24] ^ kTab.t[6][(w >> 16) & 255] ^ kTab.t[5][(w >> 8) & 255] ^ kTab.t[4][w & 255] ^
        kTab.t[3][p[4]] ^ kTab.t[2][p[5]] ^ kTab.t[1][p[6]] ^ kTab.t[0][p[7]];
    p += 8;
    n -= 8;
  }
  while (n--) s = step(s, *p++);
  return s;
}

#ifdef LL_CRC_X86

// x^k mod P, as the 32 low coefficients (bit i = x^i).
constexpr u64 xpow_mod(int k) {
  u64 v = 1;
  for (int i = 0; i < k; ++i) {
    v <<= 1;
    if (v & 0x100000000ull) v ^= 0x100000000ull | kPoly;
  }
  return v;
}

// The data, read as one big polynomial (first byte highest), is folded
// modulo P into 128-bit remainders: a 128-bit value H*x^64 + L moved n bits
// further is H*(x^(n+64) mod P) + L*(x^n mod P), at most 96 bits wide. The
// last remainder goes through the table as 16 ordinary bytes.
__attribute__((target("pclmul,ssse3"))) inline __m128i fold(__m128i a, __m128i k, __m128i next) {
  const __m128i hi = _mm_clmulepi64_si128(a, k, 0x11);
  const __m128i lo = _mm_clmulepi64_si128(a, k, 0x00);
  return _mm_xor_si128(_mm_xor_si128(hi, lo), next);
}

// 16 bytes as a 128-bit polynomial: the first byte's top bit is x^127.
__attribute__((target("pclmul,ssse3"))) inline __m128i load(const u8 *q, __m128i rev) {
  return _mm_shuffle_epi8(_mm_loadu_si128((const __m128i *)q), rev);
}

__attribute__((target("pclmul,ssse3"))) u32 update_pclmul(u32 s, const u8 *p, size_t n) {
  if (n < 64) return update_table(s, p, n);
  const __m128i rev = _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  const __m128i k512 = _mm_set_epi64x((long long)xpow_mod(512 + 64), (long long)xpow_mod(512));
  const __m128i k128 = _mm_set_epi64x((long long)xpow_mod(128 + 64), (long long)xpow_mod(128));

  // The state counts as the first four message bytes XORed in.
  __m128i a0 = _mm_xor_si128(load(p, rev), _mm_set_epi32((int)s, 0, 0, 0));
  __m128i a1 = load(p + 16, rev), a2 = load(p + 32, rev), a3 = load(p + 48, rev);
  p += 64;
  n -= 64;
  while (n >= 64) {
    a0 = fold(a0, k512, load(p, rev));
    a1 = fold(a1, k512, load(p + 16, rev));
    a2 = fold(a2, k512, load(p + 32, rev));
    a3 = fold(a3, k512, load(p + 48, rev));
    p += 64;
    n -= 64;
  }
  a1 = fold(a0, k128, a1);
  a2 = fold(a1, k128, a2);
  a3 = fold(a2, k128, a3);
  while (n >= 16) {
    a3 = fold(a3, k128, load(p, rev));
    p += 16;
    n -= 16;
  }
  alignas(16) u8 rest[16];
  _mm_store_si128((__m128i *)rest, _mm_shuffle_epi8(a3, rev));
  return update_table(update_table(0, rest, 16), p, n);
}

#endif

u32 update(u32 s, const u8 *p, size_t n) {
#ifdef LL_CRC_X86
  static const bool fast = ll::digest::cpu().pclmul && ll::digest::cpu().ssse3;
  if (fast) return update_pclmul(s, p, n);
#endif
  return update_table(s, p, n);
}

u32 finish(u32 s, u64 len) {
  for (; len; len >>= 8) s = step(s, (u8)len);
  return ~s;
}

}  // namespace

extern "C" {

LL_API void init_posix_crc(uint32_t *state) noexcept { *state = 0; }

LL_API void update_posix_crc(uint32_t *state, const void *buf, uint32_t len) noexcept {
  if (len) *state = update(*state, static_cast<const u8 *>(buf), len);
}

LL_API void final_posix_crc(uint32_t *state, uint32_t len_lo, uint32_t len_hi) noexcept {
  *state = finish(*state, (u64)len_hi << 32 | len_lo);
}

LL_API int crc(int fd, uint32_t *crc_out, uint32_t *len_out) noexcept {
  alignas(64) u8 buf[16384];
  u32 s = 0, total = 0;
  for (;;) {
    const long n = ll::digest::crc_read(fd, buf, sizeof buf);
    if (n < 0) return 1;
    if (n == 0) break;
    s = update(s, buf, (size_t)n);
    total += (u32)n;
  }
  *crc_out = finish(s, total);
  *len_out = total;
  return 0;
}

// Test seam: one update through a chosen path (0 table, 1 carry-less
// multiplication). Returns -1 when this processor lacks the path.
LL_API int llt_update_posix_crc_path(int path, uint32_t *state, const void *buf, uint32_t len) noexcept {
  const u8 *p = static_cast<const u8 *>(buf);
  switch (path) {
    case 0:
      *state = update_table(*state, p, len);
      return 0;
#ifdef LL_CRC_X86
    case 1:
      if (!(ll::digest::cpu().pclmul && ll::digest::cpu().ssse3)) return -1;
      *state = update_pclmul(*state, p, len);
      return 0;
#endif
    default:
      return -1;
  }
}

}  // extern "C"
