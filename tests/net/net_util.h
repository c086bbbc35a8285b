// Loopback helpers shared by the network tests.
#pragma once
#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#endif
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include <liblocal/socket.h>

namespace nettest {

using Clock = std::chrono::steady_clock;
inline long long ms_since(Clock::time_point t0) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

// Network byte order by hand: the Windows test binary is not linked with the
// socket library, only with liblocal.
inline uint32_t be32(uint32_t v) {
  unsigned char b[4] = {static_cast<unsigned char>(v >> 24), static_cast<unsigned char>(v >> 16),
                        static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
  uint32_t r;
  std::memcpy(&r, b, 4);
  return r;
}
inline uint16_t be16(uint16_t v) {
  unsigned char b[2] = {static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
  uint16_t r;
  std::memcpy(&r, b, 2);
  return r;
}
constexpr uint32_t kLoopback = 0x7F000001;

inline sockaddr_in loopback(unsigned short port = 0) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = be16(port);
  a.sin_addr.s_addr = be32(kLoopback);
  return a;
}

// The system's host name, asked directly.
inline int system_hostname(char *buf, int len) {
#ifdef _WIN32
  using Fn = int(WSAAPI *)(char *, int);
  HMODULE m = LoadLibraryW(L"ws2_32.dll");
  Fn fn = m ? reinterpret_cast<Fn>(reinterpret_cast<void *>(GetProcAddress(m, "gethostname"))) : nullptr;
  return fn ? fn(buf, len) : -1;
#else
  return gethostname(buf, static_cast<size_t>(len));
#endif
}

// A listening TCP socket on 127.0.0.1; *addr receives its address.
inline qz_socket_t listener(sockaddr_in *addr, int backlog = 16) {
  qz_socket_t s = qzsocket(AF_INET, SOCK_STREAM, 0);
  EXPECT_NE(s, QZ_INVALID_SOCKET);
  sockaddr_in a = loopback();
  EXPECT_EQ(qzbind(s, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
  EXPECT_EQ(qzlisten(s, backlog), 0);
  qz_socklen_t len = sizeof a;
  EXPECT_EQ(qzgetsockname(s, reinterpret_cast<sockaddr *>(&a), &len), 0);
  if (addr) *addr = a;
  return s;
}

// A connected pair over loopback.
struct Pair {
  qz_socket_t a = QZ_INVALID_SOCKET, b = QZ_INVALID_SOCKET;
  Pair() {
    sockaddr_in addr;
    qz_socket_t l = listener(&addr);
    a = qzsocket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(qzconnect(a, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    b = qzaccept(l, nullptr, nullptr);
    EXPECT_NE(b, QZ_INVALID_SOCKET);
    qzsoclose(l);
  }
  ~Pair() {
    qzsoclose(a);
    qzsoclose(b);
  }
};

}  // namespace nettest
