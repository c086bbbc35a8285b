// Socket failures provoked for real on loopback and the common numbers they
// come back as (the Windows socket numbers less 10000, the same on every
// platform). POSIX: some of these failures exist only there.
#include <gtest/gtest.h>

#ifndef _WIN32
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <liblocal.h>

#include "lltest.h"

namespace {

sockaddr_in addr(const char *ip, unsigned short port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  inet_pton(AF_INET, ip, &a.sin_addr);
  return a;
}

struct Sockets {
  std::vector<qz_socket_t> all;
  qz_socket_t add(qz_socket_t s) {
    all.push_back(s);
    return s;
  }
  ~Sockets() {
    for (qz_socket_t s : all)
      if (s >= 0) qzsoclose(s);
  }
};

// A listener on loopback (its address in 'la') and a connection to it.
qz_socket_t listen_and_connect(Sockets &k, sockaddr_in &la, qz_socket_t *listener = nullptr) {
  const qz_socket_t lis = k.add(qzsocket(AF_INET, SOCK_STREAM, 0));
  if (listener) *listener = lis;
  la = addr("127.0.0.1", 0);
  socklen_t len = sizeof la;
  EXPECT_EQ(qzbind(lis, reinterpret_cast<sockaddr *>(&la), sizeof la), 0);
  EXPECT_EQ(qzlisten(lis, 4), 0);
  EXPECT_EQ(qzgetsockname(lis, reinterpret_cast<sockaddr *>(&la), &len), 0);
  const qz_socket_t conn = k.add(qzsocket(AF_INET, SOCK_STREAM, 0));
  EXPECT_EQ(qzconnect(conn, reinterpret_cast<sockaddr *>(&la), sizeof la), 0);
  return conn;
}

TEST(SocketErrorsEdge, RealFailuresComeBackAsCommonNumbers) {
  Sockets k;
  sockaddr_in la;
  socklen_t len = sizeof la;
  const qz_socket_t conn = listen_and_connect(k, la);
  ASSERT_FALSE(HasFailure());
  const qz_socket_t fresh = k.add(qzsocket(AF_INET, SOCK_STREAM, 0));
  const qz_socket_t udp = k.add(qzsocket(AF_INET, SOCK_DGRAM, 0));
  lltest::TempDir dir;
  const std::string dg_path = dir.file("dg");
  const qz_socket_t dg = k.add(qzsocket(AF_UNIX, SOCK_DGRAM, 0));
  sockaddr_un ua{};
  ua.sun_family = AF_UNIX;
  std::strncpy(ua.sun_path, dg_path.c_str(), sizeof ua.sun_path - 1);
  ASSERT_EQ(qzbind(dg, reinterpret_cast<sockaddr *>(&ua), sizeof ua), 0);

  const sockaddr_in taken = la, foreign = addr("192.0.2.1", 0);
  std::vector<char> huge(70000, 'x');
  int one = 1;
  char c;
  struct Case {
    const char *what;
    std::function<long()> call;
    int err;
  } cases[] = {
      {"unknown family", [&] { return k.add(qzsocket(12345, SOCK_STREAM, 0)); }, QZ_EAFNOSUPPORT},
      {"unknown protocol", [&] { return k.add(qzsocket(AF_INET, SOCK_DGRAM, IPPROTO_TCP)); }, QZ_EPROTONOSUPPORT},
      {"address in use", [&] { return qzbind(fresh, reinterpret_cast<const sockaddr *>(&taken), sizeof taken); }, QZ_EADDRINUSE},
      {"address not here", [&] { return qzbind(udp, reinterpret_cast<const sockaddr *>(&foreign), sizeof foreign); }, QZ_EADDRNOTAVAIL},
      {"connected again", [&] {
         // The first call after a connection completed in the background
         // still reports that connection; the next one is refused.
         qzconnect(conn, reinterpret_cast<const sockaddr *>(&taken), sizeof taken);
         return qzconnect(conn, reinterpret_cast<const sockaddr *>(&taken), sizeof taken);
       }, QZ_EISCONN},
      {"no peer", [&] { return qzgetpeername(fresh, reinterpret_cast<sockaddr *>(&la), &len); }, QZ_ENOTCONN},
      {"unknown option", [&] { return qzsetsockopt(fresh, SOL_SOCKET, 9999, reinterpret_cast<char *>(&one), sizeof one); }, QZ_ENOPROTOOPT},
      {"listen on datagrams", [&] { return qzlisten(udp, 1); }, QZ_EOPNOTSUPP},
      {"datagram too long", [&] { return qzsendto(udp, huge.data(), static_cast<int>(huge.size()), 0, reinterpret_cast<const sockaddr *>(&taken), sizeof taken); }, QZ_EMSGSIZE},
      {"datagram without address", [&] { return qzsend(udp, "x", 1, 0); }, QZ_EDESTADDRREQ},
      {"stream to datagram socket", [&] {
         const qz_socket_t s = k.add(qzsocket(AF_UNIX, SOCK_STREAM, 0));
         return qzconnect(s, reinterpret_cast<const sockaddr *>(&ua), sizeof ua);
       }, QZ_EPROTOTYPE},
      {"not connected receive", [&] { return qzrecv(fresh, &c, 1, 0); }, QZ_ENOTCONN},
  };
  for (auto &t : cases) {
    errno = 0;
    EXPECT_EQ(t.call(), -1) << t.what;
    EXPECT_EQ(errno, t.err) << t.what;
  }
}

TEST(SocketErrorsEdge, AResetConnectionIsReported) {
  Sockets k;
  sockaddr_in la;
  qz_socket_t lis = -1;
  const qz_socket_t c = listen_and_connect(k, la, &lis);
  ASSERT_FALSE(HasFailure());
  const qz_socket_t a = qzaccept(lis, nullptr, nullptr);
  ASSERT_GE(a, 0);
  // Unread data at the close makes it a reset.
  ASSERT_EQ(qzsend(c, "abc", 3, 0), 3);
  usleep(50000);
  ASSERT_EQ(qzsoclose(a), 0);
  usleep(50000);
  char b[8];
  errno = 0;
  EXPECT_EQ(qzrecv(c, b, sizeof b, 0), -1);
  EXPECT_EQ(errno, QZ_ECONNRESET);
}

}  // namespace
#endif
