// SHA-1 (FIPS 180-1) over a caller-owned context.
//
// Three block functions give the same digest: the portable one (always
// built), one with the message schedule computed four words at a time in
// SSSE3 registers, and one with the processor's SHA instructions. The best
// one present is chosen once per process.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "util/digest_cpu.h"
#include <liblocal/digest.h>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define LL_SHA_X86 1
#endif

namespace {

using u8 = uint8_t;
using u32 = uint32_t;
using u64 = uint64_t;

using BlocksFn = void (*)(u32 h[5], const u8 *p, size_t nblocks);

constexpr u32 K0 = 0x5A827999u, K1 = 0x6ED9EBA1u, K2 = 0x8F1BBCDCu, K3 = 0xCA62C1D6u;

inline u32 rol(u32 x, int n) { return (x << n) | (x >> (32 - n)); }
inline u32 be32(const u8 *p) { return (u32)p[0] << 24 | (u32)p[1] << 16 | (u32)p[2] << 8 | p[3]; }
inline void put_be32(u8 *p, u32 v) {
  p[0] = (u8)(v >> 24);
  p[1] = (u8)(v >> 16);
  p[2] = (u8)(v >> 8);
  p[3] = (u8)v;
}

inline u32 f_ch(u32 b, u32 c, u32 d) { return d ^ (b & (c ^ d)); }
inline u32 f_par(u32 b, u32 c, u32 d) { return b ^ c ^ d; }
inline u32 f_maj(u32 b, u32 c, u32 d) { return (b & c) | (d & (b | c)); }

// ---------------------------------------------------------------- portable

void blocks_portable(u32 h[5], const u8 *p, size_t nblocks) {
  for (; nblocks; --nblocks, p += 64) {
    u32 w[16];
    for (int i = 0; i < 16; ++i) w[i] = be32(p + 4 * i);
    u32 a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
    auto round = [&](u32 f, u32 k, u32 wt) {
      const u32 t = rol(a, 5) + f + e + k + wt;
      e = d;
      d = c;
      c = rol(b, 30);
      b = a;
      a = t;
    };
    auto next = [&](int t) {
      const u32 v = rol(w[(t - 3) & 15] ^ w[(t - 8) & 15] ^ w[(t - 14) & 15] ^ w[t & 15], 1);
      w[t & 15] = v;
      return v;
    };
    for (int t = 0; t < 16; ++t) round(f_ch(b, c, d), K0, w[t]);
    for (int t = 16; t < 20; ++t) round(f_ch(b, c, d), K0, next(t));
    for (int t = 20; t < 40; ++t) round(f_par(b, c, d), K1, next(t));
    for (int t = 40; t < 60; ++t) round(f_maj(b, c, d), K2, next(t));
    for (int t = 60; t < 80; ++t) round(f_par(b, c, d), K3, next(t));
    h[0] += a;
    h[1] += b;
    h[2] += c;
    h[3] += d;
    h[4] += e;
  }
}

#ifdef LL_SHA_X86

// ------------------------------------------------- SSSE3 message schedule

// W[t..t+3] = rol1(W[t-3..t] ^ W[t-8..t-5] ^ W[t-14..t-11] ^ W[t-16..t-13]);
// W[t] is not known when W[t+3] needs it, so lane 3 is computed with 0 in
// its place and corrected with rol1(W[t]) afterwards.
__attribute__((target("ssse3"))) inline __m128i rol1v(__m128i x) {
  return _mm_or_si128(_mm_slli_epi32(x, 1), _mm_srli_epi32(x, 31));
}

__attribute__((target("ssse3"))) void blocks_ssse3(u32 h[5], const u8 *p, size_t nblocks) {
  const __m128i bswap = _mm_set_epi8(12, 13, 14, 15, 8, 9, 10, 11, 4, 5, 6, 7, 0, 1, 2, 3);
  const __m128i k[4] = {_mm_set1_epi32((int)K0), _mm_set1_epi32((int)K1), _mm_set1_epi32((int)K2),
                        _mm_set1_epi32((int)K3)};
  alignas(16) u32 wk[80];
  for (; nblocks; --nblocks, p += 64) {
    __m128i w[20];
    for (int g = 0; g < 4; ++g) {
      w[g] = _mm_shuffle_epi8(_mm_loadu_si128((const __m128i *)(p + 16 * g)), bswap);
      _mm_store_si128((__m128i *)(wk + 4 * g), _mm_add_epi32(w[g], k[0]));
    }
    for (int g = 4; g < 20; ++g) {
      __m128i x = _mm_xor_si128(_mm_srli_si128(w[g - 1], 4), w[g - 2]);
      x = _mm_xor_si128(x, _mm_alignr_epi8(w[g - 3], w[g - 4], 8));
      x = _mm_xor_si128(x, w[g - 4]);
      __m128i r = rol1v(x);
      r = _mm_xor_si128(r, rol1v(_mm_slli_si128(r, 12)));
      w[g] = r;
      _mm_store_si128((__m128i *)(wk + 4 * g), _mm_add_epi32(r, k[g / 5]));
    }
    u32 a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
    auto round = [&](u32 f, u32 wt) {
      const u32 t = rol(a, 5) + f + e + wt;
      e = d;
      d = c;
      c = rol(b, 30);
      b = a;
      a = t;
    };
    for (int t = 0; t < 20; ++t) round(f_ch(b, c, d), wk[t]);
    for (int t = 20; t < 40; ++t) round(f_par(b, c, d), wk[t]);
    for (int t = 40; t < 60; ++t) round(f_maj(b, c, d), wk[t]);
    for (int t = 60; t < 80; ++t) round(f_par(b, c, d), wk[t]);
    h[0] += a;
    h[1] += b;
    h[2] += c;
    h[3] += d;
    h[4] += e;
  }
}

// ---------------------------------------------------- SHA instructions

// Four rounds per sha1rnds4; E for the next four is derived from A of the
// four before (sha1nexte). Message words four at a time, W0 in the top lane:
// W[g] = msg2(msg1(W[g-4], W[g-3]) ^ W[g-2], W[g-1]).
#define LL_SHA_GROUP(g, F)                                                                              \
  do {                                                                                                  \
    if ((g) >= 4)                                                                                       \
      m[(g) & 3] = _mm_sha1msg2_epu32(                                                                  \
          _mm_xor_si128(_mm_sha1msg1_epu32(m[(g) & 3], m[((g) + 1) & 3]), m[((g) + 2) & 3]),            \
          m[((g) + 3) & 3]);                                                                            \
    const __m128i ein = (g) == 0 ? _mm_add_epi32(e0, m[0]) : _mm_sha1nexte_epu32(esave, m[(g) & 3]);     \
    esave = abcd;                                                                                       \
    abcd = _mm_sha1rnds4_epu32(abcd, ein, F);                                                           \
  } while (0)

__attribute__((target("sha,ssse3,sse4.1"))) void blocks_shani(u32 h[5], const u8 *p, size_t nblocks) {
  const __m128i rev = _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  __m128i abcd = _mm_shuffle_epi32(_mm_loadu_si128((const __m128i *)h), 0x1B);
  __m128i e0 = _mm_set_epi32((int)h[4], 0, 0, 0);
  for (; nblocks; --nblocks, p += 64) {
    const __m128i abcd_save = abcd, e_save = e0;
    __m128i m[4];
    for (int i = 0; i < 4; ++i) m[i] = _mm_shuffle_epi8(_mm_loadu_si128((const __m128i *)(p + 16 * i)), rev);
    __m128i esave = abcd;
    LL_SHA_GROUP(0, 0);
    LL_SHA_GROUP(1, 0);
    LL_SHA_GROUP(2, 0);
    LL_SHA_GROUP(3, 0);
    LL_SHA_GROUP(4, 0);
    LL_SHA_GROUP(5, 1);
    LL_SHA_GROUP(6, 1);
    LL_SHA_GROUP(7, 1);
    LL_SHA_GROUP(8, 1);
    LL_SHA_GROUP(9, 1);
    LL_SHA_GROUP(10, 2);
    LL_SHA_GROUP(11, 2);
    LL_SHA_GROUP(12, 2);
    LL_SHA_GROUP(13, 2);
    LL_SHA_GROUP(14, 2);
    LL_SHA_GROUP(15, 3);
    LL_SHA_GROUP(16, 3);
    LL_SHA_GROUP(17, 3);
    LL_SHA_GROUP(18, 3);
    LL_SHA_GROUP(19, 3);
    e0 = _mm_sha1nexte_epu32(esave, e_save);
    abcd = _mm_add_epi32(abcd, abcd_save);
  }
  _mm_storeu_si128((__m128i *)h, _mm_shuffle_epi32(abcd, 0x1B));
  h[4] = (u32)_mm_extract_epi32(e0, 3);
}
#undef LL_SHA_GROUP

#endif

BlocksFn pick() {
#ifdef LL_SHA_X86
  const auto &c = ll::digest::cpu();
  if (c.sha && c.ssse3 && c.sse41) return blocks_shani;
  if (c.ssse3) return blocks_ssse3;
#endif
  return blocks_portable;
}

BlocksFn best() {
  static const BlocksFn fn = pick();
  return fn;
}

int update(sha_ctx *ctx, const u8 *p, size_t len, BlocksFn blocks) {
  const u32 lo = ctx->count_lo + (u32)(len << 3);
  if (lo < ctx->count_lo) ++ctx->count_hi;
  ctx->count_lo = lo;
  ctx->count_hi += (u32)((u64)len >> 29);
  u8 *buf = reinterpret_cast<u8 *>(ctx->data);
  size_t local = (size_t)ctx->local & 63;
  if (local) {
    const size_t fill = 64 - local;
    if (len < fill) {
      std::memcpy(buf + local, p, len);
      ctx->local = (int)(local + len);
      return ctx->local;
    }
    std::memcpy(buf + local, p, fill);
    blocks(ctx->digest, buf, 1);
    p += fill;
    len -= fill;
  }
  if (len >= 64) {
    blocks(ctx->digest, p, len / 64);
    p += len & ~(size_t)63;
    len &= 63;
  }
  if (len) std::memcpy(buf, p, len);
  ctx->local = (int)len;
  return ctx->local;
}

void final(unsigned char *digest, sha_ctx *ctx, BlocksFn blocks) {
  u8 *buf = reinterpret_cast<u8 *>(ctx->data);
  unsigned pos = (ctx->count_lo >> 3) & 63;
  buf[pos++] = 0x80;
  if (pos > 56) {
    std::memset(buf + pos, 0, 64 - pos);
    blocks(ctx->digest, buf, 1);
    std::memset(buf, 0, 56);
  } else {
    std::memset(buf + pos, 0, 56 - pos);
  }
  put_be32(buf + 56, ctx->count_hi);
  put_be32(buf + 60, ctx->count_lo);
  blocks(ctx->digest, buf, 1);
  for (int i = 0; i < 5; ++i) put_be32(digest + 4 * i, ctx->digest[i]);
}

BlocksFn path_fn(int path) {
  switch (path) {
    case 0:
      return blocks_portable;
#ifdef LL_SHA_X86
    case 1:
      return ll::digest::cpu().ssse3 ? blocks_ssse3 : nullptr;
    case 2: {
      const auto &c = ll::digest::cpu();
      return c.sha && c.ssse3 && c.sse41 ? blocks_shani : nullptr;
    }
#endif
    default:
      return nullptr;
  }
}

}  // namespace

extern "C" {

LL_API void sha_init(sha_ctx *ctx) noexcept {
  ctx->digest[0] = 0x67452301u;
  ctx->digest[1] = 0xEFCDAB89u;
  ctx->digest[2] = 0x98BADCFEu;
  ctx->digest[3] = 0x10325476u;
  ctx->digest[4] = 0xC3D2E1F0u;
  ctx->count_lo = ctx->count_hi = 0;
  ctx->local = 0;
}

LL_API int sha_update(sha_ctx *ctx, const void *buf, size_t len) noexcept {
  return update(ctx, static_cast<const u8 *>(buf), len, best());
}

LL_API void sha_final(unsigned char digest[20], sha_ctx *ctx) noexcept { final(digest, ctx, best()); }

LL_API void sha_stream(unsigned char digest[20], sha_ctx *ctx, FILE *stream) noexcept {
  unsigned char buf[8192];
  sha_init(ctx);
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, stream)) > 0) sha_update(ctx, buf, n);
  sha_final(digest, ctx);
}

LL_API char *sha_to_string(const unsigned char digest[20], char *text) noexcept {
  static constexpr char hex[] = "0123456789abcdef";
  char *o = text;
  for (int i = 0; i < 20; ++i) {
    if (i && i % 4 == 0) *o++ = ' ';
    *o++ = hex[digest[i] >> 4];
    *o++ = hex[digest[i] & 15];
  }
  *o = '\0';
  return text;
}

// Test seams: update and final through a chosen block function (0 portable,
// 1 SSSE3 schedule, 2 SHA instructions); -1 when this processor lacks it.
LL_API int llt_sha_update_path(int path, sha_ctx *ctx, const void *buf, size_t len) noexcept {
  const BlocksFn fn = path_fn(path);
  return fn ? update(ctx, static_cast<const u8 *>(buf), len, fn) : -1;
}

LL_API int llt_sha_final_path(int path, unsigned char digest[20], sha_ctx *ctx) noexcept {
  const BlocksFn fn = path_fn(path);
  if (!fn) return -1;
  final(digest, ctx, fn);
  return 0;
}

}  // extern "C"
