/*
 * liblocal/qztime.h - 64-bit time values and time formats.
 *
 * A time value is a signed 64-bit count of seconds since 1970-01-01 00:00
 * UTC, kept as two 32-bit words (low word first). The value with low word
 * 0x7FFFFFFF and high word 0 means "forever": it never expires, compares after
 * every real time, and no real time produced by the library equals it.
 *
 * A time offset is an unsigned 32-bit count of seconds after a base time;
 * 0xFFFFFFFF is forever. A 32-bit time is signed; 0x7FFFFFFF is forever.
 *
 * Text forms write into the caller's buffer; a null buffer selects a buffer
 * of that function owned by the calling thread, overwritten by its next call
 * in the same thread. QZ_TIMETEXT_SIZE bytes are enough for every form.
 */
#ifndef LIBLOCAL_QZTIME_H
#define LIBLOCAL_QZTIME_H

#include "export.h"

#include <time.h>
/* struct timeval and the C library's gettimeofday */
#include <sys/time.h>

LL_BEGIN_DECLS

typedef struct qz_time64 {
  uint32_t low;
  int32_t high;
} qz_time64_t;

#define QZ_FOREVER_TIME32 0x7FFFFFFF
#define QZ_FOREVER_OFFSET 0xFFFFFFFFu
/* Buffer size for every text form (the localised ones need the most). */
#define QZ_TIMETEXT_SIZE 600

/* The DOS epoch as a directory-listing date: " 1-01-80 12:00a". */
LL_API extern const char DOS_Epoch[];

/* Conversions */
LL_API qz_time64_t qz_time(qz_time64_t *out) LL_NOEXCEPT;
LL_API struct tm *qz_localtime(qz_time64_t t) LL_NOEXCEPT;
LL_API qz_time64_t qz_mktime(struct tm *tm) LL_NOEXCEPT;
LL_API int qz_is_forever_time(qz_time64_t t) LL_NOEXCEPT;
LL_API int qz_is_forever_timeoffset(uint32_t offset) LL_NOEXCEPT;
LL_API uint32_t qz_time64_to_offset(qz_time64_t t, int32_t base) LL_NOEXCEPT;
LL_API qz_time64_t qz_timeoffset_to_64(uint32_t offset, qz_time64_t base) LL_NOEXCEPT;
LL_API int32_t qz_time64_to_32(qz_time64_t t) LL_NOEXCEPT;
LL_API int qz_time_cmp(qz_time64_t a, qz_time64_t b) LL_NOEXCEPT;
/* b - a, borrowing a second when a's microseconds exceed b's. */
LL_API struct timeval timeval_diff(struct timeval a, struct timeval b) LL_NOEXCEPT;

/* One-second resolution by design: tv_usec is always 0; tz is ignored. */
#define gettimeofday ll_gettimeofday
LL_API int gettimeofday(struct timeval *tv, void *tz) LL_NOEXCEPT;

/* Local time of a 32-bit time; times below 1 give a fixed record of
 * 1970-01-01 00:00:00 (Thursday, no daylight saving) in every zone. */
LL_API struct tm *pc_localtime(const int32_t *t32) LL_NOEXCEPT;
/* ctime text ("Thu Jan 01 01:00:00 1970\n"); 24 blanks and a newline for a
 * time without a local time. */
LL_API char *pc_ctime(const int32_t *t32) LL_NOEXCEPT;
/* Seconds east of UTC for the record (null: the local time now). */
LL_API long seceastgmt(const struct tm *tm) LL_NOEXCEPT;
/* The name of the zone in force now (daylight or standard). */
LL_API const char *qzettzname(void) LL_NOEXCEPT;
/* strftime with a UTF-8 format and a UTF-8 result; returns strlen(buf). */
LL_API size_t qzstrftime(char *buf, size_t size, const char *format, const struct tm *tm) LL_NOEXCEPT;

/* Fixed text forms */
LL_API char *short_time(qz_time64_t t, char *buf) LL_NOEXCEPT;
LL_API char *long_time(qz_time64_t t, char *buf) LL_NOEXCEPT;
LL_API char *nctime(qz_time64_t t, char *buf) LL_NOEXCEPT;
LL_API char *gmt_ctime(qz_time64_t t, char *buf) LL_NOEXCEPT;
LL_API char *day_hm(qz_time64_t t, char *buf) LL_NOEXCEPT;
LL_API char *dtime(const int32_t *t32, char *buf) LL_NOEXCEPT;

/* Localised text forms (message catalog of the library, set 17) */
LL_API char *i18n_nctime(qz_time64_t t, char *buf) LL_NOEXCEPT;
LL_API char *i18n_day_hm(qz_time64_t t, char *buf) LL_NOEXCEPT;
LL_API char *i18n_long_time(qz_time64_t t, char *buf) LL_NOEXCEPT;
LL_API char *i18n_short_time(qz_time64_t t, char *buf) LL_NOEXCEPT;
LL_API char *i18n_time_only(qz_time64_t t, char *buf) LL_NOEXCEPT;
LL_API char *i18n_gmt_ctime(qz_time64_t t, char *buf) LL_NOEXCEPT;

LL_END_DECLS

#endif
