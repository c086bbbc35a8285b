// Socket wrappers over real loopback sockets: error numbers, the send cap,
// gathered I/O, option copying, descriptor sets, the RPC table.
#include "net_util.h"

#include <string>
#include <vector>
#ifndef _WIN32
#include <sys/resource.h>
#endif

#include "lltest.h"
#include <liblocal/syserr.h>

using namespace nettest;

namespace {

bool inheritable(qz_socket_t s) {
#ifdef _WIN32
  DWORD flags = 0;
  EXPECT_TRUE(GetHandleInformation(reinterpret_cast<HANDLE>(s), &flags));
  return (flags & HANDLE_FLAG_INHERIT) != 0;
#else
  return (fcntl(s, F_GETFD) & FD_CLOEXEC) == 0;
#endif
}

int recv_all(qz_socket_t s, std::string &out, size_t want) {
  char buf[4096];
  while (out.size() < want) {
    int n = qzrecv(s, buf, sizeof buf, 0);
    if (n <= 0) return n;
    out.append(buf, static_cast<size_t>(n));
  }
  return 1;
}

TEST(Socket, CreatedAndAcceptedSocketsAreNotInherited) {
  sockaddr_in addr;
  qz_socket_t l = listener(&addr);
  EXPECT_FALSE(inheritable(l));
  qz_socket_t c = qzsocket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(qzconnect(c, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
  sockaddr_in peer{};
  qz_socklen_t len = sizeof peer;
  qz_socket_t a = qzaccept(l, reinterpret_cast<sockaddr *>(&peer), &len);
  ASSERT_NE(a, QZ_INVALID_SOCKET);
  EXPECT_FALSE(inheritable(a));
  EXPECT_EQ(peer.sin_addr.s_addr, be32(kLoopback));
  // The accepted socket is blocking, whatever the listener was switched to.
  char c1;
  EXPECT_EQ(qzsononblock(a), 1);
  EXPECT_EQ(qzrecv(a, &c1, 1, 0), -1);
  EXPECT_EQ(errno, QZ_EWOULDBLOCK);
  qzsoclose(a);
  qzsoclose(c);
  qzsoclose(l);
}

TEST(Socket, ErrorNumbersMatchAcrossPlatforms) {
  // A refused connection: bind a port, close it, connect to it.
  sockaddr_in addr;
  qz_socket_t l = listener(&addr);
  qzsoclose(l);
  qz_socket_t c = qzsocket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(qzconnect(c, reinterpret_cast<sockaddr *>(&addr), sizeof addr), -1);
  EXPECT_EQ(errno, QZ_ECONNREFUSED);
  qzsoclose(c);

  // A non-blocking connect in progress is "would block" (or done at once).
  l = listener(&addr);
  c = qzsocket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(qzsononblock(c), 1);
  int r = qzconnect(c, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
  if (r != 0) {
    EXPECT_EQ(errno, QZ_EWOULDBLOCK);
  }
  qzsoclose(c);
  qzsoclose(l);

  // accept on a non-blocking listener with nothing pending.
  l = listener(&addr);
  ASSERT_EQ(qzsononblock(l), 1);
  EXPECT_EQ(qzaccept(l, nullptr, nullptr), QZ_INVALID_SOCKET);
  EXPECT_EQ(errno, QZ_EWOULDBLOCK);
  qzsoclose(l);

  EXPECT_EQ(qzsoclose(QZ_INVALID_SOCKET), -1);
  EXPECT_EQ(errno, QZ_ENOTSOCK);
}

TEST(Socket, SendIsCappedAndGatheredIoFollowsTheTwoBufferRules) {
  Pair p;
  std::string big(10000, 'x');
  EXPECT_EQ(qzsend(p.a, big.data(), 10000, 0), 8760);
  std::string got;
  ASSERT_EQ(recv_all(p.b, got, 8760), 1);

  std::string first(8000, 'a'), second(2000, 'b');
  iovec v[2] = {{first.data(), first.size()}, {second.data(), second.size()}};
  EXPECT_EQ(sendv(p.a, v, 2), 8760);
  got.clear();
  ASSERT_EQ(recv_all(p.b, got, 8760), 1);
  EXPECT_EQ(got, first + std::string(760, 'b'));

  // The first buffer alone above the cap; any other count: first buffer only.
  std::string huge(9000, 'h');
  iovec v2[2] = {{huge.data(), huge.size()}, {second.data(), second.size()}};
  EXPECT_EQ(sendv(p.a, v2, 2), 8760);
  got.clear();
  ASSERT_EQ(recv_all(p.b, got, 8760), 1);
  iovec v3[3] = {{first.data(), 5}, {second.data(), 5}, {second.data(), 5}};
  EXPECT_EQ(sendv(p.a, v3, 3), 5);

  // recvv: both buffers in one call.
  char h1[3], h2[2];
  iovec r[2] = {{h1, 3}, {h2, 2}};
  EXPECT_EQ(recvv(p.b, r, 2), 5);
  EXPECT_EQ(std::string(h1, 3) + std::string(h2, 2), "aaaaa");

  for (int count : {0, -1}) {
    EXPECT_EQ(sendv(p.a, v, count), -1);
    EXPECT_EQ(recvv(p.b, r, count), -1);
  }
  EXPECT_EQ(sendv(p.a, nullptr, 2), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST(Socket, SetSockOptCopiesOneWordAndRaisesBufferSizes) {
  struct Row {
    int asked, same_as;
  } rows[] = {{8192, 65536}, {-5, 65536}, {65536, 65536}, {131072, 131072}};
  for (const Row &row : rows) {
    qz_socket_t s = qzsocket(AF_INET, SOCK_STREAM, 0), ref = qzsocket(AF_INET, SOCK_STREAM, 0);
    int v = row.asked;
    ASSERT_EQ(qzsetsockopt(s, SOL_SOCKET, SO_SNDBUF, reinterpret_cast<char *>(&v), 4), 0);
    EXPECT_EQ(v, row.asked);  // the caller's value is not touched
    // Sizes of 65536 and more are passed as asked.
    ASSERT_EQ(qzsetsockopt(ref, SOL_SOCKET, SO_SNDBUF, reinterpret_cast<const char *>(&row.same_as), 4), 0);
    int got = 0, want = 0;
    qz_socklen_t l1 = 4, l2 = 4;
    ASSERT_EQ(qzgetsockopt(s, SOL_SOCKET, SO_SNDBUF, reinterpret_cast<char *>(&got), &l1), 0);
    ASSERT_EQ(qzgetsockopt(ref, SOL_SOCKET, SO_SNDBUF, reinterpret_cast<char *>(&want), &l2), 0);
    EXPECT_EQ(got, want) << row.asked;
    qzsoclose(s);
    qzsoclose(ref);
  }
  // Longer than one word: refused, nothing read past the word.
  qz_socket_t s = qzsocket(AF_INET, SOCK_STREAM, 0);
  char eight[8] = {};
  EXPECT_EQ(qzsetsockopt(s, SOL_SOCKET, SO_KEEPALIVE, eight, 8), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(qzsetsockopt(s, SOL_SOCKET, SO_KEEPALIVE, nullptr, 4), -1);
  qzsoclose(s);
}

TEST(Socket, OtherWrappers) {
  Pair p;
  sockaddr_in a{};
  qz_socklen_t len = sizeof a;
  EXPECT_EQ(qzgetpeername(p.b, reinterpret_cast<sockaddr *>(&a), &len), 0);
  EXPECT_EQ(a.sin_addr.s_addr, be32(kLoopback));
  EXPECT_EQ(qzsend(p.a, "hello", 5, 0), 5);
  qz_fd_set rs;
  QZ_FD_ZERO(&rs);
  QZ_FD_SET(p.b, &rs);
  timeval tv = {5, 0};
  ASSERT_EQ(qz_select(0, &rs, nullptr, nullptr, &tv), 1);
  unsigned long avail = 0;
  EXPECT_EQ(qzsoioctl(p.b, FIONREAD, &avail), 0);
  EXPECT_EQ(avail, 5u);
  // A control whose record is larger than the word is refused, not passed on
  // (the system would write its record over the caller's stack).
  unsigned long word = 7;
#ifdef _WIN32
  const long wide = static_cast<long>(SIO_GET_INTERFACE_LIST);
#else
  const long wide = SIOCGIFCONF;
#endif
  errno = 0;
  EXPECT_EQ(qzsoioctl(p.b, wide, &word), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(word, 7u);
  EXPECT_EQ(qzshutdown(p.a, 1), 0);
  char buf[16];
  EXPECT_EQ(qzrecv(p.b, buf, sizeof buf, 0), 5);
  EXPECT_EQ(qzrecv(p.b, buf, sizeof buf, 0), 0);

  // Timed select with nothing to read clears the set.
  QZ_FD_ZERO(&rs);
  QZ_FD_SET(p.a, &rs);
  tv = {0, 50000};
  EXPECT_EQ(qz_select(0, &rs, nullptr, nullptr, &tv), 0);
  EXPECT_EQ(rs.fd_count, 0);

  // Datagrams.
  qz_socket_t u1 = qzsocket(AF_INET, SOCK_DGRAM, 0), u2 = qzsocket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in ua = loopback();
  ASSERT_EQ(qzbind(u1, reinterpret_cast<sockaddr *>(&ua), sizeof ua), 0);
  len = sizeof ua;
  ASSERT_EQ(qzgetsockname(u1, reinterpret_cast<sockaddr *>(&ua), &len), 0);
  EXPECT_EQ(qzsendto(u2, "dg", 2, 0, reinterpret_cast<sockaddr *>(&ua), sizeof ua), 2);
  sockaddr_in from{};
  len = sizeof from;
  EXPECT_EQ(qzrecvfrom(u1, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len), 2);
  qzsoclose(u1);
  qzsoclose(u2);

  protoent *pe = qzgetprotobyname("tcp");
  ASSERT_NE(pe, nullptr);
  EXPECT_EQ(pe->p_proto, 6);

  // Graceful close returns 0, also for an invalid socket.
  EXPECT_EQ(qzsocloselinger(QZ_INVALID_SOCKET), 0);
  Pair q;
  EXPECT_EQ(qzsend(q.b, "tail", 4, 0), 4);
  EXPECT_EQ(qzshutdown(q.b, 1), 0);
  EXPECT_EQ(qzsocloselinger(q.a), 0);
  q.a = QZ_INVALID_SOCKET;
}

TEST(Socket, HostNameIsCachedAndCopiedToTheGivenLength) {
  char sys[256] = {};
  ASSERT_EQ(system_hostname(sys, sizeof sys), 0);
  char buf[80];
  std::memset(buf, '#', sizeof buf);
  ASSERT_EQ(qzgethostname(buf, sizeof buf), 0);
  EXPECT_STREQ(buf, sys);
  size_t n = std::strlen(sys);
  // Exactly the name's length: no terminator, nothing written past it.
  std::memset(buf, '#', sizeof buf);
  ASSERT_EQ(qzgethostname(buf, static_cast<int>(n)), 0);
  EXPECT_EQ(std::string(buf, n), std::string(sys));
  EXPECT_EQ(buf[n], '#');
  EXPECT_EQ(qzgethostname(buf, 0), 0);
  EXPECT_EQ(qzgethostname(nullptr, 0), 0);
  EXPECT_EQ(qzgethostname(buf, -1), -1);
}

TEST(Socket, VectorCallsMoveTheFirstElementOnly) {
  lltest::TempDir dir;
  dir.write("f", "");
  FILE *f = std::fopen(dir.file("f").c_str(), "wb");
  ASSERT_NE(f, nullptr);
  char a[] = "first", b[] = "second";
  iovec v[2] = {{a, 5}, {b, 6}};
  EXPECT_EQ(writev(fileno(f), v, 2), 5);
  std::fclose(f);
  EXPECT_EQ(dir.read("f"), "first");
  f = std::fopen(dir.file("f").c_str(), "rb");
  char r1[8] = {}, r2[8] = {};
  iovec rv[2] = {{r1, 3}, {r2, 3}};
  EXPECT_EQ(readv(fileno(f), rv, 2), 3);
  EXPECT_STREQ(r1, "fir");
  EXPECT_STREQ(r2, "");
  std::fclose(f);
  EXPECT_EQ(writev(1, nullptr, 1), -1);
}

TEST(Socket, RpcServiceTable) {
  rpcent *r = getrpcbyname("BACKUPD");
  ASSERT_NE(r, nullptr);
  EXPECT_STREQ(r->r_name, "backupd");
  ASSERT_NE(r->r_aliases, nullptr);
  EXPECT_EQ(r->r_aliases[0], nullptr);
  EXPECT_EQ(getrpcbynumber(r->r_number), r);
  EXPECT_EQ(getrpcbyname("nosuchservice"), nullptr);
  EXPECT_EQ(getrpcbyname(nullptr), nullptr);
  EXPECT_EQ(getrpcbynumber(0), nullptr);
}

TEST(FdSet, InsertionOrderLimitAndBadCounts) {
  static qz_fd_set set;
  QZ_FD_ZERO(&set);
  for (int i = 0; i < 1024; ++i) QZ_FD_SET(static_cast<qz_socket_t>(1000 + i), &set);
  QZ_FD_SET(1000, &set);  // already present: no message
  EXPECT_EQ(set.fd_count, 1024);
  testing::internal::CaptureStderr();
  QZ_FD_SET(5, &set);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Number of sockets over limit"), std::string::npos) << err;
  EXPECT_NE(err.find("1024"), std::string::npos);
  EXPECT_EQ(set.fd_count, 1024);
  EXPECT_FALSE(QZ_FD_ISSET(5, &set));

  QZ_FD_CLR(1001, &set);
  EXPECT_EQ(set.fd_count, 1023);
  EXPECT_EQ(set.fd_array[0], static_cast<qz_socket_t>(1000));
  EXPECT_EQ(set.fd_array[1], static_cast<qz_socket_t>(1002));
  EXPECT_EQ(set.fd_array[1022], static_cast<qz_socket_t>(2023));
  QZ_FD_CLR(7, &set);  // absent
  EXPECT_EQ(set.fd_count, 1023);

  for (int32_t bad : {-1, 1025, 0x7FFFFFFF}) {
    set.fd_count = bad;
    EXPECT_FALSE(QZ_FD_ISSET(3, &set));
    QZ_FD_CLR(3, &set);
    EXPECT_GE(set.fd_count, 0);
    EXPECT_LE(set.fd_count, 1024);
  }
  QZ_FD_ZERO(nullptr);
  QZ_FD_SET(1, nullptr);
  EXPECT_FALSE(QZ_FD_ISSET(1, nullptr));
}

// 1025 real sockets; on POSIX the later ones are numbered above 1024.
TEST(FdSet, SelectOverAFullSetOfRealSockets) {
#ifndef _WIN32
  rlimit rl;
  getrlimit(RLIMIT_NOFILE, &rl);
  if (rl.rlim_max < 1200) GTEST_SKIP() << "descriptor limit too low";
  rlimit raised = {rl.rlim_max, rl.rlim_max};
  setrlimit(RLIMIT_NOFILE, &raised);
#endif
  std::vector<qz_socket_t> socks;
  for (int i = 0; i < 1025; ++i) {
    qz_socket_t s = qzsocket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_NE(s, QZ_INVALID_SOCKET) << i;
    socks.push_back(s);
  }
  static qz_fd_set set;
  QZ_FD_ZERO(&set);
  testing::internal::CaptureStderr();
  for (qz_socket_t s : socks) QZ_FD_SET(s, &set);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("over limit"), std::string::npos);
  EXPECT_EQ(set.fd_count, 1024);
  // The last one of the set receives a datagram; select finds exactly it.
  qz_socket_t last = socks[1023];
  sockaddr_in a = loopback();
  ASSERT_EQ(qzbind(last, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
  qz_socklen_t len = sizeof a;
  ASSERT_EQ(qzgetsockname(last, reinterpret_cast<sockaddr *>(&a), &len), 0);
  ASSERT_EQ(qzsendto(socks[0], "x", 1, 0, reinterpret_cast<sockaddr *>(&a), sizeof a), 1);
  timeval tv = {5, 0};
  ASSERT_EQ(qz_select(0, &set, nullptr, nullptr, &tv), 1);
  EXPECT_EQ(set.fd_array[0], last);
  for (qz_socket_t s : socks) qzsoclose(s);
}

}  // namespace
