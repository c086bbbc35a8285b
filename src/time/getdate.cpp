// Date expressions: the parser behind bsw_getdate and bsw_getrecurringdate,
// the end of a day, and the text form that the parser reads back.
#include <liblocal/getdate.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "time/clock.h"
#include "time/timefmt.h"

namespace ll::getdate {

namespace {

using ll::timefmt::from64;
using ll::timefmt::kMaxLocal;
using ll::timefmt::to64;

constexpr int64_t kForever = 0x7FFFFFFF;
constexpr int kMaxTokens = 64;

// ---- tokens ----

enum class Kind { kNum, kWord, kPunct, kEnd };

struct Token {
  Kind kind = Kind::kEnd;
  int64_t num = 0;     // value of a number (capped)
  int digits = 0;      // its digit count
  std::string word;    // a word, ASCII letters folded to lower case
  char punct = 0;      // ':', '/', '-', '+', '.', '@'
};

bool is_letter(unsigned char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c >= 0x80; }

std::string fold(const std::string &s) {
  std::string r = s;
  for (char &c : r)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return r;
}

// Splits the text into tokens; false for a character the grammar never uses
// or for too many tokens.
bool tokenize(const char *s, std::vector<Token> &out) {
  while (*s) {
    unsigned char c = static_cast<unsigned char>(*s);
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == ',') {
      ++s;
      continue;
    }
    Token t;
    if (c >= '0' && c <= '9') {
      t.kind = Kind::kNum;
      while (*s >= '0' && *s <= '9') {
        if (t.num < 100000000000LL) t.num = t.num * 10 + (*s - '0');
        ++t.digits;
        ++s;
      }
    } else if (is_letter(c)) {
      t.kind = Kind::kWord;
      const char *b = s;
      while (is_letter(static_cast<unsigned char>(*s))) ++s;
      t.word = fold(std::string(b, s));
      // "a.m." and "p.m."
      if ((t.word == "a" || t.word == "p") && s[0] == '.' && (s[1] == 'm' || s[1] == 'M')) {
        t.word += "m";
        s += 2;
        if (*s == '.') ++s;
      } else if (*s == '.' && t.word.size() >= 3 && !(s[1] >= '0' && s[1] <= '9')) {
        ++s;  // an abbreviation's full stop: "Jan.", "Mon."
      }
    } else if (std::strchr(":/-+.@", c)) {
      t.kind = Kind::kPunct;
      t.punct = static_cast<char>(c);
      ++s;
    } else {
      return false;
    }
    out.push_back(t);
    if (out.size() > kMaxTokens) return false;
  }
  out.push_back(Token{});
  return true;
}

// ---- names ----

const char *const kMonthNames[] = {"january", "february", "march", "april", "may", "june", "july",
                                    "august", "september", "october", "november", "december"};
const char *const kDayNames[] = {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"};

// The locale's own names of months and weekdays (the C locale's are the
// English ones, which are always recognised).
struct LocaleNames {
  std::string month_full[12], month_abbr[12], day_full[7], day_abbr[7];
  LocaleNames() {
    std::tm tm{};
    tm.tm_year = 100;
    tm.tm_mday = 1;
    char buf[QZ_TIMETEXT_SIZE];
    for (int m = 0; m < 12; ++m) {
      tm.tm_mon = m;
      qzstrftime(buf, sizeof buf, "%B", &tm);
      month_full[m] = fold(buf);
      qzstrftime(buf, sizeof buf, "%b", &tm);
      month_abbr[m] = fold(buf);
    }
    tm.tm_mon = 0;
    for (int d = 0; d < 7; ++d) {
      tm.tm_wday = d;
      tm.tm_mday = 2 + d;  // 2000-01-02 was a Sunday
      qzstrftime(buf, sizeof buf, "%A", &tm);
      day_full[d] = fold(buf);
      qzstrftime(buf, sizeof buf, "%a", &tm);
      day_abbr[d] = fold(buf);
    }
  }
};

// Full English name, or an abbreviation of at least three letters of it.
bool english_match(const std::string &w, const char *name) {
  size_t n = std::strlen(name);
  return w.size() >= 3 && w.size() <= n && std::strncmp(w.c_str(), name, w.size()) == 0;
}

int month_of(const std::string &w, const LocaleNames &ln) {
  if (w == "sept") return 9;
  for (int m = 0; m < 12; ++m)
    if (english_match(w, kMonthNames[m])) return m + 1;
  for (int m = 0; m < 12; ++m)
    if ((!ln.month_full[m].empty() && w == ln.month_full[m]) || (!ln.month_abbr[m].empty() && w == ln.month_abbr[m]))
      return m + 1;
  return 0;
}

// Weekday 0-6 (Sunday 0), or -1. Plurals ("mondays") are accepted when
// 'plural' is set.
int weekday_of(std::string w, const LocaleNames &ln, bool plural) {
  if (plural && w.size() > 3 && w.back() == 's') {
    int d = weekday_of(w.substr(0, w.size() - 1), ln, false);
    if (d >= 0) return d;
  }
  if (w == "tues") return 2;
  if (w == "wednes") return 3;
  if (w == "thur" || w == "thurs") return 4;
  for (int d = 0; d < 7; ++d)
    if (english_match(w, kDayNames[d])) return d;
  for (int d = 0; d < 7; ++d)
    if ((!ln.day_full[d].empty() && w == ln.day_full[d]) || (!ln.day_abbr[d].empty() && w == ln.day_abbr[d]))
      return d;
  return -1;
}

enum Unit { kNoUnit, kYear, kMonth, kDay, kHour, kMinute, kSecond };

// A relative unit word: the unit and how many of it (a week is 7 days).
bool unit_of(const std::string &w, Unit &unit, int &mult) {
  static const struct {
    const char *name;
    Unit unit;
    int mult;
  } kUnits[] = {{"year", kYear, 1},   {"month", kMonth, 1},   {"fortnight", kDay, 14}, {"week", kDay, 7},
                {"day", kDay, 1},     {"hour", kHour, 1},     {"minute", kMinute, 1},  {"min", kMinute, 1},
                {"second", kSecond, 1}, {"sec", kSecond, 1}};
  for (const auto &u : kUnits) {
    std::string n = u.name;
    if (w == n || w == n + "s") {
      unit = u.unit;
      mult = u.mult;
      return true;
    }
  }
  return false;
}

// The order of day, month and year in the locale's numeric dates, from its
// "%x" form of 22 November 1999: "mdy", "dmy" or "ymd".
std::string locale_order() {
  std::tm tm{};
  tm.tm_year = 99;
  tm.tm_mon = 10;
  tm.tm_mday = 22;
  tm.tm_wday = 1;
  tm.tm_yday = 325;
  char buf[QZ_TIMETEXT_SIZE];
  if (!qzstrftime(buf, sizeof buf, "%x", &tm)) return "mdy";
  std::string s = buf;
  size_t m = s.find("11"), d = s.find("22"), y = s.find("99");
  if (m == std::string::npos || d == std::string::npos || y == std::string::npos) return "mdy";
  if (y < m && m < d) return "ymd";
  if (d < m) return "dmy";
  return "mdy";
}

int full_year(const Token &t) {
  if (t.digits <= 2) return static_cast<int>(t.num < 69 ? t.num + 2000 : t.num + 1900);
  return static_cast<int>(t.num);
}

// ---- the parsed expression ----

struct Expr {
  bool forever = false;
  bool epoch = false;
  int64_t epoch_value = 0;

  bool have_date = false;
  int year = -1, month = 0, day = 0;  // year -1: the base's year
  bool have_time = false;
  int hour = 0, minute = 0, second = 0;
  bool have_zone = false;
  int zone_minutes = 0;  // east of UTC
  bool have_weekday = false;
  int weekday = 0, weekday_ord = 0;
  bool have_rel = false;
  int64_t rel[7] = {};  // by Unit

  // Recurring expressions only
  bool every = false;
  bool daily = false;
  bool monthly = false;
  int month_day = 0;

  int items = 0;
};

class Parser {
 public:
  Parser(const std::vector<Token> &toks, bool recurring) : t_(toks), recurring_(recurring) {}

  bool parse(Expr &e) {
    while (peek().kind != Kind::kEnd) {
      if (!item(e)) return false;
      ++e.items;
    }
    if (e.items == 0) return false;
    if ((e.forever || e.epoch) && e.items != 1) return false;
    return true;
  }

 private:
  const std::vector<Token> &t_;
  size_t i_ = 0;
  bool recurring_;
  LocaleNames names_;

  const Token &peek(size_t k = 0) const {
    size_t j = i_ + k;
    return j < t_.size() ? t_[j] : t_.back();
  }
  const Token &take() {
    const Token &t = peek();
    if (i_ < t_.size() - 1) ++i_;
    return t;
  }
  bool is_punct(size_t k, char c) const { return peek(k).kind == Kind::kPunct && peek(k).punct == c; }
  bool is_num(size_t k) const { return peek(k).kind == Kind::kNum; }
  bool is_word(size_t k, const char *w) const { return peek(k).kind == Kind::kWord && peek(k).word == w; }
  bool is_unit(size_t k) const {
    Unit u;
    int m;
    return peek(k).kind == Kind::kWord && unit_of(peek(k).word, u, m);
  }
  bool is_meridian(size_t k) const { return is_word(k, "am") || is_word(k, "pm"); }

  bool set_date(Expr &e, int y, int m, int d) {
    if (e.have_date || m < 1 || m > 12 || d < 1 || d > 31) return false;
    if (y != -1 && (y < 1900 || y > 9999)) return false;
    e.have_date = true;
    e.year = y;
    e.month = m;
    e.day = d;
    return true;
  }

  bool set_time(Expr &e, int h, int m, int s) {
    if (e.have_time || h < 0 || h > 23 || m < 0 || m > 59 || s < 0 || s > 59) return false;
    e.have_time = true;
    e.hour = h;
    e.minute = m;
    e.second = s;
    return true;
  }

  // An optional "am" or "pm" after an hour of 1 to 12.
  bool meridian(int &h) {
    if (!is_meridian(0)) return true;
    bool pm = take().word == "pm";
    if (h < 1 || h > 12) return false;
    h = h % 12 + (pm ? 12 : 0);
    return true;
  }

  bool add_rel(Expr &e, int64_t n, const std::string &unit_word) {
    Unit u;
    int mult;
    if (!unit_of(unit_word, u, mult)) return false;
    if (is_word(0, "ago")) {
      take();
      n = -n;
    }
    e.rel[u] += n * mult;
    if (e.rel[u] > 100000000000LL || e.rel[u] < -100000000000LL) return false;
    e.have_rel = true;
    return true;
  }

  // Zone after a time: "utc", "gmt", "ut", "z", or +hhmm, -hh:mm, +hh.
  bool zone(Expr &e) {
    if (is_word(0, "utc") || is_word(0, "gmt") || is_word(0, "ut") || is_word(0, "z")) {
      if (e.have_zone) return false;
      take();
      e.have_zone = true;
      e.zone_minutes = 0;
      return true;
    }
    if ((is_punct(0, '+') || is_punct(0, '-')) && is_num(1) && !is_unit(2)) {
      const Token &n = peek(1);
      int h, m = 0;
      size_t used = 2;
      if (n.digits == 4) {
        h = static_cast<int>(n.num / 100);
        m = static_cast<int>(n.num % 100);
      } else if (n.digits <= 2 && is_punct(2, ':') && is_num(3) && peek(3).digits == 2) {
        h = static_cast<int>(n.num);
        m = static_cast<int>(peek(3).num);
        used = 4;
      } else if (n.digits <= 2) {
        h = static_cast<int>(n.num);
      } else {
        return true;  // not a zone: left for the next item
      }
      if (h > 14 || m > 59 || e.have_zone) return false;
      bool minus = peek(0).punct == '-';
      for (size_t k = 0; k < used; ++k) take();
      e.have_zone = true;
      e.zone_minutes = (minus ? -1 : 1) * (h * 60 + m);
    }
    return true;
  }

  // hh:mm[:ss[.fraction]] [am|pm] [zone]
  bool clock_time(Expr &e) {
    int h = static_cast<int>(take().num);
    take();  // ':'
    if (!is_num(0) || peek().digits != 2) return false;
    int m = static_cast<int>(take().num), s = 0;
    if (is_punct(0, ':')) {
      take();
      if (!is_num(0) || peek().digits != 2) return false;
      s = static_cast<int>(take().num);
      if (is_punct(0, '.') && is_num(1)) {
        take();
        take();  // fractions of a second are dropped
      }
    }
    if (!meridian(h) || !set_time(e, h, m, s)) return false;
    return zone(e);
  }

  // A date of three numbers in the locale's order (two: day and month).
  bool numeric_date(Expr &e, char sep) {
    Token a = take();
    take();  // separator
    if (!is_num(0)) return false;
    Token b = take();
    bool three = is_punct(0, sep) && is_num(1);
    Token c;
    if (three) {
      take();
      c = take();
    }
    if (a.digits > 4 || b.digits > 2 || (three && c.digits > 4)) return false;
    if (a.digits >= 3) {  // a year first is always year, month, day
      if (!three) return false;
      return set_date(e, full_year(a), static_cast<int>(b.num), static_cast<int>(c.num));
    }
    std::string order = locale_order();
    if (order == "ymd" && three) return set_date(e, full_year(a), static_cast<int>(b.num), static_cast<int>(c.num));
    int m = static_cast<int>(a.num), d = static_cast<int>(b.num);
    if (order == "dmy") std::swap(m, d);
    return set_date(e, three ? full_year(c) : -1, m, d);
  }

  // After a month name: [day [year]] (a day may also come first: "4 July").
  bool month_date(Expr &e, int month, int day) {
    if (day == 0 && is_num(0) && peek().digits <= 2 && !is_punct(1, ':')) {
      day = static_cast<int>(take().num);
      if (is_word(0, "st") || is_word(0, "nd") || is_word(0, "rd") || is_word(0, "th")) take();
    }
    int year = -1;
    if (is_num(0) && !is_punct(1, ':') && !is_unit(1) && !is_meridian(1) && (day == 0 || peek().digits >= 2)) {
      year = full_year(take());
    } else if (is_punct(0, '-') && is_num(1) && !is_punct(2, ':')) {
      take();
      year = full_year(take());
    }
    if (day == 0) {
      if (year == -1) return false;
      day = 1;
    }
    return set_date(e, year, month, day);
  }

  bool recurring_word(Expr &e, const std::string &w) {
    if (w == "every" || w == "each") {
      if (e.every) return false;
      e.every = true;
      return true;
    }
    if (w == "daily" || (w == "day" && e.every)) {
      if (e.daily || e.monthly || e.have_weekday) return false;
      e.daily = true;
      return true;
    }
    if (w == "monthly" || (w == "month" && e.every)) {
      if (e.daily || e.monthly || e.have_weekday) return false;
      e.monthly = true;
      if (is_word(0, "on")) take();
      if (is_word(0, "the")) take();
      return true;
    }
    if (w == "at" || w == "on" || w == "the" || w == "of") return true;
    return false;
  }

  bool item(Expr &e) {
    const Token &t = peek();
    if (t.kind == Kind::kPunct) {
      char p = take().punct;
      if (p == '@' && !recurring_) {
        bool minus = false;
        if (is_punct(0, '-') || is_punct(0, '+')) minus = take().punct == '-';
        if (!is_num(0)) return false;
        e.epoch = true;
        e.epoch_value = (minus ? -1 : 1) * take().num;
        return true;
      }
      if ((p == '+' || p == '-') && is_num(0) && is_unit(1) && !recurring_) {
        int64_t n = take().num;
        return add_rel(e, p == '-' ? -n : n, take().word);
      }
      return false;
    }
    if (t.kind == Kind::kWord) {
      std::string w = take().word;
      if (recurring_ && recurring_word(e, w)) return true;
      if (w == "forever" && !recurring_) {
        e.forever = true;
        return true;
      }
      if (w == "noon") return set_time(e, 12, 0, 0);
      if (w == "midnight") return set_time(e, 0, 0, 0);
      if (!recurring_) {
        if (w == "now" || w == "today") {
          e.have_rel = true;
          return true;
        }
        if (w == "yesterday" || w == "tomorrow") {
          e.rel[kDay] += w == "yesterday" ? -1 : 1;
          e.have_rel = true;
          return true;
        }
        if (w == "last" || w == "this" || w == "next") {
          int ord = w == "last" ? -1 : (w == "this" ? 0 : 1);
          if (peek().kind != Kind::kWord) return false;
          int d = weekday_of(peek().word, names_, false);
          if (d >= 0) {
            take();
            if (e.have_weekday) return false;
            e.have_weekday = true;
            e.weekday = d;
            e.weekday_ord = ord;
            return true;
          }
          return add_rel(e, ord, take().word);
        }
        Unit u;
        int mult;
        if (unit_of(w, u, mult)) return add_rel(e, 1, w);
      }
      if (int m = month_of(w, names_)) return month_date(e, m, 0);
      int d = weekday_of(w, names_, recurring_);
      if (d >= 0) {
        if (e.have_weekday || e.daily || e.monthly) return false;
        e.have_weekday = true;
        e.weekday = d;
        return true;
      }
      // "T" between an ISO date and its time
      if (w == "t" && e.have_date && !e.have_time && is_num(0) && is_punct(1, ':')) return true;
      return false;
    }
    // A number.
    if (is_punct(1, ':')) return clock_time(e);
    if (t.digits == 4 && is_punct(1, '-') && is_num(2) && is_punct(3, '-') && is_num(4)) {
      int y = static_cast<int>(take().num);
      take();
      int m = static_cast<int>(take().num);
      take();
      int d = static_cast<int>(take().num);
      return set_date(e, y, m, d);
    }
    if (is_punct(1, '/') && is_num(2)) return numeric_date(e, '/');
    if (is_punct(1, '.') && is_num(2) && !recurring_) return numeric_date(e, '.');
    if (is_punct(1, '-') && peek(2).kind == Kind::kWord && t.digits <= 2) {
      int d = static_cast<int>(take().num);
      take();
      int m = month_of(take().word, names_);
      if (!m) return false;
      return month_date(e, m, d);
    }
    if (t.digits == 8 && !recurring_) {
      int64_t v = take().num;
      return set_date(e, static_cast<int>(v / 10000), static_cast<int>(v / 100 % 100), static_cast<int>(v % 100));
    }
    if (peek(1).kind == Kind::kWord) {
      const std::string &next = peek(1).word;
      if (is_meridian(1)) {
        int h = static_cast<int>(take().num);
        if (!meridian(h) || !set_time(e, h, 0, 0)) return false;
        return zone(e);
      }
      if (int m = t.digits <= 2 ? month_of(next, names_) : 0) {
        int d = static_cast<int>(take().num);
        take();
        return month_date(e, m, d);
      }
      if (recurring_ && t.digits <= 2 && (next == "st" || next == "nd" || next == "rd" || next == "th")) {
        if (e.month_day || e.daily || e.have_weekday) return false;
        e.month_day = static_cast<int>(take().num);
        take();
        if (is_word(0, "of") && (is_word(1, "the") || is_word(1, "every"))) {
          take();
          take();
          if (!is_word(0, "month")) return false;
          take();
        }
        e.monthly = true;
        return e.month_day >= 1 && e.month_day <= 31;
      }
      if (!recurring_ && is_unit(1)) {
        int64_t n = take().num;
        return add_rel(e, n, take().word);
      }
    }
    if (recurring_ && e.monthly && !e.month_day && t.digits <= 2) {
      e.month_day = static_cast<int>(take().num);
      return e.month_day >= 1 && e.month_day <= 31;
    }
    return false;
  }
};

// ---- evaluation ----

bool local_of(int64_t t, std::tm &tm) { return t >= 0 && t <= kMaxLocal && ll::clk::local(t, tm); }

// Days from 1970-01-01 of a calendar date; any day number counts on from
// the first of the month (the 32nd of a month is the 1st of the next).
int64_t days_from_civil(int64_t y, int m, int64_t d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

// The clock fields of a record read as if they were UTC, in seconds; the
// fields may be out of their ranges (month 13, day 0, hour 24 ...).
int64_t clock_seconds(const std::tm &tm) {
  int64_t y = tm.tm_year + 1900LL, m = tm.tm_mon;
  y += m >= 0 ? m / 12 : -((11 - m) / 12);
  m -= (m >= 0 ? m / 12 : -((11 - m) / 12)) * 12;
  return days_from_civil(y, static_cast<int>(m) + 1, tm.tm_mday) * 86400 + tm.tm_hour * 3600LL + tm.tm_min * 60LL +
         tm.tm_sec;
}

// Seconds east of UTC in force at t.
bool offset_at(int64_t t, int64_t &east) {
  std::tm tm;
  if (!local_of(t, tm)) return false;
  east = clock_seconds(tm) - t;
  return true;
}

enum class Place { kExact, kShifted, kNone };

// The time whose local clock reads as the record. A clock time that occurs
// twice (the hour repeated when daylight saving time ends) is its first
// occurrence; one that is skipped (when it starts) is placed with the offset
// in force before the change, which shows as the clock time moved on
// (02:30 becomes 03:30): kShifted. The platform's mktime is not used, as the
// runtimes disagree on both cases.
Place place(const std::tm &tm, int64_t &out) {
  const int64_t w = clock_seconds(tm);
  int64_t before, after;
  bool hb = offset_at(w - 86400, before), ha = offset_at(w + 86400, after);
  if (!hb && !ha) {
    hb = offset_at(w, before);
    if (!hb) return Place::kNone;
  }
  if (!hb) before = after;
  if (!ha) after = before;
  bool found = false;
  for (int64_t east : {before, after}) {
    int64_t v = w - east, check;
    if (offset_at(v, check) && v + check == w && (!found || v < out)) {
      out = v;
      found = true;
    }
  }
  if (found) return Place::kExact;
  out = w - before;
  int64_t check;
  return offset_at(out, check) ? Place::kShifted : Place::kNone;
}

int days_in_month(int y, int m) {
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (m == 2 && ((y % 4 == 0 && y % 100 != 0) || y % 400 == 0)) return 29;
  return kDays[m - 1];
}

bool evaluate(const Expr &e, int64_t base, int64_t &out) {
  if (e.forever) {
    out = kForever;
    return true;
  }
  if (e.epoch) {
    out = e.epoch_value;
    return out >= 0 && out <= kMaxLocal;
  }
  std::tm tm;
  if (!local_of(base, tm)) return false;
  if (e.have_date) {
    int y = e.year == -1 ? tm.tm_year + 1900 : e.year;
    if (e.day > days_in_month(y, e.month)) return false;
    tm.tm_year = y - 1900;
    tm.tm_mon = e.month - 1;
    tm.tm_mday = e.day;
  }
  if (e.have_time) {
    tm.tm_hour = e.hour;
    tm.tm_min = e.minute;
    tm.tm_sec = e.second;
  } else if (e.have_date || e.have_weekday) {
    tm.tm_hour = tm.tm_min = tm.tm_sec = 0;
  }
  int64_t start;
  if (e.have_zone) {
    start = (days_from_civil(tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday) * 86400 + tm.tm_hour * 3600 +
             tm.tm_min * 60 + tm.tm_sec) - e.zone_minutes * 60;
  } else if (!e.have_date && !e.have_time && !e.have_weekday) {
    start = base;  // relative items only: from the base itself
  } else {
    // A date or time skipped by a change to daylight saving time is no time.
    Place p = place(tm, start);
    if (p == Place::kNone || (p == Place::kShifted && (e.have_date || e.have_time))) return false;
  }
  if (e.have_weekday && !e.have_date) {
    if (!local_of(start, tm)) return false;
    int ord = e.weekday_ord;
    tm.tm_mday += (e.weekday - tm.tm_wday + 7) % 7 + 7 * (ord - (ord > 0 && tm.tm_wday != e.weekday ? 1 : 0));
    if (place(tm, start) == Place::kNone) return false;
  }
  if (e.rel[kYear] || e.rel[kMonth] || e.rel[kDay]) {
    if (!local_of(start, tm)) return false;
    int64_t y = tm.tm_year + e.rel[kYear], m = tm.tm_mon + e.rel[kMonth], d = tm.tm_mday + e.rel[kDay];
    if (y < 0 || y > 9000 || m < -120000 || m > 120000 || d < -4000000 || d > 4000000) return false;
    tm.tm_year = static_cast<int>(y);
    tm.tm_mon = static_cast<int>(m);
    tm.tm_mday = static_cast<int>(d);
    if (place(tm, start) == Place::kNone) return false;
  }
  start += e.rel[kHour] * 3600 + e.rel[kMinute] * 60 + e.rel[kSecond];
  if (start < 0 || start > kMaxLocal) return false;
  // No real time reads as forever.
  if (start == kForever) start = kForever - 1;
  out = start;
  return true;
}

bool parse(const char *text, bool recurring, Expr &e) {
  if (!text) return false;
  std::vector<Token> toks;
  if (!tokenize(text, toks)) return false;
  Parser p(toks, recurring);
  return p.parse(e);
}

// The next time after base at which the recurring expression comes round.
bool next_occurrence(const Expr &e, int64_t base, int64_t &out) {
  if (e.have_rel || e.have_zone || e.forever || e.epoch || e.have_date) return false;
  if (!e.have_time && !e.have_weekday && !e.daily && !e.monthly) return false;
  std::tm day;
  if (!local_of(base, day)) return false;
  day.tm_hour = 12;  // a safe hour while stepping through the days
  for (int k = 0; k < 800; ++k) {
    std::tm cand = day;
    cand.tm_mday += k;
    int64_t noon;
    if (place(cand, noon) == Place::kNone || !local_of(noon, cand)) return false;
    if (e.have_weekday && cand.tm_wday != e.weekday) continue;
    if (e.month_day && cand.tm_mday != e.month_day) continue;
    if (e.monthly && !e.month_day && cand.tm_mday != 1) continue;
    cand.tm_hour = e.hour;
    cand.tm_min = e.minute;
    cand.tm_sec = e.second;
    int64_t t;
    if (place(cand, t) == Place::kNone) return false;
    if (t > base) {
      if (t > kMaxLocal) return false;
      out = t == kForever ? kForever - 1 : t;
      return true;
    }
  }
  return false;
}

}  // namespace

// The shared frame of the exported parsers: parse, place the expression
// relative to the base with 'place', report -1 with errno on any failure.
int answer(const char *text, bool recurring, bool (*place)(const Expr &, int64_t, int64_t &), qz_time64_t base,
           qz_time64_t *out) noexcept {
  try {
    Expr e;
    int64_t t;
    if (!parse(text, recurring, e) || !place(e, ll::timefmt::to64(base), t)) {
      errno = EINVAL;
      return -1;
    }
    if (out) *out = ll::timefmt::from64(t);
    return 0;
  } catch (...) {
    errno = ENOMEM;
    return -1;
  }
}

}  // namespace ll::getdate

extern "C" {

LL_API int bsw_getdate(const char *text, qz_time64_t base, qz_time64_t *out) noexcept {
  return ll::getdate::answer(text, false, ll::getdate::evaluate, base, out);
}

LL_API int bsw_getrecurringdate(const char *text, qz_time64_t base, qz_time64_t *out) noexcept {
  return ll::getdate::answer(text, true, ll::getdate::next_occurrence, base, out);
}

LL_API qz_time64_t bsw_getendofday(qz_time64_t t) noexcept {
  if (ll::timefmt::is_forever(t)) return t;
  std::tm tm;
  int64_t v = ll::timefmt::to64(t);
  if (!ll::getdate::local_of(v, tm)) return t;
  tm.tm_mday += 1;
  tm.tm_hour = tm.tm_min = tm.tm_sec = 0;
  int64_t next;
  if (ll::getdate::place(tm, next) == ll::getdate::Place::kNone || next <= v) return t;
  return ll::timefmt::from64(next - 1);
}

LL_API char *bsw_putdate(qz_time64_t t, char *buf, size_t size) noexcept {
  if (!buf) {
    buf = ll::timefmt::buffers()->form[ll::timefmt::kPutdate];
    size = QZ_TIMETEXT_SIZE;
  }
  if (size == 0) return buf;
  char text[64];
  std::tm tm;
  int64_t v = ll::timefmt::to64(t);
  if (ll::timefmt::is_forever(t)) {
    std::snprintf(text, sizeof text, "forever");
  } else if (!ll::getdate::local_of(v, tm)) {
    std::snprintf(text, sizeof text, "@%lld", static_cast<long long>(v));
  } else {
    // The offset from the calendar fields themselves: exact on every platform.
    int64_t as_utc = ll::getdate::days_from_civil(tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday) * 86400 +
                     tm.tm_hour * 3600 + tm.tm_min * 60 + tm.tm_sec;
    long east = static_cast<long>(as_utc - v);
    long a = east < 0 ? -east : east;
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d %c%02ld%02ld", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, east < 0 ? '-' : '+', a / 3600, a / 60 % 60);
  }
  std::snprintf(buf, size, "%s", text);
  return buf;
}

}  // extern "C"
