/*
 * liblocal/bitmap.h - growable bitmaps.
 *
 * Bit i is bit (i mod 32) of word (i div 32). The array has (size + 31) div
 * 32 words; the bits past size in the last word are padding, and the
 * operations do not mask them: a search may answer an index at or beyond
 * size, so callers compare results with size.
 *
 * Every change (set, clr, set_all, clr_all and the bit-by-bit part of grow)
 * ORs dirty_mask into *dirty when dirty is not null, so that a caller can
 * learn cheaply that the bitmap must be written back.
 */
#ifndef LIBLOCAL_BITMAP_H
#define LIBLOCAL_BITMAP_H

#include "export.h"

LL_BEGIN_DECLS

#define QZBITMAP_OWNS_BITS 0x1u /* flags: the library allocated the array */
#define QZBITMAP_NONE 0xFFFFFFFFu /* no high-water mark; not found */

typedef struct qzbitmap {
  uint32_t flags;      /* QZBITMAP_OWNS_BITS */
  uint32_t dirty_mask; /* ORed into *dirty on every change */
  uint32_t *dirty;     /* the caller's changed word, or null */
  uint32_t size;       /* number of bits */
  uint32_t hwm;        /* highest bit set so far, QZBITMAP_NONE for none */
  uint32_t *bits;      /* (size + 31) / 32 words */
} qzbitmap;

/* A new bitmap (never null). With bits null an array is allocated (one word
 * at least) and owned; otherwise the caller's array is used. fill 1 leaves
 * the words as they are (an allocated array starts cleared); any other fill
 * stores its low byte in every byte. The high-water mark starts at none. */
LL_API qzbitmap *qzbitmap_new(uint32_t size, uint32_t *bits, int fill, uint32_t *dirty,
                              uint32_t dirty_mask) LL_NOEXCEPT;
/* Adds 'added' bits of fill 0 or 255. When the word count changes the array
 * is replaced and the old one freed, even when it was the caller's: a
 * caller's array must not be grown. The new bits in the old last word are
 * set or cleared one by one (moving the mark, marking dirty); whole new words
 * are filled without either. */
LL_API void qzbitmap_grow(qzbitmap *map, uint32_t added, int fill) LL_NOEXCEPT;
/* Frees the record (and the array when owned) and sets *map to null. */
LL_API void qzbitmap_free(qzbitmap **map) LL_NOEXCEPT;

/* No bounds tests on the index in these three. */
LL_API int qzbitmap_isset(const qzbitmap *map, uint32_t index) LL_NOEXCEPT;
LL_API void qzbitmap_set(qzbitmap *map, uint32_t index) LL_NOEXCEPT;
/* Clears a bit; the high-water mark is not lowered. */
LL_API void qzbitmap_clr(qzbitmap *map, uint32_t index) LL_NOEXCEPT;
LL_API void qzbitmap_set_all(qzbitmap *map) LL_NOEXCEPT;
LL_API void qzbitmap_clr_all(qzbitmap *map) LL_NOEXCEPT;

/* First set bit at or after start; size + 1 when start >= size, and
 * QZBITMAP_NONE when there is none. */
LL_API uint32_t qzbitmap_next_set(const qzbitmap *map, uint32_t start) LL_NOEXCEPT;
/* First clear bit at or after start; QZBITMAP_NONE when start >= size or
 * there is none. */
LL_API uint32_t qzbitmap_next_clr(const qzbitmap *map, uint32_t start) LL_NOEXCEPT;
/* Recomputes the mark as the highest set bit below size and returns it. */
LL_API uint32_t qzbitmap_sethwm(qzbitmap *map) LL_NOEXCEPT;

LL_END_DECLS

#endif
