// Clock and zone services on Windows: the C runtime's time functions and the
// kernel's file-time conversions.
#include "time/clock.h"

#include <time.h>

#include "frame/win32/win.h"

namespace ll::clk {

int64_t now() noexcept { return static_cast<int64_t>(::_time64(nullptr)); }

void zone_set() noexcept { ::_tzset(); }

long zone_west() noexcept { return ::_timezone; }

const char *zone_name(int daylight) noexcept { return ::_tzname[daylight ? 1 : 0]; }

bool local(int64_t t, std::tm &out) noexcept {
  __time64_t tt = t;
  return ::_localtime64_s(&out, &tt) == 0;
}

int64_t make(std::tm &tm) noexcept { return static_cast<int64_t>(::_mktime64(&tm)); }

bool file_time_local(int64_t t, Fields &out) noexcept {
  ULARGE_INTEGER u;
  u.QuadPart = static_cast<ULONGLONG>(t + 11644473600LL) * 10000000ULL;
  FILETIME ft, lft;
  ft.dwLowDateTime = u.LowPart;
  ft.dwHighDateTime = u.HighPart;
  SYSTEMTIME st;
  if (!::FileTimeToLocalFileTime(&ft, &lft) || !::FileTimeToSystemTime(&lft, &st)) return false;
  out = {st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond};
  return true;
}

}  // namespace ll::clk
