// The UTF-8 file calls and the file layer against real files in temporary
// folders, with non-ASCII and long names. Same source on both platforms.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <set>
#include <string>

#include <liblocal.h>

#include "lltest.h"

extern "C" void llt_force_os_class(int c);
#ifdef _WIN32
extern "C" void llt_paths_fake_reparse_entry(const char *name, uint32_t tag);
extern "C" void llt_paths_fake_reparse_data(const char *path, const void *data, unsigned len);
extern "C" void llt_paths_fake_network_drive(int letter, const char *unc);
extern "C" void llt_paths_hide_volmntpt(int hide);
#endif

namespace {

const std::string kSep = lltest::kWindows ? "\\" : "/";
const std::string kUni = "d\xc3\xbcr-\xe5\x90\x8d\xe5\x89\x8d";  // "dür-名前"

std::set<std::string> list(const std::string &dir) {
  std::set<std::string> out;
  QZDIR *d = qz_opendir(dir.c_str());
  if (!d) return out;
  while (struct qz_dirent *e = qz_readdir(d)) out.insert(e->d_name);
  qz_closedir(d);
  return out;
}

bool exists(const std::string &p) { return utf8_getfileattributes(p.c_str()) != QZ_INVALID_FILE_ATTRIBUTES; }

TEST(Files, NonAsciiAndLongNamesRoundTrip) {
  lltest::TempDir tmp;
  std::string deep = tmp.path() + kSep + kUni;
  for (int i = 0; i < 3; ++i) deep += kSep + std::string(120, static_cast<char>('a' + i));
  ASSERT_GT(deep.size(), 300u);
  ASSERT_EQ(qz_mkdirs(deep.c_str(), 0755), 0) << errno;
  EXPECT_EQ(qz_mkdirs(deep.c_str(), 0755), 0) << "an existing directory is fine";
  const std::string file = deep + kSep + "f\xc3\xa9.txt";
  FILE *f = qzfopen(file.c_str(), "w");
  ASSERT_NE(f, nullptr);
  std::fputs("hello", f);
  ASSERT_EQ(qzfclose(f), 0);

  struct ll_stat64 st;
  ASSERT_EQ(qzstat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 5);
  EXPECT_TRUE((st.st_mode & 0170000) == 0100000);
  ASSERT_EQ(utf8_stat(deep.c_str(), &st), 0);
  EXPECT_TRUE((st.st_mode & 0170000) == 0040000);

  const uint32_t a = utf8_getfileattributes(deep.c_str());
  EXPECT_TRUE(a & QZ_FILE_ATTRIBUTE_DIRECTORY);
  EXPECT_EQ(utf8_access(file.c_str()), 0);
  EXPECT_EQ(utf8_access((deep + kSep).c_str()), 0) << "trailing separator ignored";
  EXPECT_EQ(qz_mkdirs(file.c_str(), 0755), -1);
  EXPECT_EQ(errno, EEXIST);

  qz_finddata_t rec;
  intptr_t h = utf8_findfirst((deep + kSep + "*.txt").c_str(), &rec);
  ASSERT_NE(h, -1);
  EXPECT_STREQ(rec.name, "f\xc3\xa9.txt");
  EXPECT_EQ(rec.size_low, 5u);
  EXPECT_EQ(rec.size_high, 0u);
  EXPECT_EQ(rec.trailer[2], 0u);
  // Write time in 100-ns units since 1601: within a day of now.
  const uint64_t wt = (static_cast<uint64_t>(rec.write_time[1]) << 32) | rec.write_time[0];
  const uint64_t now = static_cast<uint64_t>(std::time(nullptr)) * 10000000ull + 116444736000000000ull;
  EXPECT_LT(wt > now ? wt - now : now - wt, 864000000000ull);
  EXPECT_EQ(utf8_findnext(h, &rec), 0);
  EXPECT_EQ(utf8_findclose(h), 1);

  EXPECT_EQ(list(deep), std::set<std::string>{"f\xc3\xa9.txt"});
  EXPECT_EQ(qz_rmtree((tmp.path() + kSep + kUni).c_str()), 0);
  EXPECT_FALSE(exists(tmp.path() + kSep + kUni));
}

TEST(Files, FindPrefersTheExactSpelling) {
  lltest::TempDir tmp;
  tmp.write("MixedCase.txt", "x");
  qz_finddata_t rec;
  const std::string asked = tmp.file(lltest::kWindows ? "mixedcase.txt" : "MixedCase.txt");
  intptr_t h = utf8_findfirst(asked.c_str(), &rec);
  ASSERT_NE(h, -1);
  EXPECT_STREQ(rec.name, "MixedCase.txt") << "the name as stored";
  utf8_findclose(h);
  char name[64];
  ASSERT_NE(real_name(asked.c_str(), name, sizeof name), nullptr);
  EXPECT_STREQ(name, "MixedCase.txt");
  EXPECT_EQ(real_name(asked.c_str(), name, 5), nullptr);
  EXPECT_EQ(errno, ERANGE);
  errno = 0;
  EXPECT_EQ(utf8_findfirst(tmp.file("absent*").c_str(), &rec), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(utf8_access(tmp.file("absent").c_str()), -1);
}

TEST(Files, ErrorsFollowTheirConvention) {
  lltest::TempDir tmp;
  const std::string absent = tmp.file("absent");
  errno = 0;
  EXPECT_EQ(utf8_unlink(absent.c_str()), -1);
  EXPECT_EQ(errno, ENOENT) << "mapped";
  EXPECT_EQ(utf8_rmdir(absent.c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(utf8_chdir(absent.c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(utf8_getfileattributes(absent.c_str()), QZ_INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(errno, lltest::kWindows ? 0x10000002 : ENOENT) << "raw";
  EXPECT_EQ(utf8_createfile(absent.c_str(), QZ_GENERIC_READ, 0, nullptr, QZ_OPEN_EXISTING, 0, nullptr),
            reinterpret_cast<void *>(-1));
  EXPECT_EQ(errno, lltest::kWindows ? 0x10000002 : ENOENT);
  errno = 77;
  EXPECT_STREQ(syscalls_utf8dec("plain"), "plain");
  EXPECT_EQ(errno, 77) << "preserved";
  // Names that do not convert fail without touching errno (too long here).
  const std::string huge(5000, 'x');
  errno = 0;
  EXPECT_EQ(utf8_mkdir(huge.c_str()), -1);
}

TEST(Files, RenameNeverLosesData) {
  lltest::TempDir tmp;
  tmp.write("a", "AAA");
  tmp.write("b", "BBB");
  const std::string a = tmp.file("a"), b = tmp.file("b");
  EXPECT_EQ(utf8_movefileex(a.c_str(), b.c_str(), 0), 0) << "no replace: the existing name wins";
  EXPECT_EQ(tmp.read("a"), "AAA");
  EXPECT_EQ(tmp.read("b"), "BBB");
  EXPECT_EQ(qzrename(tmp.file("absent").c_str(), b.c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(tmp.read("b"), "BBB");
  ASSERT_EQ(utf8_mkdir(tmp.file("dir").c_str()), 0);
  EXPECT_EQ(qzrename(a.c_str(), tmp.file("dir").c_str()), -1) << "a file does not replace a directory";
  EXPECT_EQ(tmp.read("a"), "AAA");
  EXPECT_EQ(qzrename(a.c_str(), b.c_str()), 0);
  EXPECT_EQ(tmp.read("b"), "AAA");
  EXPECT_FALSE(exists(a));
  EXPECT_NE(utf8_movefileex(b.c_str(), a.c_str(), QZ_MOVEFILE_REPLACE_EXISTING), 0);
  EXPECT_EQ(tmp.read("a"), "AAA");
}

TEST(Files, CurrentDirectoryFromTheNamesOnDisk) {
  lltest::TempDir tmp;
  const std::string dir = tmp.path() + kSep + kUni;
  ASSERT_EQ(utf8_mkdir(dir.c_str()), 0);
  char old[4096], got[4096];
  ASSERT_NE(qzmo_getcwd(old, sizeof old), nullptr);
  ASSERT_EQ(utf8_chdir(dir.c_str()), 0);
  char *r = qzmo_getcwd(got, sizeof got);
  char full[4096];
  ASSERT_NE(fullpath("x", full, sizeof full), nullptr);
  char small[8];
  char *none = qzmo_getcwd(small, sizeof small);
  utf8_chdir(old);
  ASSERT_NE(r, nullptr);
  char want[4096];
  ASSERT_NE(fullpath(dir.c_str(), want, sizeof want), nullptr);
#ifdef _WIN32
  EXPECT_EQ(_stricmp(got, want), 0) << got << " vs " << want;
#else
  char real[4096];
  ASSERT_NE(realpath(dir.c_str(), real), nullptr);
  EXPECT_STREQ(got, real);
#endif
  EXPECT_EQ(std::string(full).substr(std::string(full).size() - 2), kSep + "x");
  EXPECT_EQ(none, nullptr);
  char cwd_now[4096];
  ASSERT_NE(qzmo_getcwd(cwd_now, sizeof cwd_now), nullptr);
  EXPECT_STREQ(cwd_now, old) << "the directory is back where it was";
  char *alloc = utf8_getcwd(nullptr, 4096);
  ASSERT_NE(alloc, nullptr);
  std::free(alloc);
}

TEST(Files, TemporaryFilesAndDirectories) {
  char tp[4096];
  const unsigned n = utf8_gettemppath(sizeof tp, tp);
  ASSERT_GT(n, 0u);
  EXPECT_EQ(tp[n - 1], kSep[0]);
  EXPECT_GT(utf8_gettemppath(1, tp), 1u) << "too small: the size needed";
  lltest::TempDir tmp;
  char out[300];
  const unsigned u = utf8_gettempfilename(tmp.path().c_str(), "llt", 0, out);
  ASSERT_NE(u, 0u);
  EXPECT_TRUE(exists(out)) << out;
  EXPECT_NE(std::string(out).find("llt"), std::string::npos);
  EXPECT_EQ(utf8_gettempfilename(tmp.path().c_str(), "llt", 0x1234, out), 0x1234u);
  EXPECT_NE(std::string(out).find("llt1234.tmp"), std::string::npos) << out;

  std::string t = tmp.file(kUni + "-XXXXXX");
  int fd = mkstemp(t.data());
  ASSERT_GE(fd, 0);
  EXPECT_EQ(t.find("XXXXXX"), std::string::npos);
  EXPECT_TRUE(exists(t));
  qzclose(fd);
  std::string d = tmp.file("dXXXXXX");
  ASSERT_NE(mkdtemp(d.data()), nullptr);
  EXPECT_TRUE(utf8_getfileattributes(d.c_str()) & QZ_FILE_ATTRIBUTE_DIRECTORY);
  std::string bad = tmp.file("short");
  errno = 0;
  EXPECT_EQ(mkstemp(bad.data()), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST(Files, LargeOffsetsAndDescriptors) {
  lltest::TempDir tmp;
  const std::string f = tmp.file("big");
  int fd = open64(f.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644u);
  ASSERT_GE(fd, 0);
  const int64_t far = 5LL * 1024 * 1024 * 1024;
  EXPECT_EQ(lseek64(fd, far, SEEK_SET), far);
#ifdef _WIN32
  EXPECT_EQ(_write(fd, "z", 1), 1);
#else
  EXPECT_EQ(write(fd, "z", 1), 1);
#endif
  struct stat64 st;
  ASSERT_EQ(fstat64(fd, &st), 0);
  EXPECT_EQ(st.st_size, far + 1);
  EXPECT_EQ(qzclose(fd), 0);
  ASSERT_EQ(stat64(f.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, far + 1);
  EXPECT_EQ(stat64(tmp.file("absent").c_str(), &st), -1);
  EXPECT_EQ(errno, ENOENT);
}

LLTEST_CHILD(try_lock) {
  int fd = open64(argv[0], O_RDWR);
  if (fd < 0) return 3;
  int rc = lockf(fd, F_TLOCK, 10);
  std::printf("%d %d\n", rc, rc ? errno == EAGAIN : 0);
  return 0;
}

TEST(Files, LocksKeepOtherProcessesOut) {
  lltest::TempDir tmp;
  tmp.write("lock", "0123456789abcdef");
  int fd = open64(tmp.file("lock").c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(lockf(fd, F_LOCK, 10), 0);
  EXPECT_EQ(lltest::run_child("try_lock", {tmp.file("lock")}).out, "-1 1\n");
  ASSERT_EQ(lockf(fd, F_ULOCK, 10), 0);
  EXPECT_EQ(lltest::run_child("try_lock", {tmp.file("lock")}).out, "0 0\n");
  qzclose(fd);
}

LLTEST_CHILD(close_most) {
  int fd = open64(argv[0], O_RDONLY);
  if (fd < 3) return 3;
  qz_close_most();
  struct stat64 st;
  std::printf("%s\n", fstat64(fd, &st) == 0 ? "open" : "closed");
  return 0;
}

TEST(Files, CloseMost) {
  EXPECT_EQ(lltest::run_child("close_most", {lltest::self_path()}).out, lltest::kWindows ? "open\n" : "closed\n");
}

TEST(Files, TreesAndDirectoryStreams) {
  lltest::TempDir tmp;
  const std::string root = tmp.file("tree");
  ASSERT_EQ(qz_mkdirs((root + kSep + "a" + kSep + "b").c_str(), 0755), 0);
  tmp.write("tree" + kSep + "f1", "1");
  tmp.write("tree" + kSep + "a" + kSep + "ro", "2");
  ASSERT_NE(utf8_setfileattributes((root + kSep + "a" + kSep + "ro").c_str(), QZ_FILE_ATTRIBUTE_READONLY), 0);
  EXPECT_TRUE(utf8_getfileattributes((root + kSep + "a" + kSep + "ro").c_str()) & QZ_FILE_ATTRIBUTE_READONLY);
  EXPECT_EQ(list(root), (std::set<std::string>{"a", "f1"}));
  QZDIR *d = qz_opendir(root.c_str());
  ASSERT_NE(d, nullptr);
  int n = 0;
  while (struct qz_dirent *e = qz_readdir(d)) {
    ++n;
    EXPECT_EQ(e->d_type, std::strcmp(e->d_name, "a") == 0 ? unsigned(QZ_DT_DIR) : unsigned(QZ_DT_REG));
  }
  qz_rewinddir(d);
  EXPECT_NE(qz_readdir(d), nullptr);
  qz_closedir(d);
  EXPECT_EQ(n, 2);
  EXPECT_EQ(qz_opendir(tmp.file("absent").c_str()), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(qz_rmtree(root.c_str()), 0);
  EXPECT_FALSE(exists(root));
  EXPECT_EQ(qz_rmtree(root.c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(Files, NameMatcher) {
  struct {
    const char *p, *n;
    int icase, want;
  } t[] = {{"*", "", 0, 1},          {"*.txt", "a.txt", 0, 1},   {"*.txt", "a.TXT", 0, 0},
           {"*.txt", "a.TXT", 1, 1}, {"a?c", "abc", 0, 1},       {"a?c", "a\xc3\xa9" "c", 0, 1},
           {"a?c", "ac", 0, 0},      {"[a-c]x", "bx", 0, 1},     {"[!a-c]x", "bx", 0, 0},
           {"[^a]x", "zx", 0, 1},    {"[x", "[x", 0, 1},         {"*a*b*c", "zzazzbzzc", 0, 1},
           {"*a*b*c", "zzazzczzb", 0, 0}, {"**", "abc", 0, 1},    {"a*", "b", 0, 0}};
  for (auto &c : t) EXPECT_EQ(fmatch_case(c.p, c.n, c.icase), c.want) << c.p << " " << c.n;
  EXPECT_EQ(fmatch("A*", "abc"), lltest::kWindows ? 1 : 0);
  EXPECT_EQ(fmatch(nullptr, "x"), 0);
}

TEST(Files, VolumesAndSpace) {
  lltest::TempDir tmp;
  char vol[4096];
  ASSERT_EQ(utf8_getvolumepathname(tmp.path().c_str(), vol, sizeof vol), 0);
  EXPECT_EQ(vol[std::strlen(vol) - 1], kSep[0]) << vol;
  uint32_t serial = 0, maxcomp = 0, flags = 0;
  char fsname[64] = "";
  EXPECT_NE(utf8_getvolumeinfo(vol, nullptr, 0, &serial, &maxcomp, &flags, fsname, sizeof fsname), 0);
  EXPECT_GT(maxcomp, 0u);
  EXPECT_STRNE(fsname, "");
  uint32_t spc = 0, bps = 0, fc = 0, tc = 0;
  EXPECT_NE(utf8_getdiskfreespace(vol, &spc, &bps, &fc, &tc), 0);
  EXPECT_GT(spc * bps, 0u);
  uint64_t total = 0, avail = 0, used = 0;
  ASSERT_EQ(qz_diskusage(tmp.path().c_str(), &total, &avail, &used), 0);
  EXPECT_GT(total, 0u);
  EXPECT_LE(avail, total);
  struct statfs fs;
  ASSERT_EQ(statfs(tmp.path().c_str(), &fs), 0);
  EXPECT_EQ(fs.f_blocks * static_cast<uint64_t>(fs.f_bsize), total);
  EXPECT_EQ(statfs(tmp.file("absent").c_str(), &fs), -1);

  char link_target[64];
  EXPECT_EQ(utf8_getpathtarget(tmp.path().c_str(), link_target, sizeof link_target), -1) << "not a link";
}

#ifdef _WIN32
TEST(FilesWindows, AnsiClassUsesTheAForms) {
  lltest::TempDir tmp;
  llt_force_os_class(4);
  const std::string dir = tmp.file("ansi");
  EXPECT_EQ(utf8_mkdir(dir.c_str()), 0);
  EXPECT_TRUE(utf8_getfileattributes(dir.c_str()) & QZ_FILE_ATTRIBUTE_DIRECTORY);
  qz_finddata_t rec;
  intptr_t h = utf8_findfirst((tmp.path() + "\\an*").c_str(), &rec);
  EXPECT_NE(h, -1);
  EXPECT_STREQ(rec.name, "ansi");
  utf8_findclose(h);
  char cwd[4096];
  EXPECT_NE(utf8_getcwd(cwd, sizeof cwd), nullptr);
  char name[64];
  EXPECT_NE(real_name(dir.c_str(), name, sizeof name), nullptr);
  EXPECT_EQ(utf8_rmdir(dir.c_str()), 0);
  EXPECT_EQ(utf8_rmdir(dir.c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  llt_force_os_class(0);
}

TEST(FilesWindows, LongNamesWorkThroughThePrefix) {
  lltest::TempDir tmp;
  std::string p = tmp.path();
  while (p.size() < 400) p += "\\" + std::string(100, 'L');
  ASSERT_EQ(qz_mkdirs(p.c_str(), 0), 0);
  EXPECT_NE(utf8_setfileattributes(p.c_str(), QZ_FILE_ATTRIBUTE_HIDDEN | QZ_FILE_ATTRIBUTE_DIRECTORY), 0);
  EXPECT_TRUE(utf8_getfileattributes(p.c_str()) & QZ_FILE_ATTRIBUTE_HIDDEN);
}

TEST(FilesWindows, SeamsForWhatWineCannotMake) {
  lltest::TempDir tmp;
  tmp.write("mnt", "");
  llt_paths_fake_reparse_entry("mnt", QZ_IO_REPARSE_TAG_MOUNT_POINT);
  qz_finddata_t rec;
  intptr_t h = utf8_findfirst(tmp.file("mnt").c_str(), &rec);
  llt_paths_fake_reparse_entry(nullptr, 0);
  ASSERT_NE(h, -1);
  utf8_findclose(h);
  EXPECT_EQ(rec.trailer[2], QZ_FIND_VOLUME_MOUNT_POINT);
  EXPECT_EQ(rec.reserved0, QZ_IO_REPARSE_TAG_MOUNT_POINT);

  // A symbolic link's reparse data: the print name is the target.
  unsigned char data[64] = {};
  const wchar_t sub[] = L"\\??\\C:\\t", print[] = L"C:\\t";
  data[0] = 0x0C, data[3] = 0xA0;                   // tag
  data[8] = 0, data[10] = 16;                       // substitute name: offset 0, 16 bytes
  data[12] = 16, data[14] = 8;                      // print name: offset 16, 8 bytes
  std::memcpy(data + 20, sub, 16);
  std::memcpy(data + 36, print, 8);
  llt_paths_fake_reparse_data(tmp.file("mnt").c_str(), data, 44);
  char target[64];
  EXPECT_EQ(utf8_getpathtarget(tmp.file("mnt").c_str(), target, sizeof target), 0);
  EXPECT_STREQ(target, "C:\\t");
  EXPECT_EQ(utf8_getpathtarget(tmp.file("mnt").c_str(), target, 3), -1);
  llt_paths_fake_reparse_data(nullptr, nullptr, 0);

  llt_paths_fake_network_drive('Z', "\\\\server\\share");
  EXPECT_EQ(utf8_getpathtarget("Z:\\", target, sizeof target), 0);
  EXPECT_STREQ(target, "\\\\server\\share");
  char full[256];
  EXPECT_STREQ(fullpath2("z:\\dir\\..\\f", full, sizeof full, QZ_FULLPATH_NETWORK), "\\\\server\\share\\f");
  EXPECT_STREQ(fullpath("z:\\dir\\..\\f", full, sizeof full), "Z:\\f");
  llt_paths_fake_network_drive(0, nullptr);

  llt_paths_hide_volmntpt(1);
  errno = 0;
  EXPECT_EQ(utf8_getmntptvname("C:\\", target, sizeof target), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(utf8_findfirstvolmntpt("C:\\", target, sizeof target), 0);
  llt_paths_hide_volmntpt(0);
}

TEST(FilesWindows, CwdAtTheRootOfADrive) {
  char old[4096], got[4096];
  ASSERT_NE(qzmo_getcwd(old, sizeof old), nullptr);
  ASSERT_EQ(utf8_chdir("C:\\"), 0);
  char *r = qzmo_getcwd(got, sizeof got);
  utf8_chdir(old);
  ASSERT_NE(r, nullptr);
  EXPECT_STREQ(got, "C:\\");
  char dir[64];
  EXPECT_GT(utf8_getwindowsdirectory(dir, sizeof dir), 0u);
  EXPECT_EQ(_strnicmp(dir + 1, ":\\windows", 9), 0) << dir;
}
#endif

}  // namespace
