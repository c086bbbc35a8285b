// The directory-tree walker over real trees in temporary folders.
#include <gtest/gtest.h>
#include <liblocal/dtree.h>
#include <liblocal/fileio.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "lltest.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace {

const char kSep = lltest::kWindows ? '\\' : '/';

struct Seen {
  std::vector<std::string> lines;  // "visit kind depth relative-name"
  size_t root_len = 0;
  int prune_at_depth = -1;
  std::string stop_at;
  std::string remove_on_entry;  // a file removed when the first entry at depth 2 is visited
  int without_id = 0;           // records without a file id
};

int record(const qz_dtree_entry *e, void *arg) {
  Seen *s = static_cast<Seen *>(arg);
  std::string rel = std::string(e->path).substr(std::min(s->root_len, std::strlen(e->path)));
  for (char &c : rel)
    if (c == '\\') c = '/';
  s->lines.push_back(std::to_string(e->visit) + " " + std::to_string(e->kind) + " " + std::to_string(e->depth) + " " +
                     rel + (e->visit == QZ_DTV_ERROR ? " e" + std::to_string(e->error) : ""));
  EXPECT_EQ(e->visit == QZ_DTV_ERROR && e->kind != QZ_DTK_DIR, e->st == nullptr) << rel;
  EXPECT_STREQ(e->name, std::strrchr(e->path, kSep) ? std::strrchr(e->path, kSep) + 1 : e->path);
  if (e->st && e->st->st_ino == 0) ++s->without_id;
  if (!s->remove_on_entry.empty() && e->visit == QZ_DTV_ENTRY && e->depth == 2) {
    std::remove(s->remove_on_entry.c_str());
    s->remove_on_entry.clear();
  }
  if (e->visit == QZ_DTV_PRE && e->depth == s->prune_at_depth) return QZ_DTW_PRUNE;
  if (!s->stop_at.empty() && rel == s->stop_at) return 7;
  return QZ_DTW_CONTINUE;
}

void mkdir_p(const std::string &p) { ASSERT_EQ(qz_mkdirs(p.c_str(), 0755), 0) << p; }

std::vector<std::string> walk(const std::string &root, int flags, Seen &s, int *rc = nullptr) {
  s.root_len = root.size();
  while (s.root_len > 1 && root[s.root_len - 1] == kSep) --s.root_len;
  int r = qz_dtree_walk(root.c_str(), flags, record, &s);
  if (rc) *rc = r;
  else EXPECT_EQ(r, 0) << root << ": errno " << errno;
  return s.lines;
}


// A chain of n directories named comp below root with a file "leaf" at the
// bottom, made (and removed) one level at a time: the whole name is longer
// than the system's own calls take.
#ifdef _WIN32
std::wstring wlong(const std::string &s) {
  std::wstring w(s.size(), L'\0');
  w.resize(MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), w.data(), static_cast<int>(w.size())));
  return L"\\\\?\\" + w;
}
void deep_tree(const std::string &root, const std::string &comp, int n, bool make) {
  std::wstring p = wlong(root), c(comp.begin(), comp.end());
  std::vector<std::wstring> levels;
  for (int i = 0; i < n; ++i) {
    p += L"\\" + c;
    levels.push_back(p);
    if (make) {
      ASSERT_TRUE(CreateDirectoryW(p.c_str(), nullptr));
    }
  }
  std::wstring leaf = p + L"\\leaf";
  if (make) {
    HANDLE h = CreateFileW(leaf.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    CloseHandle(h);
    return;
  }
  DeleteFileW(leaf.c_str());
  for (auto it = levels.rbegin(); it != levels.rend(); ++it) RemoveDirectoryW(it->c_str());
}
#else
void deep_tree(const std::string &root, const std::string &comp, int n, bool make) {
  std::vector<int> fds{open(root.c_str(), O_RDONLY | O_DIRECTORY)};
  for (int i = 0; i < n; ++i) {
    if (make) {
      ASSERT_EQ(mkdirat(fds.back(), comp.c_str(), 0755), 0);
    }
    fds.push_back(openat(fds.back(), comp.c_str(), O_RDONLY | O_DIRECTORY));
    ASSERT_GE(fds.back(), 0);
  }
  if (make) {
    close(openat(fds.back(), "leaf", O_CREAT | O_WRONLY, 0644));
  } else {
    unlinkat(fds.back(), "leaf", 0);
  }
  for (size_t i = fds.size() - 1; i > 0; --i) {
    close(fds[i]);
    if (!make) unlinkat(fds[i - 1], comp.c_str(), AT_REMOVEDIR);
  }
  close(fds[0]);
}
#endif

TEST(Dtree, VisitsInNameOrderWithPreAndPost) {
  lltest::TempDir t;
  std::string r = t.path();
  mkdir_p(r + kSep + "b" + kSep + "d");
  mkdir_p(r + kSep + "\xc3\xa9t\xc3\xa9");  // "été"
  t.write("a", "");
  t.write(std::string("b") + kSep + "c", "x");
  t.write(std::string("\xc3\xa9t\xc3\xa9") + kSep + "\xe2\x82\xac", "euro");
  Seen s;
  std::vector<std::string> want = {"1 1 0 ",          "0 0 1 /a",        "1 1 1 /b",       "0 0 2 /b/c",
                                   "1 1 2 /b/d",      "2 1 2 /b/d",      "2 1 1 /b",       "1 1 1 /\xc3\xa9t\xc3\xa9",
                                   "0 0 2 /\xc3\xa9t\xc3\xa9/\xe2\x82\xac", "2 1 1 /\xc3\xa9t\xc3\xa9", "2 1 0 "};
  EXPECT_EQ(walk(r, 0, s), want);
  EXPECT_EQ(s.without_id, 0);  // file ids come with the listing (hard links can be told)

  // A trailing separator on the root changes nothing; pruning at depth 1
  // keeps the directories' own visits and drops what is below them.
  Seen p;
  p.prune_at_depth = 1;
  std::vector<std::string> got = walk(r + kSep, 0, p);
  EXPECT_EQ(got, (std::vector<std::string>{"1 1 0 ", "0 0 1 /a", "1 1 1 /b", "1 1 1 /\xc3\xa9t\xc3\xa9", "2 1 0 "}));

  // Any answer but prune ends the walk and is returned.
  Seen st;
  st.stop_at = "/b/c";
  int rc = 0;
  walk(r, 0, st, &rc);
  EXPECT_EQ(rc, 7);
  ASSERT_FALSE(st.lines.empty());
  EXPECT_EQ(st.lines.back(), "0 0 2 /b/c");
}

TEST(Dtree, RootsAndBadArguments) {
  lltest::TempDir t;
  t.write("f", "12345");
  Seen s;
  EXPECT_EQ(walk(t.file("f"), 0, s), std::vector<std::string>{"0 0 0 "});
  errno = 0;
  EXPECT_EQ(qz_dtree_walk(nullptr, 0, record, &s), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(qz_dtree_walk("", 0, record, &s), -1);
  EXPECT_EQ(qz_dtree_walk(t.path().c_str(), 0, nullptr, nullptr), -1);
  errno = 0;
  EXPECT_EQ(qz_dtree_walk(t.file("missing").c_str(), 0, record, &s), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(qz_dtree_sethandler(QZ_DTK_FILE, nullptr), nullptr);
  EXPECT_EQ(errno, EINVAL);
#ifdef _WIN32
  // The long and the device forms of a name lead to the same entry.
  for (const char *prefix : {"\\\\?\\", "\\\\.\\"}) {
    Seen f;
    EXPECT_EQ(walk(prefix + t.file("f"), 0, f), std::vector<std::string>{"0 0 0 "}) << prefix;
  }
  // No name on this system has bytes that are not UTF-8.
  errno = 0;
  EXPECT_EQ(qz_dtree_walk((t.path() + "\\\xff\xfe").c_str(), 0, record, &s), -1);
  EXPECT_EQ(errno, EINVAL);
#endif
}

TEST(Dtree, DeepWideAndChangingTrees) {
  lltest::TempDir t;
#ifndef _WIN32
  int fds = lltest::open_handles();
#endif
  // Deep: more than 4096 bytes of name below the root. Wine keeps every
  // name as a whole host path, so there the tree stays below the host's
  // 4096 bytes and still goes far past the 260 of the short Windows form.
  std::string comp(100, 'd');
  const int levels = lltest::kWindows ? 35 : 45;
  deep_tree(t.path(), comp, levels, true);
  Seen s;
  walk(t.path(), 0, s);
  ASSERT_EQ(s.lines.size(), levels * 2u + 2 + 1);
  EXPECT_GT(s.lines[levels + 1].size(), lltest::kWindows ? 3500u : 4096u);
  EXPECT_EQ(s.lines[levels + 1].substr(0, 6), "0 0 " + std::to_string(levels + 1));
  deep_tree(t.path(), comp, levels, false);

  // Wide: 10 000 entries in one directory, each once and in order.
  std::string wide = t.path() + kSep + "w";
  mkdir_p(wide);
  // Wine's own file creation looks through the whole directory for each new
  // name, so there a quarter of a minute goes on making the folder: half as wide.
  const int n = lltest::kWindows ? 5000 : 10000;
  for (int i = 0; i < n; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "%c%05d", kSep, i);
    FILE *f = qzfopen((wide + name).c_str(), "w");
    ASSERT_NE(f, nullptr);
    qzfclose(f);
  }
  Seen w;
  walk(wide, 0, w);
  ASSERT_EQ(w.lines.size(), static_cast<size_t>(n) + 2);
  EXPECT_EQ(w.lines[1], "0 0 1 /00000");
  EXPECT_EQ(w.lines[n], "0 0 1 /" + std::to_string(n - 1).insert(0, 5 - std::to_string(n - 1).size(), '0'));

  // A file removed after its directory was listed: POSIX inspects it at its
  // visit and reports it gone; Windows reports the record the listing gave.
  // Either way the walk goes on.
  lltest::TempDir c;
  mkdir_p(c.path() + kSep + "x");
  c.write(std::string("x") + kSep + "a", "");
  c.write(std::string("x") + kSep + "gone", "");
  c.write(std::string("x") + kSep + "kept", "");
  Seen g;
  g.remove_on_entry = c.file(std::string("x") + kSep + "gone");
  walk(c.path(), 0, g);
  const std::string gone = lltest::kWindows ? "0 0 2 /x/gone" : "3 0 2 /x/gone e" + std::to_string(ENOENT);
  EXPECT_EQ(g.lines, (std::vector<std::string>{"1 1 0 ", "1 1 1 /x", "0 0 2 /x/a", gone, "0 0 2 /x/kept", "2 1 1 /x",
                                               "2 1 0 "}));
#ifndef _WIN32
  EXPECT_EQ(lltest::open_handles(), fds);
#endif
}

#ifdef _WIN32
extern "C" void llt_dtree_reparse(const char *name, unsigned tag);

// Reparse points cannot be made under Wine: a seam lists a plain directory
// as one, and the walk must treat it by its tag.
TEST(Dtree, ReparsePointsByTheirTag) {
  lltest::TempDir t;
  const std::string r = t.path();
  mkdir_p(r + "\\j\\in");
  const std::vector<std::string> walked = {"1 1 0 ", "1 1 1 /j", "1 1 2 /j/in", "2 1 2 /j/in", "2 1 1 /j", "2 1 0 "};
  const struct {
    unsigned tag;
    int flags;
    std::vector<std::string> want;
  } cases[] = {
      {0xA0000003u /* junction */, 0, {"1 1 0 ", "0 3 1 /j", "2 1 0 "}},
      {0xA000000Cu /* symbolic link */, 0, {"1 1 0 ", "0 2 1 /j", "2 1 0 "}},
      {0xA0000003u, QZ_DTW_FOLLOW, walked},
      {0xA000000Cu, QZ_DTW_FOLLOW, walked},
      {0x9000601Au /* a cloud placeholder: the directory itself */, 0, walked},
      {0x80000013u /* deduplicated */, 0, walked},
  };
  for (const auto &c : cases) {
    llt_dtree_reparse("j", c.tag);
    Seen s;
    EXPECT_EQ(walk(r, c.flags, s), c.want) << std::hex << c.tag << " flags " << c.flags;
  }
  llt_dtree_reparse(nullptr, 0);
}
#endif

#ifndef _WIN32
int skip_specials(const qz_dtree_entry *, int) { return QZ_DTH_SKIP; }

TEST(Dtree, LinksLoopsSpecialsAndOtherFileSystems) {
  lltest::TempDir t;
  std::string r = t.path();
  mkdir_p(r + "/d/e");
  ASSERT_EQ(symlink("..", (r + "/d/e/up").c_str()), 0);        // a loop when followed
  ASSERT_EQ(symlink("/dev", (r + "/d/other").c_str()), 0);     // another file system
  ASSERT_EQ(symlink("e", (r + "/d/same").c_str()), 0);         // a directory on this one
  ASSERT_EQ(mkfifo((r + "/d/fifo").c_str(), 0600), 0);
  Seen plain;
  EXPECT_EQ(walk(r, 0, plain), (std::vector<std::string>{"1 1 0 ", "1 1 1 /d", "1 1 2 /d/e", "0 2 3 /d/e/up",
                                                         "2 1 2 /d/e", "0 5 2 /d/fifo", "0 2 2 /d/other",
                                                         "0 2 2 /d/same", "2 1 1 /d", "2 1 0 "}));
  Seen follow;
  EXPECT_EQ(walk(r, QZ_DTW_FOLLOW, follow),
            (std::vector<std::string>{"1 1 0 ", "1 1 1 /d", "1 1 2 /d/e", "0 6 3 /d/e/up", "2 1 2 /d/e",
                                      "0 5 2 /d/fifo", "0 2 2 /d/other", "1 1 2 /d/same", "0 6 3 /d/same/up",
                                      "2 1 2 /d/same", "2 1 1 /d", "2 1 0 "}));
  // A handler of the process decides for its kind; null restores the built-in one.
  qz_dtree_sethandler(QZ_DTK_SPECIAL, skip_specials);
  Seen skipped;
  walk(r + "/d", 0, skipped);
  EXPECT_EQ(qz_dtree_sethandler(QZ_DTK_SPECIAL, nullptr), &skip_specials);
  EXPECT_EQ(std::count(skipped.lines.begin(), skipped.lines.end(), "0 5 1 /fifo"), 0);
  EXPECT_EQ(add_dtree_handlers(), 0);
}

int g_mount_asked = 0;
int count_and_cross(const qz_dtree_entry *, int) {
  ++g_mount_asked;
  return QZ_DTH_FOLLOW;
}

// A link onto another file system: reported under QZ_DTW_FOLLOW alone; a
// mount handler that crosses is asked once, and what lies below is walked.
TEST(Dtree, LinkOntoAnotherFileSystem) {
  struct stat here, shm;
  lltest::TempDir t;
  if (stat(t.path().c_str(), &here) != 0 || stat("/dev/shm", &shm) != 0 || here.st_dev == shm.st_dev)
    GTEST_SKIP() << "no second file system at /dev/shm";
  char other[] = "/dev/shm/lltest-dtree-XXXXXX";
  ASSERT_NE(mkdtemp(other), nullptr);
  const std::string o = other;
  mkdir_p(o + "/sub/deeper");
  ASSERT_EQ(symlink(other, t.file("other").c_str()), 0);
  Seen plain;
  EXPECT_EQ(walk(t.path(), QZ_DTW_FOLLOW, plain), (std::vector<std::string>{"1 1 0 ", "0 2 1 /other", "2 1 0 "}));
  qz_dtree_sethandler(QZ_DTK_MOUNT, count_and_cross);
  Seen crossed;
  walk(t.path(), QZ_DTW_FOLLOW, crossed);
  qz_dtree_sethandler(QZ_DTK_MOUNT, nullptr);
  EXPECT_EQ(g_mount_asked, 1);
  EXPECT_EQ(crossed.lines, (std::vector<std::string>{"1 1 0 ", "1 1 1 /other", "1 1 2 /other/sub", "1 1 3 /other/sub/deeper",
                                                     "2 1 3 /other/sub/deeper", "2 1 2 /other/sub", "2 1 1 /other",
                                                     "2 1 0 "}));
  rmdir((o + "/sub/deeper").c_str());
  rmdir((o + "/sub").c_str());
  rmdir(other);
}

int odd_answer(const qz_dtree_entry *, int) { return 99; }
int always_follow(const qz_dtree_entry *, int) { return QZ_DTH_FOLLOW; }

// Names that are not UTF-8 are names like any other here; a caller that
// stops, fails or answers oddly ends the walk with nothing left open.
TEST(Dtree, OddNamesAndAnswers) {
  lltest::TempDir t;
  std::string r = t.path();
  mkdir_p(r + "/\xff/a\xc3/b/c/d/e/f");
  t.write("\xff/a\xc3/\xfe", "");
  ASSERT_EQ(symlink(".", (r + "/\xff/self").c_str()), 0);
  const int fds = lltest::open_handles();
  Seen s;
  walk(r, 0, s);
  EXPECT_EQ(std::vector<std::string>(s.lines.begin(), s.lines.begin() + 4),
            (std::vector<std::string>{"1 1 0 ", "1 1 1 /\xff", "1 1 2 /\xff/a\xc3", "1 1 3 /\xff/a\xc3/b"}));
  EXPECT_EQ(std::count(s.lines.begin(), s.lines.end(), "0 0 3 /\xff/a\xc3/\xfe"), 1);
  for (const char *stop_at : {"/\xff/a\xc3/b/c/d/e", "/\xff/a\xc3/b/c/d/e/f"}) {
    Seen st;
    st.stop_at = stop_at;
    int rc = 0;
    walk(r, 0, st, &rc);
    EXPECT_EQ(rc, 7);
    EXPECT_EQ(lltest::open_handles(), fds) << stop_at;
  }
  // A link handler's unknown answer reports the link; a loop is never
  // entered even when its handler says to follow.
  qz_dtree_sethandler(QZ_DTK_LINK, odd_answer);
  Seen odd;
  walk(r + "/\xff", QZ_DTW_FOLLOW, odd);
  EXPECT_EQ(odd.lines.back(), "2 1 0 ");
  EXPECT_EQ(std::count(odd.lines.begin(), odd.lines.end(), "0 2 1 /self"), 1);
  qz_dtree_sethandler(QZ_DTK_LINK, nullptr);
  qz_dtree_sethandler(QZ_DTK_LOOP, always_follow);
  Seen loop;
  walk(r + "/\xff", QZ_DTW_FOLLOW, loop);
  qz_dtree_sethandler(QZ_DTK_LOOP, nullptr);
  EXPECT_EQ(std::count(loop.lines.begin(), loop.lines.end(), "0 6 1 /self"), 1);
  EXPECT_EQ(lltest::open_handles(), fds);
}

LLTEST_CHILD(dtree_unprivileged) {
  if (setgid(65534) != 0 || setuid(65534) != 0) return 3;
  Seen s;
  s.root_len = std::strlen(argv[0]);
  int rc = qz_dtree_walk(argv[0], 0, record, &s);
  for (const std::string &l : s.lines) std::printf("%s\n", l.c_str());
  return rc;
}

TEST(Dtree, UnreadableDirectoryIsReportedAndSkipped) {
  lltest::TempDir t;
  std::string r = t.path();
  mkdir_p(r + "/closed");
  mkdir_p(r + "/open");
  t.write("closed/secret", "");
  t.write("open/f", "");
  ASSERT_EQ(chmod(r.c_str(), 0755), 0);
  ASSERT_EQ(chmod((r + "/closed").c_str(), 0700), 0);
  lltest::ChildResult c = lltest::run_child("dtree_unprivileged", {r});
  EXPECT_EQ(c.exit_code, 0) << c.err;
  EXPECT_EQ(c.out, "1 1 0 \n3 1 1 /closed e" + std::to_string(EACCES) + "\n1 1 1 /open\n0 0 2 /open/f\n2 1 1 /open\n2 1 0 \n");
}
#endif

}  // namespace
