// The operating-system class and names, and the processor count.
#include <gtest/gtest.h>

#include <cerrno>

#include <liblocal.h>

#include "lltest.h"

extern "C" void llt_force_os_class(int);

TEST(OsClass, AnswerIsStableOfTheNtKindAndTheSeamForgets) {
  const int c = Win32OSVersion();
  EXPECT_EQ(c, Win32OSVersion());
  // Both back-ends here are of the NT kind with wide-character file calls.
  EXPECT_TRUE(c == 2 || c == 3) << c;
  EXPECT_GT(Win32OSMajorVersionNumber(), 0);
  EXPECT_EQ(Win32OSPlatformId(), 2);
  llt_force_os_class(4);
  EXPECT_EQ(Win32OSVersion(), 4);
  llt_force_os_class(0);
  EXPECT_EQ(Win32OSVersion(), c);
}

TEST(OsNames, ListsAreExactAndCaseSensitive) {
  EXPECT_EQ(is_server_OS("Linux") + is_server_OS("UX/4800"), 2);
  EXPECT_EQ(is_server_OS("Windows NT Workstation on Intel") + is_server_OS("linux") + is_server_OS("Solaris ") +
                is_server_OS(nullptr),
            0);
  EXPECT_EQ(is_nt_OS("Windows NT Workstation on Alpha"), 1);
  EXPECT_EQ(is_nt_OS("Windows 95") + is_nt_OS("Linux"), 0);
  EXPECT_EQ(is_cluster_type("SunOS", "0"), 1);
  EXPECT_EQ(is_cluster_type("SunOS", "1") + is_cluster_type("Windows 95", "0") + is_cluster_type("SunOS", nullptr) +
                is_cluster_type("SunOS", "00"),
            0);
  const char *name = qz_host_os_name();
  ASSERT_NE(name, nullptr);
  if (lltest::kWindows)
    EXPECT_EQ(is_nt_OS(name), 1) << name;
  else
    EXPECT_STREQ(name, "Linux");
}

TEST(Processors, CountAndErrnoZero) {
  errno = 33;
  const int n = get_num_processors();
  EXPECT_TRUE(n >= 1 || n == -1);
  EXPECT_EQ(errno, 0);
}
