// Option parsing: the command-line grammar, option files, messages and the
// per-thread state.
#include <gtest/gtest.h>

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

// getopt until -1, as "letter[=arg]" words ("?" followed by optopt); then
// the operands from getarg.
std::string run(Argv &a, const char *optstring) {
  std::string out;
  for (int c; (c = getopt(a.argc(), a.argv(), optstring)) != -1; out += " ") {
    out += static_cast<char>(c);
    if (c == '?') out += static_cast<char>(optopt);
    if (optarg) out += "=" + std::string(optarg);
  }
  out += "|";
  while (char *w = getarg(a.argc(), a.argv())) out += std::string(" ") + w;
  return out;
}

}  // namespace

TEST(Getopt, CommandLinesAndOptionFiles) {
  lltest::TempDir d;
  d.write("f", "-v\nx y\n");
  d.write("layout", "\r\n   \t\n \t-a  -o\tval\r\n\n-bc   -ofused  \r\n");
  d.write("opts", "-v\n");
  d.write("ops", "one two\nthree\n");
  d.write("empty", "");
  d.write("next", "-ab\n-xyzq\n");
  d.write("o", "-o\n");
  d.write("long", "-v " + std::string(600, 'w') + "\n");
  static const char kBinary[] = "-v\n\x01\xff\x80 z\n\0tail\n";
  d.write("binary", std::string(kBinary, sizeof kBinary - 1));
  struct Case {
    std::vector<std::string> words;  // "@name": the option file of that name
    const char *optstring;
    std::string want;
  } cases[] = {
      {{"-ab", "file", "-a"}, "ab", "a b | file -a"},  // words are not reordered
      {{"-ofile", "-o", "-x", "-vo", "z", "rest"}, "vo:", "o=file o=-x v o=z | rest"}, {{"-o"}, "o:", "?o |"},
      {{"-q:", "-v"}, "v:", "?q ?: ?v |"},  // ':' is never a letter
      {{"-v", "--", "-v"}, "v", "v | -v"}, {{"-v", "-", "-v"}, "v", "v | - -v"},
      {{"--x", "-v"}, "vx", "| -v"},  // any word starting "--" ends the options
      {{"@f", "after"}, "v", "v | x y after"}, {{"-a", "@layout", "-b", "op"}, "abco:", "a a o=val b c o=fused b | op"},
      {{"@opts", "@empty", "-v", "first", "@ops", "@empty", "last"}, "v", "v v | first one two three last"},
      // Reading the next line must not leave the old word's letters to scan.
      {{"@next", "op"}, "ab:", "a b=-xyzq | op"},
      // "-o" has no argument left in its file: it is dropped, the command line goes on.
      {{"@o", "-v", "x"}, "vo:", "v | x"},
      // Files that cannot be read are skipped; a long line is read in pieces
      // of 254 characters; a NUL byte ends the text of its line.
      {{"@missing", "@", "-v", "@long"}, "v",
       "v v | " + std::string(251, 'w') + " " + std::string(254, 'w') + " " + std::string(95, 'w')},
      {{"@binary"}, "v", "v | \x01\xff\x80 z"},
  };
  for (auto &c : cases) {
    std::vector<std::string> words = {"prog"};
    for (auto &w : c.words) words.push_back(w.size() > 1 && w[0] == '@' ? "@" + d.file(w.substr(1)) : w);
    getopt_init();
    Argv a(words);
    EXPECT_EQ(run(a, c.optstring), c.want) << c.words[0] << " ... with " << c.optstring;
  }
}

TEST(Getopt, StateIsPerThread) {
  getopt_init();
  Argv a({"prog", "-a", "-b", "x"});
  EXPECT_EQ(getopt(a.argc(), a.argv(), "ab"), 'a');
  EXPECT_EQ(optopt, 'a');  // set for every letter, not on errors only
  std::string other;
  std::thread([&] {
    getopt_init();
    Argv b({"prog", "-c", "-d", "y"});
    other = run(b, "cd");
  }).join();
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
  std::printf("%s\n", run(a, "vo:").c_str());
  return 0;
}

TEST(Getopt, MessagesOnlyWithOpterrAndInTheirOrder) {
  lltest::TempDir d;
  d.write("f", "-qv\n-o\n");
  auto r = lltest::run_child("getopt_messages", {"-x", "@", "@" + d.file("none"), "@" + d.file("f"), "-o"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out, "?x ?q v ?o |\n");
  EXPECT_EQ(r.err, "prog: illegal option -- x\n"
                   "@file: option file not specified\n" +
                       d.file("none") + " : open failed\n"
                       "v: illegal option -- q\n"
                       ": option requires an argument -- o\n"
                       "prog: option requires an argument -- o\n");
  getopt_init();
  Argv quiet({"prog", "-x", "@"});
  EXPECT_EQ(run(quiet, "v"), "?x |");
}
