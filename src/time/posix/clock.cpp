// Clock and zone services on POSIX.
#include "time/clock.h"

#include <time.h>

namespace ll::clk {

int64_t now() noexcept { return static_cast<int64_t>(::time(nullptr)); }

void zone_set() noexcept { ::tzset(); }

long zone_west() noexcept { return ::timezone; }

const char *zone_name(int daylight) noexcept { return ::tzname[daylight ? 1 : 0]; }

bool local(int64_t t, std::tm &out) noexcept {
  time_t tt = static_cast<time_t>(t);
  return ::localtime_r(&tt, &out) != nullptr;
}

int64_t make(std::tm &tm) noexcept { return static_cast<int64_t>(::mktime(&tm)); }

// The POSIX counterpart of FileTimeToLocalFileTime + FileTimeToSystemTime:
// the offset in force now shifts the time, which is then split as UTC.
bool file_time_local(int64_t t, Fields &out) noexcept {
  time_t n = ::time(nullptr);
  struct tm now_tm;
  if (!::localtime_r(&n, &now_tm)) return false;
  time_t shifted = static_cast<time_t>(t + now_tm.tm_gmtoff);
  struct tm g;
  if (!::gmtime_r(&shifted, &g)) return false;
  out = {g.tm_year + 1900, g.tm_mon + 1, g.tm_mday, g.tm_hour, g.tm_min, g.tm_sec};
  return true;
}

}  // namespace ll::clk
