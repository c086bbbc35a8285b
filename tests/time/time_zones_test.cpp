// Local-time forms in pinned time zones, each in a fresh process.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <liblocal.h>

#include "lltest.h"
#include "t64.h"

#ifdef _WIN32
#include <windows.h>
#endif

namespace {

// US rules written out, so that the C runtime of Windows (which applies US
// rules to any TZ value) and the C library agree.
const char *kEastern = "TZ=EST5EDT,M3.2.0,M11.1.0";
const char *kCentralEurope = "TZ=CET-1CEST,M3.2.0,M11.1.0";
const char *kJapan = "TZ=JST-9";
const char *kUtc = "TZ=UTC0";

enum Col { kShort, kLong, kNctime, kGmt, kDayHm, kDtime, kI18nLong, kI18nShort, kI18nTime, kI18nGmt, kI18nDayHm, kTm };

struct Forms {
  long east_now = 0;
  long ft_east = 0;
  std::string zone_name;
  std::map<long long, std::vector<std::string>> rows;
};

Forms run(const char *tz, const std::vector<std::string> &times) {
  auto r = lltest::run_child("time_forms", times, {tz});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  Forms f;
  std::istringstream in(r.out);
  for (std::string line; std::getline(in, line);) {
    std::vector<std::string> cols;
    std::istringstream ls(line);
    for (std::string cell; std::getline(ls, cell, '|');) cols.push_back(cell);
    if (cols[0] == "ftzone") {
      f.ft_east = std::atol(cols[1].c_str());
    } else if (cols[0] == "zone") {
      f.east_now = std::atol(cols[1].c_str());
      f.zone_name = cols.size() > 2 ? cols[2] : "";
    } else if (cols.size() == kTm + 2) {
      f.rows[std::atoll(cols[0].c_str())] = std::vector<std::string>(cols.begin() + 1, cols.end());
    }
  }
  return f;
}

// dtime's expectation: the offset in force now, applied to any time.
std::string dtime_expect(long long t, long east_now) {
  long long s = t + east_now;
  long long days = s / 86400, rem = s % 86400;
  if (rem < 0) {
    rem += 86400;
    --days;
  }
  // civil from days
  long long z = days + 719468, era = (z >= 0 ? z : z - 146096) / 146097, doe = z - era * 146097;
  long long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365, y = yoe + era * 400;
  long long doy = doe - (365 * yoe + yoe / 4 - yoe / 100), mp = (5 * doy + 2) / 153;
  long long d = doy - (153 * mp + 2) / 5 + 1, m = mp < 10 ? mp + 3 : mp - 9;
  if (m <= 2) ++y;
  int hour = static_cast<int>(rem / 3600), minute = static_cast<int>(rem / 60 % 60);
  int h12 = hour > 12 ? hour - 12 : (hour == 0 ? 12 : hour);
  char buf[64];
  std::snprintf(buf, sizeof buf, "%2d-%02d-%02d %2d:%02d%c", static_cast<int>(m), static_cast<int>(d),
                static_cast<int>(y % 100), h12, minute, hour < 12 ? 'a' : 'p');
  return buf;
}

}  // namespace

// The offset the file-time conversion of dtime applies now: the system's
// zone on Windows (which TZ does not change), the runtime's on POSIX.
long file_time_east() {
#ifdef _WIN32
  TIME_ZONE_INFORMATION tzi;
  DWORD r = GetTimeZoneInformation(&tzi);
  return -60L * (tzi.Bias + (r == TIME_ZONE_ID_DAYLIGHT ? tzi.DaylightBias : tzi.StandardBias));
#else
  return seceastgmt(nullptr);
#endif
}

LLTEST_CHILD(time_forms) {
  _qzinit("test_time", 0, nullptr);
  std::setlocale(LC_ALL, "C");  // initialisation takes the user's locale; the layouts are checked in C
  std::printf("zone|%ld|%s\n", seceastgmt(nullptr), qzettzname());
  std::printf("ftzone|%ld\n", file_time_east());
  for (int i = 0; i < argc; ++i) {
    long long v = std::atoll(argv[i]);
    qz_time64_t t = T(v);
    int32_t t32 = static_cast<int32_t>(v);
    char b[12][QZ_TIMETEXT_SIZE];
    struct tm *tm = pc_localtime(&t32);
    char tmtext[128] = "null";
    if (tm)
      std::snprintf(tmtext, sizeof tmtext, "%d-%d-%d %d:%d:%d w%d y%d d%d", tm->tm_year + 1900, tm->tm_mon + 1,
                    tm->tm_mday, tm->tm_hour, tm->tm_min, tm->tm_sec, tm->tm_wday, tm->tm_yday, tm->tm_isdst);
    std::printf("%lld|%s|%s|%s|%s|%s|%s|%s|%s|%s|%s|%s|%s\n", v, short_time(t, b[0]), long_time(t, b[1]),
                nctime(t, b[2]), gmt_ctime(t, b[3]), day_hm(t, b[4]), dtime(&t32, b[5]), i18n_long_time(t, b[6]),
                i18n_short_time(t, b[7]), i18n_time_only(t, b[8]), i18n_gmt_ctime(t, b[9]), i18n_day_hm(t, b[10]),
                tmtext);
  }
  return 0;
}

TEST(TimeZones, UtcFormsAndTheFixedEpochRecord) {
  Forms f = run(kUtc, {"0", "1", "-5", "300", "1015200000", "1015247220", "2147483648", "4102444800",
                       "32535216000"});
  EXPECT_EQ(f.east_now, 0);
  auto &z = f.rows[0];
  ASSERT_EQ(z.size(), size_t{kTm + 1});
  EXPECT_EQ(z[kShort], " 1/01/70");
  EXPECT_EQ(z[kLong], " 1/01/70  0:00:00");
  EXPECT_EQ(z[kNctime], "Thu Jan 01 00:00:00 1970");
  EXPECT_EQ(z[kGmt], "Thu Jan 01 00:00:00 GMT+0000 1970");
  EXPECT_EQ(z[kDayHm], "Thu 00:00:00");
  EXPECT_EQ(z[kTm], "1970-1-1 0:0:0 w4 y0 d0");
  EXPECT_EQ(f.rows[1][kLong], " 1/01/70  0:00:01");
  // Below 1: the fixed record; no local time for the text of ctime.
  EXPECT_EQ(f.rows[-5][kTm], "1970-1-1 0:0:0 w4 y0 d0");
  EXPECT_EQ(f.rows[-5][kNctime], std::string(24, ' '));
  EXPECT_EQ(f.rows[-5][kDayHm], std::string(12, ' '));
  EXPECT_EQ(f.rows[300][kDtime], dtime_expect(300, f.ft_east));
  if (f.ft_east == 0) {
    EXPECT_EQ(f.rows[300][kDtime], " 1-01-70 12:05a");
    EXPECT_EQ(f.rows[1015247220][kDtime], " 3-04-02  1:07p");
  }
  EXPECT_EQ(f.rows[1015200000][kShort], " 3/04/02");
  EXPECT_EQ(f.rows[1015200000][kI18nShort], "03/04/02");
  EXPECT_EQ(f.rows[1015247220][kDtime], dtime_expect(1015247220, f.ft_east));
  EXPECT_EQ(f.rows[1015247220][kI18nLong], "03/04/02 13:07:00");
  EXPECT_EQ(f.rows[1015247220][kI18nTime], "13:07:00");
  EXPECT_EQ(f.rows[1015247220][kI18nDayHm], "Mon 13:07:00");
  // After 2038: the whole 64-bit time is shown; day_hm keeps the low word.
  EXPECT_EQ(f.rows[2147483648LL][kLong], " 1/19/38  3:14:08");
  EXPECT_EQ(f.rows[2147483648LL][kNctime], "Tue Jan 19 03:14:08 2038");
  EXPECT_EQ(f.rows[2147483648LL][kDayHm], std::string(12, ' '));
  EXPECT_EQ(f.rows[4102444800LL][kShort], " 1/01/00");
  EXPECT_EQ(f.rows[4102444800LL][kGmt], "Fri Jan 01 00:00:00 GMT+0000 2100");
  // Beyond the year 3000 there is no local time.
  auto &beyond = f.rows[32535216000LL];
  EXPECT_EQ(beyond[kShort], " no date");
  EXPECT_EQ(beyond[kLong], "-----no time-----");
  EXPECT_EQ(beyond[kI18nLong], "-----no time-----");
  EXPECT_EQ(beyond[kI18nShort], "no date");
  EXPECT_EQ(beyond[kI18nTime], "no time");
  EXPECT_EQ(beyond[kGmt], "");
}

TEST(TimeZones, WestWithDaylightSaving) {
  Forms f = run(kEastern, {"0", "1", "17999", "18000", "1119600000", "1015200000", "1710054000", "1710053999"});
  EXPECT_TRUE(f.east_now == -18000 || f.east_now == -14400) << f.east_now;
  if (!lltest::kWindows) {
    EXPECT_TRUE(f.zone_name == "EST" || f.zone_name == "EDT") << f.zone_name;
  }
  EXPECT_EQ(f.rows[0][kLong], " 1/01/70  0:00:00");  // fixed, not shifted
  EXPECT_EQ(f.rows[0][kNctime], std::string(24, ' '));
  EXPECT_EQ(f.rows[0][kGmt], "Wed Dec 31 19:00:00 GMT-0500 1969");
  EXPECT_EQ(f.rows[1][kLong], "12/31/69 19:00:01");
  EXPECT_EQ(f.rows[17999][kNctime], std::string(24, ' '));
  EXPECT_EQ(f.rows[18000][kNctime], "Thu Jan 01 00:00:00 1970");
  EXPECT_EQ(f.rows[18000][kDayHm], "Thu 00:00:00");
  auto &summer = f.rows[1119600000];
  EXPECT_EQ(summer[kLong], " 6/24/05  4:00:00");
  EXPECT_EQ(summer[kGmt], "Fri Jun 24 04:00:00 GMT-0400 2005");
  EXPECT_EQ(summer[kI18nGmt], "Fri Jun 24 04:00:00 GMT-0400 2005");
  EXPECT_EQ(summer[kTm], "2005-6-24 4:0:0 w5 y174 d1");
  EXPECT_EQ(f.rows[1015200000][kShort], " 3/03/02");
  // 2024-03-10 07:00 UTC: the first second of daylight saving time.
  EXPECT_EQ(f.rows[1710054000][kLong], " 3/10/24  3:00:00");
  EXPECT_EQ(f.rows[1710053999][kLong], " 3/10/24  1:59:59");
  for (long long t : {1119600000LL, 1015200000LL, 1LL}) EXPECT_EQ(f.rows[t][kDtime], dtime_expect(t, f.ft_east)) << t;
}

TEST(TimeZones, EastOfUtcAtTimeZero) {
  Forms f = run(kCentralEurope, {"0", "-100", "1119600000"});
  // The zone applies at time 0 for gmt_ctime, the day zero-padded.
  EXPECT_EQ(f.rows[0][kGmt], "Thu Jan 01 01:00:00 GMT+0100 1970");
  EXPECT_EQ(f.rows[0][kI18nGmt], "Thu Jan 01 01:00:00 GMT+0100 1970");
  EXPECT_EQ(f.rows[0][kNctime], "Thu Jan 01 01:00:00 1970");
  EXPECT_EQ(f.rows[0][kLong], " 1/01/70  0:00:00");
  EXPECT_EQ(f.rows[-100][kTm], "1970-1-1 0:0:0 w4 y0 d0");
  EXPECT_EQ(f.rows[-100][kNctime], std::string(24, ' '));
  EXPECT_EQ(f.rows[1119600000][kGmt], "Fri Jun 24 10:00:00 GMT+0200 2005");
  EXPECT_EQ(f.rows[1119600000][kDtime], dtime_expect(1119600000, f.ft_east));
}

TEST(TimeZones, EastWithoutDaylightSaving) {
  Forms f = run(kJapan, {"0", "1119600000"});
  EXPECT_EQ(f.east_now, 32400);
  EXPECT_EQ(f.rows[0][kGmt], "Thu Jan 01 09:00:00 GMT+0900 1970");
  EXPECT_EQ(f.rows[0][kNctime], "Thu Jan 01 09:00:00 1970");
  EXPECT_EQ(f.rows[0][kDtime], dtime_expect(0, f.ft_east));
  if (!lltest::kWindows) {
    EXPECT_EQ(f.rows[0][kDtime], " 1-01-70  9:00a");
  }
  EXPECT_EQ(f.rows[1119600000][kLong], " 6/24/05 17:00:00");
  EXPECT_EQ(f.rows[1119600000][kDayHm], "Fri 17:00:00");
  EXPECT_EQ(f.rows[1119600000][kI18nDayHm], "Fri 17:00:00");
}
