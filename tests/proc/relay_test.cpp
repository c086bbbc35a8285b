// The Windows 9x class's socket relay, with the class forced to 9x: a child
// whose standard output is a socket writes through a pipe that the library
// copies to the socket.
#include <gtest/gtest.h>

#ifdef _WIN32
#  include <string>

#  include "lltest.h"
#  include "proc_test_util.h"
#  include <liblocal/process.h>

extern "C" void llt_force_os_class(int c);

namespace {

// A connected pair of loopback sockets.
bool socket_pair(SOCKET &a, SOCKET &b) {
  WSADATA wd;
  if (WSAStartup(MAKEWORD(2, 2), &wd) != 0) return false;
  SOCKET l = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int len = sizeof sa;
  if (bind(l, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 || listen(l, 1) != 0 ||
      getsockname(l, reinterpret_cast<sockaddr *>(&sa), &len) != 0)
    return false;
  a = socket(AF_INET, SOCK_STREAM, 0);
  if (connect(a, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) return false;
  b = accept(l, nullptr, nullptr);
  closesocket(l);
  DWORD ms = 20000;
  setsockopt(a, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char *>(&ms), sizeof ms);
  return b != INVALID_SOCKET;
}

// Reaps everything the calling thread still has (the relay's threads).
void reap_all() {
  while (waitchild(-1, nullptr, 0) > 0) {
  }
}

struct Class9x {
  Class9x() { llt_force_os_class(4); }
  ~Class9x() { llt_force_os_class(0); }
};

}  // namespace

TEST(Relay, ChildOutputReachesTheSocket) {
  SOCKET reader, child_end;
  ASSERT_TRUE(socket_pair(reader, child_end));
  int status = -1;
  {
    Class9x forced;
    auto a = proctest::child_argv("say", {"relayed", "3"});
    int triple[3] = {-1, static_cast<int>(child_end), -1};
    const int pid = spawn(0, a.argv(), nullptr, triple, nullptr);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(waitchild(pid, &status, 0), pid);
  }
  std::string got;
  char buf[256];
  int n;
  while (got.find("relayed") == std::string::npos && (n = recv(reader, buf, sizeof buf, 0)) > 0) got.append(buf, n);
  EXPECT_NE(got.find("relayed"), std::string::npos) << got;
  EXPECT_EQ(status, 3 << 8);
  reap_all();
  closesocket(reader);
  closesocket(child_end);
}

TEST(Relay, DirectivesFromInputAreIgnored) {
  SOCKET reader, child_end;
  ASSERT_TRUE(socket_pair(reader, child_end));
  Class9x forced;
  // Without the relay's empty input the child would wait for input for ever.
  auto a = proctest::child_argv("count_stdin", {"-f", "-", "x"});
  int triple[3] = {-1, static_cast<int>(child_end), -1};
  const int pid = spawn(0, a.argv(), nullptr, triple, nullptr);
  ASSERT_GT(pid, 0);
  int status = -1;
  EXPECT_EQ(waitchild(pid, &status, 0), pid);
  EXPECT_EQ(status, 0);
  reap_all();
  closesocket(reader);
  closesocket(child_end);
}
#endif
