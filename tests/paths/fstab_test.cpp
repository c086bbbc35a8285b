// The file-system table: the real table of this machine (or Wine prefix), and
// tables the back-end is fed through its seams for what cannot be arranged
// here (mount-table text on POSIX; mount points, substituted and network
// drives on Windows, which Wine cannot make).
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <liblocal.h>

#include "lltest.h"

#ifndef _WIN32
#include <sys/stat.h>
#include <sys/sysmacros.h>
#endif

extern "C" int llt_fstab_builds(void);
extern "C" void llt_fstab_fail(int e);
#ifdef _WIN32
extern "C" void llt_fstab_fake_mode(int mode);
extern "C" void llt_fstab_fake(const char *dir, const char *volname, int drivetype, uint32_t serial,
                               const char *fsname, const char *dosdev);
extern "C" void llt_fstab_fake_mntpt(const char *dir, const char *relname);
extern "C" void llt_fstab_os_major(int major);
extern "C" void llt_force_os_class(int c);
extern "C" void llt_paths_fake_network_drive(int letter, const char *unc);
#else
extern "C" void llt_fstab_mountinfo(const char *text);
#endif

namespace {

struct Row {
  std::string device, dir, type, opts, name;
  uint32_t serial;
  bool local;
};

// The table as rows, in list order (last found first).
std::vector<Row> rows() {
  std::vector<Row> out;
  int rc = -1;
  for (qz_fstab_t *n = getfstab(&rc); n; n = n->next)
    out.push_back({n->ent->fs_device, n->ent->fs_dir, n->ent->fs_type, n->ent->fs_opts, n->name,
                   n->ent->fs_serial, is_local_saveset(n) == 1});
  EXPECT_EQ(rc, 0);
  return out;
}

std::map<std::string, Row> by_name(const std::vector<Row> &v) {
  std::map<std::string, Row> m;
  for (const Row &r : v) m.emplace(r.name, r);
  return m;
}

std::vector<Row> rebuilt() {
  donefstab();
  return rows();
}

TEST(Fstab, LocalSavesetWordTables) {
  struct Case {
    const char *type, *opts;
    int local;
    bool posix_only;
  } cases[] = {
      {"NTFS", "", 1, false},          {"cdrom", "", 0, false},        {"CDROM", "", 0, false},
      {"NTFS", "ignore", 0, false},    {"removable", "", 0, false},    {"remote", "", 0, false},
      {"ramdisk", "", 0, false},       {"mntpt", "", 1, false},        {"loop", "", 1, false},
      {"ext4", "rw,relatime", 1, false}, {"ext4", "ro,relatime", 0, false}, {"ext4", "ignore,rw", 0, false},
      {"ext4", "rw,nobackups", 0, false}, {"ext4", "rw,ignored", 1, false}, {"TmpFS", "rw", 0, false},
      {"nfs", "rw", 0, false},         {"iso9660", "ro", 0, false},    {"SYSTEM STATE:\\", "", 1, false},
      {"nfs4", "rw", 0, true},         {"fuse.sshfs", "rw", 0, true},  {"fuseblk", "rw", 1, true},
      {"overlay", "rw", 0, true},      {"cgroup2", "rw", 0, true},     {"xfs", "rw", 1, true},
  };
  for (const Case &c : cases) {
    if (c.posix_only && lltest::kWindows) continue;
    qz_fsent_t e{const_cast<char *>("dev"), const_cast<char *>("dir"), const_cast<char *>(c.type),
                 const_cast<char *>(c.opts), 1, 0};
    qz_fstab_t n{nullptr, &e, const_cast<char *>("dir")};
    EXPECT_EQ(is_local_saveset(&n), c.local) << c.type << " [" << c.opts << "]";
  }
  EXPECT_EQ(is_local_saveset(nullptr), 0);
}

TEST(Fstab, BuiltOnceRebuiltAfterDone) {
  donefstab();
  donefstab();  // twice, and before any table: harmless
  const int before = llt_fstab_builds();
  std::atomic<int> go{0};
  std::vector<qz_fstab_t *> got(8);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i)
    threads.emplace_back([&, i] {
      while (!go.load()) std::this_thread::yield();
      got[i] = getfstab(nullptr);
    });
  go = 1;
  for (auto &t : threads) t.join();
  EXPECT_EQ(llt_fstab_builds(), before + 1);
  for (qz_fstab_t *p : got) EXPECT_EQ(p, got[0]);
  ASSERT_NE(got[0], nullptr);
  EXPECT_EQ(getfstab(nullptr), got[0]);
  EXPECT_EQ(llt_fstab_builds(), before + 1);

  const std::vector<Row> first = rows(), second = rebuilt();
  EXPECT_EQ(llt_fstab_builds(), before + 2);
  ASSERT_EQ(first.size(), second.size());
  for (size_t i = 0; i < first.size(); ++i) EXPECT_EQ(first[i].dir, second[i].dir);
}

TEST(Fstab, FailedListIsNotKept) {
  donefstab();
  llt_fstab_fail(EIO);
  errno = 0;
  int rc = -1;
  EXPECT_EQ(getfstab(&rc), nullptr);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(errno, EIO);
  llt_fstab_fail(0);
  EXPECT_NE(getfstab(nullptr), nullptr);  // asked again, and nothing was left locked
}

TEST(Fstab, IsFileSystemType) {
  const std::vector<Row> all = rebuilt();
  const std::string root = lltest::kWindows ? "C:" : "/";
  const auto m = by_name(all);
  ASSERT_TRUE(m.count(root));
  std::string fs = m.at(root).type;
  if (lltest::kWindows) {
    char name[101] = {};
    ASSERT_NE(utf8_getvolumeinfo("C:\\", nullptr, 0, nullptr, nullptr, nullptr, name, sizeof name), 0);
    fs = name;
  }
  lltest::TempDir tmp;
  EXPECT_EQ(isfilesystemtype(root.c_str(), fs.c_str()), 1);
  EXPECT_EQ(isfilesystemtype(lltest::kWindows ? "C:\\" : "/", fs.c_str()), 1);
  EXPECT_EQ(isfilesystemtype(root.c_str(), "no-such-fs"), 0);
  EXPECT_EQ(isfilesystemtype(root.c_str(), nullptr), 0);
  EXPECT_EQ(isfilesystemtype(root.c_str(), ""), 0);
  EXPECT_EQ(isfilesystemtype(nullptr, fs.c_str()), 0);
  EXPECT_EQ(isfilesystemtype("", fs.c_str()), 0);
}

LLTEST_CHILD(fstype_missing) {
  setMyname("fstabtest");
  return isfilesystemtype(lltest::kWindows ? "Q:\\no\\such" : "/no/such/dir", "x");
}

TEST(Fstab, IsFileSystemTypeReportsAVolumeItCannotAsk) {
  auto r = lltest::run_child("fstype_missing");
  EXPECT_EQ(r.exit_code, 0);
  const std::string path = lltest::kWindows ? "Q:\\no\\such" : "/no/such/dir";
  EXPECT_NE(r.err.find("fstabtest: " + path + ": unable to get volume information about file system, "),
            std::string::npos)
      << r.err;
}

#ifndef _WIN32

uint32_t serial_of(const char *path) {
  struct stat st;
  if (stat(path, &st) != 0) return 0;
  return (major(st.st_dev) << 20) ^ minor(st.st_dev);
}

struct FedTable {
  explicit FedTable(const std::string &text) {
    llt_fstab_mountinfo(text.c_str());
    table = rebuilt();
    named = by_name(table);
  }
  ~FedTable() {
    llt_fstab_mountinfo(nullptr);
    donefstab();
  }
  std::vector<Row> table;
  std::map<std::string, Row> named;
};

TEST(FstabPosix, RealMountTable) {
  const auto all = rebuilt();
  const auto m = by_name(all);
  ASSERT_TRUE(m.count("/"));
  EXPECT_EQ(m.at("/").serial, serial_of("/"));
  EXPECT_EQ(m.at("/").dir, "/");
  if (m.at("/").opts.find("ro") != 0) {
    EXPECT_TRUE(m.at("/").local);
  }
  for (const Row &r : all) {
    EXPECT_FALSE(r.dir.empty());
    EXPECT_EQ(r.type.find("SYSTEM"), std::string::npos);  // no pseudo entries on POSIX
    if (r.type == "proc" || r.type == "sysfs" || r.type == "tmpfs" || r.type == "devpts") {
      EXPECT_FALSE(r.local);
    }
  }
  // A directory mounted over again is listed once, as the mount on top.
  std::map<std::string, int> seen;
  for (const Row &r : all) ++seen[r.dir];
  for (const auto &[dir, count] : seen) EXPECT_EQ(count, 1) << dir;
  for (const char *d : {"/proc", "/dev/pts", "/dev/shm"})
    if (m.count(d)) {
      EXPECT_EQ(m.at(d).serial, serial_of(d)) << d;
    }
}

TEST(FstabPosix, FedMountTable) {
  FedTable f(
      "20 1 8:1 / / rw,relatime - ext4 /dev/sda1 rw\n"
      "21 20 8:2 / /data rw - xfs /dev/sda2 rw\n"
      "22 20 8:2 /sub /srv/d rw - xfs /dev/sda2 rw\n"         // bind: deeper, so ignored
      "23 20 8:2 /x /dt rw - xfs /dev/sda2 rw\n"              // bind: as deep, shorter: wins
      "24 20 0:50 / /mnt/my\\040disk rw - nfs4 srv:/e\\134x rw\n"
      "25 20 8:3 / /ro rw - ext4 /dev/sda3 ro,errors=continue\n"  // read-only super block
      "26 20 0:51 / /home/u/remote rw,nosuid - fuse.sshfs u@h:/ rw\n"
      "27 20 8:4 / /mnt/\\377\\376 rw master:7 shared:3 - ext4 /dev/sda4 rw\n"  // optional fields, not UTF-8
      "28 20 8:5 / /over rw - ext4 /dev/sda5 rw\n"
      "29 28 8:5 /a /over/in rw - ext4 /dev/sda5 rw\n"       // in /over, hidden with it
      "30 28 8:6 / /over rw - ext4 /dev/sda6 rw\n"           // covers 28
      "31 1 8:7 / /dup rw - ext4 /dev/sda7 rw\n"
      "32 1 8:8 / /dup rw - ext4 /dev/sda8 rw\n"             // same directory, no relation: first stays
      "33 34 8:9 / /cyc1 rw - ext4 /dev/sda9 rw\n"
      "34 33 8:9 / /cyc2 rw - ext4 /dev/sda9 rw\n"           // a loop of parents: unreachable
      "garbage line\n"
      "35 20 8:1 / /trunc rw - ext4\n"                      // no source
      "36 20 8x1 / /bad rw - ext4 /dev/sda1 rw\n"
      "37 20 8:10 / /tail rw - ext4 /dev/sda10");            // no super options, no newline
  auto &m = f.named;
  ASSERT_TRUE(m.count("/"));
  EXPECT_EQ(m.at("/").serial, (8u << 20) ^ 1u);
  EXPECT_EQ(m.at("/").device, "/dev/sda1");
  EXPECT_EQ(m.at("/").opts, "rw,relatime");
  EXPECT_TRUE(m.at("/").local);

  EXPECT_EQ(m.at("/data").opts, "ignore,rw");
  EXPECT_EQ(m.at("/srv/d").opts, "ignore,rw");
  EXPECT_EQ(m.at("/dt").opts, "rw");
  EXPECT_TRUE(m.at("/dt").local);
  EXPECT_FALSE(m.at("/data").local);

  EXPECT_EQ(m.at("/mnt/my disk").device, "srv:/e\\x");
  EXPECT_FALSE(m.at("/mnt/my disk").local);
  EXPECT_EQ(m.at("/ro").opts, "ro");
  EXPECT_FALSE(m.at("/ro").local);
  EXPECT_FALSE(m.at("/home/u/remote").local);
  EXPECT_TRUE(m.at("/mnt/\xff\xfe").local);

  EXPECT_EQ(m.at("/over").device, "/dev/sda6");
  EXPECT_FALSE(m.count("/over/in"));
  EXPECT_EQ(m.at("/dup").device, "/dev/sda7");
  EXPECT_FALSE(m.count("/cyc1") || m.count("/cyc2") || m.count("/trunc") || m.count("/bad"));
  EXPECT_EQ(m.at("/tail").opts, "rw");

  EXPECT_EQ(f.table.size(), 11u);
  EXPECT_EQ(f.table.back().name, "/");  // the list runs from the last found to the first
}

TEST(FstabPosix, TenThousandMounts) {
  std::string text = "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n";
  for (int i = 0; i < 10000; ++i)
    text += std::to_string(i + 2) + " 1 0:" + std::to_string(100 + i % 50) + " / /m/" + std::to_string(i) +
            " rw - tmpfs tmpfs rw\n";
  FedTable f(text);
  ASSERT_EQ(f.table.size(), 10001u);
  int active = 0;
  for (const Row &r : f.table) active += r.opts == "rw";
  EXPECT_EQ(active, 51);  // one mount per device stays active
  EXPECT_EQ(f.named.at("/m/0").opts, "rw");
  EXPECT_EQ(f.named.at("/m/50").opts, "ignore,rw");
}

#endif  // !_WIN32

}  // namespace
