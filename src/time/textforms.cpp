// The fixed and the localised text forms of a time.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <liblocal/catalog.h>
#include <liblocal/frame.h>
#include <liblocal/qztime.h>
#include <liblocal/utf8.h>

#include "time/clock.h"
#include "time/timefmt.h"

namespace ll::timefmt {

namespace {

const char *const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
const char *const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

char *pick(char *buf, Form f) noexcept { return buf ? buf : buffers()->form[f]; }

// Formats a short fixed form and copies exactly its text into buf.
char *put(char *buf, const char *fmt, ...) noexcept LL_PRINTF(2, 3);
char *put(char *buf, const char *fmt, ...) noexcept {
  char text[96];
  va_list ap;
  va_start(ap, fmt);
  int n = std::vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  if (n < 0) n = 0;
  if (n >= static_cast<int>(sizeof text)) n = sizeof text - 1;
  std::memcpy(buf, text, static_cast<size_t>(n));
  buf[n] = 0;
  return buf;
}

char *forever_text(char *buf) noexcept {
  std::memcpy(buf, "forever", 8);
  return buf;
}

char *i18n_forever(char *buf) noexcept {
  qzcatgets_buf(buf, QZ_TIMETEXT_SIZE, Catd, 17, 189, "forever");
  return buf;
}

// The asctime layout with a zero-padded day (the layout of the Windows
// runtime, used on every platform). buf holds at least 26 bytes.
void asctime_text(const std::tm &tm, char *buf) noexcept {
  const char *day = tm.tm_wday >= 0 && tm.tm_wday < 7 ? kDays[tm.tm_wday] : "???";
  const char *mon = tm.tm_mon >= 0 && tm.tm_mon < 12 ? kMonths[tm.tm_mon] : "???";
  std::snprintf(buf, 32, "%.3s %.3s %02d %02d:%02d:%02d %d\n", day, mon, tm.tm_mday % 100, tm.tm_hour % 100,
                tm.tm_min % 100, tm.tm_sec % 100, (tm.tm_year + 1900) % 10000);
}

// The localised form of a time through a catalog format; the no-time text
// when the time has no local time.
char *i18n_form(qz_time64_t t, char *buf, int fmt_no, const char *fmt_def, int none_no, const char *none_def) {
  if (is_forever(t)) return i18n_forever(buf);
  std::tm tm;
  if (!local_or_epoch(to64(t), tm)) {
    qzcatgets_buf(buf, QZ_TIMETEXT_SIZE, Catd, 17, none_no, none_def);
    return buf;
  }
  char fmt[QZ_TIMETEXT_SIZE];
  qzcatgets_buf(fmt, sizeof fmt, Catd, 17, fmt_no, fmt_def);
  qzstrftime(buf, QZ_TIMETEXT_SIZE, fmt, &tm);
  return buf;
}

}  // namespace

void ctime_text(int64_t t, char *buf) noexcept {
  std::tm tm;
  if (t < clk::zone_west() || !real_local(t, tm)) {
    std::snprintf(buf, 26, "%24s\n", "");
    return;
  }
  asctime_text(tm, buf);
}

}  // namespace ll::timefmt

using namespace ll::timefmt;

extern "C" {

LL_API size_t qzstrftime(char *buf, size_t size, const char *format, const struct tm *tm) noexcept {
  if (!buf || size == 0) return 0;
  buf[0] = 0;
  if (!format || !tm) return 0;
  char ansi_format[512];
  ansi_mbs(ansi_format, format, sizeof ansi_format);
  char work[600];
  size_t n = std::strftime(work, sizeof work, ansi_format, tm);
  if (n == 0) return 0;
  utf8_mbs(buf, work, size);
  return std::strlen(buf);
}

LL_API char *short_time(qz_time64_t t, char *buf) noexcept {
  buf = pick(buf, kShort);
  if (is_forever(t)) return forever_text(buf);
  std::tm tm;
  if (!local_or_epoch(to64(t), tm))
    return put(buf, "%8.8s", "no date");
  return put(buf, "%2d/%2.2d/%2.2d", tm.tm_mon + 1, tm.tm_mday, (tm.tm_year + 1900) % 100);
}

LL_API char *long_time(qz_time64_t t, char *buf) noexcept {
  buf = pick(buf, kLong);
  if (is_forever(t)) return forever_text(buf);
  std::tm tm;
  if (!local_or_epoch(to64(t), tm))
    return put(buf, "%17.17s", "-----no time-----");
  return put(buf, "%2d/%2.2d/%2.2d %2d:%2.2d:%2.2d", tm.tm_mon + 1, tm.tm_mday, (tm.tm_year + 1900) % 100, tm.tm_hour,
             tm.tm_min, tm.tm_sec);
}

LL_API char *nctime(qz_time64_t t, char *buf) noexcept {
  buf = pick(buf, kNctime);
  if (is_forever(t)) return forever_text(buf);
  char text[32];
  ctime_text(to64(t), text);
  return put(buf, "%.24s", text);
}

LL_API char *gmt_ctime(qz_time64_t t, char *buf) noexcept {
  buf = pick(buf, kGmt);
  if (is_forever(t)) return forever_text(buf);
  std::tm tm;
  if (!real_local(to64(t), tm)) {
    buf[0] = 0;
    return buf;
  }
  char text[32];
  asctime_text(tm, text);
  long east = seconds_east(tm);
  long minutes = (east < 0 ? -east : east) / 60;
  long hours = minutes / 60;
  return put(buf, "%.19s GMT%c%.2d%.2d %.4s", text, east >= 0 ? '+' : '-', static_cast<int>(hours),
             static_cast<int>(minutes - hours * 60), text + 20);
}

LL_API char *day_hm(qz_time64_t t, char *buf) noexcept {
  buf = pick(buf, kDayHm);
  if (is_forever(t)) return forever_text(buf);
  char text[32];
  ctime_text(static_cast<int32_t>(t.low), text);
  return put(buf, "%3.3s %8.8s", text, text + 11);
}

LL_API char *dtime(const int32_t *t32, char *buf) noexcept {
  buf = pick(buf, kDtime);
  if (!t32) {
    std::strcpy(buf, DOS_Epoch);
    return buf;
  }
  if (*t32 == QZ_FOREVER_TIME32) return forever_text(buf);
  ll::clk::Fields f;
  if (!ll::clk::file_time_local(*t32, f)) {
    std::strcpy(buf, DOS_Epoch);
    return buf;
  }
  char marker = f.hour < 12 ? 'a' : 'p';
  int hour = f.hour > 12 ? f.hour - 12 : f.hour;
  if (hour == 0) hour = 12;
  return put(buf, "%2d-%02d-%02d %2d:%02d%c", f.month, f.day, f.year % 100, hour, f.minute, marker);
}

LL_API char *i18n_nctime(qz_time64_t t, char *buf) noexcept {
  buf = pick(buf, kI18nNctime);
  if (is_forever(t)) return i18n_forever(buf);
  std::tm tm;
  buf[0] = 0;
  if (local_or_epoch(to64(t), tm)) qzstrftime(buf, QZ_TIMETEXT_SIZE, "%c", &tm);
  return buf;
}

LL_API char *i18n_day_hm(qz_time64_t t, char *buf) noexcept {
  buf = pick(buf, kI18nDayHm);
  if (is_forever(t)) return i18n_forever(buf);
  std::tm tm;
  buf[0] = 0;
  if (local_or_epoch(to64(t), tm)) {
    char fmt[QZ_TIMETEXT_SIZE];
    qzcatgets_buf(fmt, sizeof fmt, Catd, 17, 271, "%a %X");
    qzstrftime(buf, QZ_TIMETEXT_SIZE, fmt, &tm);
  }
  return buf;
}

LL_API char *i18n_long_time(qz_time64_t t, char *buf) noexcept {
  return i18n_form(t, pick(buf, kI18nLong), 273, "%x %X", 59, "-----no time-----");
}

LL_API char *i18n_short_time(qz_time64_t t, char *buf) noexcept {
  return i18n_form(t, pick(buf, kI18nShort), 274, "%x", 60, "no date");
}

LL_API char *i18n_time_only(qz_time64_t t, char *buf) noexcept {
  return i18n_form(t, pick(buf, kI18nTimeOnly), 275, "%X", 61, "no time");
}

LL_API char *i18n_gmt_ctime(qz_time64_t t, char *buf) noexcept {
  buf = pick(buf, kI18nGmt);
  if (is_forever(t)) return i18n_forever(buf);
  std::tm tm;
  buf[0] = 0;
  if (!real_local(to64(t), tm)) return buf;
  char fmt[QZ_TIMETEXT_SIZE], date[QZ_TIMETEXT_SIZE], year[16], layout[QZ_TIMETEXT_SIZE];
  qzcatgets_buf(fmt, sizeof fmt, Catd, 17, 285, "%a %b %d %X %Y");
  qzstrftime(date, sizeof date, fmt, &tm);
  qzstrftime(year, sizeof year, "%Y", &tm);
  qzcatgets_buf(layout, sizeof layout, Catd, 17, 270, "%.19s GMT%c%.2d%.2d %.4s");
  long east = seconds_east(tm);
  long minutes = (east < 0 ? -east : east) / 60;
  long hours = minutes / 60;
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#endif
  std::snprintf(buf, QZ_TIMETEXT_SIZE, layout, date, east >= 0 ? '+' : '-', static_cast<int>(hours),
                static_cast<int>(minutes - hours * 60), year);
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
  return buf;
}

}  // extern "C"
