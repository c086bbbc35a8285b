// Output: the program name, prefixed messages and traces, the debug file,
// descriptor treatment, the writer, and line input and output.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <liblocal.h>

#include "lltest.h"

namespace {

TEST(Output, ProgramNames) {
  struct {
    const char *set, *want;
  } t[] = {
      {"D:\\bin\\SAVE.EXE", "save"}, {"Recover.exe", "Recover"},
      {"abcdefghijklmnopqrstuvwxyz0123456789ABCD", "abcdefghijklmnopqrstuvwxyz012"},
      {"/usr/local/bin/backupd", "backupd"}, {"tool.Exe.old", "tool"}, {"C:\\x\\", ""}, {nullptr, ""},
      // 28 ASCII bytes then a two-byte character: the character is not cut.
      {"abcdefghijklmnopqrstuvwxyz01\xC3\xA9z", "abcdefghijklmnopqrstuvwxyz01"},
  };
  for (auto &c : t) {
    setMyname(c.set);
    EXPECT_STREQ(getMyname(), c.want) << (c.set ? c.set : "(null)");
  }
}

LLTEST_CHILD(long_name) {
  setMyname(std::string(std::atoi(argv[0]), 'a').c_str());
  return 0;
}

TEST(Output, OverlongNameEndsTheProcess) {
  EXPECT_EQ(lltest::run_child("long_name", {"1560"}).exit_code, 111);
  EXPECT_EQ(lltest::run_child("long_name", {"1559"}).exit_code, 0);
}

TEST(Output, Preflen) {
  struct {
    const char *path, *prefix;
    int want;
  } t[] = {{"D:\\a\\b", "D:\\a", 4}, {"d:\\A\\b", "D:\\a", 4},  {"D:\\a\\b", "D:\\a\\b\\c", 0},
           {"D:\\abc\\d", "D:\\ab", 0}, {"D:\\a", "D:\\a", 4},    {"\\x", "\\", 1},
           {"D:x", "D:", 2},            {"D:\\x", "D:\\", 3},     {"D:x", "D:\\", 0},
           {"D:\\x", "", 0},           {nullptr, "a", 0}};
  for (auto &c : t) EXPECT_EQ(preflen(c.path, c.prefix), c.want) << (c.path ? c.path : "(null)") << " " << c.prefix;
}

LLTEST_CHILD(messages) {
  setMyname("prog");
  Debug = 0;
  printerr("err %d\n", 1);
  printinfo("info %s\n", "two");
  dprintf(0, "always %d\n", 3);
  dprintf(1, "hidden\n");
  Debug = 1;
  dprintf(1, "shown\n");
  dprintf(2, "hidden too\n");
  dfprintf(1, "df %d\n", 4);
  int evaluated = 0;
  Debug = 0;
  dprintf(1, "%d\n", ++evaluated);  // a disabled trace does not evaluate its arguments
  printerr("no newline");
  return evaluated;
}

TEST(Output, PrefixedMessagesAndTraces) {
  auto r = lltest::run_child("messages");
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.err, "prog: err 1\nprog: Diagnostic: always 3\nprog: shown\nprog: df 4\nprog: no newline");
  EXPECT_EQ(r.out, "prog: info two\n");
}

LLTEST_CHILD(stamps) {
  setMyname("prog");
  print_timestamps(1);
  printerr("x\n");
  return 0;
}

TEST(Output, TimeStamps) {
  // One line: <local time> prog: x
  const std::string err = lltest::run_child("stamps").err, tail = " prog: x\n";
  ASSERT_GT(err.size(), tail.size() + 8) << err;
  EXPECT_EQ(err.substr(err.size() - tail.size()), tail);
  EXPECT_TRUE(err[0] >= '0' && err[0] <= '9' && err.find('\n') == err.size() - 1) << err;
}

LLTEST_CHILD(debug_file) {
  setMyname("prog");
  Debug = 2;
  dfopen(nullptr);
  dfopen((std::string(argv[0]) + "/missing/dir/file").c_str());
  if (dfopen(argv[1]) != 0) return 3;
  dfprintf(1, "to both %s\n", "sides");
  dfprintf(3, "to neither\n");
  if (dfclose() != 0) return 4;
  dfprintf(1, "stderr only\n");
  return 0;
}

TEST(Output, DebugFile) {
  lltest::TempDir dir;
  const std::string file = dir.file("debug.log");
  auto r = lltest::run_child("debug_file", {dir.path(), file}, {});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.err, "prog: dfopen: filename is null ... \n"
                   "prog: dfopen: Unable to open file " + dir.path() + "/missing/dir/file for writing ...\n"
                   "prog: to both sides\nprog: stderr only\n");
  std::string log = dir.read("debug.log");
  std::erase(log, '\r');  // a text-mode file on Windows
  EXPECT_EQ(log, "prog: to both sides\n");
}

// Writes e-acute to a file through the output layer; returns the bytes.
// 'mark' is applied before the write and 'unmark' after it (the list holds
// descriptor numbers, which the next file would reuse).
std::string written(const std::string &path, void (*mark)(FILE *), void (*unmark)(FILE *)) {
  FILE *f = std::fopen(path.c_str(), "wb");
  if (mark) mark(f);
  qzfprintf(f, "%s", "\xC3\xA9");
  if (unmark) unmark(f);
  std::fclose(f);
  FILE *g = std::fopen(path.c_str(), "rb");
  char buf[16] = {};
  const size_t n = std::fread(buf, 1, sizeof buf, g);
  std::fclose(g);
  return std::string(buf, n);
}

TEST(Output, DescriptorTreatment) {
  lltest::TempDir dir;
  const std::string path = dir.file("out.txt");
  const std::string utf8 = "\xC3\xA9";
  // The "C" locale: on POSIX the converted side is plain ASCII then.
  const std::string old_locale = std::setlocale(LC_CTYPE, nullptr);
  std::setlocale(LC_CTYPE, "C");
  Mast_flag = 0;
  EXPECT_NE(written(path, nullptr, nullptr), utf8);  // converted for a person
  EXPECT_EQ(written(path, utf8_fp, user_fp), utf8);  // marked as UTF-8
  EXPECT_NE(written(path, nullptr, nullptr), utf8);
  Mast_flag = 1;
  EXPECT_EQ(written(path, nullptr, nullptr), utf8);  // raw by default
  EXPECT_NE(written(path, user_fp, utf8_fp), utf8);
  EXPECT_EQ(written(path, nullptr, nullptr), utf8);
  Mast_flag = 0;
  std::setlocale(LC_CTYPE, old_locale.c_str());
}

LLTEST_CHILD(eleven_marks) {
  // Ten descriptors fill the list; the eleventh mark is ignored.
  FILE *files[11];
  for (int i = 0; i < 11; ++i) files[i] = std::fopen(argv[i], "wb");
  for (int i = 0; i < 11; ++i) utf8_fp(files[i]);
  qzfprintf(files[9], "\xC3\xA9");
  qzfprintf(files[10], "\xC3\xA9");
  user_fp(files[0]);  // removing closes the gap...
  utf8_fp(files[10]);  // ...so this one now fits
  qzfprintf(files[10], "!\xC3\xA9");
  for (FILE *f : files) std::fclose(f);
  return 0;
}

TEST(Output, MarkedListHoldsTen) {
  lltest::TempDir dir;
  std::vector<std::string> args;
  for (int i = 0; i < 11; ++i) args.push_back(dir.file("f" + std::to_string(i)));
  auto r = lltest::run_child("eleven_marks", args, {"BSW_CATCH_CHILD_STDOUT="});
  ASSERT_EQ(r.exit_code, 0);
  EXPECT_EQ(dir.read("f9"), "\xC3\xA9");
  const std::string tenth = dir.read("f10");
  ASSERT_GE(tenth.size(), 3u);
  EXPECT_NE(tenth.substr(0, tenth.find('!')), "\xC3\xA9");
  EXPECT_EQ(tenth.substr(tenth.find('!')), "!\xC3\xA9");
}

TEST(Output, PrintByUtf8) {
  {
    lltest::ScopedEnv env("BSW_CATCH_CHILD_STDOUT", "1");
    Mast_flag = 0;
    EXPECT_STREQ(printby_utf8(), "1");
    EXPECT_EQ(Mast_flag, 1);
    printby_utf8();
    EXPECT_EQ(Mast_flag, 2);
  }
  lltest::ScopedEnv env("BSW_CATCH_CHILD_STDOUT", nullptr);
  EXPECT_EQ(printby_utf8(), nullptr);
  EXPECT_EQ(Mast_flag, 0);
}

std::string g_captured;
int capture(FILE *, const char *fmt, va_list ap) {
  char buf[512];
  std::vsnprintf(buf, sizeof buf, fmt, ap);
  g_captured += buf;
  return static_cast<int>(std::strlen(buf));
}

TEST(Output, ReplacementWriter) {
  setMyname("cap");
  g_captured.clear();
  qz_vfprintf_fn plain = set_vfprintf(capture);
  printerr("one %d\n", 1);
  qzfprintf(stdout, "%2$s%1$s", "b", "a");
  EXPECT_EQ(g_captured, "cap: one 1\nab");
  EXPECT_EQ(set_vfprintf(plain), capture);  // installing the plain writer clears the replacement
  EXPECT_EQ(set_vfprintf(nullptr), plain);
  set_vfprintf(capture);
  unset_vfprintf();
  g_captured.clear();
  qzfprintf(stdout, "%s", "");
  std::fflush(stdout);
  EXPECT_EQ(g_captured, "");
}

LLTEST_CHILD(use_write) {
  setMyname("w");
  if (UseWrite(1) != 0) return 5;
  printerr("through %s\n", "write");
  qzprintf("out %d\n", 1);
  if (UseWrite(0) != 1) return 6;
  printerr("stream\n");
  return 0;
}

TEST(Output, UseWritePath) {
  auto r = lltest::run_child("use_write");
  ASSERT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.err, "w: through write\nw: stream\n");
  EXPECT_EQ(r.out, "out 1\n");
}

LLTEST_CHILD(origin) {
  std::printf("%s\n", find_origin("me"));
  std::fflush(stdout);
  return 0;
}

TEST(Output, FindOrigin) {
  // The directory of the running program, with its separator.
  const std::string self = lltest::self_path();
  EXPECT_EQ(std::string(find_origin("me")), self.substr(0, self.find_last_of("/\\") + 1));
  auto r = lltest::run_child("origin", {}, {"BSW_PRINT_ORIGIN=1"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.err.find("Diagnostic: origin for `me' is `"), r.err.find(": ") + 2) << r.err;
  r = lltest::run_child("origin", {}, {"BSW_PRINT_ORIGIN=quit"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out, "");  // ended before printing
}

TEST(Output, LineOutputAndInput) {
  lltest::TempDir dir;
  const std::string path = dir.file("lines.txt");
  FILE *f = std::fopen(path.c_str(), "wb");
  utf8_fp(f);
  EXPECT_GE(qzfputs("abc\xC3\xA9\n", f), 0);
  EXPECT_EQ(qzfputs(nullptr, f), -1);
  EXPECT_GE(qzfputs("second line\n", f), 0);
  std::fclose(f);
  EXPECT_EQ(dir.read("lines.txt"), "abc\xC3\xA9\nsecond line\n");

  FILE *g = std::fopen(path.c_str(), "rb");
  utf8_fp(g);
  char buf[64];
  ASSERT_NE(qzfgets(buf, sizeof buf, g), nullptr);
  EXPECT_STREQ(buf, "abc\xC3\xA9\n");
  // The converted form: at most n bytes, the rest pushed back.
  user_fp(g);
  ASSERT_NE(qzfgets(buf, 5, g), nullptr);
  EXPECT_STREQ(buf, "seco");
  ASSERT_NE(qzfgets(buf, sizeof buf, g), nullptr);
  EXPECT_STREQ(buf, "nd line\n");
  EXPECT_EQ(qzfgets(buf, sizeof buf, g), nullptr);
  std::fclose(g);
  EXPECT_EQ(qzputs(nullptr), -1);
}

}  // namespace
