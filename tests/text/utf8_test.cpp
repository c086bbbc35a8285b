// UTF-8 codec: the coding table, tolerance of bad input, buffer limits, and
// the ANSI and console sides under real locales / code pages.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <liblocal.h>

#include "lltest.h"

namespace {
std::u16string wide(const char *s) {
  std::vector<qzwchar_t> w(std::strlen(s) + 1);
  utf8_mbstowcs(w.data(), s, w.size());
  return std::u16string(reinterpret_cast<const char16_t *>(w.data()));
}
using lltest::hex;
}  // namespace

TEST(Utf8, SingleSequences) {
  qzwchar_t w = 0x1234;
  EXPECT_EQ(utf8_mbtowc(&w, "", 1), 0);
  EXPECT_EQ(w, 0);
  EXPECT_EQ(utf8_mbtowc(&w, nullptr, 4), 0);
  EXPECT_EQ(utf8_mbtowc(&w, "A", 0), -1);  // no bytes available
  EXPECT_EQ(utf8_mbtowc(&w, "\xe2\x82\xac", 3), 3);
  EXPECT_EQ(w, 0x20AC);
  EXPECT_EQ(utf8_mbtowc(&w, "\xe2\x82\xac", 2), -1);  // truncated
  EXPECT_EQ(utf8_mbtowc(&w, "\xe0\x80\xaf", 3), -1);  // overlong slash
  EXPECT_EQ(utf8_mbtowc(&w, "\x80", 1), -1);          // stray continuation
  EXPECT_EQ(utf8_mbtowc(&w, "\xc3\x28", 2), -1);      // bad continuation
  EXPECT_EQ(utf8_mbtowc(&w, "\xf0\x90\x80\x80", 4), 4);
  EXPECT_EQ(w, 0x0000);  // U+10000 truncated to 16 bits
  EXPECT_EQ(utf8_mbtowc(&w, "\xfc\x84\x80\x80\x80\x80", 6), 6);
  EXPECT_EQ(utf8_mbtowc(&w, "\xfe\x80\x80\x80\x80\x80\x80", 7), -1);
  EXPECT_EQ(utf8_mblen("\xc3\xa9", 2), 2);

  char out[4] = {};
  EXPECT_EQ(utf8_wctomb(out, 0x20AC), 3);
  EXPECT_EQ(std::string(out, 3), "\xe2\x82\xac");
  EXPECT_EQ(utf8_wctomb(nullptr, 0x41), 0);
}

TEST(Utf8, EveryWideCharacterRoundTrips) {
  char buf[4];
  for (unsigned c = 1; c <= 0xFFFF; ++c) {
    int n = utf8_wctomb(buf, static_cast<qzwchar_t>(c));
    qzwchar_t back = 0;
    ASSERT_EQ(utf8_mbtowc(&back, buf, static_cast<size_t>(n)), n) << c;
    ASSERT_EQ(back, c);
  }
}

TEST(Utf8, LengthsCountCharactersOrFail) {
  EXPECT_EQ(utf8_mbslen("abc"), 3);
  EXPECT_EQ(utf8_mbslen("\xe2\x82\xac" "a\xc3\xa9"), 3);
  EXPECT_EQ(utf8_mbslen("a\x80"), -1);
  EXPECT_EQ(utf8_mbslen(nullptr), 0);
  EXPECT_EQ(ansi_mbslen("a\xc3\xa9"), 2);
  EXPECT_EQ(ansi_mbslen("a\xc3"), -1);
}

TEST(Utf8, WholeTextConversionsReplaceAndContinue) {
  // C0 80: the lead byte is invalid, then the stray continuation is too.
  EXPECT_EQ(wide("a\xc0\x80z"), u"a||z");
  EXPECT_EQ(wide("\xe2\x82"), u"||");

  const qzwchar_t euro[] = {0x20AC, 0};
  char out[8];
  std::memset(out, 'Q', sizeof out);
  EXPECT_EQ(utf8_wcstombs(out, euro, 2), 0u);  // a 3-byte character does not fit
  EXPECT_EQ(out[0], '\0');
  EXPECT_EQ(out[2], 'Q');
  EXPECT_EQ(utf8_wcstombs(out, euro, 4), 3u);
  EXPECT_EQ(utf8_wcstombs(nullptr, euro, 0), 3u);  // measuring

  qzwchar_t w[3] = {9, 9, 9};
  EXPECT_EQ(utf8_mbstowcs(w, "abc", 2), 1u);  // the count includes the terminator
  EXPECT_EQ(w[0], 'a');
  EXPECT_EQ(w[1], 0);
  EXPECT_EQ(w[2], 9);

  char big[64];
  EXPECT_EQ(widetoutf8(euro, big, sizeof big), 1);
  EXPECT_STREQ(big, "\xe2\x82\xac");
  EXPECT_EQ(widetoutf8(nullptr, big, sizeof big), 0);
  qzwchar_t wb[8];
  EXPECT_EQ(utf8towide("\xe2\x82\xac", wb), 1);
  EXPECT_EQ(wb[0], 0x20AC);
  EXPECT_EQ(utf8towide(nullptr, wb), 0);
  EXPECT_STREQ(get_utf8_codeset(), "UTF-8");
  EXPECT_NE(get_ansi_codeset(), nullptr);
}

// The ANSI side follows the locale's encoding (POSIX) or code page (Windows).
LLTEST_CHILD(ansi_side) {
  const std::string which = argv[0];
  if (which == "latin1")
    std::setlocale(LC_ALL, lltest::kWindows ? ".1252" : "en_US.ISO-8859-1");
  else if (which == "cp437")
    std::setlocale(LC_ALL, ".437");
  else
    std::setlocale(LC_ALL, lltest::kWindows ? ".65001" : "C.UTF-8");
  char out[64];
  // UTF-8 "café €" to ANSI, then ANSI "\xe9\x80" back to UTF-8.
  ansi_mbs(out, "caf\xc3\xa9 \xe2\x82\xac", sizeof out);
  std::printf("%s ", hex(out).c_str());
  utf8_mbs(out, "\xe9\x80", sizeof out);
  std::printf("%s ", hex(out).c_str());
  // Limits: nothing past the stated size.
  std::memset(out, 'Q', sizeof out);
  size_t n = ansi_mbs(out, "abcdef", 4);
  std::printf("%zu%c%c %s\n", n, out[3] == 0 ? 'z' : '!', out[4], get_ansi_codeset());
  return 0;
}

TEST(Utf8, AnsiSideFollowsTheLocale) {
  auto r = lltest::run_child("ansi_side", {"latin1"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  if (lltest::kWindows)  // code page 1252 has the euro sign at 0x80
    EXPECT_EQ(r.out, "636166e92080 c3a9e282ac 3zQ CP1252\n");
  else  // ISO-8859-1 has no euro sign; 0x80 is a C1 control
    EXPECT_EQ(r.out, "636166e9207c c3a9c280 3zQ ISO-8859-1\n");

  r = lltest::run_child("ansi_side", {"utf8"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  if (!lltest::kWindows) {  // UTF-8 passes through; lone E9 and 80 are invalid there
    EXPECT_EQ(r.out, "636166c3a920e282ac 7c7c 3zQ UTF-8\n");
  }

  if (lltest::kWindows) {
    r = lltest::run_child("ansi_side", {"cp437"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(r.out, "63616682207c ce98c387 3zQ CP437\n");
  }
}

TEST(Utf8, ConsoleSideRoundTrips) {
  char oem[64], back[64];
  ASSERT_GE(utf8_to_oem("plain text", oem, sizeof oem), 0);
  EXPECT_GE(oem_to_utf8(oem, back, sizeof back), 0);
  EXPECT_STREQ(back, "plain text");
  EXPECT_EQ(utf8_to_oem(nullptr, oem, sizeof oem), -1);
  EXPECT_EQ(oem_to_utf8(nullptr, back, sizeof back), 0);
  EXPECT_STREQ(back, "");
}
