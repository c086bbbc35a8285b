// The standard descriptors of a process (redirected to a file, reopened
// when closed, everything else closed) and the signal calls' answers for
// ids and signals they cannot serve. POSIX: Windows keeps no descriptors
// open across a start and signals through events.
#include <gtest/gtest.h>

#ifndef _WIN32
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string>

#include "proc_test_util.h"

namespace {

bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

// argv: path. Output goes to the file, input comes from it.
LLTEST_CHILD(stdfds_to_file) {
  if (setup_stdfds(argv[0]) < 0) return 3;
  std::printf("to the file\n");
  std::fflush(stdout);
  std::fprintf(stderr, "errors too\n");
  return 0;
}

// Closes 0..2, asks for them again, and reports what each now is.
LLTEST_CHILD(reopen_std) {
  // The lowest free descriptor above the three, before and after: the call
  // must leave nothing open beyond them.
  const int lowest = fcntl(2, F_DUPFD, 3);
  ::close(lowest);
  ::close(0);
  ::close(1);
  if (argc > 0) ::close(2);
  qz_openstdfiles();
  struct stat st, null;
  if (stat("/dev/null", &null) != 0) return 4;
  for (int fd = 0; fd < 3; ++fd)
    if (fstat(fd, &st) != 0) return 10 + fd;
  const int now = fcntl(0, F_DUPFD, 3);
  if (now != lowest) return 5;
  ::close(now);
  for (int fd = 0; fd < (argc > 0 ? 3 : 2); ++fd) {
    if (fstat(fd, &st) != 0 || st.st_rdev != null.st_rdev) return 20 + fd;
  }
  return 0;
}

// argv: keep. Opens descriptors on both sides of keep, closes the rest.
LLTEST_CHILD(close_most) {
  const int keep = std::atoi(argv[0]);
  for (int fd = 3; fd < 12; ++fd)
    if (dup2(2, fd) != fd) return 2;
  errno = 1234;
  qz_closenstdfiles(keep);
  if (errno != 1234) return 3;  // errno kept
  for (int fd = 0; fd < 3; ++fd)
    if (!is_open(fd)) return 10 + fd;
  for (int fd = 3; fd < 12; ++fd)
    if (is_open(fd) != (fd == keep)) return 20 + fd;
  return 0;
}

TEST(StdFdsEdge, RedirectedReopenedAndClosed) {
  lltest::TempDir d;
  d.write("log", "before\n");
  auto r = lltest::run_child("stdfds_to_file", {d.file("log")});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(d.read("log"), "before\nto the file\nerrors too\n");  // appended
  EXPECT_EQ(lltest::run_child("stdfds_to_file", {"/no/such/dir/log"}).exit_code, 3);
  errno = 0;
  EXPECT_EQ(setup_stdfds(""), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(setup_stdfds(nullptr), -1);

  EXPECT_EQ(lltest::run_child("reopen_std").exit_code, 0);
  EXPECT_EQ(lltest::run_child("reopen_std", {"all"}).exit_code, 0);
  for (const char *keep : {"-1", "0", "3", "7", "11"})
    EXPECT_EQ(lltest::run_child("close_most", {keep}).exit_code, 0) << "keep " << keep;
}

TEST(KillEdge, SignalsAndIdsThatCannotBeServed) {
  // Signal numbers out of range, and the one that does nothing.
  for (int sig : {-1, 65, INT_MAX}) {
    errno = 0;
    EXPECT_EQ(ll_kill(1, sig), -1) << sig;
    EXPECT_EQ(errno, EINVAL) << sig;
  }
  EXPECT_EQ(ll_kill(1, 18), 0);
  // A thread with no children: the probe of "all of them" finds none, a
  // kill of all of them answers the signal number, a kill of one that is
  // not in the table answers 9.
  errno = 0;
  EXPECT_EQ(ll_kill(0, 0), -1);
  EXPECT_EQ(errno, ESRCH);
  EXPECT_EQ(ll_kill(0, 15), 15);
  EXPECT_EQ(ll_kill(-static_cast<int>(getpid()), 15), 15);
  EXPECT_EQ(ll_kill(999999, 9), 9);
  // Ids no process can have.
  for (int id : {INT_MAX, -INT_MAX}) {
    errno = 0;
    EXPECT_EQ(ll_kill(id, 0), -1) << id;
    EXPECT_EQ(errno, ESRCH) << id;
    errno = 0;
    EXPECT_EQ(ll_kill(id, 15), -1) << id;
    EXPECT_EQ(errno, ESRCH) << id;
  }

  // A child that has been reaped is gone for every signal, even while its
  // number is still in the table.
  auto a = proctest::child_argv("stdfds_to_file", {"/dev/null"});
  const int id = spawn(0, a.argv(), nullptr, nullptr, nullptr);
  ASSERT_GT(id, 0);
  EXPECT_EQ(ll_kill(id, 0), 0);
  EXPECT_EQ(ll_kill(0, 0), 0);  // some child of the thread is alive
  int status = -1;
  ASSERT_EQ(waitchild(id, &status, 0), id);
  errno = 0;
  EXPECT_EQ(ll_kill(id, 0), -1);
  EXPECT_EQ(errno, ESRCH);
}

}  // namespace
#endif
