/*
 * liblocal/utf8.h - UTF-8, 16-bit wide characters and the code pages.
 *
 * All text inside the library is UTF-8 (the original 1-to-6-byte coding).
 * Whole-text conversions never fail: anything that cannot be converted
 * becomes '|' and the conversion goes on. Only the single-sequence calls
 * report invalid input (-1).
 *
 * The ANSI side is the Windows ANSI code page, or on POSIX the multibyte
 * encoding of the current locale (LC_CTYPE); the OEM side is the console code
 * page, or on POSIX the terminal's (the same locale encoding).
 */
#ifndef LIBLOCAL_UTF8_H
#define LIBLOCAL_UTF8_H

#include "export.h"

LL_BEGIN_DECLS

/* Decodes one sequence of at most n bytes: its length, 0 at the terminator
 * (or for a null text), -1 when invalid. The value is stored in 16 bits. */
LL_API int utf8_mbtowc(qzwchar_t *out, const char *s, size_t n) LL_NOEXCEPT;
/* Encodes one character (1 to 3 bytes); 0 for a null buffer. */
LL_API int utf8_wctomb(char *out, qzwchar_t wc) LL_NOEXCEPT;
LL_API int utf8_mblen(const char *s, size_t n) LL_NOEXCEPT;
/* Characters in s; 0 for null or empty; -1 at the first invalid sequence. */
LL_API int utf8_mbslen(const char *s) LL_NOEXCEPT;

/* Wide to UTF-8, at most 'size' bytes plus the terminator when out is given
 * (null measures); returns the bytes produced. */
LL_API size_t utf8_wcstombs(char *out, const qzwchar_t *wide, size_t size) LL_NOEXCEPT;
/* UTF-8 to wide, at most 'count' characters plus the terminator. */
LL_API size_t utf8_mbstowcs(qzwchar_t *out, const char *s, size_t count) LL_NOEXCEPT;
/* ANSI text to UTF-8 (out may be null to measure). */
LL_API size_t utf8_mbs(char *out, const char *s, size_t size) LL_NOEXCEPT;
/* UTF-8 to ANSI text. */
LL_API size_t ansi_mbs(char *out, const char *s, size_t size) LL_NOEXCEPT;
/* Length in characters as the ANSI side counts them; -1 when invalid. */
LL_API int ansi_mbslen(const char *s) LL_NOEXCEPT;

/* Convenience forms: 1 on success, 0 on failure (null arguments). */
LL_API int widetoutf8(const qzwchar_t *wide, char *out, size_t size) LL_NOEXCEPT;
/* 'wide' must hold strlen(s) + 1 characters. */
LL_API int utf8towide(const char *s, qzwchar_t *wide) LL_NOEXCEPT;
/* ANSI text to UTF-8 in 'out' of 'size' bytes. */
LL_API int asciitoutf8(const char *s, char *out, size_t size) LL_NOEXCEPT;

/* Console (OEM) conversions. oem_to_utf8 gives an empty result on failure;
 * utf8_to_oem returns the bytes produced or -1. */
LL_API int oem_to_utf8(const char *s, char *out, size_t size) LL_NOEXCEPT;
LL_API int utf8_to_oem(const char *s, char *out, size_t size) LL_NOEXCEPT;

/* UTF-8 to ANSI text for display, tolerant of text that is not UTF-8: a
 * byte that does not begin a valid sequence is copied as it stands (taken to
 * be in the ANSI code page already); a character with no ANSI form becomes
 * '|'. At most size bytes are written, terminator included (out may be null
 * to measure); returns the bytes produced. */
LL_API size_t ansi_mbs_tolerance(char *out, const char *s, size_t size) LL_NOEXCEPT;

/* A UTF-8 path in the wide form the platform's wide file calls take, in
 * 'wide' (count characters, terminator included); returns its length. On
 * Windows of the NT kind a path that is neither a device ("\\.\x") nor
 * already long is made absolute and given "\\?\", a network share
 * ("\\host\share\...") "\\?\UNC\host\share\..." so that names past the
 * classic length limit work; elsewhere the name is converted as it stands.
 * -1 with errno: EINVAL for null, empty or invalid UTF-8, ENAMETOOLONG when
 * the result does not fit. */
LL_API int utf8towidepath(const char *path, qzwchar_t *wide, size_t count) LL_NOEXCEPT;

LL_API const char *get_utf8_codeset(void) LL_NOEXCEPT;
LL_API const char *get_ansi_codeset(void) LL_NOEXCEPT;

LL_END_DECLS

#endif
