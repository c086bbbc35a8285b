/*
 * liblocal/quote.h - quoting and tokenising of command lines.
 *
 * The trimming routines (remove_buffering_space, ...) are in strutil.h.
 */
#ifndef LIBLOCAL_QUOTE_H
#define LIBLOCAL_QUOTE_H

#include "export.h"
#include "errrec.h"

LL_BEGIN_DECLS

/* Octal escaping for 7-bit channels: every byte of 128 or more becomes a
 * backslash and three octal digits. At most 'size' bytes are written,
 * terminator included (nothing at all for size 0). Returns dst. */
LL_API char *quotegets(char *dst, const char *src, size_t size) LL_NOEXCEPT;
/* The reverse: a backslash and three decimal digits d1 d2 d3 become the byte
 * 64*d1 + 8*d2 + d3 (mod 256); everything else is copied. At most 'size'
 * bytes are written, terminator included. Returns dst. */
LL_API char *unquotegets(char *dst, const char *src, size_t size) LL_NOEXCEPT;

/* Splits 'str' in place into words with shell-like quoting. The vector (a
 * null-terminated array pointing into 'str', allocated with malloc; the
 * caller frees it) and the count are stored through the out pointers.
 * 'delims' replaces the default delimiter set " \t)\n" for unquoted words
 * (null: the default). 'unixmode' nonzero: POSIX-shell escapes; 0: the
 * Windows command-line rules. Returns null, or the thread's error record
 * when memory runs out. */
LL_API qzerror *tokenize(char *str, int *count, char ***vector, const char *delims, int unixmode) LL_NOEXCEPT;

/* Joins a null-terminated word vector into one command line that the
 * Windows C runtime (unixmode 0) or a POSIX shell (unixmode nonzero) splits
 * back into the same words. With a null 'buf' the result is allocated with
 * malloc (the caller frees it) and 'size' is ignored. Null for an empty
 * vector, a buffer that is too small, or no memory. */
LL_API char *command_string(char **argv, int unixmode, char *buf, size_t size) LL_NOEXCEPT;

/* Appends 'word' (the pointer, not a copy) to a growable vector; the vector
 * is malloc memory and is not null-terminated. 1, or 0 with errno 12. */
LL_API int qz_add_argv(int *count, char ***vector, char *word) LL_NOEXCEPT;

LL_END_DECLS

#endif
