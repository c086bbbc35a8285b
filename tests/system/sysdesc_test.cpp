// The host description against the platform's own answers.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#ifndef _WIN32
// The system's own answers, taken before the library's header renames uname.
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>
namespace {
struct utsname system_names() {
  struct utsname u;
  if (uname(&u) != 0) std::memset(&u, 0, sizeof u);
  return u;
}
uint64_t system_size(const std::string &dir) {
  struct statvfs v;
  return statvfs(dir.c_str(), &v) == 0 ? static_cast<uint64_t>(v.f_blocks) * v.f_frsize : 0;
}
}  // namespace
#endif

#include <liblocal.h>

#include "lltest.h"

#ifdef _WIN32
#include "frame/win32/win.h"
#endif

extern "C" int llt_sysdesc_builds(void);
extern "C" void llt_sysdesc_forget(void);
extern "C" void llt_force_os_class(int c);
#ifndef _WIN32
extern "C" void llt_fstab_mountinfo(const char *text);
#endif

namespace {

TEST(Sysdesc, FieldsAreThePlatformsOwn) {
  const qz_sysdesc_t *d = sysdesc();
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(d->os_class, Win32OSVersion());
  EXPECT_STREQ(d->kind, Win32OSVersion() == 2 ? "server" : "desktop");
  EXPECT_STREQ(d->os_name, qz_host_os_name());
  EXPECT_EQ(d->spare, 0);
  EXPECT_GE(d->local_count, 1);  // the system's own volume is local
  EXPECT_GT(d->local_bytes, 0u);
#ifdef _WIN32
  OSVERSIONINFOA v{};
  v.dwOSVersionInfoSize = sizeof v;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  ASSERT_TRUE(GetVersionExA(&v));
#pragma GCC diagnostic pop
  EXPECT_EQ(std::string(d->release), std::to_string(v.dwMajorVersion) + "." + std::to_string(v.dwMinorVersion));
  EXPECT_EQ(std::string(d->version), std::to_string(v.dwBuildNumber & 0xFFFF));
  EXPECT_STREQ(d->sysname, "Windows_NT");
  SYSTEM_INFO si;
  GetSystemInfo(&si);
  EXPECT_EQ(d->processors, static_cast<int>(si.dwNumberOfProcessors));
  EXPECT_STREQ(d->os_name, Win32OSVersion() == 2 ? "Windows NT Server on Intel" : "Windows NT Workstation on Intel");
  // The system drive is one of the volumes counted.
  ULARGE_INTEGER avail, total, free;
  ASSERT_TRUE(GetDiskFreeSpaceExW(L"C:\\", &avail, &total, &free));
  EXPECT_GE(d->local_bytes, total.QuadPart);
#else
  const auto u = system_names();
  EXPECT_STREQ(d->sysname, u.sysname);
  EXPECT_STREQ(d->nodename, u.nodename);
  EXPECT_STREQ(d->release, u.release);
  EXPECT_STREQ(d->version, u.version);
  EXPECT_STREQ(d->machine, u.machine);
  EXPECT_EQ(d->processors, static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN)));
  EXPECT_STREQ(d->os_name, u.sysname);  // "Linux"
#endif
  // Asked again, the same record, and errno is left alone.
  errno = 1234;
  EXPECT_EQ(sysdesc(), d);
  EXPECT_EQ(errno, 1234);
}

TEST(Sysdesc, ConcurrentFirstCallsBuildOnce) {
  llt_sysdesc_forget();
  const int before = llt_sysdesc_builds();
  std::vector<const qz_sysdesc_t *> seen(8);
  std::vector<std::thread> threads;
  for (auto &s : seen) threads.emplace_back([&s] { s = sysdesc(); });
  for (auto &t : threads) t.join();
  EXPECT_EQ(llt_sysdesc_builds(), before + 1);
  EXPECT_EQ(std::set<const qz_sysdesc_t *>(seen.begin(), seen.end()).size(), 1u);
  EXPECT_STREQ(seen[0]->os_name, qz_host_os_name());
}

TEST(Sysdesc, KindFollowsTheClass) {
  const struct {
    int os_class;
    const char *kind;
  } cases[] = {{1, "desktop"}, {2, "server"}, {3, "desktop"}, {4, "desktop"}};
  for (const auto &c : cases) {
    llt_force_os_class(c.os_class);
    llt_sysdesc_forget();
    EXPECT_STREQ(sysdesc()->kind, c.kind) << c.os_class;
    EXPECT_EQ(sysdesc()->os_class, c.os_class);
  }
  llt_force_os_class(0);
  llt_sysdesc_forget();
}

#ifndef _WIN32
// Which mounts count, from a table given as text: local save sets whose size
// can be read, each volume once.
TEST(Sysdesc, LocalFileSystemsAreTheTablesLocalSaveSets) {
  lltest::TempDir t;
  const std::string table =
      "1 0 254:0 / / rw,relatime - ext4 /dev/vda rw\n"
      "2 1 254:0 /usr /usr rw,relatime - ext4 /dev/vda rw\n"                      // the same volume again
      "3 1 9:9 / " + t.path() + " rw,relatime - xfs /dev/vdb rw\n"             // a second volume
      "4 1 9:10 / " + t.file("gone") + " rw,relatime - ext4 /dev/vdc rw\n"     // cannot be asked
      "5 1 9:11 / /sys ro,relatime - ext4 /dev/vdd ro\n"                       // read-only
      "6 1 0:21 / /proc rw,relatime - proc proc rw\n"                          // pseudo
      "7 1 0:50 / /dev rw,relatime - nfs4 server:/export rw\n";                // network
  llt_fstab_mountinfo(table.c_str());
  donefstab();
  llt_sysdesc_forget();
  const qz_sysdesc_t d = *sysdesc();
  llt_fstab_mountinfo(nullptr);
  donefstab();
  llt_sysdesc_forget();
  EXPECT_EQ(d.local_count, 2);
  EXPECT_EQ(d.local_bytes, system_size("/") + system_size(t.path()));
}
#endif

}  // namespace
