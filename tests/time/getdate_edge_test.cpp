// Date expressions at the grammar's edges: short and long spellings of
// names, dotted meridians, fractions, one-letter zones, dotted and ordinal
// dates, and expressions that must be refused, in a pinned zone.
#include <gtest/gtest.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <string>

#include <liblocal.h>

#include "lltest.h"
#include "t64.h"

namespace {

// Wednesday 2024-07-03 11:46:40 EDT.
const long long kBase = 1720021600;

std::string parse(const char *text, bool recurring) {
  qz_time64_t out = T(-777);
  errno = 0;
  const int r = recurring ? bsw_getrecurringdate(text, T(kBase), &out) : bsw_getdate(text, T(kBase), &out);
  if (r != 0) return (errno == EINVAL && V(out) == -777) ? "invalid" : "bad failure";
  return bsw_putdate(out, nullptr, 0);
}

}  // namespace

LLTEST_CHILD(getdate_edges) {
  _qzinit("test_time", 0, nullptr);
  std::setlocale(LC_ALL, "C");
  struct Case {
    const char *text, *want;
  } cases[] = {
      // Names: abbreviations, the odd ones, plurals and full forms.
      {"sept 5", "2024-09-05 00:00:00 -0400"},
      {"September 5 2024", "2024-09-05 00:00:00 -0400"},
      {"tues", "2024-07-09 00:00:00 -0400"},
      {"thurs", "2024-07-04 00:00:00 -0400"},
      {"thur", "2024-07-04 00:00:00 -0400"},
      {"Saturday", "2024-07-06 00:00:00 -0400"},
      {"July 4th", "2024-07-04 00:00:00 -0400"},
      {"4 July 2024", "2024-07-04 00:00:00 -0400"},
      {"jul 4, 2024 10:00", "2024-07-04 10:00:00 -0400"},
      // Times: meridians with dots, fractions dropped, twelve o'clock.
      {"10 p.m.", "2024-07-03 22:00:00 -0400"},
      {"10:15 A.M.", "2024-07-03 10:15:00 -0400"},
      {"10:00:30.75", "2024-07-03 10:00:30 -0400"},
      {"12 am", "2024-07-03 00:00:00 -0400"},
      {"0 am", "invalid"},
      {"13:00 pm", "invalid"},
      // Zones.
      {"2024-07-04 10:00 Z", "2024-07-04 06:00:00 -0400"},
      {"2024-07-04 10:00 ut", "2024-07-04 06:00:00 -0400"},
      {"2024-07-04 10:00 GMT", "2024-07-04 06:00:00 -0400"},
      {"2024-07-04 10:00 UTC UTC", "invalid"},
      {"2024-07-04 10:00 +1500", "invalid"},
      {"2024-07-04 10:00 +0260", "invalid"},
      // Relative items in every unit, and the limits.
      {"1 fortnight ago", "2024-06-19 11:46:40 -0400"},
      {"2 weeks", "2024-07-17 11:46:40 -0400"},
      {"1 year ago", "2023-07-03 11:46:40 -0400"},
      {"90 seconds", "2024-07-03 11:48:10 -0400"},
      {"-1 min", "2024-07-03 11:45:40 -0400"},
      {"7/4 +200000000000 days", "invalid"},
      // Dates that are not.
      {"2024-00-10", "invalid"},
      {"2024-07-32", "invalid"},
      {"1899-07-04", "invalid"},
      {"7/4/12345", "invalid"},
      {"2024-07-04 10:00 11:00", "invalid"},
      {"yesterday tuesday monday", "invalid"},
      {"@-86400", "invalid"},  // before 1970: outside the range
      {"@+60", "1969-12-31 19:01:00 -0500"},
  };
  int failures = 0;
  for (const auto &c : cases) {
    const std::string got = parse(c.text, false);
    if (got != c.want) {
      std::printf("%s: got [%s], want [%s]\n", c.text, got.c_str(), c.want);
      ++failures;
    }
  }
  struct Case rec[] = {
      {"each day 23:00", "2024-07-03 23:00:00 -0400"},
      {"every thursday", "2024-07-04 00:00:00 -0400"},
      {"every every day", "invalid"},
      {"daily monthly", "invalid"},
      {"monday daily", "invalid"},
      {"every month the 2nd", "2024-08-02 00:00:00 -0400"},
      {"every tuesday tuesday", "invalid"},
  };
  for (const auto &c : rec) {
    const std::string got = parse(c.text, true);
    if (got != c.want) {
      std::printf("recurring %s: got [%s], want [%s]\n", c.text, got.c_str(), c.want);
      ++failures;
    }
  }
  return failures;
}

TEST(GetDateEdge, SpellingsZonesUnitsAndRefusals) {
  auto r = lltest::run_child("getdate_edges", {}, {"TZ=EST5EDT,M3.2.0,M11.1.0"});
  EXPECT_EQ(r.exit_code, 0) << r.out;
}
