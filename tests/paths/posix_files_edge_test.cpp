// The POSIX meaning of the UTF-8 file calls and the file layer at their
// edges: every entry's answer to a missing argument, the five creation
// dispositions, moves that must not replace, links, mount-table lookups and
// buffers one byte too small.
#include <gtest/gtest.h>

#ifndef _WIN32
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>

#include <liblocal.h>

#include "lltest.h"

namespace {

std::string slurp(const std::string &path) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (!f) return "<missing>";
  std::string s;
  char b[256];
  size_t n;
  while ((n = std::fread(b, 1, sizeof b, f)) > 0) s.append(b, n);
  std::fclose(f);
  return s;
}

TEST(PosixFilesEdge, MissingArgumentsFailByTheirConvention) {
  char buf[64];
  struct ll_stat64 st;
  struct ll_statfs sf;
  qz_finddata_t rec;
  // Each call answers its own failure value and errno EINVAL (or, for the
  // directory handle calls, EBADF; for the tree calls, ENOENT).
  struct Case {
    const char *what;
    std::function<bool()> failed;
    int err;
  } cases[] = {
      {"findfirst", [&] { return utf8_findfirstex(nullptr, &rec, 0) == -1; }, EINVAL},
      {"findfirst rec", [&] { return utf8_findfirst("/", nullptr) == -1; }, EINVAL},
      {"gettempfilename", [&] { return utf8_gettempfilename(nullptr, "x", 1, buf) == 0; }, EINVAL},
      {"getcwd 0", [&] { return utf8_getcwd(buf, 0) == nullptr; }, EINVAL},
      {"unlink", [&] { return utf8_unlink(nullptr) == -1; }, EINVAL},
      {"rmdir", [&] { return utf8_rmdir(nullptr) == -1; }, EINVAL},
      {"chmod", [&] { return utf8_chmod(nullptr, 0600) == -1; }, EINVAL},
      {"mkdir", [&] { return utf8_mkdir(nullptr) == -1; }, EINVAL},
      {"createdirectory", [&] { return utf8_createdirectory(nullptr, nullptr) == 0; }, EINVAL},
      {"movefileex", [&] { return utf8_movefileex("a", nullptr, 0) == 0; }, EINVAL},
      {"createfile", [&] { return utf8_createfile(nullptr, 0, 0, nullptr, QZ_OPEN_EXISTING, 0, nullptr) == (void *)-1; }, EINVAL},
      {"createfile disposition", [&] { return utf8_createfile("/tmp", 0, 0, nullptr, 9, 0, nullptr) == (void *)-1; }, EINVAL},
      {"access", [&] { return utf8_access(nullptr) == -1; }, EINVAL},
      {"getvolumepathname", [&] { return utf8_getvolumepathname(nullptr, buf, sizeof buf) == -1; }, EINVAL},
      {"getpathtarget", [&] { return utf8_getpathtarget("/", buf, 0) == -1; }, EINVAL},
      {"getmntptvname", [&] { return utf8_getmntptvname("/", nullptr, 8) == 0; }, EINVAL},
      {"qzfopen", [&] { return qzfopen(nullptr, "r") == nullptr; }, EINVAL},
      {"ll_open64", [&] { return ll_open64(nullptr, O_RDONLY) == -1; }, EINVAL},
      {"ll_stat64", [&] { return ll_stat64("/", nullptr) == -1; }, EINVAL},
      {"ll_lstat64", [&] { return ll_lstat64(nullptr, &st) == -1; }, EINVAL},
      {"ll_fstat64", [&] { return ll_fstat64(0, nullptr) == -1; }, EINVAL},
      {"ll_mkstemp", [&] { return ll_mkstemp(nullptr) == -1; }, EINVAL},
      {"ll_mkdtemp", [&] { return ll_mkdtemp(nullptr) == nullptr; }, EINVAL},
      {"qzrename", [&] { return qzrename(nullptr, "b") == -1; }, EINVAL},
      {"real_name", [&] { return real_name(nullptr, buf, sizeof buf) == nullptr; }, EINVAL},
      {"ll_statfs", [&] { return ll_statfs("/", nullptr) == -1; }, EINVAL},
      {"ll_fstatfs", [&] { return ll_fstatfs(0, nullptr) == -1; }, EINVAL},
      {"qzfclose", [&] { return qzfclose(nullptr) == EOF; }, EINVAL},
      {"fullpath2", [&] { return fullpath2(nullptr, buf, sizeof buf, 0) == nullptr; }, EINVAL},
      {"qz_readdir", [&] { return qz_readdir(nullptr) == nullptr; }, EBADF},
      {"qz_closedir", [&] { return qz_closedir(nullptr) == -1; }, EBADF},
      {"qz_opendir", [&] { return qz_opendir(nullptr) == nullptr; }, EINVAL},
      {"qz_mkdirs", [&] { return qz_mkdirs("", 0755) == -1; }, ENOENT},
      {"qz_rmtree", [&] { return qz_rmtree(nullptr) == -1; }, ENOENT},
  };
  for (auto &c : cases) {
    errno = 0;
    EXPECT_TRUE(c.failed()) << c.what;
    EXPECT_EQ(errno, c.err) << c.what;
  }
  // The calls whose failure is a plain zero, errno untouched or the system's.
  EXPECT_EQ(utf8_getwindowsdirectory(nullptr, 8), 0u);
  EXPECT_EQ(utf8_getsystemdirectory(nullptr, 8), 0u);
  EXPECT_EQ(utf8_setcurrentdirectory(nullptr), 0);
  EXPECT_EQ(utf8_chdir("/no/such/dir"), -1);
  EXPECT_EQ(utf8_setfileattributes(nullptr, 0), 0);
  EXPECT_EQ(utf8_getfileattributes(nullptr), QZ_INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(utf8_setfilesecurity(nullptr, 0, nullptr), 0);
  EXPECT_EQ(utf8_setfilesecurity("/no/such/file", 0, nullptr), 0);
  EXPECT_EQ(utf8_getvolumeinfo(nullptr, nullptr, 0, nullptr, nullptr, nullptr, nullptr, 0), 0);
  EXPECT_EQ(utf8_getdiskfreespace("/no/such/dir", nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(utf8_findnext(-1, &rec), 0);
  EXPECT_EQ(utf8_findclose(-1), 0);
  EXPECT_EQ(ll_lstat64("/no/such/file", &st), -1);
  EXPECT_EQ(ll_fstatfs(-1, &sf), -1);
}

TEST(PosixFilesEdge, CreationDispositions) {
  lltest::TempDir d;
  const std::string f = d.file("f");
  // disposition, file present before, expected to open, contents after
  struct Case {
    uint32_t disposition;
    bool present;
    bool opens;
    const char *after;
  } cases[] = {
      {QZ_CREATE_NEW, false, true, ""},         {QZ_CREATE_NEW, true, false, "old"},
      {QZ_CREATE_ALWAYS, true, true, ""},       {QZ_CREATE_ALWAYS, false, true, ""},
      {QZ_OPEN_EXISTING, false, false, "<missing>"}, {QZ_OPEN_EXISTING, true, true, "old"},
      {QZ_OPEN_ALWAYS, false, true, ""},        {QZ_OPEN_ALWAYS, true, true, "old"},
      {QZ_TRUNCATE_EXISTING, true, true, ""},   {QZ_TRUNCATE_EXISTING, false, false, "<missing>"},
  };
  for (const auto &c : cases) {
    ::unlink(f.c_str());
    if (c.present) d.write("f", "old");
    void *h = utf8_createfile(f.c_str(), QZ_GENERIC_READ | QZ_GENERIC_WRITE, 0, nullptr, c.disposition, 0, nullptr);
    const int fd = static_cast<int>(reinterpret_cast<intptr_t>(h));
    EXPECT_EQ(fd >= 0, c.opens) << c.disposition << " present " << c.present;
    if (fd >= 0) {
      EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
      qzclose(fd);
    }
    EXPECT_EQ(slurp(f), c.after) << c.disposition << " present " << c.present;
  }
  // A write-only handle is what was asked for.
  d.write("f", "old");
  void *w = utf8_createfile(f.c_str(), QZ_GENERIC_WRITE, 0, nullptr, QZ_OPEN_EXISTING, 0, nullptr);
  const int wfd = static_cast<int>(reinterpret_cast<intptr_t>(w));
  ASSERT_GE(wfd, 0);
  EXPECT_EQ(fcntl(wfd, F_GETFL) & O_ACCMODE, O_WRONLY);
  qzclose(wfd);
}

TEST(PosixFilesEdge, NamesMovesAndLinks) {
  lltest::TempDir d;
  d.write("a", "A");
  d.write("b", "B");
  const std::string a = d.file("a"), b = d.file("b"), c = d.file("c");
  // Without replacing, an existing new name leaves both names as they were.
  EXPECT_EQ(utf8_movefileex(a.c_str(), b.c_str(), 0), 0);
  EXPECT_EQ(slurp(a), "A");
  EXPECT_EQ(slurp(b), "B");
  EXPECT_NE(utf8_movefileex(a.c_str(), c.c_str(), 0), 0);
  EXPECT_NE(utf8_movefileex(c.c_str(), b.c_str(), QZ_MOVEFILE_REPLACE_EXISTING), 0);
  EXPECT_EQ(slurp(b), "A");

  // A link: reparse point with the symbolic-link tag, and a directory when
  // it points at one; a dangling one is a reparse point only.
  ASSERT_EQ(::mkdir(d.file("dir").c_str(), 0755), 0);
  ASSERT_EQ(::symlink(d.file("dir").c_str(), d.file("ld").c_str()), 0);
  ASSERT_EQ(::symlink("nowhere", d.file("dangling").c_str()), 0);
  qz_finddata_t rec;
  intptr_t h = utf8_findfirst(d.file("ld").c_str(), &rec);
  ASSERT_NE(h, -1);
  EXPECT_EQ(rec.attributes, QZ_FILE_ATTRIBUTE_REPARSE_POINT | QZ_FILE_ATTRIBUTE_DIRECTORY);
  EXPECT_EQ(rec.reserved0, QZ_IO_REPARSE_TAG_SYMLINK);
  EXPECT_STREQ(rec.name, "ld");
  EXPECT_EQ(utf8_findnext(h, &rec), 0);  // one name, one answer
  EXPECT_EQ(utf8_findclose(h), 1);
  EXPECT_EQ(utf8_getfileattributes(d.file("dangling").c_str()), QZ_FILE_ATTRIBUTE_REPARSE_POINT);

  // The link's target; a buffer that cannot hold it all fails with ERANGE.
  char t[8];
  EXPECT_EQ(utf8_getpathtarget(d.file("dangling").c_str(), t, sizeof t), 0);
  EXPECT_STREQ(t, "nowhere");
  errno = 0;
  EXPECT_EQ(utf8_getpathtarget(d.file("dangling").c_str(), t, 7), -1);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(utf8_getpathtarget(b.c_str(), t, sizeof t), -1);  // not a link
  EXPECT_EQ(errno, EINVAL);
  struct ll_stat64 st;
  ASSERT_EQ(ll_lstat64(d.file("dangling").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 7u);

  // "." names the directory itself; a pattern that matches nothing fails
  // with ENOENT; "*.*" is every name.
  const std::string dot = d.file("dir") + "/.";
  h = utf8_findfirst(dot.c_str(), &rec);
  ASSERT_NE(h, -1);
  EXPECT_STREQ(rec.name, "dir");
  utf8_findclose(h);
  errno = 0;
  EXPECT_EQ(utf8_findfirst(d.file("zz*").c_str(), &rec), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(utf8_findfirst("/no/such/dir/*", &rec), -1);
  int n = 0;
  h = utf8_findfirst((d.path() + "/*.*").c_str(), &rec);
  ASSERT_NE(h, -1);
  do ++n;
  while (utf8_findnext(h, &rec));
  utf8_findclose(h);
  EXPECT_EQ(n, 6);  // ., .., b, dir, ld, dangling

  // The directory listing types entries, links as links.
  QZDIR *dir = qz_opendir(d.path().c_str());
  ASSERT_NE(dir, nullptr);
  int links = 0;
  while (struct qz_dirent *e = qz_readdir(dir))
    if (e->d_type == QZ_DT_LNK) ++links;
  EXPECT_EQ(qz_closedir(dir), 0);
  EXPECT_EQ(links, 2);

  // A chain of folders made at once; made again is no error; a file in
  // the way is.
  const std::string deep = d.file("x/y/z");
  EXPECT_EQ(qz_mkdirs(deep.c_str(), 0755), 0);
  EXPECT_EQ(qz_mkdirs(deep.c_str(), 0755), 0);
  errno = 0;
  EXPECT_EQ(qz_mkdirs((b + "/sub").c_str(), 0755), -1);
  EXPECT_EQ(qz_rmtree(d.file("x").c_str()), 0);
  EXPECT_EQ(qz_rmtree(d.file("x").c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(PosixFilesEdge, DirectoriesTemporaryNamesAndVolumes) {
  char buf[300];
  // Too small: the size needed, terminator included; nothing written.
  std::memset(buf, 'x', sizeof buf);
  EXPECT_EQ(utf8_getsystemdirectory(buf, 4), 9u);
  EXPECT_EQ(buf[0], 'x');
  EXPECT_EQ(utf8_getsystemdirectory(buf, sizeof buf), 8u);
  EXPECT_STREQ(buf, "/usr/bin");
  EXPECT_EQ(utf8_getwindowsdirectory(buf, sizeof buf), 1u);
  EXPECT_STREQ(buf, "/");
  {
    lltest::ScopedEnv env("TMPDIR", "/var/tmp");
    EXPECT_EQ(utf8_gettemppath(0, nullptr), 10u);
    EXPECT_EQ(utf8_gettemppath(sizeof buf, buf), 9u);
    EXPECT_STREQ(buf, "/var/tmp/");
  }
  const unsigned cwdlen = utf8_getcurrentdirectory(0, nullptr);
  EXPECT_GT(cwdlen, 1u);
  EXPECT_EQ(utf8_getcurrentdirectory(sizeof buf, buf) + 1, cwdlen);

  // A given number only builds the name (three letters of the prefix);
  // a directory too long for the result fails.
  EXPECT_EQ(utf8_gettempfilename("/t", "prefix", 0x1ABCD, buf), 0xABCDu);
  EXPECT_STREQ(buf, "/t/preABCD.tmp");
  const std::string longdir(300, 'd');
  errno = 0;
  EXPECT_EQ(utf8_gettempfilename(longdir.c_str(), nullptr, 5, buf), 0u);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(utf8_gettempfilename(longdir.c_str(), nullptr, 0, buf), 0u);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(utf8_gettempfilename("/no/such/dir", "p", 0, buf), 0u);
  EXPECT_EQ(errno, ENOENT);

  // Root is a mount point with a device; a folder under it is not; a
  // device name longer than the buffer fails with ERANGE.
  EXPECT_EQ(utf8_getmntptvname("/", buf, sizeof buf), 1);
  EXPECT_GT(std::strlen(buf), 0u);
  errno = 0;
  EXPECT_EQ(utf8_getmntptvname("/", buf, 1), 0);
  EXPECT_EQ(errno, ERANGE);
  lltest::TempDir d;
  errno = 0;
  EXPECT_EQ(utf8_getmntptvname(d.path().c_str(), buf, sizeof buf), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(utf8_getvolumepathname(d.path().c_str(), buf, sizeof buf), 0);
  EXPECT_EQ(buf[std::strlen(buf) - 1], '/');
  errno = 0;
  EXPECT_EQ(utf8_getvolumepathname(d.path().c_str(), buf, 1), -1);
  EXPECT_EQ(errno, ERANGE);
  char fs[4];
  uint32_t serial = 0, maxcomp = 0, flags = 0;
  EXPECT_EQ(utf8_getvolumeinfo("/", buf, sizeof buf, &serial, &maxcomp, &flags, fs, sizeof fs), 1);
  EXPECT_EQ(buf[0], 0);
  EXPECT_LE(std::strlen(fs), 3u);  // cut to the buffer
  EXPECT_GT(maxcomp, 0u);
  uint32_t spc = 0, bps = 0, freec = 0, total = 0;
  EXPECT_EQ(utf8_getdiskfreespace("/", &spc, &bps, &freec, &total), 1);
  EXPECT_EQ(spc, 1u);
  EXPECT_GT(bps, 0u);
  EXPECT_GT(total, 0u);
  struct ll_statfs sf;
  const int fd = ll_open64(d.path().c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(ll_fstatfs(fd, &sf), 0);
  qzclose(fd);
  // The mount-point search does not exist here.
  errno = 0;
  EXPECT_EQ(utf8_findfirstvolmntpt("x", buf, sizeof buf), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(utf8_findnextvolmntpt(1, buf, sizeof buf), 0);
  EXPECT_EQ(utf8_findvolmntptclose(1), 0);

  // Attributes: only read-only has an effect, both ways.
  d.write("ro", "x");
  const std::string ro = d.file("ro");
  EXPECT_NE(utf8_setfileattributes(ro.c_str(), QZ_FILE_ATTRIBUTE_READONLY), 0);
  EXPECT_EQ(utf8_getfileattributes(ro.c_str()), QZ_FILE_ATTRIBUTE_READONLY);
  EXPECT_NE(utf8_setfileattributes(ro.c_str(), QZ_FILE_ATTRIBUTE_NORMAL), 0);
  EXPECT_EQ(utf8_getfileattributes(ro.c_str()), QZ_FILE_ATTRIBUTE_NORMAL);
  EXPECT_EQ(utf8_chmod(ro.c_str(), 0644), 0);
  EXPECT_EQ(utf8_setfilesecurity(ro.c_str(), 0, nullptr), 1);
  EXPECT_EQ(utf8_createdirectory(d.file("made").c_str(), nullptr), 1);
  EXPECT_EQ(utf8_createdirectory(d.file("made").c_str(), nullptr), 0);
  EXPECT_EQ(utf8_access((d.file("made") + "/").c_str()), 0);
}

}  // namespace
#endif
