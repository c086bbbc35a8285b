// uname against the platform's own answer.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#ifndef _WIN32
// The system's own answer, taken before the library's header renames uname.
#include <sys/utsname.h>
namespace {
struct utsname system_answer() {
  struct utsname u;
  if (uname(&u) != 0) std::memset(&u, 0, sizeof u);
  return u;
}
}  // namespace
#endif

#include <liblocal.h>

#include "lltest.h"

#ifdef _WIN32
#include "frame/win32/win.h"
#endif

TEST(Uname, FieldsAreThePlatformsOwn) {
  struct utsname u;
  std::memset(&u, 0x7F, sizeof u);
  ASSERT_EQ(uname(&u), 0);
  for (const char *f : {u.sysname, u.nodename, u.release, u.version, u.machine})
    EXPECT_LT(strnlen(f, QZ_UTSNAME_LENGTH), static_cast<size_t>(QZ_UTSNAME_LENGTH));
#ifdef _WIN32
  EXPECT_STREQ(u.sysname, "Windows_NT");
  EXPECT_EQ(std::string(u.release),
            std::to_string(Win32OSMajorVersionNumber()) + "." + std::to_string(Win32OSMinorVersionNumber()));
  wchar_t host[256];
  DWORD n = 256;
  ASSERT_TRUE(GetComputerNameExW(ComputerNameDnsHostname, host, &n));
  char h8[1024];
  utf8_wcstombs(h8, reinterpret_cast<const qzwchar_t *>(host), sizeof h8 - 1);
  EXPECT_STREQ(u.nodename, h8);
  EXPECT_STREQ(u.machine, sizeof(void *) == 8 ? "x86_64" : u.machine);
#else
  const auto sys = system_answer();
  ASSERT_NE(sys.sysname[0], 0);
  EXPECT_STREQ(u.sysname, sys.sysname);
  EXPECT_STREQ(u.nodename, sys.nodename);
  EXPECT_STREQ(u.release, sys.release);
  EXPECT_STREQ(u.version, sys.version);
  EXPECT_STREQ(u.machine, sys.machine);
#endif
  errno = 0;
  EXPECT_EQ(uname(nullptr), -1);
  EXPECT_EQ(errno, EFAULT);
}
