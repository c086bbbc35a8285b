// Option parsing: the command-line grammar, option files, messages and the
// per-thread state.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <liblocal.h>

#include "lltest.h"

namespace {

// A mutable argument vector built from words.
struct Argv {
  std::vector<std::string> words;
  std::vector<char *> ptrs;
  explicit Argv(std::vector<std::string> w) : words(std::move(w)) {
    for (auto &s : words) ptrs.push_back(s.data());
    ptrs.push_back(nullptr);
  }
  int argc() const { return static_cast<int>(words.size()); }
  char **argv() { return ptrs.data(); }
};

// getopt until -1, as "letter[=arg]" words; then the operands from getarg.
std::string run(Argv &a, const char *optstring) {
  std::string out;
  int c;
  while ((c = getopt(a.argc(), a.argv(), optstring)) != -1) {
    out += static_cast<char>(c);
    if (optarg) out += "=" + std::string(optarg);
    out += " ";
  }
  out += "|";
  while (char *w = getarg(a.argc(), a.argv())) out += std::string(" ") + w;
  return out;
}

}  // namespace

TEST(Getopt, ResetStateAndAccessors) {
  getopt_init();
  EXPECT_EQ(opterr, 0);
  EXPECT_EQ(optind, 1);
  EXPECT_EQ(optopt, 0);
  EXPECT_EQ(optarg, nullptr);
  EXPECT_EQ(_optind(), &optind);
  opterr = 1;
  EXPECT_EQ(*_opterr(), 1);
  getopt_init();
  EXPECT_EQ(*_opterr(), 0);
}

TEST(Getopt, LettersGroupedAndOperandsKept) {
  getopt_init();
  Argv a({"prog", "-ab", "file", "-a"});
  EXPECT_EQ(getopt(a.argc(), a.argv(), "ab"), 'a');
  EXPECT_EQ(optopt, 'a');
  EXPECT_EQ(getopt(a.argc(), a.argv(), "ab"), 'b');
  EXPECT_EQ(getopt(a.argc(), a.argv(), "ab"), -1);
  EXPECT_EQ(optind, 2);  // at "file": words are not reordered
  EXPECT_STREQ(getarg(a.argc(), a.argv()), "file");
  EXPECT_STREQ(getarg(a.argc(), a.argv()), "-a");
  EXPECT_EQ(getarg(a.argc(), a.argv()), nullptr);
}

TEST(Getopt, ArgumentsAttachedOrSeparate) {
  getopt_init();
  Argv a({"prog", "-ofile", "-o", "-x", "-vo", "z", "rest"});
  EXPECT_EQ(run(a, "vo:"), "o=file o=-x v o=z | rest");
}

TEST(Getopt, MissingArgumentAndUnknownLetterGiveQuestionMark) {
  getopt_init();
  Argv a({"prog", "-o"});
  EXPECT_EQ(getopt(a.argc(), a.argv(), "o:"), '?');
  EXPECT_EQ(optopt, 'o');
  EXPECT_EQ(optarg, nullptr);
  EXPECT_EQ(getopt(a.argc(), a.argv(), "o:"), -1);
  getopt_init();
  Argv b({"prog", "-q:", "-v"});
  EXPECT_EQ(getopt(b.argc(), b.argv(), "v:"), '?');
  EXPECT_EQ(optopt, 'q');
  EXPECT_EQ(getopt(b.argc(), b.argv(), "v:"), '?');  // ':' is never a letter
  EXPECT_EQ(optopt, ':');
  EXPECT_EQ(optind, 2);
}

TEST(Getopt, DoubleDashSkippedSingleDashKept) {
  getopt_init();
  Argv a({"prog", "-v", "--", "-v"});
  EXPECT_EQ(run(a, "v"), "v | -v");
  getopt_init();
  Argv b({"prog", "-v", "-", "-v"});
  EXPECT_EQ(run(b, "v"), "v | - -v");
  getopt_init();
  Argv c({"prog", "--x", "-v"});  // any word starting "--" ends the options
  EXPECT_EQ(run(c, "vx"), "| -v");
}

TEST(OptionFiles, WordsReadInPlace) {
  lltest::TempDir d;
  d.write("f", "-v\nx y\n");
  getopt_init();
  std::string at = "@" + d.file("f");
  Argv a({"prog", at, "after"});
  EXPECT_EQ(run(a, "v"), "v | x y after");
}

TEST(OptionFiles, LayoutBlanksAndArguments) {
  lltest::TempDir d;
  d.write("f", "\r\n   \t\n \t-a  -o\tval\r\n\n-bc   -ofused  \r\n");
  getopt_init();
  std::string at = "@" + d.file("f");
  Argv a({"prog", "-a", at, "-b", "op"});
  EXPECT_EQ(run(a, "abco:"), "a a o=val b c o=fused b | op");
}

TEST(OptionFiles, OperandsAndNestingThroughGetarg) {
  lltest::TempDir d;
  d.write("opts", "-v\n");
  d.write("ops", "one two\nthree\n");
  d.write("empty", "");
  getopt_init();
  std::string o = "@" + d.file("opts"), p = "@" + d.file("ops"), e = "@" + d.file("empty");
  Argv a({"prog", o, e, "-v", "first", p, e, "last"});
  EXPECT_EQ(run(a, "v"), "v v | first one two three last");
}

TEST(OptionFiles, ArgumentFromTheNextLine) {
  lltest::TempDir d;
  d.write("f", "-ab\n-xyzq\n");
  getopt_init();
  std::string at = "@" + d.file("f");
  Argv a({"prog", at, "op"});
  // Reading the next line must not leave the old word's letters to scan.
  EXPECT_EQ(run(a, "ab:"), "a b=-xyzq | op");
}

TEST(OptionFiles, OptionArgumentRunsPastTheFileEnd) {
  lltest::TempDir d;
  d.write("f", "-o\n");
  getopt_init();
  std::string at = "@" + d.file("f");
  Argv a({"prog", at, "-v", "x"});
  // "-o" has no argument left in its file: it is dropped, the command line goes on.
  EXPECT_EQ(run(a, "vo:"), "v | x");
}

TEST(OptionFiles, BadFilesAreSkipped) {
  lltest::TempDir d;
  std::string long_line(600, 'w');
  d.write("long", "-v " + long_line + "\n");
  static const char kBinary[] = "-v\n\x01\xff\x80 z\n\0tail\n";
  d.write("binary", std::string(kBinary, sizeof kBinary - 1));
  getopt_init();
  std::string missing = "@" + d.file("missing"), lng = "@" + d.file("long"), bin = "@" + d.file("binary");
  Argv a({"prog", missing, "@", "-v", lng});
  EXPECT_EQ(getopt(a.argc(), a.argv(), "v"), 'v');
  EXPECT_EQ(getopt(a.argc(), a.argv(), "v"), 'v');
  EXPECT_EQ(getopt(a.argc(), a.argv(), "v"), -1);
  // The long line is read in pieces of 254 characters.
  std::vector<size_t> pieces;
  while (char *w = getarg(a.argc(), a.argv())) pieces.push_back(std::strlen(w));
  EXPECT_EQ(pieces, (std::vector<size_t>{251, 254, 95}));
  getopt_init();
  Argv b({"prog", bin});
  EXPECT_EQ(getopt(b.argc(), b.argv(), "v"), 'v');
  EXPECT_EQ(getopt(b.argc(), b.argv(), "v"), -1);
  std::vector<std::string> words;
  while (char *w = getarg(b.argc(), b.argv())) words.push_back(w);
  // A NUL byte ends the text of its line.
  EXPECT_EQ(words, (std::vector<std::string>{"\x01\xff\x80", "z"}));
}

TEST(Getopt, StateIsPerThread) {
  getopt_init();
  Argv a({"prog", "-a", "-b", "x"});
  EXPECT_EQ(getopt(a.argc(), a.argv(), "ab"), 'a');
  std::string other;
  std::thread t([&] {
    getopt_init();
    Argv b({"prog", "-c", "-d", "y"});
    other = run(b, "cd");
  });
  t.join();
  EXPECT_EQ(other, "c d | y");
  EXPECT_EQ(optind, 2);
  EXPECT_EQ(run(a, "ab"), "b | x");
}

// Diagnostics, captured from a child's standard error.
LLTEST_CHILD(getopt_messages) {
  opterr = 1;
  _qzinit("test_options", 0, nullptr);
  if (opterr != 0) return 3;  // initialisation turns diagnostics off
  getopt_init();
  opterr = 1;
  std::vector<std::string> w(argv, argv + argc);
  w.insert(w.begin(), "prog");
  Argv a(w);
  std::string got = run(a, "vo:");
  std::printf("%s\n", got.c_str());
  return 0;
}

TEST(Getopt, MessagesOnlyWithOpterrAndInTheirOrder) {
  lltest::TempDir d;
  d.write("f", "-qv\n-o\n");
  std::string at = "@" + d.file("f");
  auto r = lltest::run_child("getopt_messages", {"-x", "@", "@" + d.file("none"), at, "-o"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out, "? ? v ? |\n");
  EXPECT_EQ(r.err, "prog: illegal option -- x\n"
                   "@file: option file not specified\n" +
                       d.file("none") + " : open failed\n"
                       "v: illegal option -- q\n"
                       ": option requires an argument -- o\n"
                       "prog: option requires an argument -- o\n");
  getopt_init();
  Argv quiet({"prog", "-x", "@"});
  EXPECT_EQ(run(quiet, "v"), "? |");
}
