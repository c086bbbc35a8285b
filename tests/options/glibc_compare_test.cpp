// The library's getopt against the C library's under POSIXLY_CORRECT, on
// generated command lines without option files (Linux). Deliberate
// differences are kept out of the generator: optopt is set for every letter
// (the C library sets it on errors only) and a word starting "--" always
// ends the options.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include <liblocal.h>

#include "lltest.h"

#ifndef _WIN32
#undef getopt
#undef optind
#undef optarg
#undef opterr
#undef optopt
#include <getopt.h>
#include <unistd.h>

namespace {

struct Step {
  int ret;
  int ind;
  std::string arg;
  bool operator==(const Step &o) const { return ret == o.ret && ind == o.ind && arg == o.arg; }
};

std::string show(const std::vector<Step> &v) {
  std::string s;
  for (const auto &x : v) s += std::to_string(x.ret) + "@" + std::to_string(x.ind) + "[" + x.arg + "] ";
  return s;
}

}  // namespace

TEST(GetoptVsCLibrary, GeneratedCommandLines) {
  lltest::ScopedEnv posix("POSIXLY_CORRECT", "1");
  std::mt19937 rng(20240703);
  const char *pool[] = {"-a", "-b", "-ab", "-ba", "-c", "-cval", "-acx", "-x", "-ax", "-", "--", "file", "-:",
                        "-a-", "-c", "word", "-bbb", "-d", "-dc"};
  const char *optstrings[] = {"abc:", "ab:c", "c:ab", "abcd:", "a"};
  for (int round = 0; round < 3000; ++round) {
    const char *os = optstrings[rng() % 5];
    std::vector<std::string> words = {"prog"};
    int n = static_cast<int>(rng() % 7);
    for (int i = 0; i < n; ++i) words.push_back(pool[rng() % (sizeof pool / sizeof *pool)]);
    std::vector<char *> av;
    for (auto &w : words) av.push_back(w.data());
    av.push_back(nullptr);
    const int ac = static_cast<int>(words.size());

    std::vector<Step> mine, theirs;
    getopt_init();
    for (int c; (c = ll_getopt(ac, av.data(), os)) != -1;) {
      mine.push_back({c, *_optind(), *_optarg() ? *_optarg() : ""});
      if (c == '?') mine.back().arg = std::string(1, static_cast<char>(*_optopt()));
    }
    mine.push_back({-1, *_optind(), ""});

    ::optind = 0;  // full re-initialisation of the C library's parser
    ::opterr = 0;
    std::vector<char *> av2 = av;  // it may permute without POSIXLY_CORRECT; not here
    for (int c; (c = ::getopt(ac, av2.data(), os)) != -1;) {
      theirs.push_back({c, ::optind, ::optarg && c != '?' ? ::optarg : ""});
      if (c == '?') theirs.back().arg = std::string(1, static_cast<char>(::optopt));
    }
    theirs.push_back({-1, ::optind, ""});
    // A '?' for a missing argument leaves the C library's optarg stale; the
    // library's is null. Compare arguments of real letters only (done above).
    std::string line;
    for (auto &w : words) line += w + " ";
    ASSERT_EQ(show(mine), show(theirs)) << os << ": " << line;
  }
}
#endif
