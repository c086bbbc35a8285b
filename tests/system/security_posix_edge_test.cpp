// Descriptors on POSIX at their edges: group and foreign identifiers in a
// DACL, and a change of owner that must not leave a set-id bit behind.
#include <gtest/gtest.h>

#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <liblocal.h>

#include "lltest.h"

namespace {

struct Sid {
  unsigned char b[QZ_SID_MAX];
  explicit Sid(const char *text) { EXPECT_GT(qz_sid_from_text(text, b, sizeof b), 0) << text; }
};

TEST(SecurityPosixEdge, GroupAndForeignIdentifiersInADacl) {
  const Sid group("S-1-22-2-65534"), other_group("S-1-22-2-65533"), user("S-1-22-1-65534"),
      builtin("S-1-5-32-544");
  unsigned char sd[QZ_SD_SIZE];
  ASSERT_GT(qz_sd_init(sd, sizeof sd), 0);
  ASSERT_GT(insert_sid_to_sd(sd, sizeof sd, group.b, QZ_ACCESS_READ | QZ_ACCESS_EXECUTE), 0);
  // Only one group can be expressed, like only one user.
  errno = 0;
  EXPECT_EQ(insert_sid_to_sd(sd, sizeof sd, other_group.b, QZ_ACCESS_READ), -1);
  EXPECT_EQ(errno, EPERM);
  // An identifier that is neither a user, a group nor everyone has no place.
  errno = 0;
  EXPECT_EQ(insert_sid_to_sd(sd, sizeof sd, builtin.b, QZ_ACCESS_READ), -1);
  EXPECT_EQ(errno, EINVAL);
  struct {
    const Sid &who;
    uint32_t want;
  } cases[] = {
      {group, QZ_ACCESS_READ | QZ_ACCESS_EXECUTE},
      {other_group, 0},
      {user, 0},  // no owner in the descriptor
      {builtin, 0},
  };
  for (const auto &c : cases) {
    uint32_t access = 0xDEAD;
    EXPECT_EQ(qz_sd_access(sd, c.who.b, &access), 1);
    EXPECT_EQ(access, c.want);
  }
}

TEST(SecurityPosixEdge, ANewOwnerDropsTheSetIdBits) {
  if (geteuid() != 0) GTEST_SKIP() << "changing a file's owner needs root";
  lltest::TempDir dir;
  dir.write("f", "data");
  const std::string path = dir.file("f");
  ASSERT_EQ(chmod(path.c_str(), 06755), 0);
  const Sid user("S-1-22-1-65534"), group("S-1-22-2-65534");
  unsigned char sd[QZ_SD_SIZE];
  ASSERT_GT(qz_sd_init(sd, sizeof sd), 0);
  ASSERT_GT(insert_sid_to_sd(sd, sizeof sd, user.b, QZ_ACCESS_ALL), 0);
  ASSERT_GT(insert_sid_to_sd(sd, sizeof sd, group.b, QZ_ACCESS_READ), 0);
  ASSERT_EQ(qz_set_file_sd(path.c_str(), sd), 0) << errno;
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 65534u);
  EXPECT_EQ(st.st_gid, 65534u);
  EXPECT_EQ(st.st_mode & 07777, 0740u);

  // The same owner again changes nothing and keeps a set-id bit that was
  // put back since.
  ASSERT_EQ(chmod(path.c_str(), 04740), 0);
  ASSERT_EQ(qz_set_file_sd(path.c_str(), sd), 0);
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 04740u);
}

}  // namespace
#endif
