// Security identifiers, descriptors applied to real objects, accounts and
// privileges, as root (or Administrator) and, on POSIX, as an ordinary user.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <liblocal.h>

#include "lltest.h"

#ifdef _WIN32
#include "frame/win32/win.h"
#else
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace {

constexpr int kNoneMapped = 0x10000000 | 1332;

std::string sid_text(const void *sid) {
  char t[200];
  return qz_sid_to_text(sid, t, sizeof t) > 0 ? t : "?";
}

[[maybe_unused]] std::string my_sid_text() {
  unsigned char sid[QZ_SID_MAX];
  return get_my_sid(sid, sizeof sid) > 0 ? sid_text(sid) : "?";
}

}  // namespace

TEST(Sid, TextRoundTripAndMalformedForms) {
  for (const char *t : {"S-1-1-0", "S-1-5-32-544", "S-1-22-1-65534", "S-1-5-21-1-2-3-4294967295", "S-1-0x123456789ABC-7"}) {
    unsigned char sid[QZ_SID_MAX];
    int n = qz_sid_from_text(t, sid, sizeof sid);
    ASSERT_GT(n, 0) << t;
    EXPECT_EQ(n, qz_sid_length(sid));
    EXPECT_EQ(sid_text(sid), t);
  }
  for (const char *t : {"", "S-1", "S-2-5", "S-1-5-", "S-1-5-x", "S-1-5-4294967296", "S-1-0x1000000000000",
                        "S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16", "S-1-5 "}) {
    unsigned char sid[QZ_SID_MAX];
    errno = 0;
    EXPECT_EQ(qz_sid_from_text(t, sid, sizeof sid), -1) << t;
    EXPECT_EQ(errno, EINVAL) << t;
  }
  // Too small: ERANGE and nothing written, for identifiers and their text.
  unsigned char small[12];
  std::memset(small, 0xAB, sizeof small);
  errno = 0;
  EXPECT_EQ(qz_sid_from_text("S-1-5-32-544", small, sizeof small), -1);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(get_my_sid(small, 7), -1);
  for (unsigned char c : small) EXPECT_EQ(c, 0xAB);
  unsigned char sid[QZ_SID_MAX];
  ASSERT_GT(qz_sid_from_text("S-1-5-32-544", sid, sizeof sid), 0);
  char text[12] = "untouched";
  EXPECT_EQ(qz_sid_to_text(sid, text, sizeof text), -1);
  EXPECT_STREQ(text, "untouched");
  EXPECT_EQ(qz_sid_length(nullptr), -1);
  sid[0] = 2;
  EXPECT_EQ(qz_sid_length(sid), -1);
  EXPECT_EQ(qz_sid_equal(sid, sid), 0);
}

TEST(Sid, MineIsTheCurrentUsersAndNamesResolve) {
  unsigned char mine[QZ_SID_MAX], byname[QZ_SID_MAX];
  ASSERT_GT(get_my_sid(mine, sizeof mine), 0);
  char user[QZ_ACCOUNT_NAME_MAX + 1];
  ASSERT_GT(qz_get_username(user, sizeof user), 0);
  ASSERT_GT(get_user_sid(user, nullptr, byname, sizeof byname), 0) << user << " " << errno;
  EXPECT_EQ(sid_text(byname), sid_text(mine));
  EXPECT_EQ(qz_sid_equal(mine, byname), 1);
  char admin[QZ_ACCOUNT_NAME_MAX + 1];
  ASSERT_GT(qz_get_adminname(admin, sizeof admin), 0);
  ASSERT_GT(get_user_sid(admin, ".", byname, sizeof byname), 0) << admin;
#ifdef _WIN32
  EXPECT_EQ(sid_text(byname), "S-1-5-32-544");
#else
  EXPECT_EQ(sid_text(mine), "S-1-22-1-" + std::to_string(geteuid()));
  EXPECT_EQ(sid_text(byname), "S-1-22-1-0");
  EXPECT_STREQ(admin, "root");
  char host[256] = "";
  gethostname(host, sizeof host);
  EXPECT_GT(get_user_sid((std::string(host).substr(0, std::string(host).find('.')) + "\\root").c_str(), nullptr,
                         byname, sizeof byname),
            0);
  EXPECT_GT(get_user_sid(".\\nobody", nullptr, byname, sizeof byname), 0);
  EXPECT_EQ(sid_text(byname), "S-1-22-1-65534");
  // A group name finds the group.
  EXPECT_GT(get_user_sid("root", nullptr, byname, sizeof byname), 0);
  EXPECT_GT(get_user_sid("nogroup", nullptr, byname, sizeof byname), 0);
  EXPECT_EQ(sid_text(byname), "S-1-22-2-65534");
  errno = 0;
  EXPECT_EQ(get_user_sid("root", "elsewhere.example", byname, sizeof byname), -1);
  EXPECT_EQ(errno, EINVAL);
#endif
}

TEST(Sid, BadAndUnknownNamesAreRefusedCleanly) {
  const std::string longname(QZ_ACCOUNT_NAME_MAX + 1, 'u');
  struct Case {
    const char *name;
    int err;
  } cases[] = {{nullptr, EINVAL},         {"", EINVAL},     {"us\ter", EINVAL}, {"user\x7f", EINVAL},
               {longname.c_str(), ENAMETOOLONG},
               {"no-such-user-llt", lltest::kWindows ? kNoneMapped : ENOENT},
               {"NOSUCHDOMAIN\\no-such-user-llt", lltest::kWindows ? kNoneMapped : ENOENT},
               {"no-such-user-llt@EXAMPLE.COM", lltest::kWindows ? kNoneMapped : ENOENT}};
  for (const Case &c : cases) {
    unsigned char sid[QZ_SID_MAX];
    std::memset(sid, 0x5A, sizeof sid);
    errno = 0;
    EXPECT_EQ(get_user_sid(c.name, nullptr, sid, sizeof sid), -1) << (c.name ? c.name : "null");
    EXPECT_EQ(errno, c.err) << (c.name ? c.name : "null");
    EXPECT_EQ(sid[0], 0x5A);
  }
  EXPECT_EQ(get_user_sid(std::string(QZ_ACCOUNT_NAME_MAX, 'u').c_str(), nullptr, nullptr, 0), -1);
}

TEST(Descriptor, GrantsAreReadBackAndBadDescriptorsRefused) {
  unsigned char sd[QZ_SD_SIZE], mine[QZ_SID_MAX], world[QZ_SID_MAX];
  ASSERT_GT(get_my_sid(mine, sizeof mine), 0);
  ASSERT_GT(qz_sid_from_text("S-1-1-0", world, sizeof world), 0);
  ASSERT_GT(qz_sd_init(sd, sizeof sd), 0);
  uint32_t access = 0;
  EXPECT_EQ(qz_sd_access(sd, mine, &access), 0);  // no DACL yet
  int len = insert_sid_to_sd(sd, sizeof sd, mine, QZ_ACCESS_READ | QZ_ACCESS_WRITE);
  ASSERT_GT(len, 0);
  EXPECT_EQ(qz_sd_access(sd, mine, &access), 1);
  EXPECT_EQ(access, QZ_ACCESS_READ | QZ_ACCESS_WRITE);
  EXPECT_EQ(qz_sd_access(sd, world, &access), 1);
  EXPECT_EQ(access, 0u);
  ASSERT_GT(insert_sid_to_sd(sd, sizeof sd, world, QZ_ACCESS_READ), 0);
  EXPECT_EQ(qz_sd_access(sd, world, &access), 1);
  EXPECT_EQ(access, QZ_ACCESS_READ);

  // A buffer too small for the grown descriptor leaves it as it was.
  unsigned char copy[QZ_SD_SIZE];
  std::memcpy(copy, sd, sizeof sd);
  unsigned char other[QZ_SID_MAX];
  ASSERT_GT(qz_sid_from_text(lltest::kWindows ? "S-1-5-32-545" : "S-1-22-2-65534", other, sizeof other), 0);
  int cur = lltest::kWindows ? len + 20 : 15;  // Windows: room for less than one more entry
  errno = 0;
  EXPECT_EQ(insert_sid_to_sd(sd, static_cast<size_t>(cur), other, QZ_ACCESS_READ), -1);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(std::memcmp(copy, sd, sizeof sd), 0);

  // Null, garbage and (on Windows) absolute descriptors.
  unsigned char junk[QZ_SD_SIZE];
  std::memset(junk, 0x11, sizeof junk);
  for (void *bad : {static_cast<void *>(nullptr), static_cast<void *>(junk)}) {
    errno = 0;
    EXPECT_EQ(insert_sid_to_sd(bad, sizeof junk, mine, QZ_ACCESS_READ), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(qz_sd_access(bad, mine, &access), -1);
  }
#ifdef _WIN32
  SECURITY_DESCRIPTOR absolute;
  InitializeSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION);
  errno = 0;
  EXPECT_EQ(insert_sid_to_sd(&absolute, sizeof absolute, mine, QZ_ACCESS_READ), -1);
  EXPECT_EQ(errno, EINVAL);
#else
  // Only one user can be expressed, and only the generic rights.
  ASSERT_GT(qz_sid_from_text("S-1-22-1-65534", other, sizeof other), 0);
  errno = 0;
  EXPECT_EQ(insert_sid_to_sd(sd, sizeof sd, other, QZ_ACCESS_READ), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(insert_sid_to_sd(sd, sizeof sd, mine, 0xF001F), -1);
  EXPECT_EQ(errno, EINVAL);
#endif
}

TEST(Descriptor, AppliedToARealFileAndReadBack) {
  lltest::TempDir dir;
  dir.write("f", "data");
  const std::string path = dir.file("f");
  unsigned char sd[QZ_SD_SIZE], mine[QZ_SID_MAX], world[QZ_SID_MAX], back[QZ_SD_SIZE];
  ASSERT_GT(get_my_sid(mine, sizeof mine), 0);
  ASSERT_GT(qz_sid_from_text("S-1-1-0", world, sizeof world), 0);
  ASSERT_GT(qz_sd_init(sd, sizeof sd), 0);
  ASSERT_GT(insert_sid_to_sd(sd, sizeof sd, mine, QZ_ACCESS_ALL), 0);
  ASSERT_GT(insert_sid_to_sd(sd, sizeof sd, world, QZ_ACCESS_READ), 0);
  ASSERT_EQ(qz_set_file_sd(path.c_str(), sd), 0) << errno;
  ASSERT_GT(qz_get_file_sd(path.c_str(), back, sizeof back), 0);
  uint32_t access = 0;
  EXPECT_EQ(qz_sd_access(back, mine, &access), 1);
#ifdef _WIN32
  EXPECT_EQ(access & 0x1F01FFu, 0x1F01FFu);  // generic all, mapped to the file's rights
  EXPECT_EQ(qz_sd_access(back, world, &access), 1);
  EXPECT_NE(access & FILE_READ_DATA, 0u);
  EXPECT_EQ(access & FILE_WRITE_DATA, 0u);
#else
  EXPECT_EQ(access, QZ_ACCESS_READ | QZ_ACCESS_WRITE | QZ_ACCESS_EXECUTE | QZ_ACCESS_ALL);
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0704u);
  // A symbolic link is not followed.
  ASSERT_EQ(symlink(path.c_str(), dir.file("l").c_str()), 0);
  errno = 0;
  EXPECT_EQ(qz_set_file_sd(dir.file("l").c_str(), sd), -1);
  EXPECT_EQ(errno, ELOOP);
#endif
  errno = 0;
  EXPECT_EQ(qz_set_file_sd(dir.file("missing").c_str(), sd), -1);
  EXPECT_NE(errno, 0);
}

#ifdef _WIN32

TEST(KernelObject, DaclOfANamedMappingGrantsTheUser) {
  const std::wstring name = L"llt_sec_map_" + std::to_wstring(GetCurrentProcessId());
  HANDLE map = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, name.c_str());
  ASSERT_NE(map, nullptr);
  unsigned char mine[QZ_SID_MAX];
  ASSERT_GT(get_my_sid(mine, sizeof mine), 0);
  const std::string utf8(name.begin(), name.end());
  EXPECT_EQ(change_object_dacl(utf8.c_str(), mine, FILE_MAP_ALL_ACCESS), 0) << errno;
  EXPECT_EQ(qz_change_handle_dacl(reinterpret_cast<intptr_t>(map), mine, FILE_MAP_READ), 0) << errno;
  HANDLE again = OpenFileMappingW(FILE_MAP_WRITE, FALSE, name.c_str());
  EXPECT_NE(again, nullptr);
  if (again) CloseHandle(again);
  CloseHandle(map);
  errno = 0;
  EXPECT_EQ(change_object_dacl("llt_no_such_object", mine, FILE_MAP_READ), -1);
  EXPECT_EQ(errno, 0x10000000 | ERROR_FILE_NOT_FOUND);
}

#else

namespace {
const std::string kShm = "/llt_sec_" + std::to_string(getpid());
}

// As user 65534: identity, rights and what is refused.
LLTEST_CHILD(security_as_nobody) {
  if (setgid(65534) != 0 || setuid(65534) != 0) return 90;
  if (my_sid_text() != "S-1-22-1-65534") return 1;
  if (qz_is_admin() != 0) return 2;
  if (SetPrivileges() != 0) return 3;
  // Opening the object works only once root has granted it to us.
  const bool want_open = argc > 1 && std::strcmp(argv[1], "granted") == 0;
  int fd = shm_open(argv[0], O_RDWR, 0);
  if ((fd >= 0) != want_open) return 4;
  if (fd >= 0) close(fd);
  // An ordinary user cannot give its file away nor take root's object.
  unsigned char root[QZ_SID_MAX], sd[QZ_SD_SIZE];
  qz_sid_from_text("S-1-22-1-0", root, sizeof root);
  qz_sd_init(sd, sizeof sd);
  insert_sid_to_sd(sd, sizeof sd, root, QZ_ACCESS_ALL);
  char path[] = "/tmp/llt_sec_XXXXXX";
  int f = mkstemp(path);
  if (f < 0) return 91;
  close(f);
  errno = 0;
  int rc = qz_set_file_sd(path, sd);
  int e = errno;
  unlink(path);
  if (rc != -1 || e != EPERM) return 5;
  return 0;
}

// Start-up enables (here: reports) the privileges; an ordinary user holds none.
LLTEST_CHILD(init_as_nobody) {
  if (setgid(65534) != 0 || setuid(65534) != 0) return 90;
  liblvars_set_debug(3);
  qzinit("llt_security");
  return 0;
}

TEST(Privileges, StartUpReportsWhatAnOrdinaryUserLacks) {
  const lltest::ChildResult r = lltest::run_child("init_as_nobody");
  EXPECT_EQ(r.exit_code, 0);
  const std::string all = r.out + r.err;
  EXPECT_NE(all.find("privilege SeBackupPrivilege not held"), std::string::npos) << all;
  EXPECT_NE(all.find("privilege SeTakeOwnershipPrivilege not held"), std::string::npos) << all;
}

TEST(KernelObject, GrantOpensASharedObjectToAnOrdinaryUser) {
  int fd = shm_open(kShm.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(lltest::run_child("security_as_nobody", {kShm}).exit_code, 0);
  unsigned char nobody[QZ_SID_MAX];
  ASSERT_GT(get_user_sid("nobody", nullptr, nobody, sizeof nobody), 0);
  EXPECT_EQ(change_object_dacl(kShm.c_str(), nobody, QZ_ACCESS_READ | QZ_ACCESS_WRITE), 0) << errno;
  struct stat st;
  fd = shm_open(kShm.c_str(), O_RDONLY, 0);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(fstat(fd, &st), 0);
  EXPECT_EQ(st.st_uid, 65534u);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  // The group and everyone are added to what is there.
  unsigned char grp[QZ_SID_MAX];
  ASSERT_GT(qz_sid_from_text("S-1-22-2-65534", grp, sizeof grp), 0);
  EXPECT_EQ(qz_change_handle_dacl(fd, grp, QZ_ACCESS_READ), 0);
  ASSERT_EQ(fstat(fd, &st), 0);
  EXPECT_EQ(st.st_gid, 65534u);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  close(fd);
  EXPECT_EQ(lltest::run_child("security_as_nobody", {kShm, "granted"}).exit_code, 0);
  shm_unlink(kShm.c_str());
  errno = 0;
  EXPECT_EQ(change_object_dacl("/llt_sec_missing", nobody, QZ_ACCESS_READ), -1);
  EXPECT_EQ(errno, ENOENT);
}

#endif

TEST(Accounts, AdministratorAndDomainController) {
  EXPECT_EQ(qz_is_admin(), 1);  // the tests run as root, and Wine's user is an administrator
  char out[8] = "x";
  // No domain here: a clear "none".
  EXPECT_EQ(qz_get_dcname(nullptr, out, sizeof out), 0);
  EXPECT_STREQ(out, "");
  EXPECT_EQ(qz_get_dcname(nullptr, nullptr, 0), -1);
  char tiny[2];
  errno = 0;
  EXPECT_EQ(qz_get_username(tiny, sizeof tiny), -1);
  EXPECT_EQ(errno, ERANGE);
}

TEST(Privileges, ReportedWithoutFailing) {
  int held = SetPrivileges();
  ASSERT_GE(held, 0);
  if (!lltest::kWindows) EXPECT_EQ(held, static_cast<int>(QZ_PRIV_BACKUP | QZ_PRIV_RESTORE | QZ_PRIV_SECURITY |
                                                          QZ_PRIV_TAKE_OWNERSHIP));
  else
    EXPECT_NE(held & QZ_PRIV_CHANGE_NOTIFY, 0);
  EXPECT_STREQ(qz_privilege_name(QZ_PRIV_BACKUP), "SeBackupPrivilege");
  EXPECT_EQ(qz_privilege_name(QZ_PRIV_BACKUP | QZ_PRIV_RESTORE), nullptr);
}
