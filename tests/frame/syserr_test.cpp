// The error-number space: socket texts, marked operating-system codes,
// runtime texts, the reduction to common numbers and the one-line report.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include <liblocal.h>

#include "lltest.h"

namespace {

TEST(SysErr, SocketTextsAndRuntimeTextsAroundThem) {
  EXPECT_STREQ(qzmo_strerror(135), "Operation would block");
  EXPECT_STREQ(qzmo_strerror(147), "Address family not supported by protocol family");
  EXPECT_STREQ(qzmo_strerror(171), "Too many levels of remote in path");
  EXPECT_STREQ(qzmo_strerror(ENOENT), std::strerror(ENOENT));
  for (int code : {134, 172, 1, -3, 5000}) {
    const std::string t = qzmo_strerror(code);
    EXPECT_TRUE(!t.empty() && t.find("Operation would block") == std::string::npos) << code;
  }
}

TEST(SysErr, MarkedCodesGiveOneLineSystemMessages) {
  for (int c : {2, 5, 13, 17, 32, 87, 1, 24}) {
    const std::string t = qzmo_strerror(QZ_SYSERR_FLAG | c);
    EXPECT_FALSE(t.empty()) << c;
    EXPECT_EQ(t.find_first_of("\r\n"), std::string::npos) << c;
    EXPECT_EQ(t, nt_syserror(c));
  }
  // A code the system has no message for.
  EXPECT_STREQ(nt_syserror(0x0ABCDEF1), "unknown error 180150001 (0xabcdef1)");
  EXPECT_STREQ(qzmo_strerror(QZ_SYSERR_FLAG | 0x0ABCDEF1), "unknown error 180150001 (0xabcdef1)");
}

TEST(SysErr, BuiltTextsArePerThread) {
  const char *mine = nt_syserror(0x0ABCDEF1);
  std::string other;
  std::thread t([&] {
    other = nt_syserror(0x0ABCDEF2);
    T_threadexit();
  });
  t.join();
  EXPECT_STREQ(mine, "unknown error 180150001 (0xabcdef1)");
  EXPECT_EQ(other, "unknown error 180150002 (0xabcdef2)");
}

TEST(SysErr, ReductionToCommonNumbers) {
  // Marked codes: Windows system codes; elsewhere C library errno values,
  // whose common number is themselves.
  const int F = QZ_SYSERR_FLAG;
  const int t[][2] = {{17, 17}, {135, 135}, {0, 0}, {F, F},
#ifdef _WIN32
                      {F | 183, 17}, {F | 80, 17}, {F | 2, 2}, {F | 3, 2}, {F | 33, 11}, {F | 5, F | 5},
#else
                      {F | EEXIST, EEXIST}, {F | ENOENT, ENOENT}, {F | 183, F | 183},
#endif
  };
  for (auto &c : t) EXPECT_EQ(nt_to_posix_errno(c[0]), c[1]) << std::hex << c[0];
}

LLTEST_CHILD(perror_line) {
  setMyname("save");
  errno = 2;
  qzperror(getMyname());
  errno = 161;
  qzperror("net");
  return 0;
}

TEST(SysErr, PerrorLine) {
  EXPECT_EQ(lltest::run_child("perror_line").err, std::string("save: ") + qzmo_strerror(2) + "\nnet: Connection refused\n");
}

}  // namespace
