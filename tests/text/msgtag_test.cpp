// Message tags: encoding and decoding, finding, stripping, gathering, and the
// comparisons that skip them.
#include <gtest/gtest.h>

#include <liblocal/msgtag.h>

#include <climits>
#include <cstring>
#include <random>
#include <string>

namespace {

std::string tag(int a, int b) {
  char buf[64] = "";
  append_msg_suffix(buf, a, b);
  return buf;
}

std::string gathered(const char *in) {
  char buf[512];
  std::strcpy(buf, in);
  return gather_msg_ids(buf);
}

std::string stripped(const char *in) {
  char buf[512];
  std::strcpy(buf, in);
  return strip_msg_ids(buf);
}

TEST(Msgtag, Encoding) {
  EXPECT_EQ(tag(17, 264), " [I099]");
  EXPECT_EQ(tag(-1, 3), " [Z04]");
  EXPECT_EQ(tag(0, 0), " [0]");
  EXPECT_EQ(tag(31, 32), " [W021]");
  // The longest tag: two numbers of seven digits each.
  EXPECT_EQ(tag(INT_MAX, INT_MAX).size(), 18u);
  char buf[40] = "disk full";
  EXPECT_EQ(append_msg_suffix(buf, 17, 264), 0);
  EXPECT_STREQ(buf, "disk full [I099]");
}

TEST(Msgtag, DecodingRoundTrips) {
  int a = 0, b = 0;
  EXPECT_EQ(extract_msg_suffix("I099]", &a, &b), 0);
  EXPECT_EQ(a, 17);
  EXPECT_EQ(b, 264);
  EXPECT_EQ(extract_msg_suffix("I]", &a, &b), -1);
  EXPECT_EQ(extract_msg_suffix("I0", &a, &b), -1);
  EXPECT_EQ(extract_msg_suffix("x099]", &a, &b), -1);
  EXPECT_EQ(extract_msg_suffix(nullptr, &a, &b), -1);
  EXPECT_EQ(from_base32(nullptr), 0);
  EXPECT_EQ(from_base32("99]"), 264);
  std::mt19937 rng(4);
  for (int i = 0; i < 2000; ++i) {
    const int x = static_cast<int>(rng() >> (rng() % 32)) & INT_MAX, y = static_cast<int>(rng() & INT_MAX);
    const std::string t = tag(x, y);
    ASSERT_EQ(extract_msg_suffix(t.c_str() + 2, &a, &b), 0) << t;
    EXPECT_EQ(a, x) << t;
    EXPECT_EQ(b, y) << t;
  }
}

TEST(Msgtag, Finding) {
  const char *s = "disk full [I099]";
  EXPECT_EQ(strmsg(s), s + 9);
  EXPECT_EQ(strmsg("a [xyz]"), nullptr);
  EXPECT_EQ(strmsg("a [I099"), nullptr);
  EXPECT_EQ(strmsg("a []"), nullptr);
  EXPECT_EQ(strmsg(nullptr), nullptr);
  const char *t = "a [x] b [I-J0Z]";
  EXPECT_EQ(strmsg(t), t + 7);
}

TEST(Msgtag, Stripping) {
  EXPECT_EQ(stripped("a [I099] b [I09A]\n"), "a b\n");
  EXPECT_EQ(stripped(" [I099] keeps the leading tag"), " [I099] keeps the leading tag");
  EXPECT_EQ(stripped(" [I099] x [I09A]"), " [I099] x");
  EXPECT_EQ(stripped("no tag [here]"), "no tag [here]");
  EXPECT_EQ(stripped("adjacent [1] [2] [3]."), "adjacent.");
}

TEST(Msgtag, Gathering) {
  EXPECT_EQ(gathered("a [I099] b [I09A]\n"), "a b [I099-I09A]\n");
  EXPECT_EQ(gathered("no tags\n"), "no tags\n");
  EXPECT_EQ(gathered("one [I099]  \r\n"), "one [I099]  \r\n");
  EXPECT_EQ(gathered(" [I099] lead [06]"), " [I099] lead [06]");
  // At most 100 characters of tags are kept; the others are dropped.
  std::string in = "x";
  for (int i = 0; i < 30; ++i) in += " [I099]";
  in += "\n";
  const std::string out = gathered(in.c_str());
  std::string expect = "x [I099";
  for (int i = 0; i < 18; ++i) expect += "-I099";
  EXPECT_EQ(out, expect + "]\n");
  // A tag longer than the budget is removed and not taken.
  const std::string huge = "t [" + std::string(150, '1') + "] [I099]";
  EXPECT_EQ(gathered(huge.c_str()), "t [I099]");
}

TEST(Msgtag, ComparisonsSkipTags) {
  EXPECT_EQ(qzstrcmp("disk [I099] full", "disk full"), 0);
  EXPECT_EQ(qzstrcmp("abc", "abd"), 'c' - 'd');
  EXPECT_EQ(qzstrcmp("ab", "abc"), -'c');
  EXPECT_EQ(qzstrcmp("x [I099] a", "x [I09A] b"), 'a' - 'b');
  EXPECT_EQ(qzstrcmp("a [notag]", "a [other]"), 'n' - 'o');
  EXPECT_EQ(qzstricmp("Disk FULL [I099]", "disk full"), 0);
  EXPECT_LT(qzstricmp("abc", "ABD"), 0);
  EXPECT_EQ(qzstrncmp("abX", "abY", 2), 0);
  EXPECT_EQ(qzstrncmp("ab [I099]c", "abc", 3), -'c');  // the tag begins within 3: skipped, text ends
  EXPECT_EQ(qzstrncmp("ab [I099]", "ab", 2), 0);
  EXPECT_EQ(qzstrnicmp("AB [I099]cd", "abCD", 20), 0);
}

}  // namespace
