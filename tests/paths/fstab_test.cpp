// The file-system table: the real table of this machine (or Wine prefix), and
// tables the back-end is fed through its seams for what cannot be arranged
// here (mount-table text on POSIX; mount points, substituted and network
// drives on Windows, which Wine cannot make).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <liblocal.h>

#include "lltest.h"

#ifdef _WIN32
#include "frame/win32/win.h"
#else
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
  // A path inside a volume: the type of the mount that holds it.
  const Row *holder = nullptr;
  for (const Row &r : all)
    if (tmp.path().rfind(r.dir, 0) == 0 && r.type.find("SYSTEM") != 0 && (!holder || r.dir.size() > holder->dir.size()))
      holder = &r;
  ASSERT_NE(holder, nullptr);
  const std::string inner = lltest::kWindows ? fs : holder->type;
  EXPECT_EQ(isfilesystemtype(tmp.path().c_str(), inner.c_str()), 1) << tmp.path();
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


#ifdef _WIN32

// A world made through the back-end's seam: Wine has no volume mount points,
// substituted or network drives, and no volumes without a path.
struct FakeWorld {
  FakeWorld() {
    llt_fstab_fake_mode(0);
    llt_fstab_fake_mode(2);
  }
  ~FakeWorld() {
    llt_fstab_fake_mode(0);
    llt_fstab_os_major(0);
    llt_paths_fake_network_drive(0, nullptr);
    setMyname("test_paths");
    donefstab();
  }
};

const char *const kVE = "\\\\?\\Volume{e}\\", *const kVA = "\\\\?\\Volume{a}\\", *const kVB = "\\\\?\\Volume{b}\\";

void fake_drives() {
  llt_fstab_fake("A:\\", nullptr, 2, 0, nullptr, nullptr);                   // removable, not ready
  llt_fstab_fake("C:\\", "\\\\?\\Volume{c}\\", 3, 0x11, "NTFS", "\\Device\\HarddiskVolume1");
  llt_fstab_fake("D:\\", nullptr, 5, 0, nullptr, nullptr);                   // CD-ROM, not ready
  llt_fstab_fake("E:\\", kVE, 3, 0xE, "NTFS", "\\Device\\HarddiskVolume2");
  llt_fstab_fake("Q:\\", nullptr, 3, 0x11, "NTFS", "\\??\\C:\\sub");        // substituted
  llt_fstab_fake("R:\\", nullptr, 6, 0x66, "FAT", nullptr);                  // RAM disk
  llt_fstab_fake("X:\\", nullptr, 1, 0x77, "FAT", nullptr);                  // no root: left out
  llt_fstab_fake("Y:\\", nullptr, 4, 0x88, "NTFS", nullptr);                 // remote, no network path
  llt_fstab_fake("Z:\\", nullptr, 4, 0x99, "NTFS", nullptr);                 // remote
  llt_paths_fake_network_drive('Z', "\\\\srv\\share");
  // Mount points below E:, found in this order.
  llt_fstab_fake_mntpt("E:\\", "mnt\\a\\");
  llt_fstab_fake("E:\\mnt\\a\\", kVA, 3, 0xA, "NTFS", nullptr);
  llt_fstab_fake_mntpt("E:\\mnt\\a\\", "up\\");
  llt_fstab_fake("E:\\mnt\\a\\up\\", kVE, 3, 0xE, "NTFS", nullptr);  // back to E: above
  llt_fstab_fake_mntpt("E:\\", "mnt\\bbb\\");
  llt_fstab_fake("E:\\mnt\\bbb\\", kVA, 3, 0xA, "NTFS", nullptr);
  llt_fstab_fake_mntpt("E:\\", "z\\");
  llt_fstab_fake("E:\\z\\", kVB, 3, 0xB, "NTFS", nullptr);
  llt_fstab_fake_mntpt("E:\\", "k\\");
  llt_fstab_fake("E:\\k\\", kVB, 3, 0xB, "NTFS", nullptr);
  llt_fstab_fake_mntpt("E:\\", "s\\");
  llt_fstab_fake("E:\\s\\", kVA, 3, 0xA, "NTFS", nullptr);
  llt_fstab_fake(nullptr, "\\\\?\\Volume{lone}\\", 3, 0x55, "NTFS", nullptr);
}

TEST(FstabWindows, DrivesMountPointsAndDuplicates) {
  FakeWorld w;
  fake_drives();
  llt_fstab_os_major(6);
  setMyname("fstabtest");
  const auto all = rebuilt();
  const auto m = by_name(all);
  struct Want {
    const char *name, *device, *dir, *type, *opts;
    uint32_t serial;
    bool local;
  } want[] = {
      {"A:", "A:\\", "A:\\", "removable", "", 0, false},
      {"C:", "\\\\?\\Volume{c}\\", "C:\\", "NTFS", "", 0x11, true},
      {"D:", "D:\\", "D:\\", "cdrom", "ignore", 0, false},  // serial 0 like A:, found later
      {"E:", kVE, "E:\\", "NTFS", "", 0xE, true},
      {"Q:", "C:\\sub", "Q:\\", "NTFS", "ignore", 0x11, false},
      {"R:", "R:\\", "R:\\", "ramdisk", "", 0x66, false},
      {"\\\\srv\\share", "\\\\srv\\share\\", "\\\\srv\\share\\", "remote", "", 0x99, false},
      {"E:\\mnt\\a", kVA, "E:\\mnt\\a\\", "mntpt", "ignore", 0xA, false},  // E:\s is shallower
      {"E:\\mnt\\a\\up", kVE, "E:\\mnt\\a\\up\\", "loop", "ignore", 0xE, false},
      {"E:\\mnt\\bbb", kVA, "E:\\mnt\\bbb\\", "mntpt", "ignore", 0xA, false},  // as deep, longer
      {"E:\\z", kVB, "E:\\z\\", "mntpt", "", 0xB, true},
      {"E:\\k", kVB, "E:\\k\\", "mntpt", "ignore", 0xB, false},  // as deep, as long, later
      {"E:\\s", kVA, "E:\\s\\", "mntpt", "", 0xA, true},
      {"SYSTEM STATE:", "SYSTEM STATE:\\", "SYSTEM STATE:\\", "SYSTEM STATE:\\", "", 0, true},
      {"SYSTEM DB:", "SYSTEM DB:\\", "SYSTEM DB:\\", "SYSTEM DB:\\", "", 0, true},
      {"SYSTEM FILES:", "SYSTEM FILES:\\", "SYSTEM FILES:\\", "SYSTEM FILES:\\", "", 0, true},
      {"\\\\?\\Volume{lone}", "\\\\?\\Volume{lone}\\", "\\\\?\\Volume{lone}\\", "NTFS", "", 0x55, true},
  };
  EXPECT_EQ(all.size(), std::size(want));
  for (const Want &x : want) {
    ASSERT_TRUE(m.count(x.name)) << x.name;
    const Row &r = m.at(x.name);
    EXPECT_EQ(r.device, x.device) << x.name;
    EXPECT_EQ(r.dir, x.dir) << x.name;
    EXPECT_EQ(r.type, x.type) << x.name;
    EXPECT_EQ(r.opts, x.opts) << x.name;
    EXPECT_EQ(r.serial, x.serial) << x.name;
    EXPECT_EQ(r.local, x.local) << x.name;
  }
  // The list runs from the last entry found to the first.
  ASSERT_GE(all.size(), 4u);
  EXPECT_EQ(all.front().name, "\\\\?\\Volume{lone}");
  EXPECT_EQ(all[1].name, "SYSTEM FILES:");
  EXPECT_EQ(all.back().name, "A:");

  // A volume that is gone by the next build is gone from the table.
  llt_fstab_fake_mode(0);
  llt_fstab_fake_mode(2);
  llt_fstab_fake("C:\\", "\\\\?\\Volume{c}\\", 3, 0x11, "NTFS", nullptr);
  const auto again = by_name(rebuilt());
  EXPECT_TRUE(again.count("C:"));
  EXPECT_FALSE(again.count("E:") || again.count("E:\\s"));
}

TEST(FstabWindows, SystemStateEntries) {
  FakeWorld w;
  llt_fstab_fake("C:\\", "\\\\?\\Volume{c}\\", 3, 0x11, "NTFS", nullptr);
  auto names = [] {
    std::string s;
    for (const Row &r : rebuilt()) s += r.name + ";";
    return s;
  };
  struct Case {
    const char *me;
    int major;
    const char *names;
  } cases[] = {
      {"fstabtest", 6, "SYSTEM FILES:;SYSTEM DB:;SYSTEM STATE:;C:;"},
      {"fstabtest", 5, "SYSTEM FILES:;SYSTEM DB:;SYSTEM STATE:;C:;"},
      {"fstabtest", 4, "REPAIRDISK:;SYSTEM STATE:;C:;"},
      {"Backup", 6, "C:;"},
      {"BACKUP", 4, "REPAIRDISK:;C:;"},
      {"backups", 6, "SYSTEM FILES:;SYSTEM DB:;SYSTEM STATE:;C:;"},
      {"", 6, "C:;"},
  };
  for (const Case &c : cases) {
    setMyname(c.me);
    llt_fstab_os_major(c.major);
    EXPECT_EQ(names(), c.names) << c.me << " " << c.major;
  }
  // The Windows 9x class has neither system state nor the further passes.
  llt_fstab_fake(nullptr, "\\\\?\\Volume{lone}\\", 3, 0x55, "NTFS", nullptr);
  setMyname("fstabtest");
  llt_fstab_os_major(4);
  llt_force_os_class(4);
  EXPECT_EQ(names(), "C:;");
  llt_force_os_class(0);
  EXPECT_EQ(names(), "REPAIRDISK:;\\\\?\\Volume{lone};SYSTEM STATE:;C:;");
  // Nothing at all when there is no drive: an empty table, not a failure.
  llt_fstab_fake_mode(0);
  llt_fstab_fake_mode(2);
  setMyname("fstabtest");
  llt_fstab_os_major(6);
  int rc = -1;
  donefstab();
  EXPECT_EQ(getfstab(&rc), nullptr);
  EXPECT_EQ(rc, 0);
}

TEST(FstabWindows, FailedEnumerationGivesBackTheErrorMode) {
  const UINT before = SetErrorMode(0);
  SetErrorMode(before);
  donefstab();
  llt_fstab_fail(EIO);
  EXPECT_EQ(getfstab(nullptr), nullptr);
  llt_fstab_fail(0);
  const UINT after = SetErrorMode(before);
  EXPECT_EQ(after, before);
  EXPECT_NE(getfstab(nullptr), nullptr);
}

TEST(FstabWindows, RealDrivesOfThePrefix) {
  const auto m = by_name(rebuilt());
  ASSERT_TRUE(m.count("C:"));
  uint32_t serial = 0;
  char fs[64] = {};
  ASSERT_NE(utf8_getvolumeinfo("C:\\", nullptr, 0, &serial, nullptr, nullptr, fs, sizeof fs), 0);
  EXPECT_EQ(m.at("C:").serial, serial);
  EXPECT_EQ(m.at("C:").type, fs);
  EXPECT_EQ(m.at("C:").dir, "C:\\");
}


// Extra drive letters of the Wine prefix, arranged by the test scripts before
// Wine starts (Wine shows a process the drives and drive types the prefix
// had when its server started): links "m:" and "n:" in its "dosdevices"
// folder to one folder holding a ".windows-serial" of 1234abcd, and "o:"
// whose type the registry gives as "cdrom".
TEST(FstabWindows, ExtraDrivesOfThePrefix) {
  if (utf8_getfileattributes("M:\\.windows-serial") == QZ_INVALID_FILE_ATTRIBUTES)
    GTEST_SKIP() << "the prefix has no drives M:, N:, O: for this test";
  const auto m = by_name(rebuilt());
  ASSERT_TRUE(m.count("M:") && m.count("N:") && m.count("O:"));
  EXPECT_EQ(m.at("M:").serial, 0x1234abcdu);
  EXPECT_EQ(m.at("M:").opts, "");
  EXPECT_TRUE(m.at("M:").local);
  // The same volume under a second letter, found later.
  EXPECT_EQ(m.at("N:").serial, 0x1234abcdu);
  EXPECT_EQ(m.at("N:").opts, "ignore");
  EXPECT_FALSE(m.at("N:").local);
  EXPECT_EQ(m.at("O:").type, "cdrom");
  EXPECT_FALSE(m.at("O:").local);
}

#endif  // _WIN32

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
