// The platform's clock, zone and calendar services that the time family
// builds on (time/posix/clock.cpp, time/win32/clock.cpp). Contracts only.
#pragma once
#include <cstdint>
#include <ctime>

namespace ll::clk {

// The platform's time(): seconds since the epoch.
int64_t now() noexcept;

// Re-reads the zone settings (tzset).
void zone_set() noexcept;
// Seconds west of UTC of standard time (the runtime's timezone variable).
long zone_west() noexcept;
// The runtime's zone names: 0 standard, 1 daylight.
const char *zone_name(int daylight) noexcept;

// Local broken-down time of t. False when the platform has no local time for
// it; the caller has already limited t to 0 .. kMaxLocal.
bool local(int64_t t, std::tm &out) noexcept;
// mktime; -1 when the platform cannot represent the record.
int64_t make(std::tm &tm) noexcept;

// Calendar fields of t after the file-time conversion to local time: the
// offset in force now is applied to every time, whatever its date.
struct Fields {
  int year, month, day, hour, minute, second;
};
bool file_time_local(int64_t t, Fields &out) noexcept;

}  // namespace ll::clk

namespace ll::timefmt {
// The latest time the library converts to local time (3000-12-31 23:59:59
// UTC, the limit of the Windows runtime), applied on every platform.
constexpr int64_t kMaxLocal = 32535215999LL;
}  // namespace ll::timefmt
