/*
 * liblocal/codec.h - block compressor and LZW decoder.
 *
 * cv_compress / cv_decompress: a fast dictionary coder for one memory block.
 * The compressed block carries no header, no length and no "stored" flag: the
 * caller keeps both lengths and keeps a block raw when cv_compress refuses it.
 *
 * dcmprss: decoder for the 12-bit, block-mode LZW code stream of the classic
 * Unix compress tool, given without its three-byte file header.
 */
#ifndef LIBLOCAL_CODEC_H
#define LIBLOCAL_CODEC_H

#include "export.h"

LL_BEGIN_DECLS

/* Compresses src_len bytes of src into dst (dst_len bytes). Returns the
 * compressed length (at most src_len), or -1 when the block is refused:
 * src_len <= 34, dst_len <= src_len + 34, or the data does not shrink. */
LL_API int cv_compress(const void *src, void *dst, uint32_t src_len, uint32_t dst_len) LL_NOEXCEPT;

/* Decompresses a block made by cv_compress. Note the argument order: each
 * length follows its own buffer. dst_len must be at least 288 bytes larger
 * than the data expected (the limit is checked between groups of items).
 * Returns the decompressed length, or -1 for malformed or oversized input. */
LL_API int cv_decompress(const void *src, uint32_t src_len, void *dst, uint32_t dst_len) LL_NOEXCEPT;

/* Decodes a compress-tool LZW stream (12-bit codes, block mode, no header).
 * Returns the number of bytes the stream decodes to as far as dst holds them;
 * when dst_len is too small, the output stops at dst_len bytes and the result
 * exceeds dst_len. 0 when dst_len < 1 or the input holds no code. */
LL_API int dcmprss(const void *src, int src_len, void *dst, int dst_len) LL_NOEXCEPT;

LL_END_DECLS

#endif
