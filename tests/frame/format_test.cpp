// The library formatter: agreement with the runtime's printf, numbered
// arguments, "*" widths, display columns of %s, the buffer forms and hostile
// formats.
#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <liblocal.h>

#include "lltest.h"

extern "C" int llt_format_compatible(const char *fmt, const char *reference);

namespace {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
std::string lib(const char *fmt, ...) {
  char buf[4096];
  va_list ap;
  va_start(ap, fmt);
  const int n = qzvsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  EXPECT_EQ(n, static_cast<int>(std::strlen(buf))) << fmt;
  return buf;
}

// The runtime's own formatter: on Windows the system runtime (msvcrt), whose
// formatting the library keeps, not the compiler's replacement.
std::string rt(const char *fmt, ...) {
  char buf[4096] = {};
  va_list ap;
  va_start(ap, fmt);
#ifdef _WIN32
  _vsnprintf(buf, sizeof buf - 1, fmt, ap);
#else
  std::vsnprintf(buf, sizeof buf, fmt, ap);
#endif
  va_end(ap);
  return buf;
}

#define SAME(...) EXPECT_EQ(lib(__VA_ARGS__), rt(__VA_ARGS__))

TEST(Format, IntegersAsTheRuntime) {
  const int ints[] = {0, 1, -1, 42, -42, 1234567, INT_MAX, INT_MIN};
  const char *fmts[] = {"%d",   "%i",    "%5d",   "%-5d|", "%05d",  "%+d",   "% d",    "%.3d",   "%.0d",
                        "%8.3d", "%-8.3d|", "%+08d", "%u",   "%x",    "%X",    "%#x",    "%#X",    "%o",
                        "%#o",  "%#8x",  "%-#8x|", "%#08x", "%.0x",  "%hd",    "%hu",    "%+5u",  "% x",   "%0-5d|", "%#.5o", "%10.4x"};
  for (const char *f : fmts)
    for (int v : ints) EXPECT_EQ(lib(f, v), rt(f, v)) << f << " " << v;
  // As the C standard has them, also where the Windows runtime differs (it
  // knows no "hh" and drops the zero of "%#.0o").
  EXPECT_EQ(lib("%hhd|%hhx|%hhu", 1234567, -1, 511), "-121|ff|255");
  EXPECT_EQ(lib("%#.0o|%#o|%.0o", 0, 0, 0), "0|0|");
}

TEST(Format, WideIntegersAsTheRuntime) {
  const long long vals[] = {0, -1, LLONG_MAX, LLONG_MIN, 4294967296LL};
  for (long long v : vals) {
    SAME("%lld|%llu|%llx|%20lld|%-20lld|", v, static_cast<unsigned long long>(v), v, v, v);
    SAME("%ld|%lu|%lx", static_cast<long>(v), static_cast<unsigned long>(v), static_cast<unsigned long>(v));
    SAME("%zu|%zd|%jd|%td", static_cast<size_t>(v), static_cast<ptrdiff_t>(v), static_cast<intmax_t>(v),
         static_cast<ptrdiff_t>(v));
  }
  EXPECT_EQ(lib("%I64d %I64u", -5LL, 7ULL), "-5 7");
  EXPECT_EQ(lib("%Ld", -5LL), "-5");
}

TEST(Format, CharactersFloatsAndPointers) {
  SAME("[%c][%3c][%-3c]", 'a', 'b', 'c');
  SAME("%.2f|%8.3f|%-8.1f|%+.0f|%08.2f|% f", 3.14159, -2.5, 1.25, 2.5, -1.5, 0.1);
  SAME("%g|%G|%.3g|%#g|%10.4g", 0.0001, 1e-10, 1234567.0, 1.5, 3.25);
  EXPECT_EQ(lib("%Lf|%.3Lf|%Lg", 1.5L, -0.125L, 2.0L), "1.500000|-0.125|2");
  SAME("%*.*f|%-*.*f|", 10, 2, 3.14159, 10, 3, 2.5);
  int x;
  SAME("%p", static_cast<void *>(&x));
  SAME("%20p|", static_cast<void *>(&x));
}

TEST(Format, PercentUnknownAndNothingWrittenThroughN) {
  EXPECT_EQ(lib("100%%"), "100%");
  int n = 77;
  EXPECT_EQ(lib("ab%ncd", &n), "abcd");
  EXPECT_EQ(n, 77);
  EXPECT_EQ(lib("%y and %d", 5), "%y and 5");
  EXPECT_EQ(lib("trailing %"), "trailing %");
  EXPECT_EQ(lib("%s|%5s|%.2s", static_cast<char *>(nullptr), "ab", "xyz"), "(null)|   ab|xy");
}

TEST(Format, NumberedArguments) {
  EXPECT_EQ(lib("%2$s %1$s", "world", "hello"), "hello world");
  EXPECT_EQ(lib("%1$s-%1$s-%2$d", "ab", 7), "ab-ab-7");
  EXPECT_EQ(lib("%2$*1$d|%3$-*1$s|", 5, 42, "x"), "   42|x    |");
  EXPECT_EQ(lib("%1$.*2$f", 3.14159, 2), "3.14");
  EXPECT_EQ(lib("%3$s %1$d", 1, 2, "three"), "three 1");  // argument 2 read as an int
  EXPECT_EQ(lib("%2$lld %1$f", 0.5, 1LL << 40), "1099511627776 0.500000");
  EXPECT_EQ(lib("cost: $5 for %d", 3), "cost: $5 for 3");
}

TEST(Format, InconsistentNumberedFormatsAreWrittenLiterally) {
  EXPECT_EQ(lib("%1$s and %s", "a", "b"), "%1$s and %s");
  EXPECT_EQ(lib("%1$d %1$s", 5), "%1$d %1$s");
  EXPECT_EQ(lib("%65$d", 1), "%65$d");
  EXPECT_EQ(lib("%1$*d", 1, 2), "%1$*d");
  EXPECT_EQ(lib("%0$d", 1), "%0$d");
}

TEST(Format, StarWidthsAndPrecisions) {
  SAME("[%*d][%*d][%.*d][%.*s]", 6, 42, -6, 42, -1, 7, -3, "abcdef");
  EXPECT_EQ(lib("[%*s]", -4, "ab"), "[ab  ]");
  char buf[16];
  EXPECT_EQ(qzsnprintf(buf, sizeof buf, "[%-*d]", INT_MIN, 1), -1);  // INT_MIN: left, INT_MAX wide
  EXPECT_STREQ(buf, "[1             ");
}

TEST(Format, StringWidthsCountDisplayColumns) {
  const char *jp = "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E";  // three ideographs, six columns
  EXPECT_EQ(utf8_ttystrlen(jp), 6);
  EXPECT_EQ(lib("[%-8s]", jp), std::string("[") + jp + "  ]");
  EXPECT_EQ(lib("[%8s]", jp), std::string("[  ") + jp + "]");
  EXPECT_EQ(lib("[%.5s]", jp), "[\xE6\x97\xA5\xE6\x9C\xAC]");     // a third would need columns 5-6
  EXPECT_EQ(lib("[%.1s]", jp), "[]");                                 // never half a character
  EXPECT_EQ(lib("[%-4.3s]", "\xC3\xA9t\xC3\xA9"), "[\xC3\xA9t\xC3\xA9 ]");  // e-acute is one column
  // A sequence cut by the terminator is not read past it.
  EXPECT_EQ(lib("[%5s]", "a\xE3"), "[  a\xE3]");
  EXPECT_EQ(lib("[%.9s]", "\xF0\x9F"), "[\xF0\x9F]");
}

TEST(Format, DisplayColumnTable) {
  struct {
    const char *s;
    int cols;
  } t[] = {
      {"", 0},       {"abc", 3},
      {"\xC3\xA9", 1},                  // C0-DF
      {"\xE2\x82\xAC", 1},              // E0-E2: euro sign
      {"\xE3\x81\x82", 2},              // E3-EE: hiragana
      {"\xEF\xA4\x80", 2},              // EF, second below AC
      {"\xEF\xBD\x9F", 2},              // EF BD below A0
      {"\xEF\xBD\xA1", 1},              // half-width katakana
      {"\xEF\xBF\xA0", 2},              // EF BF A0-A7
      {"\xEF\xBF\xBD", 1},              // replacement character
      {"\xF0\x9F\x98\x80", 2},          // F0-F7
      {"\xFC\x84\x80\x80\x80\x80", 2}, {"\xFC\x84", 2},  // cut short by the terminator
  };
  for (auto &c : t) EXPECT_EQ(utf8_ttystrlen(c.s), c.cols) << c.s;
  EXPECT_EQ(utf8_ttystrlen(nullptr), 0);
}

TEST(Format, WideArguments) {
  EXPECT_EQ(lib("%ls|%lc|%5ls|", L"h\u00e9", static_cast<wint_t>(0x65e5), L"ab"), "h\xC3\xA9|\xE6\x97\xA5|   ab|");
  EXPECT_EQ(lib("%ls", static_cast<wchar_t *>(nullptr)), "(null)");
}

TEST(Format, BufferFormsAndCutting) {
  char buf[8];
  std::memset(buf, 'Z', sizeof buf);
  EXPECT_EQ(qzsnprintf(buf, 5, "%s", "abcdefgh"), 8);
  EXPECT_STREQ(buf, "abcd");
  EXPECT_EQ(buf[5], 'Z');
  // The cut never leaves the first bytes of a character.
  EXPECT_EQ(qzsnprintf(buf, 5, "ab%s", "\xE6\x97\xA5"), 5);
  EXPECT_STREQ(buf, "ab");
  EXPECT_EQ(qzsnprintf(buf, 0, "%d", 12345), 5);
  EXPECT_EQ(buf[0], 'a');
  EXPECT_EQ(qzsnprintf(nullptr, 0, "%s", "xyz"), 3);
  EXPECT_EQ(qzsnprintf(buf, sizeof buf, nullptr), -1);

  char big[64];
  EXPECT_EQ(qzsprintf(big, "%s=%d", "n", 5), 3);
  EXPECT_STREQ(big, "n=5");

  char *a = qzasprintf("%s %05d", "x", 42);
  ASSERT_NE(a, nullptr);
  EXPECT_STREQ(a, "x 00042");
  std::free(a);
  // The allocated form holds the format's length plus 12288 bytes.
  a = qzasprintf("%20000d", 1);
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(std::strlen(a), std::strlen("%20000d") + 12288 - 1);
  std::free(a);
  EXPECT_EQ(qzasprintf(nullptr), nullptr);
}

TEST(Format, HugeWidthsAndPrecisions) {
  char buf[32];
  EXPECT_EQ(qzsnprintf(buf, sizeof buf, "%*d", INT_MAX, 1), INT_MAX);
  EXPECT_EQ(std::strlen(buf), sizeof buf - 1);
  EXPECT_EQ(qzsnprintf(buf, sizeof buf, "%99999999999999999999d|%s", 1, "x"), -1);
  EXPECT_EQ(std::strlen(buf), sizeof buf - 1);
  EXPECT_EQ(qzsnprintf(buf, sizeof buf, "%.100000f", 1.0), 100002);
  EXPECT_EQ(std::string(buf), std::string("1.") + std::string(sizeof buf - 3, '0'));
  EXPECT_EQ(qzsnprintf(buf, sizeof buf, "%-100000f|", 1.0), 100001);
  EXPECT_EQ(std::string(buf, 8), "1.000000");
  EXPECT_EQ(qzsnprintf(buf, sizeof buf, "%0100000.1f", -1.0), 100000);
  EXPECT_EQ(std::string(buf, 4), "-000");
}

TEST(Format, TranslationsAreCheckedAgainstTheOriginal) {
  struct {
    const char *translated, *original;
    bool ok;
  } t[] = {
      {"%2$s a %1$d", "%d b %s", true}, {"only %s", "%s and %d", true},  // fewer is fine
      {"no arguments", "%s", true},     {"%p", "%s", true},
      {"%1$s %1$d", "%d", true},        // written literally: reads nothing
      {"%*d", "%d %d", true},           {"%s %s", "%s", false},  // more conversions
      {"%s", "%d", false},              {"%f", "%d", false},     {"%ls", "%s", false},
      {"%3$s", "%d %f %s", false},      // argument 2 would be read as an int
  };
  for (auto &c : t) EXPECT_EQ(llt_format_compatible(c.translated, c.original) != 0, c.ok) << c.translated;
}
#pragma GCC diagnostic pop

}  // namespace
