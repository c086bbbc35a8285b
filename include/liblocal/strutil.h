/*
 * liblocal/strutil.h - string utilities: hashing, case folding, 64-bit number
 * texts and parsers, percentages, trimming, searching and joining.
 */
#ifndef LIBLOCAL_STRUTIL_H
#define LIBLOCAL_STRUTIL_H

#include "export.h"

LL_BEGIN_DECLS

/* h = seed; h = h * 231 + c for each character (A-Z folded to a-z), 32-bit
 * unsigned. A null or empty text gives the seed; a hash of 0 becomes 1. */
LL_API unsigned int hashstr(const char *s, unsigned int seed) LL_NOEXCEPT;

/* Folds A-Z to a-z up to the first message tag (none when the text begins
 * with one). Returns s. */
LL_API char *lcase(char *s) LL_NOEXCEPT;
/* Folds a-z to A-Z over the whole text. Returns s. */
LL_API char *ucase(char *s) LL_NOEXCEPT;

/* Number texts in a process-wide ring of 20 buffers of 65 bytes: a text
 * stays valid for the next 19 such calls of the process. Hexadecimal uses
 * lower-case digits and no prefix. */
LL_API char *qz_uint64str(uint64_t n) LL_NOEXCEPT;
LL_API char *qz_uint64xstr(uint64_t n) LL_NOEXCEPT;
LL_API char *qz_int64str(int64_t n) LL_NOEXCEPT;
/* The same into the caller's buffer of at least 65 bytes; the digits are
 * written backwards from its end, so the result need not be 'buf' itself.
 * A null buffer gives null. */
LL_API char *qz_uint64str_buf(char *buf, uint64_t n) LL_NOEXCEPT;
LL_API char *qz_int64str_buf(char *buf, int64_t n) LL_NOEXCEPT;

/* 64-bit parsers. 'end' and 'error' may be null. Base 0 chooses 16 for a
 * "0x" prefix, 8 for a leading 0 and 10 otherwise; base 16 accepts "0x".
 * Error codes: 0, 22 (no digits, bad base: result 0), 34 (out of range).
 * qz_strtoui64 gives 0 and 34 for a negative text and saturates at the
 * largest value; qz_strtoi64 saturates at the end of the range of its sign. */
LL_API uint64_t qz_strtoui64(const char *s, char **end, int base, int *error) LL_NOEXCEPT;
LL_API int64_t qz_strtoi64(const char *s, char **end, int base, int *error) LL_NOEXCEPT;

/* 100 * part / whole without overflow; whole 0 gives 0xFFFFFFFF. */
LL_API unsigned int safe_percent(unsigned int part, unsigned int whole) LL_NOEXCEPT;

/* Trimming in place. remove_enclosing_quotes removes one pair of equal
 * enclosing quotes (double, single or back quote); remove_buffering_space
 * removes leading and trailing white space; the combined routine does both
 * when the text is a quoted text with only white space around it. Each gives
 * 1 for a null text, else 0. */
LL_API int remove_enclosing_quotes(char *s) LL_NOEXCEPT;
LL_API int remove_buffering_space(char *s) LL_NOEXCEPT;
LL_API int remove_buffering_space_and_enclosing_quotes(char *s) LL_NOEXCEPT;
/* 1 when the text is empty (or null) or only white space. */
LL_API int all_whitespace(const char *s) LL_NOEXCEPT;

/* First occurrence of needle in haystack ignoring case, or null. */
LL_API char *stristr(const char *haystack, const char *needle) LL_NOEXCEPT;

/* Joins a null-terminated list of texts, with 'separator' between them when
 * it is not 0. With a null buffer the result is allocated (xmalloc, exactly
 * the size needed; the caller frees it). */
LL_API char *qz_strvcat(char *buf, char **list, int separator) LL_NOEXCEPT;
LL_API char *qz_argvcat(char *buf, int count, char **texts, int separator) LL_NOEXCEPT;

/* strcpy returning the terminator written in dst. */
LL_API char *endstrcpy(char *dst, const char *src) LL_NOEXCEPT;
/* Copies at most n bytes, stopping after the terminator; returns the
 * terminator, or dst + n when none was copied (nothing is then terminated). */
LL_API char *endstrncpy(char *dst, const char *src, size_t n) LL_NOEXCEPT;

LL_END_DECLS

#endif
