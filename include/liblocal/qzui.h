/*
 * liblocal/qzui.h - 20-byte unique identifiers.
 *
 * Words, each in network byte order: 0 type, 1 private value, 2 creation
 * time (low 32 bits), 3 counter (high 16 bits) and time bits 32..47 (low 16
 * bits), 4 the creating host's IPv4 address. Type 1 identifiers are plain
 * numbers (only the private value counts); type 9 is made by
 * qzui_create_special; types 2 and 3 compare equal across hosts.
 *
 * Text forms: the private value in decimal for types 0, 1 and 0xFFFFFFFF
 * (and for 2, 3, 5, 6 and 9 unless the long form is forced); otherwise the
 * 53-character long form "cccccccc-wwwwwwww-wwwwwwww-wwwwwwww-wwwwwwww-wwwwwwww"
 * whose first group is the POSIX cksum CRC of the 20 bytes.
 *
 * A null identifier pointer is no identifier: it is neither the zero nor the
 * "not" identifier and sorts before every identifier.
 */
#ifndef LIBLOCAL_QZUI_H
#define LIBLOCAL_QZUI_H

#include "export.h"

LL_BEGIN_DECLS

/* Five 32-bit words in network byte order. */
typedef union qzui {
  unsigned char b[20];
  uint32_t w[5];
} qzui;

LL_API extern const qzui Zero_qzui; /* all bytes 0x00 */
LL_API extern const qzui Not_qzui;  /* all bytes 0xFF: "no identifier" */

#define QZUI_TEXT_SIZE 54 /* the long form and its terminator */

/* A growable array of identifiers. */
typedef struct qz_ids {
  int32_t capacity;
  int32_t count;
  qzui *ids;
} qz_ids;

/* Type 1: words 2..4 zero. Any other type: the current time, the next value
 * of the process's counter (1 for the first identifier, wrapping to 0 after
 * 65535; two threads never get the same value) and this host's address.
 * At most 65536 identifiers of a process carry the same second: a creation
 * beyond that waits for the next second, so that none repeats another.
 * Returns word 4 as stored. */
LL_API uint32_t qzui_create(qzui *id, uint32_t type, uint32_t priv) LL_NOEXCEPT;
/* Type 9 with the private value, the rest zero. */
LL_API void qzui_create_special(qzui *id, uint32_t priv) LL_NOEXCEPT;
/* An identifier of the older form from its parts, host 127.0.0.1. */
LL_API void qzui_create_old(qzui *id, uint32_t type, uint32_t priv, uint32_t word3, uint32_t word2) LL_NOEXCEPT;
/* Word 0 / word 1 in host order; 0 for a null pointer. */
LL_API uint32_t qzui_get_idtype(const qzui *id) LL_NOEXCEPT;
LL_API uint32_t qzui_get_private(const qzui *id) LL_NOEXCEPT;
/* Order: when either is of type 1, by private value (-1, 0, 1); when either
 * is of type 2 or 3, by the first 16 bytes; else by all 20 bytes (the
 * difference of the first differing bytes). */
LL_API int qzui_cmp(const qzui *a, const qzui *b) LL_NOEXCEPT;
LL_API int qzui_is_zeroid(const qzui *id) LL_NOEXCEPT;
LL_API int qzui_is_notid(const qzui *id) LL_NOEXCEPT;
/* The text form into buf (QZUI_TEXT_SIZE bytes), or with a null buf into
 * the next of 20 rotating buffers (a caller may hold 19 earlier results).
 * force non-zero gives the long form for types 2, 3, 5, 6 and 9. */
LL_API char *qzui_to_string(const qzui *id, char *buf, int force) LL_NOEXCEPT;
/* Parses a text form after leading white space: the long form with its CRC
 * checked, or else a whole decimal token (digits ending at the end of text,
 * white space, or a character other than a letter, a digit or '-') up to
 * 4294967295, which gives a type 1 identifier. Returns the identifier's type,
 * or -1 (id untouched). *end (may be null) receives the position after the
 * text read, or after the white space on failure. */
LL_API int string_to_qzui(const char *text, qzui *id, char **end) LL_NOEXCEPT;
/* A new empty array (capacity 5000); never null. */
LL_API qz_ids *alloc_ids(void) LL_NOEXCEPT;
/* Appends a copy (the array grows by 1.4 when full); the new count, or -1
 * for a null argument. */
LL_API int add_id(qz_ids *ids, const qzui *id) LL_NOEXCEPT;
LL_API void free_ids(qz_ids *ids) LL_NOEXCEPT;

LL_END_DECLS

#endif
