/*
 * liblocal/msgtag.h - message tags: " [" <first> "0" <second> "]" at the end
 * of a text, two numbers (usually catalog set and number) in the tag digits
 * "1"-"9", "A"-"W" (values 0 to 31, most significant first; 0 is written as
 * no digits, a negative number as "Z"). A tag of two 32-bit numbers takes at
 * most 18 characters.
 */
#ifndef LIBLOCAL_MSGTAG_H
#define LIBLOCAL_MSGTAG_H

#include "export.h"

LL_BEGIN_DECLS

/* Appends the tag of (first, second) to 'text' (room for 18 more bytes
 * needed). Returns 0. */
LL_API int append_msg_suffix(char *text, int first, int second) LL_NOEXCEPT;
/* Reads the two numbers of a tag from the text just after " ["; 0, or -1
 * when it is not a tag. The out pointers may be null. */
LL_API int extract_msg_suffix(const char *tag, int *first, int *second) LL_NOEXCEPT;
/* Value of tag digits up to the end, a "0" or a "]"; 0 for null. */
LL_API int from_base32(const char *s) LL_NOEXCEPT;
/* The first tag in the text (its blank), or null. */
LL_API char *strmsg(const char *s) LL_NOEXCEPT;
/* Removes the text's tags (a tag at the very start is kept). Returns s. */
LL_API char *strip_msg_ids(char *s) LL_NOEXCEPT;
/* Joins the text's tags into one tag placed before its trailing white space
 * (at most 100 characters of tags are kept). The text never grows. */
LL_API char *gather_msg_ids(char *s) LL_NOEXCEPT;

/* Comparisons that skip tags on either side. */
LL_API int qzstrcmp(const char *a, const char *b) LL_NOEXCEPT;
LL_API int qzstricmp(const char *a, const char *b) LL_NOEXCEPT;
LL_API int qzstrncmp(const char *a, const char *b, size_t n) LL_NOEXCEPT;
LL_API int qzstrnicmp(const char *a, const char *b, size_t n) LL_NOEXCEPT;

LL_END_DECLS

#endif
