// Path syntax: one table per routine, the same on every platform.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <liblocal.h>

namespace {

struct Canon {
  const char *in;
  int sep;
  const char *want;
};

const Canon kCanon[] = {
    // roots and empties
    {"", '\\', "/"}, {"\\", '\\', "/"},
    {"\\\\\\", '\\', "\\\\\\"},  // three backslashes: a UNC name with no host, left alone
    {"/", '\\', "/"}, {"C:\\", '\\', "C:"}, {"C:\\\\\\", '\\', "C:"}, {"C:\\..", '\\', "/"},
    {"c:/x//y/", '\\', "C:\\x\\y"},
    {"ab:/x", '\\', "AB:\\x"},          // everything before the first colon is raised
    {"dir\\é\\f", '\\', "dir\\é\\f"},    // no colon: no case change, UTF-8 untouched
    // dot components
    {"a\\.\\b", '\\', "a\\b"}, {"\\a\\b\\..\\c", '\\', "\\a\\c"}, {"\\a\\..", '\\', "/"},
    {"a\\b\\..\\..\\c", '\\', "\\c"},
    {"C:\\a\\..\\..\\b", '\\', "\\b"},   // ".." at the top removes the drive too
    // the first character is never part of a component
    {"..\\a", '\\', "\\a"}, {".\\a", '\\', ".\\a"}, {"x.\\y", '\\', "\\y"}, {"a..\\b", '\\', "\\b"}, {"x.", '\\', "/"},
    {".", '\\', "."}, {"..", '\\', "/"},
    {"...\\a", '\\', "\\a"},  // ".." seen from the second character
    // the stray closing quote, backslash form only
    {"C:\\dir\"", '\\', "C:\\dir"}, {"C:\\dir\\\"", '\\', "C:\\dir"}, {"C:\\di\"r", '\\', "C:\\di\"r"},
    {"/a/b\"", '/', "/a/b\""},
    // UNC names
    {"\\\\host\\share\\a\\..\\b", '\\', "\\\\HOST\\SHARE\\b"},
    {"//host/share//x/", '\\', "\\\\HOST\\SHARE\\x"},
    {"\\\\host\\share\\", '\\', "\\\\HOST\\SHARE"}, {"\\\\h\\s\\..", '\\', "\\\\H\\S"},
    {"\\\\.\\pipe\\x", '\\', "\\\\.\\pipe\\x"},
    {"\\\\srv\\pipe\\a\\\\b", '\\', "\\\\SRV\\pipe\\a\\\\b"},  // not a share: only the host is raised
    {"\\\\.\\c:", '\\', "\\\\.\\c:"}, {"\\\\?\\UNC\\h\\s\\a\\.\\b", '\\', "\\\\?\\UNC\\H\\S\\a\\b"},
    {"\\\\?\\c:\\a\\..\\b", '\\', "\\?\\C:\\b"},  // a long name is not UNC: its doubled backslash collapses
    {"\\\\host", '\\', "\\\\HOST"},
    // slash separator: plain POSIX, backslashes are name characters
    {"", '/', "/"},
    {"///", '/', "/"},
    {"/a//b/./c/../d/", '/', "/a/b/d"},
    {"/a/../..", '/', "/"}, {"a\\b/c", '/', "a\\b/c"}, {"c:/x", '/', "c:/x"}, {"./a", '/', "./a"}, {"../a", '/', "/a"},
};

TEST(PathSyntax, CanonTable) {
  for (const auto &c : kCanon) {
    char buf[256];
    canon_dirsep(c.in, buf, c.sep);
    EXPECT_STREQ(buf, c.want) << "canon(" << c.in << ", " << static_cast<char>(c.sep) << ")";
    // In place gives the same; and the form is stable.
    char inplace[256];
    std::strcpy(inplace, c.in);
    canon_dirsep(inplace, inplace, c.sep);
    EXPECT_STREQ(inplace, c.want) << c.in;
  }
  char buf[16];
  canon("a\\b", buf);
  EXPECT_STREQ(buf, "a\\b");
}

TEST(PathSyntax, CanonLongAndOddInput) {
  // 5000-byte names of separators and dots: no crash, sane results.
  std::string seps(5000, '\\');
  std::string buf(seps.size() + 2, 'z');
  canon(seps.c_str(), buf.data());
  EXPECT_STREQ(buf.c_str(), "\\\\\\") << "a UNC name with an empty host is left as it is";
  std::string dots;
  for (int i = 0; i < 1500; ++i) dots += "a\\..\\";
  dots += "end";
  buf.assign(dots.size() + 2, 'z');
  canon(dots.c_str(), buf.data());
  EXPECT_STREQ(buf.c_str(), "\\end");
  std::string deep = "C:";
  for (int i = 0; i < 600; ++i) deep += "\\d" + std::to_string(i);
  buf.assign(deep.size() + 2, 'z');
  canon(deep.c_str(), buf.data());
  EXPECT_EQ(std::string(buf.c_str()), deep);
  const char bad[] = "C:\\\xff\xfe\\..\\\xc3";
  char out[32];
  canon(bad, out);
  EXPECT_STREQ(out, "C:\\\xc3");
}

// Every block pass this processor can run (words, the build's base block,
// the wide one) agrees with the step-by-step form on random names built from
// the bytes that matter, at every length around the block sizes, into a
// buffer of exactly the stated size and in place.
extern "C" void llt_canon_reference(const char *name, char *buf, int sep);
extern "C" int llt_canon_pass(int which, const char *name, char *buf, int sep);

TEST(PathSyntax, CanonPassesAgreeWithTheRules) {
  const char alphabet[] = {'a', 'B', '.', '.', '\\', '/', ':', '"', '?', 'U', 'N', 'C', 'p', '\xc3'};
  unsigned seed = 12345;
  auto next = [&seed] { return (seed = seed * 1103515245u + 12345u) >> 16; };
  int passes = 0;
  for (int which = 0; which < 3; ++which) {
    char probe[4];
    if (llt_canon_pass(which, "a", probe, '\\') != 0) continue;
    ++passes;
    for (int i = 0; i < 6000; ++i) {
      const size_t len = next() % 150;
      std::string name;
      for (size_t j = 0; j < len; ++j) name += alphabet[next() % sizeof alphabet];
      if (i % 7 == 0) name = "\\\\" + name;  // lean towards UNC names
      const int sep = i % 3 ? '\\' : '/';
      std::vector<char> want(name.size() + 2), got(name.size() + 2), in_place(name.begin(), name.end());
      in_place.resize(name.size() + 2);
      llt_canon_reference(name.c_str(), want.data(), sep);
      llt_canon_pass(which, name.c_str(), got.data(), sep);
      ASSERT_STREQ(got.data(), want.data()) << "pass " << which << " on " << name;
      llt_canon_pass(which, in_place.data(), in_place.data(), sep);
      ASSERT_STREQ(in_place.data(), want.data()) << "pass " << which << " in place on " << name;
    }
  }
  EXPECT_GE(passes, 2);
}

struct Full {
  const char *name, *cwd;
  int sep;
  const char *want;
};

const Full kFull[] = {
    {"x", "C:\\d", '\\', "C:\\d\\x"}, {"\\x", "C:\\d", '\\', "C:\\x"}, {"D:\\y", "C:\\d", '\\', "D:\\y"},
    {"D:y", "C:\\d", '\\', "C:\\d\\y"},   // drive-relative: the given directory stands for it
    {"C:", "C:\\d", '\\', "C:"}, {"..\\..\\..\\x", "C:\\a\\b", '\\', "\\x"},
    {"\\\\h\\s\\a\\..", "C:\\d", '\\', "\\\\H\\S"},
    {"/etc/x/../y", "C:\\d", '\\', "/etc/y"},  // slash-led: folded with the slash
    {"y/z", "/home/u", '/', "/home/u/y/z"}, {"../z", "/home/u", '/', "/home/z"}, {"/abs", "/home/u", '/', "/abs"},
    {"", "/home/u", '/', "/home/u"},
};

TEST(PathSyntax, FullcanonTable) {
  for (const auto &c : kFull) {
    char buf[256] = "untouched";
    fullcanon_dirsep(c.name, buf, c.cwd, c.sep);
    EXPECT_STREQ(buf, c.want) << c.name << " in " << c.cwd;
  }
  char buf[64];
  fullcanon("x", buf, "C:\\d");
  EXPECT_STREQ(buf, "C:\\d\\x");
  // Only a letter before the colon makes a drive; another name with a
  // colon is taken as it stands.
  for (const char *name : {"\":x", "1:x"}) {
    fullcanon(name, buf, "C:\\d");
    EXPECT_STREQ(buf, name);
  }
}

TEST(PathSyntax, FullcanonWithoutDirectoryUsesTheCurrentOne) {
  char cwd[4096], buf[8192];
  ASSERT_NE(qzmo_getcwd(cwd, sizeof cwd), nullptr);
  fullcanon_dirsep("sub", buf, nullptr, '\\');
  const std::string got = buf;
  EXPECT_NE(got.find("sub"), std::string::npos) << got;
  EXPECT_EQ(got.back(), 'b');
}

TEST(PathSyntaxDeathTest, FullcanonSlashWithoutDirectoryAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  char buf[64];
  EXPECT_DEATH(fullcanon_dirsep("x", buf, nullptr, '/'), "");
}

struct Part {
  const char *path;
  int sep;
  const char *child, *parent;  // null: no result
  unsigned depth;
};

const Part kParts[] = {
    {"C:\\", '\\', "C:", "/", 0}, {"C:", '\\', "C:", "/", 1}, {"C:foo", '\\', "foo", "C:", 1},
    {"C:\\a", '\\', "a", "C:", 1}, {"C:\\a\\b", '\\', "b", "C:\\a", 2}, {"a\\b\\", '\\', "b", "a", 1},
    {"a", '\\', "a", nullptr, 0}, {"\\a", '\\', "a", "/", 1}, {"\\", '\\', "", nullptr, 0}, {"/", '\\', "", "/", 0},
    {"/", '/', "", "/", 0}, {"\\\\h\\s\\x\\y", '\\', "y", "\\\\h\\s\\x", 3}, {"\\\\h\\s\\x", '\\', "x", "\\\\h\\s", 2},
    {"\\\\h\\s", '\\', "\\\\h\\s", "/", 1}, {"\\\\h\\s\\", '\\', "\\\\h\\s\\", "/", 1},
    {"\\\\.\\pipe\\p", '\\', "\\\\.\\pipe\\p", "/", 1}, {"/a/b", '/', "b", "/a", 2}, {"/a/b/", '/', "b", "/a", 2},
    {"a", '/', "a", nullptr, 0}, {"C:\\a", '/', "C:\\a", nullptr, 0},
};

TEST(PathSyntax, ChildParentDepthTable) {
  for (const auto &c : kParts) {
    char buf[256];
    const char *child = getpathchild_dirsep(c.path, buf, sizeof buf, c.sep);
    ASSERT_NE(child, nullptr) << c.path;
    EXPECT_STREQ(child, c.child) << "child of " << c.path;
    char *alloc = getpathchild_dirsep(c.path, nullptr, 0, c.sep);
    ASSERT_NE(alloc, nullptr);
    EXPECT_STREQ(alloc, c.child);
    std::free(alloc);

    const char *parent = getpathparent_dirsep(c.path, buf, sizeof buf, c.sep);
    if (c.parent) {
      ASSERT_NE(parent, nullptr) << c.path;
      EXPECT_STREQ(parent, c.parent) << "parent of " << c.path;
    } else {
      EXPECT_EQ(parent, nullptr) << c.path;
    }
    alloc = getpathparent_dirsep(c.path, nullptr, 0, c.sep);
    EXPECT_EQ(alloc != nullptr, c.parent != nullptr);
    if (alloc) {
      EXPECT_STREQ(alloc, c.parent);
    }
    std::free(alloc);

    EXPECT_EQ(getpathdepth_dirsep(c.path, c.sep), c.depth) << "depth of " << c.path;
  }
  EXPECT_EQ(getpathchild(nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(getpathparent(nullptr, nullptr, 0), nullptr);
}

TEST(PathSyntax, ChildAndParentRespectTheBufferSize) {
  char buf[8];
  std::memset(buf, 'z', sizeof buf);
  errno = 0;
  EXPECT_EQ(getpathchild("C:\\dir\\longname", buf, 8), nullptr);
  EXPECT_EQ(errno, 28);
  EXPECT_EQ(buf[1], 'z') << "nothing written but the cleared first byte";
  EXPECT_STREQ(getpathchild("C:\\dir\\long123", buf, 8), "long123");
  errno = 0;
  EXPECT_EQ(getpathparent("C:\\longdir\\x", buf, 8), nullptr);
  EXPECT_EQ(errno, 28);
  EXPECT_STREQ(getpathparent("C:\\long\\x", buf, 8), "C:\\long");
  // A UNC name that is its own child and does not fit: null, errno untouched.
  errno = 0;
  EXPECT_EQ(getpathchild("\\\\host\\share", buf, 8), nullptr);
  EXPECT_EQ(errno, 0);
  // The root answer needs two bytes whatever the size says.
  EXPECT_STREQ(getpathparent("C:\\", buf, 2), "/");
  // In place.
  char p[] = "C:\\a\\bb";
  EXPECT_STREQ(getpathchild(p, p, sizeof p), "bb");
}

TEST(PathSyntax, TrailingSeparators) {
  char b[32];
  std::strcpy(b, "a");
  EXPECT_STREQ(adddirsep(b, '\\'), "a\\");
  EXPECT_STREQ(adddirsep(b, '\\'), "a\\");
  std::strcpy(b, "/");
  EXPECT_STREQ(adddirsep(b, '\\'), "/");
  std::strcpy(b, "a\\\\\\");
  EXPECT_EQ(rmdirsep(b, '\\'), 3);
  EXPECT_STREQ(b, "a");
  std::strcpy(b, "\\\\");
  EXPECT_EQ(rmdirsep(b, '\\'), 1);
  EXPECT_STREQ(b, "\\");
  std::strcpy(b, "/");
  EXPECT_EQ(rmdirsep(b, '/'), 0);
  std::strcpy(b, "a//");
  EXPECT_STREQ(setdirsep(b, 2, '/'), "a//");
  EXPECT_STREQ(setdirsep(b, 0, '/'), "a");
  std::strcpy(b, "/");
  EXPECT_STREQ(setdirsep(b, 3, '/'), "///");
  std::strcpy(b, "/");
  EXPECT_STREQ(setdirsep(b, 1, '\\'), "/");
}

TEST(PathSyntax, RelativeOrAbsolute) {
  struct {
    const char *p;
    int sep, rel;
  } t[] = {{"a\\b", '\\', 1}, {"\\a", '\\', 0}, {"C:a", '\\', 0}, {"x:y:z", '\\', 0}, {"/", '\\', 0},
           {"\\\\h\\s", '\\', 0}, {"/a", '\\', 1}, {"/a", '/', 0}, {"a/b", '/', 1}, {"C:\\a", '/', 1}, {"", '\\', 1}};
  for (auto &c : t) EXPECT_EQ(ispathrelative(c.p, c.sep), c.rel) << c.p;
}

TEST(PathSyntax, JoinDirnameAndInstallationPrefix) {
  struct {
    const char *dir, *name;
    int sep;
    const char *want;
  } joins[] = {{"a", "b", '\\', "a\\b"}, {"a\\", "b", '\\', "a\\b"}, {"a\\\\", "\\b", '\\', "a\\\\\\b"},
               {nullptr, "b", '\\', ".\\b"}, {nullptr, "b", '/', ".\\/b"}, {"a", nullptr, '/', "a/"},
               {"", "b", '/', "/b"}};
  for (auto &j : joins) {
    char *r = path_concat_dirsep(j.dir, j.name, j.sep);
    ASSERT_NE(r, nullptr);
    EXPECT_STREQ(r, j.want);
    std::free(r);
  }
  EXPECT_EQ(path_concat(nullptr, nullptr), nullptr);

  struct {
    const char *in, *want;
  } dirs[] = {{"C:\\dir\\f", "C:\\dir"}, {"C:\\f", "C:"}, {"C:\\", nullptr}, {"f", nullptr},
              {"\\f", "\\"}, {"a\\b\\", "a"}, {"\\", nullptr}};
  for (auto &d : dirs) {
    char *r = qz_dirname(d.in);
    if (d.want) {
      ASSERT_NE(r, nullptr) << d.in;
      EXPECT_STREQ(r, d.want);
    } else {
      EXPECT_EQ(r, nullptr) << d.in;
    }
    std::free(r);
  }
  EXPECT_EQ(qz_dirname(nullptr), nullptr);

  struct {
    const char *app, *path, *want;
  } apps[] = {{"app", "C:\\Program Files\\app\\bin\\x.exe", "C:\\Program Files\\app"},
              {"APP", "C:\\app\\x\\App\\bin\\y", "C:\\app\\x\\App"},  // the last occurrence
              {"app", "C:app\\x", "C:app"},
              {"app", "App\\bin\\x", "App"},
              {"app", "C:\\application\\x", nullptr},
              {"app", "C:\\x\\app", nullptr},
              {"", "C:\\app\\x", nullptr}};
  for (auto &a : apps) {
    char *r = parse_apppath(a.app, a.path);
    if (a.want) {
      ASSERT_NE(r, nullptr) << a.path;
      EXPECT_STREQ(r, a.want);
    } else {
      EXPECT_EQ(r, nullptr) << a.path;
    }
    std::free(r);
  }
}

TEST(PathSyntax, UncNames) {
  EXPECT_TRUE(is_unc_path("\\\\host\\share"));
  EXPECT_TRUE(is_unc_path("\\\\.\\pipe\\x"));
  EXPECT_TRUE(is_unc_path("\\\\?\\UNC\\h\\s"));
  EXPECT_TRUE(is_unc_path("\\\\?\\unc\\h\\s"));
  EXPECT_FALSE(is_unc_path("\\\\?\\C:\\x"));
  EXPECT_FALSE(is_unc_path("\\host"));
  EXPECT_FALSE(is_unc_path("C:\\x"));

  const char *u = "\\\\?\\unc\\h\\s";
  EXPECT_EQ(unc_skip_prefix(u), u + 8);
  const char *l = "\\\\?\\c:\\x";
  EXPECT_EQ(unc_skip_prefix(l), l + 4);
  const char *n = "\\??\\UNC\\h\\s";
  EXPECT_EQ(unc_skip_prefix(n), n + 8);
  const char *p = "C:\\x";
  EXPECT_EQ(unc_skip_prefix(p), p);

  EXPECT_EQ(get_unc_obj_type("\\\\.\\C:"), 3);
  EXPECT_EQ(get_unc_obj_type("\\\\.\\PhysicalDrive0"), 3);
  EXPECT_EQ(get_unc_obj_type("\\\\.\\Tape0"), 4);
  EXPECT_EQ(get_unc_obj_type("\\\\.\\PIPE\\x"), 2);
  EXPECT_EQ(get_unc_obj_type("\\\\h\\share\\x"), 1);
  EXPECT_EQ(get_unc_obj_type("\\??\\UNC\\h\\s"), 1);
  EXPECT_EQ(get_unc_obj_type("\\\\host"), 0);
  EXPECT_EQ(get_unc_obj_type("C:\\x"), 0);  // not UNC: 0, though a backslash follows
  EXPECT_EQ(get_unc_obj_type("\\\\?\\C:\\x"), 0);

  const char *s = "\\\\h\\share\\f\\g";
  EXPECT_EQ(get_unc_file_path(s), s + 9);
  EXPECT_EQ(get_unc_file_path("\\\\h\\share"), nullptr);
  EXPECT_EQ(get_unc_file_path("\\\\h"), nullptr);

  char host[8];
  EXPECT_EQ(get_unc_host("\\\\.\\pipe\\x", nullptr, 0), 1);
  EXPECT_EQ(get_unc_host("\\\\no-such-host-xyz\\s", host, sizeof host), 0);
  EXPECT_STREQ(host, "no-such") << "cut to the size, terminated";
  EXPECT_EQ(get_unc_host("C:\\x", host, sizeof host), 0);
  EXPECT_STREQ(host, "");
}

}  // namespace
