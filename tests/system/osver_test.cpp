#include <gtest/gtest.h>

#include <cerrno>

#include <liblocal.h>

#include "lltest.h"
static bool lltest_windows() { return lltest::kWindows; }

extern "C" void llt_force_os_class(int);

TEST(OsClass, AnswerIsStableAndOfTheNtKind) {
  int c = Win32OSVersion();
  EXPECT_EQ(c, Win32OSVersion());
  // Both back-ends here are of the NT kind with wide-character file calls.
  EXPECT_TRUE(c == 2 || c == 3) << c;
  EXPECT_GT(Win32OSMajorVersionNumber(), 0);
  EXPECT_GE(Win32OSMinorVersionNumber(), 0);
  EXPECT_EQ(Win32OSPlatformId(), 2);
}

TEST(OsClass, TestSeamForcesAndForgets) {
  int real = Win32OSVersion();
  llt_force_os_class(4);
  EXPECT_EQ(Win32OSVersion(), 4);
  llt_force_os_class(0);
  EXPECT_EQ(Win32OSVersion(), real);
}

TEST(OsNames, ServerAndNtListsAreExactAndCaseSensitive) {
  EXPECT_EQ(is_server_OS("Windows NT Workstation on Intel"), 0);
  EXPECT_EQ(is_server_OS("Linux"), 1);
  EXPECT_EQ(is_server_OS("linux"), 0);
  EXPECT_EQ(is_server_OS("UX/4800"), 1);
  EXPECT_EQ(is_server_OS("Solaris "), 0);
  EXPECT_EQ(is_server_OS(nullptr), 0);
  EXPECT_EQ(is_nt_OS("Windows NT Workstation on Alpha"), 1);
  EXPECT_EQ(is_nt_OS("Windows 95"), 0);
  EXPECT_EQ(is_nt_OS("Linux"), 0);
  EXPECT_EQ(is_cluster_type("SunOS", "0"), 1);
  EXPECT_EQ(is_cluster_type("SunOS", "1"), 0);
  EXPECT_EQ(is_cluster_type("Windows 95", "0"), 0);
  EXPECT_EQ(is_cluster_type("SunOS", nullptr), 0);
  EXPECT_EQ(is_cluster_type("SunOS", "00"), 0);
}

TEST(OsNames, ThisHostHasADescription) {
  const char *name = qz_host_os_name();
  ASSERT_NE(name, nullptr);
  if (lltest_windows()) {
    EXPECT_EQ(is_nt_OS(name), 1) << name;
  } else {
    EXPECT_STREQ(name, "Linux");
    EXPECT_EQ(is_server_OS(name), 1);
  }
}

TEST(Processors, CountAndErrnoZero) {
  errno = 33;
  int n = get_num_processors();
  EXPECT_TRUE(n >= 1 || n == -1);
  EXPECT_EQ(errno, 0);
}
