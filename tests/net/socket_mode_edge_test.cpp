// Socket wrappers at their edges: a blocking mode chosen while a blocking
// call is under way, protocol lookups, gathered reads of one buffer, and
// the socket layer in a process forked from one that already waited.
#include <gtest/gtest.h>

#ifndef _WIN32
#include <netdb.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include <liblocal.h>

#include "lltest.h"

namespace {

struct Pair {
  int s[2] = {-1, -1};
  Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, s), 0); }
  ~Pair() {
    for (int fd : s)
      if (fd >= 0) ::close(fd);
  }
};

TEST(SocketModeEdge, NonBlockingChosenDuringABlockingCallTakesEffectAfterIt) {
  Pair p;
  int got = -2;
  char buf[8];
  std::thread reader([&] { got = qzrecv(p.s[0], buf, sizeof buf, 0); });
  // Give the reader time to be waiting (if it is not yet, the mode is set
  // at once, which the checks below accept too).
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(qzsononblock(p.s[0]), 1);
  ASSERT_EQ(qzsend(p.s[1], "x", 1, 0), 1);
  reader.join();
  EXPECT_TRUE(got == 1 || (got == -1 && errno == QZ_EWOULDBLOCK)) << got;
  // Now non-blocking: an empty socket answers at once.
  const auto t0 = std::chrono::steady_clock::now();
  if (got == -1) {
    EXPECT_EQ(qzrecv(p.s[0], buf, sizeof buf, 0), 1);
  }
  errno = 0;
  EXPECT_EQ(qzrecv(p.s[0], buf, sizeof buf, 0), -1);
  EXPECT_EQ(errno, QZ_EWOULDBLOCK);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
  // And back: blocking again, so a shut-down peer gives the end of data.
  EXPECT_EQ(qzsoblock(p.s[0]), 1);
  ASSERT_EQ(qzshutdown(p.s[1], SHUT_WR), 0);
  EXPECT_EQ(qzrecv(p.s[0], buf, sizeof buf, 0), 0);
}

TEST(SocketModeEdge, LookupsAndOneBufferGatheredReads) {
  protoent *tcp = qzgetprotobyname("tcp");
  ASSERT_NE(tcp, nullptr);
  EXPECT_EQ(tcp->p_proto, 6);
  errno = 0;
  EXPECT_EQ(qzgetprotobyname(nullptr), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(qzgetprotobyname("no-such-protocol"), nullptr);
  EXPECT_NE(errno, 0);

  Pair p;
  ASSERT_EQ(qzsend(p.s[1], "abcdef", 6, 0), 6);
  char one[4], a[2], b[8];
  struct iovec v1[1] = {{one, sizeof one}};
  EXPECT_EQ(recvv(p.s[0], v1, 1), 4);
  EXPECT_EQ(std::memcmp(one, "abcd", 4), 0);
  struct iovec v2[2] = {{a, sizeof a}, {b, sizeof b}};
  EXPECT_EQ(recvv(p.s[0], v2, 2), 2);
  EXPECT_EQ(std::memcmp(a, "ef", 2), 0);
  errno = 0;
  EXPECT_EQ(recvv(p.s[0], nullptr, 1), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST(SocketModeEdge, AForkedChildWaitsWithItsOwnWaker) {
  // A wait in this process first, so that the waker exists before the fork.
  Pair p;
  ASSERT_EQ(qzsend(p.s[1], "1", 1, 0), 1);
  char c;
  ASSERT_EQ(qzrecv(p.s[0], &c, 1, 0), 1);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    // The child's blocking call is woken by data, not by the parent.
    std::thread w([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      qzsend(p.s[1], "2", 1, 0);
    });
    const int r = qzrecv(p.s[0], &c, 1, 0);
    w.join();
    _exit(r == 1 && c == '2' ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
#endif
