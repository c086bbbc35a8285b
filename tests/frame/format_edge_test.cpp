// The library formatter at its edges: the length modifiers other compilers'
// callers use, wide characters and texts, numbered arguments next to "%%"
// and unknown conversions, texts longer than the formatter's own buffers,
// and the line output of long UTF-8 texts that must not cut a character.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#ifndef _WIN32
#include <unistd.h>
#endif

#include <liblocal.h>

#include "lltest.h"

namespace {

// The format is a variable: these are the formatter's extensions, which the
// compiler's own format checking does not know.
std::string fmt(const char *f, ...) {
  char buf[4096];
  va_list ap;
  va_start(ap, f);
  const int n = qzvsnprintf(buf, sizeof buf, f, ap);
  va_end(ap);
  return n < 0 ? "<fail>" : std::string(buf);
}

TEST(FormatEdge, LengthModifiersWideTextAndLiterals) {
  // U+1F600 as one wide character, or as a surrogate pair where wchar_t is
  // 16 bits wide.
  std::wstring wide = {L'a', static_cast<wchar_t>(0xE4), static_cast<wchar_t>(0x20AC)};
  if (sizeof(wchar_t) == 4) {
    wide += static_cast<wchar_t>(0x1F600);
  } else {
    wide += static_cast<wchar_t>(0xD83D);
    wide += static_cast<wchar_t>(0xDE00);
  }
  struct Case {
    std::string got;
    const char *want;
  } cases[] = {
      {fmt("%qd|%I64d|%I32d|%Id", -5LL, -6LL, -7, static_cast<size_t>(8)), "-5|-6|-7|8"},
      {fmt("%I64u %qx", 0xFFFFFFFFFFFFFFFFULL, 0x1234567890ULL), "18446744073709551615 1234567890"},
      {fmt("%jx|%zx|%tx", static_cast<intmax_t>(-1), static_cast<size_t>(255), static_cast<ptrdiff_t>(16)),
       "ffffffffffffffff|ff|10"},
      {fmt("%'d", 1234567), "1234567"},  // no digit grouping in the library's output
      {fmt("%C%wc%hC", static_cast<wchar_t>(0x20AC), static_cast<wchar_t>(0xE4), 'x'), "\xe2\x82\xac\xc3\xa4x"},
      {fmt("[%S]", wide.c_str()), "[a\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80]"},
      {fmt("[%5.2S]", wide.c_str()), "[   a\xc3\xa4]"},
      {fmt("[%ls]", static_cast<const wchar_t *>(nullptr)), "[(null)]"},
      {fmt("%y|%5k|%"), "%y|%5k|%"},  // unknown conversions stand as written
      {fmt("%2$s%%%1$s%y", "a", "b"), "b%a%y"},
      {fmt("%1$lld %2$jd %3$zu %4$td %5$Lg", -1LL, static_cast<intmax_t>(2), static_cast<size_t>(3),
           static_cast<ptrdiff_t>(-4), static_cast<long double>(0.5)),
       "-1 2 3 -4 0.5"},
      {fmt("%65$d", 1), "%65$d"},        // beyond the highest argument number: literal
      {fmt("%1$d %d", 1, 2), "%1$d %d"},  // numbered and unnumbered mixed: literal
  };
  for (const auto &c : cases) EXPECT_EQ(c.got, c.want);
  if (sizeof(wchar_t) == 4) {
    const wchar_t beyond[] = {static_cast<wchar_t>(0x110000), L'z', 0};
    EXPECT_EQ(fmt("[%ls]", beyond), "[|z]");  // not a character: the substitute
  }
}

TEST(FormatEdge, TextsLongerThanTheFormattersBuffers) {
  // A wide text of more characters than the stack buffer holds.
  std::wstring w(1000, static_cast<wchar_t>(0x20AC));
  std::string want;
  for (int i = 0; i < 1000; ++i) want += "\xe2\x82\xac";
  EXPECT_EQ(fmt("%ls", w.c_str()), want);

  // A number with a width wider than the stack buffer; cut by the bound
  // yet counted in full.
  char small[16];
  EXPECT_EQ(qzsnprintf(small, sizeof small, "%700.1f", 2.5), 700);
  EXPECT_STREQ(small, "               ");
  char *big = qzasprintf("%-700.1f|", 2.5);
  ASSERT_NE(big, nullptr);
  EXPECT_EQ(std::strlen(big), 701u);
  EXPECT_EQ(std::string(big).substr(0, 4), "2.5 ");
  std::free(big);
  char wide_pad[800];
  EXPECT_EQ(qzsnprintf(wide_pad, sizeof wide_pad, "%0700.1f", -2.5), 700);
  EXPECT_EQ(std::string(wide_pad).substr(0, 3), "-00");
  EXPECT_EQ(std::string(wide_pad).substr(696), "02.5");  // zeros after the sign
}

#ifndef _WIN32
// Long lines through a converted standard output, in pieces that must end
// on character boundaries; and converted line input.
LLTEST_CHILD(puts_long) {
  if (!std::setlocale(LC_ALL, "C.UTF-8")) return 2;
  std::string s;
  while (s.size() < 30000) s += "ab\xe2\x82\xac\xc3\xa4";  // 7 bytes: pieces fall inside characters
  if (qzputs(s.c_str()) < 0) return 3;
  if (qzfputs(s.c_str(), stdout) < 0) return 4;
  std::fflush(stdout);
  char line[64];
  if (!qzgets(line)) return 5;
  std::printf("\n[%s]", line);
  if (!qzfgets_utf8(line, sizeof line, stdin)) return 6;
  std::printf("[%s]", line);
  utf8_fp(stdin);
  if (!qzfgets_utf8(line, sizeof line, stdin)) return 7;
  std::printf("[%s]", line);
  if (qzgets(line)) return 8;  // the end
  return 0;
}

TEST(FormatEdge, LongConvertedLinesKeepEveryCharacter) {
  lltest::TempDir d;
  d.write("in", "first \xc3\xa4\nsecond\nthird\n");
  lltest::RunOptions o;
  o.input = d.file("in");
  std::vector<std::string> args = {"--lltest-child", "puts_long"};
  auto r = lltest::run_program(lltest::self_path(), args, o);
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::string s;
  while (s.size() < 30000) s += "ab\xe2\x82\xac\xc3\xa4";
  EXPECT_EQ(r.out, s + "\n" + s + "\n[first \xc3\xa4][second\n][third\n]");
}

#endif  // !_WIN32

}  // namespace
