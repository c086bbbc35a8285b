// Shared pieces of the time family: conversions between the two-word time and
// int64_t, local time with the library's rules, and the calling thread's
// result buffers.
#pragma once
#include <liblocal/qztime.h>

#include <cstdint>
#include <ctime>

namespace ll::timefmt {

int64_t to64(qz_time64_t t) noexcept;
qz_time64_t from64(int64_t v) noexcept;
bool is_forever(qz_time64_t t) noexcept;

// Local time of t: false before 1970 and after kMaxLocal (no local time).
bool real_local(int64_t t, std::tm &out) noexcept;
// As real_local, but every time below 1 gives the fixed 1970-01-01 00:00:00
// record (pc_localtime's rule).
bool local_or_epoch(int64_t t, std::tm &out) noexcept;
// Seconds east of UTC for a record: -timezone, +3600 in daylight time.
long seconds_east(const std::tm &tm) noexcept;

// "Thu Jan 01 01:00:00 1970\n" (the day zero-padded on every platform), or
// 24 blanks and a newline when t is below the zone offset or has no local
// time. buf holds at least 26 bytes.
void ctime_text(int64_t t, char *buf) noexcept;

enum Form { kShort, kLong, kNctime, kGmt, kDayHm, kDtime, kI18nNctime, kI18nDayHm, kI18nLong, kI18nShort,
            kI18nTimeOnly, kI18nGmt, kPutdate, kForms };

// The calling thread's result buffers (the static buffers of the text forms).
struct TimeBuffers {
  std::tm tm;
  char ctime[32];
  char form[kForms][QZ_TIMETEXT_SIZE];
};
TimeBuffers *buffers() noexcept;

}  // namespace ll::timefmt
