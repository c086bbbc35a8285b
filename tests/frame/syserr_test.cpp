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

TEST(SysErr, SocketTexts) {
  EXPECT_STREQ(qzmo_strerror(135), "Operation would block");
  EXPECT_STREQ(qzmo_strerror(147), "Address family not supported by protocol family");
  EXPECT_STREQ(qzmo_strerror(161), "Connection refused");
  EXPECT_STREQ(qzmo_strerror(171), "Too many levels of remote in path");
}

TEST(SysErr, RuntimeTextsAroundTheSocketBand) {
  EXPECT_STREQ(qzmo_strerror(ENOENT), std::strerror(ENOENT));
  for (int code : {134, 172, 1, -3, 5000}) {
    const std::string t = qzmo_strerror(code);
    EXPECT_FALSE(t.empty()) << code;
    EXPECT_EQ(t.find("Operation would block"), std::string::npos);
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
  EXPECT_EQ(nt_to_posix_errno(17), 17);
  EXPECT_EQ(nt_to_posix_errno(135), 135);
  EXPECT_EQ(nt_to_posix_errno(0), 0);
  if (lltest::kWindows) {
    EXPECT_EQ(nt_to_posix_errno(QZ_SYSERR_FLAG | 183), 17);
    EXPECT_EQ(nt_to_posix_errno(QZ_SYSERR_FLAG | 80), 17);
    EXPECT_EQ(nt_to_posix_errno(QZ_SYSERR_FLAG | 2), 2);
    EXPECT_EQ(nt_to_posix_errno(QZ_SYSERR_FLAG | 3), 2);
    EXPECT_EQ(nt_to_posix_errno(QZ_SYSERR_FLAG | 33), 11);
    EXPECT_EQ(nt_to_posix_errno(QZ_SYSERR_FLAG | 5), QZ_SYSERR_FLAG | 5);
  } else {
    // A marked code is a C library errno value: its common number is itself.
    EXPECT_EQ(nt_to_posix_errno(QZ_SYSERR_FLAG | EEXIST), EEXIST);
    EXPECT_EQ(nt_to_posix_errno(QZ_SYSERR_FLAG | ENOENT), ENOENT);
    EXPECT_EQ(nt_to_posix_errno(QZ_SYSERR_FLAG | 183), QZ_SYSERR_FLAG | 183);
  }
  EXPECT_EQ(nt_to_posix_errno(QZ_SYSERR_FLAG), QZ_SYSERR_FLAG);
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
  auto r = lltest::run_child("perror_line");
  ASSERT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.err, std::string("save: ") + qzmo_strerror(2) + "\nnet: Connection refused\n");
}

}  // namespace
