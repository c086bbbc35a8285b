// Time values: forever, offsets, 32-bit times, ordering, time of day.
#include <gtest/gtest.h>

#include <cstring>

#include "t64.h"

namespace {
const qz_time64_t kForever = T(0x7FFFFFFF);
}  // namespace

TEST(TimeValues, ForeverIsOnlyLowWordWithZeroHighWord) {
  EXPECT_EQ(qz_is_forever_time(kForever), 1);
  EXPECT_EQ(qz_is_forever_time(qz_time64_t{0x7FFFFFFF, 1}), 0);
  EXPECT_EQ(qz_is_forever_time(T(0x7FFFFFFE)), 0);
  EXPECT_EQ(qz_is_forever_timeoffset(0xFFFFFFFFu), 1);
  EXPECT_EQ(qz_is_forever_timeoffset(0xFFFFFFFEu), 0);
}

TEST(TimeValues, OffsetsNeverReadAsForeverByAccident) {
  EXPECT_EQ(qz_time64_to_offset(kForever, 12345), 0xFFFFFFFFu);
  EXPECT_EQ(qz_time64_to_offset(T(999), 1000), 0xFFFFFFFEu);  // base - 1
  EXPECT_EQ(qz_time64_to_offset(T(1500), 1000), 500u);
  EXPECT_EQ(qz_time64_to_offset(T((3LL << 32) + 1500), 1000), 500u);  // only the low word counts
  EXPECT_EQ(V(qz_timeoffset_to_64(0xFFFFFFFFu, T(5))), 0x7FFFFFFF);
  EXPECT_EQ(V(qz_timeoffset_to_64(7, kForever)), 0x7FFFFFFF);
  EXPECT_EQ(V(qz_timeoffset_to_64(0x7FFFFFFF - 1000, T(1000))), 0x7FFFFFFE);
  EXPECT_EQ(V(qz_timeoffset_to_64(0xFFFFFFFEu, T(0x7FFFFFFF0LL))), 0x7FFFFFFF0LL + 0xFFFFFFFELL);
  EXPECT_EQ(V(qz_timeoffset_to_64(10, T(-20))), -10);
}

TEST(TimeValues, To32ClampsAndCompareSortsForeverLast) {
  const long long t[][2] = {{0x7FFFFFFE, 0x7FFFFFFE}, {0x7FFFFFFF, 0x7FFFFFFF}, {0x80000000LL, 0x7FFFFFFF},
                            {1LL << 40, 0x7FFFFFFF},  {-1, -1},                 {-(1LL << 40), -1}, {0, 0}};
  for (auto &c : t) EXPECT_EQ(qz_time64_to_32(T(c[0])), c[1]) << c[0];
  EXPECT_EQ(qz_time_cmp(kForever, T(1LL << 40)), 1);
  EXPECT_EQ(qz_time_cmp(T(1LL << 40), kForever), -1);
  EXPECT_EQ(qz_time_cmp(kForever, kForever), 0);
  EXPECT_EQ(qz_time_cmp(T(-5), T(3)), -1);
  EXPECT_EQ(qz_time_cmp(T(0x80000000LL), T(0x7FFFFFFE)), 1);
}

TEST(TimeValues, TimevalDiffAndClockReadings) {
  struct timeval d = timeval_diff({5, 900000}, {7, 100000});  // borrows a second
  EXPECT_TRUE(d.tv_sec == 1 && d.tv_usec == 200000) << d.tv_sec << " " << d.tv_usec;
  d = timeval_diff({5, 100000}, {7, 900000});
  EXPECT_TRUE(d.tv_sec == 2 && d.tv_usec == 800000) << d.tv_sec << " " << d.tv_usec;
  struct timeval tv{0, 77};
  EXPECT_EQ(gettimeofday(&tv, nullptr), 0);
  EXPECT_EQ(tv.tv_usec, 0);
  EXPECT_EQ(gettimeofday(nullptr, nullptr), 0);
  qz_time64_t out{};
  const qz_time64_t now = qz_time(&out);
  EXPECT_EQ(V(now), V(out));
  EXPECT_LE(static_cast<long long>(tv.tv_sec), V(now));
  EXPECT_LE(V(now) - static_cast<long long>(tv.tv_sec), 2);
  EXPECT_EQ(qz_is_forever_time(qz_time(nullptr)), 0);
}

TEST(TimeForms, ForeverIsSpelledOutAndNullBuffersAreTheThreadsOwn) {
  char buf[QZ_TIMETEXT_SIZE];
  using Fn = char *(*)(qz_time64_t, char *);
  for (Fn f : {short_time, long_time, nctime, gmt_ctime, day_hm, i18n_nctime, i18n_day_hm, i18n_long_time,
               i18n_short_time, i18n_time_only, i18n_gmt_ctime}) {
    std::memset(buf, 'x', sizeof buf);
    EXPECT_STREQ(f(kForever, buf), "forever");
  }
  int32_t f32 = 0x7FFFFFFF;
  EXPECT_STREQ(dtime(&f32, buf), "forever");
  // One buffer per function, overwritten.
  EXPECT_EQ(short_time(kForever, nullptr), short_time(T(1000000000), nullptr));
  EXPECT_NE(static_cast<void *>(short_time(T(1), nullptr)), static_cast<void *>(long_time(T(1), nullptr)));
}

TEST(TimeForms, QzstrftimeReportsLengthAndLimit) {
  struct tm tm{};
  tm.tm_year = 105, tm.tm_mon = 5, tm.tm_mday = 24, tm.tm_hour = 4;
  char buf[64];
  EXPECT_EQ(qzstrftime(buf, sizeof buf, "%Y-%m-%d %H:%M", &tm), 16u);
  EXPECT_STREQ(buf, "2005-06-24 04:00");
  EXPECT_EQ(qzstrftime(buf, 5, "%Y-%m-%d", &tm), 4u);
  EXPECT_STREQ(buf, "2005");
  EXPECT_EQ(qzstrftime(buf, sizeof buf, "", &tm), 0u);
}
