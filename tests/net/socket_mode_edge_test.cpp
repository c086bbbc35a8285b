// Socket wrappers at their edges: a blocking mode chosen while a blocking
// accept is under way, protocol lookups, gathered reads of one buffer, and
// the socket layer in a process forked from one that already waited.
#include <gtest/gtest.h>

#ifndef _WIN32
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

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

// A listening socket on loopback and its address.
struct Listener {
  qz_socket_t s = qzsocket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  Listener() {
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    EXPECT_EQ(qzbind(s, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    EXPECT_EQ(qzlisten(s, 4), 0);
    EXPECT_EQ(qzgetsockname(s, reinterpret_cast<sockaddr *>(&a), &len), 0);
  }
  ~Listener() { qzsoclose(s); }
  void knock() const {
    qz_socket_t c = qzsocket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(qzconnect(c, reinterpret_cast<const sockaddr *>(&a), sizeof a), 0);
    qzsoclose(c);
  }
};

TEST(SocketModeEdge, NonBlockingChosenDuringABlockingAcceptTakesEffectAfterIt) {
  Listener l;
  qz_socket_t got = -2;
  std::thread waiter([&] { got = qzaccept(l.s, nullptr, nullptr); });
  // Give the waiter time to be waiting (if it is not yet, the mode is set
  // at once and its accept may find nothing, which the checks accept too).
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(qzsononblock(l.s), 1);
  l.knock();
  waiter.join();
  if (got >= 0) {
    qzsoclose(got);
  } else {
    EXPECT_EQ(errno, QZ_EWOULDBLOCK);
  }
  // Non-blocking from now on: nothing pending answers at once.
  const auto t0 = std::chrono::steady_clock::now();
  if (got < 0) {
    qz_socket_t s = qzaccept(l.s, nullptr, nullptr);
    EXPECT_GE(s, 0);
    qzsoclose(s);
  }
  errno = 0;
  EXPECT_EQ(qzaccept(l.s, nullptr, nullptr), -1);
  EXPECT_EQ(errno, QZ_EWOULDBLOCK);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
  // Blocking again, chosen while nothing waits.
  EXPECT_EQ(qzsoblock(l.s), 1);
  l.knock();
  qz_socket_t s = qzaccept(l.s, nullptr, nullptr);
  EXPECT_GE(s, 0);
  qzsoclose(s);
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

// In a fresh process: a blocking wait, then a fork. The parent cancels its
// own waits while the child waits; the child's wait must end only by its
// connection. argv: "cancel-first" to cancel once before the fork.
LLTEST_CHILD(fork_after_wait) {
  Listener l;
  if (argc > 0) qz_socancel();
  l.knock();
  qz_socket_t s = qzaccept(l.s, nullptr, nullptr);
  if (s < 0) return 2;
  qzsoclose(s);
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) return 3;
  if (pid == 0) {
    std::thread w([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      l.knock();
    });
    const qz_socket_t r = qzaccept(l.s, nullptr, nullptr);
    const int e = errno;
    w.join();
    if (r < 0) std::printf("child's accept: errno %d\n", e);
    std::fflush(stdout);
    std::exit(r >= 0 ? 0 : 1);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  qz_socancel();
  int status = -1;
  if (waitpid(pid, &status, 0) != pid) return 4;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 5;
}

TEST(SocketModeEdge, AForkedChildWaitsWithItsOwnWaker) {
  for (const std::vector<std::string> &args : {std::vector<std::string>{}, std::vector<std::string>{"cancel-first"}}) {
    auto r = lltest::run_child("fork_after_wait", args);
    EXPECT_EQ(r.exit_code, 0) << args.size() << " " << r.out << r.err;
  }
}

}  // namespace
#endif
