/*
 * liblocal/digest.h - POSIX cksum CRC and SHA-1.
 *
 * The CRC is the one of the POSIX cksum utility: CRC-32 with polynomial
 * 0x04C11DB7, most significant bit first, starting from 0, with the length
 * folded in and the result complemented. A value computed here equals what
 * cksum prints for the same bytes.
 */
#ifndef LIBLOCAL_DIGEST_H
#define LIBLOCAL_DIGEST_H

#include <stdio.h>

#include "export.h"

LL_BEGIN_DECLS

/* Incremental CRC over a caller-owned state word:
 *   init_posix_crc(&s); update_posix_crc(&s, buf, n)...;
 *   final_posix_crc(&s, total_lo, total_hi);   -> s is the cksum value
 * final_posix_crc takes the total byte count as a 64-bit value. */
LL_API void init_posix_crc(uint32_t *state) LL_NOEXCEPT;
LL_API void update_posix_crc(uint32_t *state, const void *buf, uint32_t len) LL_NOEXCEPT;
LL_API void final_posix_crc(uint32_t *state, uint32_t len_lo, uint32_t len_hi) LL_NOEXCEPT;

/* Reads the open descriptor fd from its current position to its end and
 * stores the cksum value and the byte count (modulo 2^32). Returns 0, or 1
 * when a read fails (nothing is stored then). */
LL_API int crc(int fd, uint32_t *crc_out, uint32_t *len_out) LL_NOEXCEPT;

/* SHA-1 context, owned by the caller. */
typedef struct sha_ctx {
  uint32_t digest[5];   /* h0..h4 */
  uint32_t count_lo;    /* message length in bits, low word */
  uint32_t count_hi;    /* and high word */
  uint32_t data[16];    /* 64-byte block buffer */
  int local;            /* bytes waiting in the buffer (0..63) */
} sha_ctx;

#define SHA_DIGEST_SIZE 20
#define SHA_TEXT_SIZE 45   /* 44 characters and the terminating NUL */

LL_API void sha_init(sha_ctx *ctx) LL_NOEXCEPT;
/* Returns the number of bytes left waiting in the context's buffer. */
LL_API int sha_update(sha_ctx *ctx, const void *buf, size_t len) LL_NOEXCEPT;
LL_API void sha_final(unsigned char digest[20], sha_ctx *ctx) LL_NOEXCEPT;
/* Digest of the rest of a standard-I/O stream (read in 8192-byte blocks; a
 * read error ends the input). */
LL_API void sha_stream(unsigned char digest[20], sha_ctx *ctx, FILE *stream) LL_NOEXCEPT;
/* Text form: five groups of 8 lowercase hex digits separated by one blank,
 * 44 characters and a NUL; text must hold at least 45 bytes. Returns text. */
LL_API char *sha_to_string(const unsigned char digest[20], char *text) LL_NOEXCEPT;

LL_END_DECLS

#endif
