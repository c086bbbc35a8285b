// llocal grep, path, text and usage conventions, run as a process.
#include <gtest/gtest.h>

#include <algorithm>

#include "lltest.h"
#include "tool_run.h"

using tooltest::run;

namespace {

const char kLines[] =
    "alpha one\n"
    "Beta two\n"
    "gamma three\r\n"
    "beta four\n"
    "delta\n";

TEST(ToolGrep, SelectsLines) {
  lltest::TempDir dir;
  dir.write("f", kLines);
  EXPECT_EQ(run({"grep", "beta", dir.file("f")}).out, "beta four\n");
  EXPECT_EQ(run({"grep", "-i", "-n", "^beta", dir.file("f")}).out, "2:Beta two\n4:beta four\n");
  EXPECT_EQ(run({"grep", "-c", "-v", "a$", dir.file("f")}).out, "4\n");
  // A CRLF line matches "$" without its carriage return.
  EXPECT_EQ(run({"grep", "-c", "three$", dir.file("f")}).out, "1\n");
  // Groups and back-references.
  dir.write("g", "abcabc\nabcabd\n");
  EXPECT_EQ(run({"grep", "\\(abc\\)\\1", dir.file("g")}).out, "abcabc\n");
}

TEST(ToolGrep, SeveralFilesStandardInputAndExitStatus) {
  lltest::TempDir dir;
  dir.write("f", kLines);
  dir.write("g", "one beta\n");
  auto r = run({"grep", "beta", "f", "g"}, "", dir.path());
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out, "f:beta four\ng:one beta\n");
  EXPECT_EQ(run({"grep", "gamma"}, dir.file("f")).out, "gamma three\n");
  EXPECT_EQ(run({"grep", "zeta", dir.file("f")}).exit_code, 1);
  EXPECT_EQ(run({"grep", "alpha", dir.file("nosuch")}).exit_code, 1);
  auto bad = run({"grep", "a\\(", dir.file("f")});
  EXPECT_EQ(bad.exit_code, 2);
  EXPECT_NE(bad.err.find("bad pattern"), std::string::npos);
}

// The path rules themselves are tested with the library; here, that the
// commands pass the separator, the directory and each operand through.
TEST(ToolPaths, CanonAndFullcanon) {
  auto r = run({"canon", "-s", "\\", "c:\\a\\.\\b\\..\\c\\\\", "C:\\.."});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out, "C:\\a\\c\n/\n");
  EXPECT_EQ(run({"canon", "-s", "/", "/a/./b/../c//"}).out, "/a/c\n");
  EXPECT_EQ(run({"canon", "-s", "|", "x"}).exit_code, 2);
  EXPECT_EQ(run({"fullcanon", "-s", "/", "-d", "/x/y", "../z", "/abs/./p"}).out, "/x/z\n/abs/p\n");
}

TEST(ToolPaths, Pathinfo) {
  auto r = run({"pathinfo", "-s", "\\", "C:\\dir\\sub\\f.txt"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out,
            "path:      C:\\dir\\sub\\f.txt\n"
            "canonical: C:\\dir\\sub\\f.txt\n"
            "child:     f.txt\n"
            "parent:    C:\\dir\\sub\n"
            "depth:     3\n"
            "relative:  no\n"
            "unc:       none\n");
  auto rel = run({"pathinfo", "-s", "/", "a"});
  EXPECT_NE(rel.out.find("parent:    (none)\n"), std::string::npos) << rel.out;
  EXPECT_NE(rel.out.find("relative:  yes\n"), std::string::npos) << rel.out;
  EXPECT_EQ(run({"pathinfo", "a", "b"}).exit_code, 2);
}

TEST(ToolText, Strerror) {
  auto r = run({"strerror", "2", "0x10000005"});
  EXPECT_EQ(r.exit_code, 0);
  ASSERT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 2) << r.out;
  EXPECT_EQ(r.out.rfind("2: ", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("\n0x10000005: "), std::string::npos);
  EXPECT_EQ(run({"strerror", "two"}).exit_code, 2);
  // Numbers are decimal unless they say 0x: a leading zero is no octal.
  auto lead = run({"strerror", "010", "10"});
  const size_t cut = lead.out.find('\n');
  ASSERT_NE(cut, std::string::npos) << lead.out;
  EXPECT_EQ(lead.out.substr(1, cut), lead.out.substr(cut + 1)) << lead.out;
  EXPECT_EQ(run({"strerror", " 5"}).exit_code, 2);
}

TEST(ToolText, TagAndUntag) {
  auto t = run({"tag", "Disk full", "17", "25"});
  ASSERT_EQ(t.exit_code, 0);
  const std::string tagged = t.out.substr(0, t.out.size() - 1);
  EXPECT_EQ(tagged, "Disk full [I0Q]");
  EXPECT_EQ(run({"untag", tagged}).out, "Disk full\n");
  EXPECT_EQ(run({"untag", "-n", tagged}).out, "17 25\n");
  EXPECT_EQ(run({"untag", "-n", "no tag"}).exit_code, 1);
  EXPECT_EQ(run({"tag", "x", "1"}).exit_code, 2);
}

TEST(ToolText, SplitAndJoinRoundTrip) {
  const std::vector<std::string> words = {"plain", "two words", "quote\"in", "back\\slash\\", "it's"};
  for (const char *mode : {"-u", "-w"}) {
    std::vector<std::string> args = {"join", mode};
    args.insert(args.end(), words.begin(), words.end());
    auto j = run(args);
    ASSERT_EQ(j.exit_code, 0) << j.err;
    const std::string line = j.out.substr(0, j.out.size() - 1);
    auto s = run({"split", mode, line});
    EXPECT_EQ(s.out, "plain\ntwo words\nquote\"in\nback\\slash\\\nit's\n") << mode << ": " << line;
  }
  EXPECT_EQ(run({"split", "-u", "a (b c) \"d e\""}).out, "a\nb\nc\nd e\n");
  EXPECT_EQ(run({"split", "-d", ",", "a,b,c"}).out, "a\nb\nc\n");
}

TEST(ToolConventions, UsageErrorsExit2) {
  for (const std::vector<std::string> &args : std::vector<std::vector<std::string>>{
           {},
           {"frobnicate"},
           {"grep"},
           {"pack", "-x"},
           {"pack", "-b"},
           {"pack", "-b", "65537"},
           {"pack", "a", "b"},
           {"split", "a", "b"},
       }) {
    auto r = run(args);
    EXPECT_EQ(r.exit_code, 2) << (args.empty() ? "" : args[0]) << " " << r.err;
    EXPECT_NE(r.err.find("usage: llocal"), std::string::npos) << r.err;
    EXPECT_TRUE(r.out.empty());
  }
}

TEST(ToolConventions, HelpForEveryCommand) {
  auto all = run({"--help"});
  ASSERT_EQ(all.exit_code, 0);
  for (const char *name : {"tour", "cksum", "sha1", "pack", "unpack", "uncompress", "grep", "canon", "fullcanon",
                           "pathinfo", "strerror", "tag", "untag", "split", "join"}) {
    const std::string synopsis = std::string("usage: llocal ") + name;
    EXPECT_NE(all.out.find(std::string("  llocal ") + name), std::string::npos) << name;
    auto r = run({name, name[1] % 2 ? "-h" : "--help"});
    EXPECT_EQ(r.exit_code, 0) << name;
    EXPECT_EQ(r.out.rfind(synopsis, 0), 0u) << r.out;
    EXPECT_EQ(run({"help", name}).out, r.out);
  }
}

TEST(ToolConventions, OptionFiles) {
  lltest::TempDir dir;
  dir.write("f", kLines);
  dir.write("grep.opts", "  -i\t-n\n\n-c\n");
  EXPECT_EQ(run({"grep", "@grep.opts", "^beta", "f"}, "", dir.path()).out, "2\n");
  // Operands may come from the file too.
  dir.write("operands", "-n\nalpha f\n");
  EXPECT_EQ(run({"grep", "@operands"}, "", dir.path()).out, "1:alpha one\n");
  // Options with arguments.
  dir.write("in", std::string(5000, 'q'));
  dir.write("pack.opts", "-b 2\n-o packed\n");
  auto p = run({"pack", "@pack.opts", "in"}, "", dir.path());
  ASSERT_EQ(p.exit_code, 0) << p.err;
  const std::string packed = dir.read("packed");
  ASSERT_GE(packed.size(), 12u);
  EXPECT_EQ(packed[9], 8);  // block size 2048
}

TEST(ToolTour, RunsEveryStep) {
  auto r = run({"tour"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  ASSERT_FALSE(r.out.empty());
  const std::string last = r.out.substr(r.out.rfind('\n', r.out.size() - 2) + 1);
  EXPECT_EQ(last.rfind("summary: ", 0), 0u) << last;
  EXPECT_NE(last.find(", 0 failed"), std::string::npos) << last;
  EXPECT_NE(r.out.find("restored intact"), std::string::npos);
  EXPECT_NE(r.out.find("C:\\Users\\admin\\documents\n"), std::string::npos);
  // The error record is printed on standard error with the program prefix.
  EXPECT_EQ(r.err, "llocal: warning, the sample's last save was retried\n");
}

}  // namespace
