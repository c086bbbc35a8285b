// Date expressions: the grammar in pinned zones, round trips, recurring
// expressions, the end of a day, and (on Linux) agreement with GNU date.
#include <gtest/gtest.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <liblocal.h>

#include "lltest.h"
#include "t64.h"

namespace {

const char *kEastern = "TZ=EST5EDT,M3.2.0,M11.1.0";
const char *kCentralEurope = "TZ=CET-1CEST,M3.2.0,M11.1.0";

// Child side: checks print their failures; the exit code counts them.
int g_failures = 0;

std::string parse(const char *text, long long base) {
  qz_time64_t out = T(-777);
  errno = 0;
  if (bsw_getdate(text, T(base), &out) != 0) {
    if (errno != EINVAL || V(out) != -777) return "bad failure";
    return "invalid";
  }
  return bsw_putdate(out, nullptr, 0);
}

std::string recurring(const char *text, long long base) {
  qz_time64_t out;
  if (bsw_getrecurringdate(text, T(base), &out) != 0) return "invalid";
  return bsw_putdate(out, nullptr, 0);
}

void check(const std::string &what, const std::string &got, const std::string &want) {
  if (got == want) return;
  std::printf("%s: got [%s], want [%s]\n", what.c_str(), got.c_str(), want.c_str());
  ++g_failures;
}

// Base of the tables: Wednesday 2024-07-03 11:46:40 EDT.
const long long kBase = 1720021600;

}  // namespace

LLTEST_CHILD(getdate_eastern) {
  _qzinit("test_time", 0, nullptr);
  std::setlocale(LC_ALL, "C");  // month/day order and English names
  struct Case {
    const char *text, *want;
  } cases[] = {
      {"now", "2024-07-03 11:46:40 -0400"}, {"yesterday", "2024-07-02 11:46:40 -0400"},
      {"tomorrow noon", "2024-07-04 12:00:00 -0400"}, {"midnight", "2024-07-03 00:00:00 -0400"},
      {"3 days ago", "2024-06-30 11:46:40 -0400"}, {"last week", "2024-06-26 11:46:40 -0400"},
      {"next month", "2024-08-03 11:46:40 -0400"}, {"+2 hours", "2024-07-03 13:46:40 -0400"},
      {"2 hours 3 minutes ago", "2024-07-03 13:43:40 -0400"}, {"FRIDAY", "2024-07-05 00:00:00 -0400"},
      {"wednesday", "2024-07-03 00:00:00 -0400"}, {"next wednesday", "2024-07-10 00:00:00 -0400"},
      {"last wednesday", "2024-06-26 00:00:00 -0400"}, {"last fri", "2024-06-28 00:00:00 -0400"},
      {"monday 10:00", "2024-07-08 10:00:00 -0400"}, {"7/4", "2024-07-04 00:00:00 -0400"},
      {"7/4/24 3pm", "2024-07-04 15:00:00 -0400"}, {"2024-12-25 08:30", "2024-12-25 08:30:00 -0500"},
      {"Dec. 25, 2024 8:30 a.m.", "2024-12-25 08:30:00 -0500"}, {"25-dec-2024", "2024-12-25 00:00:00 -0500"},
      {"20241225", "2024-12-25 00:00:00 -0500"}, {"2024-07-04T10:00:00", "2024-07-04 10:00:00 -0400"},
      {"2024-07-04 10:00 UTC", "2024-07-04 06:00:00 -0400"}, {"2024-07-04 10:00 +0200", "2024-07-04 04:00:00 -0400"},
      {"2024-07-04 10:00 -05:30", "2024-07-04 11:30:00 -0400"}, {"12am", "2024-07-03 00:00:00 -0400"},
      {"12:30 pm", "2024-07-03 12:30:00 -0400"}, {"@0", "1969-12-31 19:00:00 -0500"}, {"forever", "forever"},
      {"2024-01-31 +1 month", "2024-03-02 00:00:00 -0500"},
      // Daylight saving time: days keep the clock time, hours are exact.
      {"2024-03-09 12:00 +1 day", "2024-03-10 12:00:00 -0400"},
      {"2024-03-09 12:00 +24 hours", "2024-03-10 13:00:00 -0400"},
      {"2024-03-10 02:30", "invalid"},  // skipped by the change
      {"2024-11-03 01:30", "2024-11-03 01:30:00 -0400"},  // the earlier of two
      {"2024-11-03 01:30 +1 hour", "2024-11-03 01:30:00 -0500"},
      // Not expressions
      {"", "invalid"}, {"2024-02-30", "invalid"}, {"2023-02-29", "invalid"}, {"13/01/2024", "invalid"},
      {"25:00", "invalid"}, {"10:61", "invalid"}, {"13pm", "invalid"}, {"3 parsecs ago", "invalid"},
      {"forever now", "invalid"}, {"@", "invalid"}, {"next", "invalid"}, {"2024-07-04 2024-07-05", "invalid"},
      {"1234", "invalid"}, {"7/4 +99999999999999999999 days", "invalid"}, {"3000-12-31 23:59:59 -1400", "invalid"},
  };
  for (const auto &c : cases) check(c.text, parse(c.text, kBase), c.want);
  // Recurring expressions
  struct Case rec[] = {
      {"22:00", "2024-07-03 22:00:00 -0400"}, {"10:00", "2024-07-04 10:00:00 -0400"},
      {"every day at 11:46:40", "2024-07-04 11:46:40 -0400"}, {"daily 10pm", "2024-07-03 22:00:00 -0400"},
      {"every monday 03:00", "2024-07-08 03:00:00 -0400"}, {"wednesdays", "2024-07-10 00:00:00 -0400"},
      {"every month on the 1st at 02:00", "2024-08-01 02:00:00 -0400"}, {"monthly 31", "2024-07-31 00:00:00 -0400"},
      {"", "invalid"}, {"tomorrow", "invalid"}, {"2024-07-04", "invalid"}, {"every day monday", "invalid"},
      {"the 32nd", "invalid"},
  };
  for (const auto &c : rec) check(std::string("recurring ") + c.text, recurring(c.text, kBase), c.want);
  // 2024-09-05: the next 31st is in October; 2024-03-09 12:00 EST: 02:30 on
  // the 10th does not exist and is taken as 03:30.
  check("the 31st", recurring("the 31st", 1725552000), "2024-10-31 00:00:00 -0400");
  check("every day 02:30", recurring("every day 02:30", 1710003600), "2024-03-10 03:30:00 -0400");
  // End of day, on a normal and on a short day.
  check("end of day", bsw_putdate(bsw_getendofday(T(kBase)), nullptr, 0), "2024-07-03 23:59:59 -0400");
  check("end of short day", bsw_putdate(bsw_getendofday(T(1710048600)), nullptr, 0), "2024-03-10 23:59:59 -0400");
  check("end of forever", std::to_string(qz_is_forever_time(bsw_getendofday(T(0x7FFFFFFF)))), "1");
  return g_failures;
}

LLTEST_CHILD(getdate_round_trip) {
  _qzinit("test_time", 0, nullptr);
  std::setlocale(LC_ALL, "C");
  std::vector<long long> times;
  // Every 15 minutes across both 2024 changes, and a spread over the range.
  for (long long t = 1709960400; t < 1710133200; t += 900) times.push_back(t);
  for (long long t = 1730520000; t < 1730692800; t += 900) times.push_back(t);
  for (long long t = 1; t < 32535215999LL; t += 987654321) times.push_back(t);
  times.push_back(0x7FFFFFFE);
  times.push_back(0x80000000LL);
  for (long long t : times) {
    char text[64];
    bsw_putdate(T(t), text, sizeof text);
    qz_time64_t back;
    if (bsw_getdate(text, T(kBase), &back) != 0 || V(back) != t) {
      std::printf("%lld -> %s -> %lld\n", t, text, V(back));
      ++g_failures;
    }
  }
  // A real time that would read as forever moves one second back.
  qz_time64_t last;
  if (bsw_getdate("2038-01-19 03:14:07 UTC", T(kBase), &last) != 0 || V(last) != 0x7FFFFFFE) {
    std::printf("a real time read as forever\n");
    ++g_failures;
  }
  return g_failures;
}

TEST(GetDate, GrammarInEasternTime) {
  auto r = lltest::run_child("getdate_eastern", {}, {kEastern});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  char small[8];
  EXPECT_STREQ(bsw_putdate(T(0x7FFFFFFF), small, sizeof small), "forever");
  EXPECT_STREQ(bsw_putdate(T(-5), small, sizeof small), "@-5");
  EXPECT_STREQ(bsw_putdate(T(1000000000), small, 5), "2001");
  qz_time64_t out;
  EXPECT_EQ(bsw_getdate(nullptr, T(0), &out), -1);
  EXPECT_EQ(bsw_getrecurringdate(nullptr, T(0), &out), -1);
}

TEST(GetDate, PutDateReadsBack) {
  for (const char *tz : {kEastern, kCentralEurope, "TZ=JST-9", "TZ=UTC0"}) {
    auto r = lltest::run_child("getdate_round_trip", {}, {tz});
    EXPECT_EQ(r.exit_code, 0) << tz << "\n" << r.out << r.err;
  }
}

// GNU date as the reference a user knows (Linux): each expression is parsed
// by both against the same "now", in several real zones.
#ifndef _WIN32
namespace {
// The precise clock that date reads (time() may lag behind it by a tick).
long long precise_now() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<long long>(ts.tv_sec);
}

bool gnu_date(const std::string &expr, long long &out) {
  std::string cmd = "date -d '" + expr + "' +%s 2>/dev/null";
  FILE *p = popen(cmd.c_str(), "r");
  if (!p) return false;
  char buf[64] = {0};
  bool ok = std::fgets(buf, sizeof buf, p) != nullptr;
  int rc = pclose(p);
  if (!ok || rc != 0) return false;
  out = std::atoll(buf);
  return true;
}
}  // namespace

TEST(GetDate, AgreesWithGnuDate) {
  const char *zones[] = {"America/New_York", "Europe/Berlin", "Asia/Kolkata", "Australia/Sydney", "UTC"};
  const char *exprs[] = {
      "now", "today", "yesterday", "tomorrow", "3 days ago", "last week", "next month", "last month", "next year",
      "1 year ago", "+2 hours", "-90 minutes", "2 hours 3 minutes ago", "fortnight", "friday", "next friday",
      "last friday", "this friday", "sunday", "monday 10:00", "tomorrow 10:00", "3 days ago 10:00", "10:00 3 days ago",
      "7/4", "7/4/24", "7/4/2024 3pm", "2024/7/4", "2024-12-25", "2024-12-25 08:30", "2024-12-25 08:30:15",
      "Dec 25 2024", "25 Dec 2024", "December 25, 2024 8:30am", "25-Dec-2024", "2024-07-04T10:00", "20240704",
      "2024-07-04 10:00 UTC", "2024-07-04 10:00 +0200", "2024-07-04 10:00 -05:30", "10:00", "23:59:59", "12am",
      "12pm", "3pm", "3 pm", "2024-01-31 +1 month", "+1 day 2024-03-09 12:00", "+24 hours 2024-03-09 12:00",
      "+1 day 2024-03-30 12:00", "2024-03-10 02:30", "2024-03-31 02:30", "2024-10-06 02:30", "2024-02-30", "2023-02-29", "2024-02-29", "10:61", "25:00",
      "@1720000000", "2099-12-31 23:59:59", "1999-12-31", "Sat", "wed 3pm", "next week", "last year",
  };
  int compared = 0;
  for (const char *zone : zones) {
    lltest::ScopedEnv tz("TZ", zone);
    tzset();
    for (const char *expr : exprs) {
      for (int attempt = 0; attempt < 5; ++attempt) {
        long long t0 = precise_now();
        long long want = 0;
        bool gnu_ok = gnu_date(expr, want);
        if (precise_now() != t0) continue;  // the second changed: again
        qz_time64_t got;
        bool ok = bsw_getdate(expr, T(t0), &got) == 0;
        EXPECT_EQ(ok, gnu_ok) << zone << ": " << expr;
        if (ok && gnu_ok && V(got) != want) {
          // GNU date moves days, months and years from "now" with now's
          // daylight-saving flag, so across a change its clock time is an
          // hour off; the library keeps the clock time.
          time_t a = static_cast<time_t>(t0), b = static_cast<time_t>(want);
          struct tm ta, tb;
          localtime_r(&a, &ta);
          localtime_r(&b, &tb);
          long shift = tb.tm_gmtoff - ta.tm_gmtoff;
          // Within an hour of a change of offset the clock time is ambiguous
          // or missing, and the two may pick either side of it.
          time_t before = b - 3600, after = b + 3600;
          struct tm t1, t2;
          localtime_r(&before, &t1);
          localtime_r(&after, &t2);
          if (t1.tm_gmtoff != t2.tm_gmtoff) {
            ++compared;
            break;
          }
          EXPECT_TRUE(shift != 0 && V(got) == want - shift)
              << zone << ": " << expr << " -> " << bsw_putdate(got, nullptr, 0) << ", GNU " << want;
        }
        ++compared;
        break;
      }
    }
  }
  tzset();
  EXPECT_GT(compared, 300);
}
#endif
