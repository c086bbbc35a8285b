#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <liblocal/regexp.h>

#include "lltest.h"

#if __has_include(<regex.h>) && !defined(_WIN32)
#include <regex.h>
#define HAVE_POSIX_REGEX 1
#endif

namespace {

using Bytes = std::vector<int>;

// The compiled program up to and including the end instruction's 0 byte.
Bytes program(const char *pattern, bool icase = false) {
  qzregex *re = icase ? regex_icmp(pattern) : regex_cmp(pattern);
  Bytes out;
  if (!re) return {-1};
  for (size_t i = 0; i < re->capacity; ++i) {
    out.push_back(re->program[i]);
    if (re->program[i] == QZRE_END) {  // no operand below is 11
      out.push_back(re->program[i + 1]);
      break;
    }
  }
  regex_done(re);
  return out;
}

// Offset of the match, -1 for none, -2 when the pattern does not compile.
long at(const char *pattern, const char *subject, bool icase = false) {
  qzregex *re = icase ? regex_icmp(pattern) : regex_cmp(pattern);
  if (!re) return -2;
  const char *m = regex_exec(re, subject);
  regex_done(re);
  return m ? m - subject : -1;
}

constexpr int B = QZRE_GROUP_OPEN, C = QZRE_CHAR, D = QZRE_ANY, L = QZRE_CLASS, N = QZRE_NCLASS,
              A = QZRE_END_ANCHOR, E = QZRE_END, K = QZRE_GROUP_CLOSE, R = QZRE_BACKREF;

TEST(RegexCompile, ProgramLayout) {
  EXPECT_EQ(program("ab*.x"), (Bytes{C, 'a', C + 1, 'b', D, C, 'x', E, 0}));
  EXPECT_EQ(program("^\\(a.*\\)\\1*$"), (Bytes{B, 0, C, 'a', D + 1, K, 0, R + 1, 0, A, E, 0}));
  EXPECT_EQ(program("[ab]*[^x]"), (Bytes{L + 1, 3, 'a', 'b', N, 2, 'x', E, 0}));
  EXPECT_EQ(program("\\(\\(a\\)b\\)\\(c\\)\\3"),
            (Bytes{B, 0, B, 1, C, 'a', K, 1, C, 'b', K, 0, B, 2, C, 'c', K, 2, R, 2, E, 0}));
  regex_done(nullptr);
}

TEST(RegexCompile, ClassExpansion) {
  EXPECT_EQ(program("[a-d]"), (Bytes{L, 6, 'a', 'b', 'c', 'd', 'd', E, 0}));  // the end twice
  EXPECT_EQ(program("[d-a]"), (Bytes{L, 3, 'd', 'a', E, 0}));  // no range: just the end
  EXPECT_EQ(program("[]a]"), (Bytes{L, 3, ']', 'a', E, 0}));
  EXPECT_EQ(program("[^]a]"), (Bytes{N, 3, ']', 'a', E, 0}));
  EXPECT_EQ(program("[a-]"), (Bytes{L, 3, 'a', '-', E, 0}));
  EXPECT_EQ(program("[a-c-e]"), (Bytes{L, 8, 'a', 'b', 'c', 'c', 'd', 'e', 'e', E, 0}));
  EXPECT_EQ(program("[A-C]", true), (Bytes{L, 5, 'a', 'b', 'c', 'c', E, 0}));
  EXPECT_EQ(program("[\\]"), (Bytes{L, 2, '\\', E, 0}));
  EXPECT_EQ(program("[a-"), (Bytes{-1}));
  // Up to 254 members fit the count byte; more do not.
  EXPECT_NE(program("[\x01-\x7f]"), (Bytes{-1}));
  EXPECT_EQ(program("[\x01-\xff]"), (Bytes{-1}));
}

TEST(RegexCompile, StarDollarAndEscapes) {
  EXPECT_EQ(program("^*"), (Bytes{C, '*', E, 0}));
  EXPECT_EQ(program("**"), (Bytes{C, '*', C, '*', E, 0}));
  EXPECT_EQ(program("a**"), (Bytes{C + 1, 'a', E, 0}));
  EXPECT_EQ(program("\\(*\\)*"), (Bytes{B, 0, C, '*', K, 0, C, '*', E, 0}));
  EXPECT_EQ(program("$$"), (Bytes{C, '$', A, E, 0}));
  EXPECT_EQ(program("a\\$"), (Bytes{C, 'a', C, '$', E, 0}));
  EXPECT_EQ(program("\\.\\*\\[\\a"), (Bytes{C, '.', C, '*', C, '[', C, 'a', E, 0}));
  EXPECT_EQ(program("A\\B", true), (Bytes{C, 'a', C, 'b', E, 0}));
}

TEST(RegexCompile, Errors) {
  EXPECT_EQ(regex_cmp(nullptr), nullptr);
  EXPECT_EQ(regex_cmp(""), nullptr);
  EXPECT_EQ(program("a\\"), (Bytes{-1}));
  EXPECT_EQ(program("\\(a"), (Bytes{-1}));
  EXPECT_EQ(program("a\\)"), (Bytes{-1}));
  std::string nine, ten;
  for (int i = 0; i < 9; ++i) nine += "\\(x\\)";
  EXPECT_NE(program(nine.c_str()), (Bytes{-1}));
  ten = nine + "\\(y\\)";
  EXPECT_EQ(program(ten.c_str()), (Bytes{-1}));
  // Ranges that expand past the program's room.
  std::string ranges;
  for (int i = 0; i < 40; ++i) ranges += "[a-z]";
  EXPECT_EQ(program(ranges.c_str()), (Bytes{-1}));
  EXPECT_NE(program(ranges.substr(0, 100).c_str()), (Bytes{-1}));
}

TEST(RegexExec, Basics) {
  EXPECT_EQ(at("a*", ""), 0);
  EXPECT_EQ(at("b*c", "aabbc"), 2);
  EXPECT_EQ(at("*a", "x*a"), 1);
  EXPECT_EQ(at("x$y", "ax$y"), 1);
  EXPECT_EQ(at("x$", "x$xx"), 3);
  EXPECT_EQ(at("$", "abc"), 3);
  EXPECT_EQ(at("^$", "a"), -1);
  EXPECT_EQ(at("x[^a]", "x"), -1);  // never the end of the string
  EXPECT_EQ(at("a.c", "abxa\nc"), 3);  // '.' takes a newline
  EXPECT_EQ(at("\xe9t\xe9", "caf\xe9t\xe9"), 3);  // bytes, whatever the locale
}

TEST(RegexExec, IgnoreCase) {
  EXPECT_EQ(at("ABC", "xabcx", true), 1);
  EXPECT_EQ(at("[A-C]*D", "zzbCaD", true), 2);
  EXPECT_EQ(at("[^A]", "aAb", true), 2);
  EXPECT_EQ(at("\\(a\\)\\1", "xaA", true), 1);
}

TEST(RegexExec, GroupsAndBackReferences) {
  EXPECT_EQ(at("\\(ab*\\)c\\1", "xabbcab abbcabb"), 8);
  EXPECT_EQ(at("\\(a*\\)b\\1$", "aaba"), 1);
  EXPECT_EQ(at("\\(x\\)\\1*y", "xxxxy"), 0);
  EXPECT_EQ(at("\\(a\\)\\(b\\)\\(c\\)\\(d\\)\\(e\\)\\(f\\)\\(g\\)\\(h\\)\\(i\\)\\9\\1", "abcdefghiia"), 0);
  // A reference to a group not yet closed is a program error, which an
  // unanchored run takes as a match where the run got to it...
  EXPECT_EQ(at("\\(a\\)\\2", "xxa"), 2);
  EXPECT_EQ(at("\\(a\\1\\)", "bab"), 1);
  // ...and an anchored run does not.
  EXPECT_EQ(at("^\\(a\\)\\2", "a"), -1);
  // The first character is compared even for an empty group.
  EXPECT_EQ(at("\\(\\)x\\1", "xy"), -1);
  EXPECT_EQ(at("\\(\\)x\\1", "xx"), 0);
  EXPECT_EQ(at("\\(b*\\)\\1*c", "ac"), 1);  // empty group starred: no endless loop

  qzregex *re = regex_cmp("\\(b*\\)c");
  const char *s = "abbc";
  ASSERT_EQ(regex_exec(re, s), s + 1);
  EXPECT_EQ(re->group_start[0], s + 1);
  EXPECT_EQ(re->group_end[0], s + 3);
  EXPECT_EQ(re->group_start[1], nullptr);
  regex_done(re);
}

TEST(RegexExec, DeepAndPathologicalPatterns) {
  // Far more starred instructions than a recursive matcher has stack for.
  std::string deep;
  for (int i = 0; i < 200000; ++i) deep += "a*";
  std::string subject(3000, 'a');
  qzregex *re = regex_cmp((deep + "b").c_str());
  ASSERT_NE(re, nullptr);
  EXPECT_EQ(regex_exec(re, (subject + "b").c_str()) != nullptr, true);
  regex_done(re);

  // Exponential for plain backtracking; must finish and keep the answer.
  std::string exp;
  for (int i = 0; i < 40; ++i) exp += "a*";
  EXPECT_EQ(at((exp + "c").c_str(), std::string(60, 'a').c_str()), -1);
  EXPECT_EQ(at((exp + "c").c_str(), (std::string(60, 'a') + "c").c_str()), 0);
  EXPECT_EQ(at(("\\(a*\\)" + exp.substr(0, 40) + "\\1c").c_str(), std::string(24, 'a').c_str()), -1);
  EXPECT_EQ(at(("\\(a*\\)" + exp + "x\\1").c_str(), "aaaaaaaaaaaaaaxaaaa"), 0);
  EXPECT_EQ(at((".*.*.*.*.*.*.*.*.*.*.*.*=.*"), std::string(300, 'x').c_str()), -1);
}

#ifdef HAVE_POSIX_REGEX
// Random patterns within the editor's subset on which the C library's basic
// expressions mean the same thing: the leftmost match must start at the
// same place.
struct Gen {
  std::mt19937 rng;
  explicit Gen(unsigned seed) : rng(seed) {}
  int pick(int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); }
  std::string atom(int depth, int &groups) {
    static const char *simple[] = {"a", "b", "c", ".", "[ab]", "[^a]", "[a-c]", "[]b]", "[b-]", "\\.", "x"};
    if (depth < 2 && groups < 9 && pick(6) == 0) {
      ++groups;
      return "\\(" + seq(depth + 1, groups) + "\\)";  // never starred
    }
    std::string s = simple[pick(11)];
    if (pick(3) == 0) s += "*";
    return s;
  }
  std::string seq(int depth, int &groups) {
    std::string s;
    int n = 1 + pick(4);
    for (int i = 0; i < n; ++i) s += atom(depth, groups);
    return s;
  }
  std::string pattern() {
    int groups = 0;
    std::string s = (pick(4) == 0 ? "^" : "") + seq(0, groups);
    if (pick(4) == 0) s += "$";
    return s;
  }
  std::string subject(bool mixed_case) {
    static const char alpha[] = "abcAB.x";
    std::string s;
    int n = pick(12);
    for (int i = 0; i < n; ++i) s += alpha[pick(mixed_case ? 7 : 3)];
    return s;
  }
};

TEST(RegexAgainstLibc, LeftmostStartAgreesOnTheCommonSubset) {
  Gen g(20240601);
  int compared = 0, matched = 0;
  for (int i = 0; i < 1500; ++i) {
    const bool icase = i % 3 == 0;
    std::string pat = g.pattern();
    qzregex *mine = icase ? regex_icmp(pat.c_str()) : regex_cmp(pat.c_str());
    ASSERT_NE(mine, nullptr) << pat;
    regex_t theirs;
    ASSERT_EQ(regcomp(&theirs, pat.c_str(), icase ? REG_ICASE : 0), 0) << pat;
    for (int j = 0; j < 20; ++j) {
      std::string subj = g.subject(icase || j % 2);
      regmatch_t m[1];
      long want = regexec(&theirs, subj.c_str(), 1, m, 0) == 0 ? static_cast<long>(m[0].rm_so) : -1;
      const char *got = regex_exec(mine, subj.c_str());
      long have = got ? got - subj.c_str() : -1;
      ASSERT_EQ(have, want) << "pattern '" << pat << "' subject '" << subj << "' icase " << icase;
      ++compared;
      matched += want >= 0;
    }
    regfree(&theirs);
    regex_done(mine);
  }
  EXPECT_GT(matched, compared / 10);
  EXPECT_LT(matched, compared);
}
#endif

}  // namespace

extern "C" char *llt_regex_exec_plain(qzregex *re, const char *subject);

namespace {

// The search shortcuts (leading literal or class, leading star) against the
// program run at every position, on random patterns of the whole language.
TEST(RegexExec, ShortcutsAgreeWithThePlainSearch) {
  std::mt19937 rng(99);
  auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  static const char *atoms[] = {"a", "b", "A", ".", "[ab]", "[^a]", "[a-c]", "\\1", "\\2", "x", "$"};
  int matched = 0;
  for (int i = 0; i < 4000; ++i) {
    std::string pat;
    int open = 0, groups = 0;
    const int n = 1 + pick(6);
    for (int k = 0; k < n; ++k) {
      if (pick(5) == 0 && groups < 9) {
        pat += "\\(";
        ++open;
        ++groups;
        continue;
      }
      if (open && pick(4) == 0) {
        pat += "\\)";
        --open;
        continue;
      }
      pat += atoms[pick(11)];
      if (pick(2) == 0) pat += "*";
    }
    while (open--) pat += "\\)";
    const bool icase = pick(3) == 0;
    qzregex *re = icase ? regex_icmp(pat.c_str()) : regex_cmp(pat.c_str());
    if (!re) continue;
    const bool refs = pat.find("\\1") != std::string::npos || pat.find("\\2") != std::string::npos;
    for (int j = 0; j < 8; ++j) {
      std::string subj;
      for (int c = pick(14); c > 0; --c) subj += "abcAx$."[pick(7)];
      const char *want = llt_regex_exec_plain(re, subj.c_str());
      const char *ws[QZREGEX_NGROUPS], *we[QZREGEX_NGROUPS];
      for (int g = 0; g < QZREGEX_NGROUPS; ++g) ws[g] = re->group_start[g], we[g] = re->group_end[g];
      const char *got = regex_exec(re, subj.c_str());
      ASSERT_EQ(got, want) << "pattern '" << pat << "' subject '" << subj << "' icase " << icase;
      matched += got != nullptr;
      if (!got || refs) continue;
      for (int g = 0; g < QZREGEX_NGROUPS; ++g) {
        ASSERT_EQ(re->group_start[g], ws[g]) << pat << " / " << subj << " group " << g;
        ASSERT_EQ(re->group_end[g], we[g]) << pat << " / " << subj << " group " << g;
      }
    }
    regex_done(re);
  }
  EXPECT_GT(matched, 1000);
}

}  // namespace
