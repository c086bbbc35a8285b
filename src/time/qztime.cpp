// 64-bit time values: forever, offsets, 32-bit times, ordering, and the
// platform's local time with the library's fixed answers.
#include <liblocal/qztime.h>

#include <cstring>

#include "frame/areas.h"
#include "frame/init_steps.h"
#include "time/clock.h"
#include "time/timefmt.h"

namespace ll::timefmt {

namespace {
constexpr int64_t kForever = 0x7FFFFFFF;

// The record pc_localtime gives for every time below 1.
std::tm epoch_record() noexcept {
  std::tm t{};
  t.tm_year = 70;
  t.tm_mday = 1;
  t.tm_wday = 4;  // a Thursday
  return t;
}
}  // namespace

int64_t to64(qz_time64_t t) noexcept {
  return static_cast<int64_t>((static_cast<uint64_t>(static_cast<uint32_t>(t.high)) << 32) | t.low);
}

qz_time64_t from64(int64_t v) noexcept {
  qz_time64_t t;
  t.low = static_cast<uint32_t>(static_cast<uint64_t>(v));
  t.high = static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(v) >> 32));
  return t;
}

bool is_forever(qz_time64_t t) noexcept { return t.low == 0x7FFFFFFFu && t.high == 0; }

bool real_local(int64_t t, std::tm &out) noexcept {
  if (t < 0 || t > kMaxLocal) return false;
  return clk::local(t, out);
}

bool local_or_epoch(int64_t t, std::tm &out) noexcept {
  if (t < 1) {
    out = epoch_record();
    return true;
  }
  return real_local(t, out);
}

long seconds_east(const std::tm &tm) noexcept { return -clk::zone_west() + (tm.tm_isdst > 0 ? 3600 : 0); }

TimeBuffers *buffers() noexcept { return ll::thread_area<TimeBuffers>(); }

}  // namespace ll::timefmt

namespace ll::init {
void time_zone() noexcept { clk::zone_set(); }
}  // namespace ll::init

using namespace ll::timefmt;

extern "C" {

LL_API qz_time64_t qz_time(qz_time64_t *out) noexcept {
  int64_t now = ll::clk::now();
  if (now == kForever) now = kForever - 1;
  qz_time64_t t = from64(now);
  if (out) *out = t;
  return t;
}

LL_API struct tm *qz_localtime(qz_time64_t t) noexcept {
  int32_t t32 = static_cast<int32_t>(t.low);
  return pc_localtime(&t32);
}

LL_API qz_time64_t qz_mktime(struct tm *tm) noexcept {
  if (!tm) return from64(-1);
  return from64(ll::clk::make(*tm));
}

LL_API int qz_is_forever_time(qz_time64_t t) noexcept { return is_forever(t) ? 1 : 0; }

LL_API int qz_is_forever_timeoffset(uint32_t offset) noexcept { return offset == QZ_FOREVER_OFFSET ? 1 : 0; }

LL_API uint32_t qz_time64_to_offset(qz_time64_t t, int32_t base) noexcept {
  if (is_forever(t)) return QZ_FOREVER_OFFSET;
  uint32_t d = t.low - static_cast<uint32_t>(base);
  // No real offset may read as forever.
  return d == QZ_FOREVER_OFFSET ? QZ_FOREVER_OFFSET - 1 : d;
}

LL_API qz_time64_t qz_timeoffset_to_64(uint32_t offset, qz_time64_t base) noexcept {
  if (offset == QZ_FOREVER_OFFSET || is_forever(base)) return from64(kForever);
  int64_t sum = to64(base) + static_cast<int64_t>(offset);
  if (sum == kForever) sum = kForever - 1;
  return from64(sum);
}

LL_API int32_t qz_time64_to_32(qz_time64_t t) noexcept {
  if (t.high < 0) return -1;
  if (t.high == 0 && t.low < 0x7FFFFFFFu) return static_cast<int32_t>(t.low);
  return QZ_FOREVER_TIME32;
}

LL_API int qz_time_cmp(qz_time64_t a, qz_time64_t b) noexcept {
  const int64_t kLast = INT64_MAX;
  int64_t x = is_forever(a) ? kLast : to64(a);
  int64_t y = is_forever(b) ? kLast : to64(b);
  return x < y ? -1 : (x > y ? 1 : 0);
}

LL_API struct timeval timeval_diff(struct timeval a, struct timeval b) noexcept {
  struct timeval d;
  if (a.tv_usec > b.tv_usec) {
    b.tv_sec -= 1;
    b.tv_usec += 1000000;
  }
  d.tv_sec = b.tv_sec - a.tv_sec;
  d.tv_usec = b.tv_usec - a.tv_usec;
  return d;
}

LL_API int ll_gettimeofday(struct timeval *tv, void *) noexcept {
  if (!tv) return 0;
  tv->tv_sec = static_cast<decltype(tv->tv_sec)>(ll::clk::now());
  tv->tv_usec = 0;
  return 0;
}

LL_API struct tm *pc_localtime(const int32_t *t32) noexcept {
  if (!t32) return nullptr;
  std::tm *out = &buffers()->tm;
  if (!local_or_epoch(*t32, *out)) return nullptr;
  return out;
}

LL_API char *pc_ctime(const int32_t *t32) noexcept {
  if (!t32) return nullptr;
  char *buf = buffers()->ctime;
  ctime_text(*t32, buf);
  return buf;
}

LL_API long seceastgmt(const struct tm *tm) noexcept {
  if (tm) return seconds_east(*tm);
  std::tm now{};
  if (!real_local(ll::clk::now(), now)) return -ll::clk::zone_west();
  return seconds_east(now);
}

LL_API const char *qzettzname(void) noexcept {
  std::tm now{};
  bool daylight = real_local(ll::clk::now(), now) && now.tm_isdst == 1;
  const char *name = ll::clk::zone_name(daylight ? 1 : 0);
  return name ? name : "";
}

}  // extern "C"
