// String utilities: hashing, folding, number texts and parsers, percentages,
// trimming, searching and joining.
#include <gtest/gtest.h>

#include <liblocal/strutil.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace {

std::string trimmed(int (*fn)(char *), const char *in) {
  std::string s(in);
  std::vector<char> buf(s.begin(), s.end());
  buf.push_back('\0');
  fn(buf.data());
  return buf.data();
}

TEST(Strutil, HashFoldsCaseAndNeverAnswersZero) {
  EXPECT_EQ(hashstr(nullptr, 7), 7u);
  EXPECT_EQ(hashstr("AB", 1), 75866u);  // (1 * 231 + 'a') * 231 + 'b'
  // seed * 231 + c wraps to 0 for this seed and "a": the answer is 1.
  unsigned inv = 231;  // inverse of 231 modulo 2^32 by Newton steps
  for (int i = 0; i < 5; ++i) inv *= 2u - 231u * inv;
  const unsigned seed = (0u - 97u) * inv;
  ASSERT_EQ(seed * 231u + 97u, 0u);
  EXPECT_EQ(hashstr("a", seed), 1u);
}

TEST(Strutil, LcaseStopsAtTagUcaseDoesNot) {
  char a[] = "ABC Def [I099] TAIL";
  EXPECT_STREQ(lcase(a), "abc def [I099] TAIL");
  char c[] = "ABC [notatag] XYZ";
  EXPECT_STREQ(lcase(c), "abc [notatag] xyz");
  char d[] = "abc [I099] xyz \xc3\xa9";
  EXPECT_STREQ(ucase(d), "ABC [I099] XYZ \xc3\xa9");
}

TEST(Strutil, NumberTexts) {
  EXPECT_STREQ(qz_uint64str(UINT64_MAX), "18446744073709551615");
  EXPECT_STREQ(qz_uint64xstr(0xDEADBEEFull), "deadbeef");
  EXPECT_STREQ(qz_int64str(INT64_MIN), "-9223372036854775808");
  char buf[65];
  char *p = qz_uint64str_buf(buf, 42);
  EXPECT_STREQ(p, "42");
  EXPECT_EQ(p, buf + 62);  // written backwards from the end
  EXPECT_EQ(qz_uint64str_buf(nullptr, 1), nullptr);
  // A ring of twenty texts.
  char *first = qz_uint64str(111);
  std::set<char *> seen{first};
  for (int i = 0; i < 19; ++i) seen.insert(qz_uint64str(1000 + i));
  EXPECT_EQ(seen.size(), 20u);
  EXPECT_STREQ(first, "111");
  EXPECT_EQ(qz_uint64str(999), first);  // the 21st reuses the first (same length: same place)
}

TEST(Strutil, UnsignedParser) {
  int err = -1;
  char *end = nullptr;
  const char *s = "  1234xyz";
  EXPECT_EQ(qz_strtoui64(s, &end, 10, &err), 1234u);
  EXPECT_EQ(err, 0);
  EXPECT_EQ(end, s + 6);
  EXPECT_EQ(qz_strtoui64("0xfF", nullptr, 16, &err), 255u);
  EXPECT_EQ(qz_strtoui64("017", nullptr, 0, &err), 15u);
  EXPECT_EQ(qz_strtoui64("zz", nullptr, 36, &err), 1295u);
  EXPECT_EQ(qz_strtoui64("18446744073709551615", nullptr, 10, &err), UINT64_MAX);
  EXPECT_EQ(err, 0);
  EXPECT_EQ(qz_strtoui64("18446744073709551616", &end, 10, &err), UINT64_MAX);
  EXPECT_EQ(err, 34);
  EXPECT_EQ(*end, '\0');
  EXPECT_EQ(qz_strtoui64("-5", nullptr, 10, &err), 0u);
  EXPECT_EQ(err, 34);
  s = "abc";
  EXPECT_EQ(qz_strtoui64(s, &end, 10, &err), 0u);
  EXPECT_EQ(err, 22);
  EXPECT_EQ(end, s);
  EXPECT_EQ(qz_strtoui64("12", nullptr, 1, &err), 0u);
  EXPECT_EQ(err, 22);
  err = 0;
  EXPECT_EQ(qz_strtoui64(nullptr, nullptr, 10, &err), 0u);
  EXPECT_EQ(err, 22);
  EXPECT_EQ(qz_strtoui64("0x", &end, 16, nullptr), 0u);  // the 0 alone
}

TEST(Strutil, SignedParserSaturates) {
  int err = -1;
  EXPECT_EQ(qz_strtoi64("-9223372036854775808", nullptr, 10, &err), INT64_MIN);
  EXPECT_EQ(err, 0);
  EXPECT_EQ(qz_strtoi64("-9223372036854775809", nullptr, 10, &err), INT64_MIN);
  EXPECT_EQ(err, 34);
  EXPECT_EQ(qz_strtoi64("9223372036854775808", nullptr, 10, &err), INT64_MAX);
  EXPECT_EQ(err, 34);
  EXPECT_EQ(qz_strtoi64("+42", nullptr, 10, &err), 42);
  EXPECT_EQ(qz_strtoi64("-0x10", nullptr, 0, &err), -16);
  EXPECT_EQ(qz_strtoi64("", nullptr, 10, &err), 0);
  EXPECT_EQ(err, 22);
}

TEST(Strutil, SafePercentSteps) {
  EXPECT_EQ(safe_percent(50, 200), 25u);
  EXPECT_EQ(safe_percent(1, 0), 0xFFFFFFFFu);
  EXPECT_EQ(safe_percent(21474836, 21474836), 100u);                 // step 2 edge
  EXPECT_EQ(safe_percent(30000000, 1000), 3000000u);                  // step 3
  EXPECT_EQ(safe_percent(3000000000u, 4000000000u), 75u);             // step 4
  // A huge part over a whole of 1 saturates instead of wrapping.
  EXPECT_EQ(safe_percent(42949673u, 1), 0xFFFFFFFEu);
  EXPECT_EQ(safe_percent(42949672u, 1), 4294967200u);
}

TEST(Strutil, Trimming) {
  EXPECT_EQ(trimmed(remove_enclosing_quotes, "'abc'"), "abc");
  EXPECT_EQ(trimmed(remove_enclosing_quotes, "'abc\""), "'abc\"");
  EXPECT_EQ(trimmed(remove_enclosing_quotes, "\""), "\"");   // one character: left alone
  EXPECT_EQ(trimmed(remove_enclosing_quotes, "\"\""), "");
  EXPECT_EQ(trimmed(remove_buffering_space, " \t a b \r\n"), "a b");
  EXPECT_EQ(trimmed(remove_buffering_space, "   "), "");
  EXPECT_EQ(remove_enclosing_quotes(nullptr), 1);
  auto f = remove_buffering_space_and_enclosing_quotes;
  EXPECT_EQ(trimmed(f, " \"x y\" "), "x y");
  EXPECT_EQ(trimmed(f, "a \"x\""), "a \"x\"");
  // Only white space may follow the last quote, however much of it.
  EXPECT_EQ(trimmed(f, "\"x y\"  "), "x y");
  EXPECT_EQ(trimmed(f, "\"x y\" z"), "\"x y\" z");
  // The first quote kind occurring twice decides; single quotes inside stay.
  EXPECT_EQ(trimmed(f, " \"it's\" "), "it's");
  EXPECT_EQ(trimmed(f, " 'a \"b' "), "a \"b");
  EXPECT_EQ(trimmed(f, " plain "), " plain ");
  EXPECT_EQ(all_whitespace(""), 1);
  EXPECT_EQ(all_whitespace(" \t\n"), 1);
  EXPECT_EQ(all_whitespace(" x "), 0);
}

TEST(Strutil, Stristr) {
  const char *h = "Disk Full on C:";
  EXPECT_EQ(stristr(h, "full ON"), h + 5);
  EXPECT_EQ(stristr(h, "c:x"), nullptr);  // runs off the end
  EXPECT_EQ(stristr(h, ""), h);
  EXPECT_EQ(stristr(nullptr, "a"), nullptr);
}

TEST(Strutil, Joining) {
  char *list[] = {const_cast<char *>("a"), const_cast<char *>("bc"), const_cast<char *>(""),
                  const_cast<char *>("d"), nullptr};
  char *joined = qz_strvcat(nullptr, list, ',');
  EXPECT_STREQ(joined, "a,bc,,d");
  std::free(joined);
  char buf[32];
  EXPECT_EQ(qz_strvcat(buf, list, 0), buf);
  EXPECT_STREQ(buf, "abcd");
  char *r = qz_argvcat(nullptr, 2, list, ' ');
  EXPECT_STREQ(r, "a bc");
  std::free(r);
}

TEST(Strutil, EndCopies) {
  char buf[16];
  char *e = endstrcpy(buf, "ab");
  e = endstrcpy(e, "cd");
  EXPECT_STREQ(buf, "abcd");
  EXPECT_EQ(e, buf + 4);
  std::memset(buf, 'x', sizeof buf);
  EXPECT_EQ(endstrncpy(buf, "abcdef", 3), buf + 3);
  EXPECT_EQ(std::string(buf, 4), "abcx");  // no terminator written
  EXPECT_EQ(endstrncpy(buf, "abc", 0), buf);
  EXPECT_EQ(buf[0], 'a');
}

}  // namespace
