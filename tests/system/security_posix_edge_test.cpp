// Descriptors on POSIX at their edges: group and foreign identifiers in a
// DACL, and a change of owner that must not leave a set-id bit behind.
#include <gtest/gtest.h>

#ifndef _WIN32
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <cctype>
#include <cstring>
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

TEST(SecurityPosixEdge, MalformedArgumentsAreRefusedWithEinval) {
  const Sid me("S-1-22-1-0");
  unsigned char bad[QZ_SID_MAX] = {9, 1};  // revision 9: not an identifier
  unsigned char sd[QZ_SD_SIZE], sid[QZ_SID_MAX];
  char text[128];
  uint32_t access;
  ASSERT_GT(qz_sd_init(sd, sizeof sd), 0);
  const std::string long_host(QZ_ACCOUNT_NAME_MAX + 1, 'h');
  struct Case {
    const char *what;
    std::function<int()> call;
    int err;
  } cases[] = {
      {"sid_to_text out", [&] { return qz_sid_to_text(me.b, nullptr, 10); }, EINVAL},
      {"sid_to_text bad", [&] { return qz_sid_to_text(bad, text, sizeof text); }, EINVAL},
      {"sid_from_text null", [&] { return qz_sid_from_text(nullptr, sid, sizeof sid); }, EINVAL},
      {"sid_from_text S-2", [&] { return qz_sid_from_text("S-2-5-32", sid, sizeof sid); }, EINVAL},
      {"sid_from_text tail", [&] { return qz_sid_from_text("S-1-5-32x", sid, sizeof sid); }, EINVAL},
      {"sid_from_text 16 subs", [&] { return qz_sid_from_text("S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16", sid, sizeof sid); }, EINVAL},
      {"get_my_sid", [&] { return get_my_sid(nullptr, 8); }, EINVAL},
      {"get_user_sid sid", [&] { return get_user_sid("root", nullptr, nullptr, 8); }, EINVAL},
      {"get_user_sid host", [&] { return get_user_sid("root", long_host.c_str(), sid, sizeof sid); }, ENAMETOOLONG},
      {"get_user_sid other host", [&] { return get_user_sid("root", "elsewhere", sid, sizeof sid); }, EINVAL},
      {"sd_init", [&] { return qz_sd_init(nullptr, 8); }, EINVAL},
      {"sd_access out", [&] { return qz_sd_access(sd, me.b, nullptr); }, EINVAL},
      {"sd_access sid", [&] { return qz_sd_access(sd, bad, &access); }, EINVAL},
      {"insert bad sid", [&] { return insert_sid_to_sd(sd, sizeof sd, bad, QZ_ACCESS_READ); }, EINVAL},
      {"set_file_sd empty", [&] { return qz_set_file_sd("", sd); }, EINVAL},
      {"set_file_sd sd", [&] { return qz_set_file_sd("/tmp", nullptr); }, EINVAL},
      {"get_file_sd null", [&] { return qz_get_file_sd(nullptr, sd, sizeof sd); }, EINVAL},
      {"get_file_sd sd", [&] { return qz_get_file_sd("/tmp", nullptr, 8); }, EINVAL},
      {"object_dacl empty", [&] { return change_object_dacl("", me.b, QZ_ACCESS_READ); }, EINVAL},
      {"object_dacl sid", [&] { return change_object_dacl("x", bad, QZ_ACCESS_READ); }, EINVAL},
      {"handle_dacl sid", [&] { return qz_change_handle_dacl(0, nullptr, QZ_ACCESS_READ); }, EINVAL},
      {"username", [&] { return qz_get_username(nullptr, 8); }, EINVAL},
      {"adminname", [&] { return qz_get_adminname(nullptr, 8); }, EINVAL},
      {"dcname out", [&] { return qz_get_dcname(nullptr, text, 0); }, EINVAL},
      {"dcname control", [&] { return qz_get_dcname("do\tmain", text, sizeof text); }, EINVAL},
  };
  for (auto &c : cases) {
    errno = 0;
    EXPECT_EQ(c.call(), -1) << c.what;
    EXPECT_EQ(errno, c.err) << c.what;
  }
  EXPECT_EQ(qz_sid_equal(me.b, nullptr), 0);
  EXPECT_EQ(qz_sid_equal(me.b, bad), 0);
  // An authority beyond 32 bits is written and read in hexadecimal.
  ASSERT_GT(qz_sid_from_text("s-1-0x123456789ABC-7", sid, sizeof sid), 0);
  ASSERT_GT(qz_sid_to_text(sid, text, sizeof text), 0);
  EXPECT_STREQ(text, "S-1-0x123456789ABC-7");
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

TEST(SecurityPosixEdge, AccountNamesAndDescriptors) {
  char host[256] = "";
  ASSERT_EQ(gethostname(host, sizeof host - 1), 0);
  if (char *dot = std::strchr(host, '.')) *dot = 0;
  std::string upper = host;
  for (char &ch : upper) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  const Sid root("S-1-22-1-0");
  unsigned char sid[QZ_SID_MAX];
  // This host's name in any case, ".", or "localhost" find the local
  // account; another host's name does not.
  struct Case {
    std::string user;
    const char *system;
    bool found;
  } cases[] = {
      {upper + "\\root", nullptr, true}, {".\\root", nullptr, true},
      {"root", "localhost", true},        {"root", upper.c_str(), true},
      {"elsewhere\\root", nullptr, false},
  };
  for (const auto &c : cases) {
    errno = 0;
    const int n = get_user_sid(c.user.c_str(), c.system, sid, sizeof sid);
    EXPECT_EQ(n > 0, c.found) << c.user;
    if (c.found) {
      EXPECT_EQ(qz_sid_equal(sid, root.b), 1) << c.user;
    } else {
      EXPECT_EQ(errno, ENOENT) << c.user;
    }
  }

  // Through a descriptor: a group granted read becomes the file's group;
  // a bad descriptor, a foreign identifier and a mask without generic
  // rights are refused.
  lltest::TempDir dir;
  dir.write("f", "x");
  const int fd = open(dir.file("f").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(fchmod(fd, 0600), 0);
  const Sid group("S-1-22-2-65534"), odd("S-1-22-3-5");
  EXPECT_EQ(qz_change_handle_dacl(fd, group.b, QZ_ACCESS_READ), 0);
  struct stat st;
  ASSERT_EQ(fstat(fd, &st), 0);
  EXPECT_EQ(st.st_gid, 65534u);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  struct {
    intptr_t obj;
    const unsigned char *who;
    uint32_t access;
    int err;
  } bad[] = {
      {-1, group.b, QZ_ACCESS_READ, EBADF},
      {fd, odd.b, QZ_ACCESS_READ, EINVAL},
      {fd, group.b, 0x0001F, EINVAL},
  };
  for (const auto &b : bad) {
    errno = 0;
    EXPECT_EQ(qz_change_handle_dacl(b.obj, b.who, b.access), -1);
    EXPECT_EQ(errno, b.err);
  }
  close(fd);
}

}  // namespace
#endif
