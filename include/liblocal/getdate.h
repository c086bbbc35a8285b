/*
 * liblocal/getdate.h - date expressions.
 *
 * The expressions an administrator types for a point in time: absolute
 * dates and times (dates in the order of the user's locale, ISO dates,
 * month names), relative items ("now", "today", "yesterday", "tomorrow",
 * "3 days ago", "last week", "next month", "+2 hours"), weekday names,
 * "noon", "midnight", "@seconds" and "forever". The grammar is described in
 * docs/getdate.md. Local times are those of the process's time zone.
 */
#ifndef LIBLOCAL_GETDATE_H
#define LIBLOCAL_GETDATE_H

#include "export.h"
#include "qztime.h"

LL_BEGIN_DECLS

/* Parses 'text' relative to 'base' into *out. Returns 0, or -1 with errno set
 * to EINVAL (and *out untouched) when the text is not a valid expression. */
LL_API int bsw_getdate(const char *text, qz_time64_t base, qz_time64_t *out) LL_NOEXCEPT;

/* The first time after 'base' at which a recurring expression ("22:00",
 * "every day at 10pm", "every monday 03:00", "every month on the 1st") comes
 * round, into *out. Returns 0, or -1 with errno EINVAL. */
LL_API int bsw_getrecurringdate(const char *text, qz_time64_t base, qz_time64_t *out) LL_NOEXCEPT;

/* The last second of the local day that holds t (forever stays forever; a
 * time without a local time is returned unchanged). */
LL_API qz_time64_t bsw_getendofday(qz_time64_t t) LL_NOEXCEPT;

/* Writes t in a form bsw_getdate reads back to the same time:
 * "2024-07-03 11:46:40 +0200", "forever", or "@seconds" for a time without a
 * local time. A null buf selects a buffer of the calling thread; at most
 * 'size' bytes are written (terminator included). Returns buf. */
LL_API char *bsw_putdate(qz_time64_t t, char *buf, size_t size) LL_NOEXCEPT;

LL_END_DECLS

#endif
