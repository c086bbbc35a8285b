// Process events: handlers reached from another process, the debug event,
// the handler rules and quit_now.
#ifdef _WIN32
#include <winsock2.h>
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#endif
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "events_util.h"
#include "lltest.h"
#include <liblocal/frame.h>
#include <liblocal/service.h>
#include <liblocal/socket.h>

#ifndef _WIN32
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
extern "C" int llt_read_debug_file(const char *path);
#endif

using evtest::Child;

namespace {
void exit23(int sig) { std::exit(sig == 9 ? 23 : 24); }
}  // namespace

// Modes: "own" keeps the program's handler; "restore" gives the exit handler
// back from the registering thread; "other" tries that from another thread.
LLTEST_CHILD(ev_kill) {
  const std::string mode = argv[1];
  regevent(9, exit23);
  if (mode == "restore") regevent(9, QZ_EVENT_DEFAULT);
  if (mode == "other") std::thread([] { regevent(9, QZ_EVENT_DEFAULT); }).join();
  regevent(13, QZ_EVENT_DEFAULT);  // nothing
  evtest::ready(argv[0]);
  return evtest::linger();
}

TEST(Events, KillReachesTheHandlerOfTheRightThread) {
  const struct {
    const char *mode;
    int code;
  } cases[] = {{"own", 23}, {"restore", 9}, {"other", 23}};
  for (const auto &c : cases) {
    lltest::TempDir dir;
    Child child("ev_kill", {dir.path(), c.mode});
    const int pid = evtest::pid_of(dir.path());
    ASSERT_GT(pid, 0) << c.mode;
    EXPECT_TRUE(evtest::send_kill(pid)) << c.mode;
    const auto r = child.wait();
    EXPECT_EQ(r.exit_code, c.code) << c.mode << r.err;
  }
}

// The debug event, twice: the default handler applies the control file each
// time and deletes it.
LLTEST_CHILD(ev_debug) {
  const std::string dir = argv[0];
  qzinit("evdebug");
  regevent(17, QZ_EVENT_DEFAULT);
  evtest::ready(dir);
  for (int i = 0; i < 3000; ++i) {
    const int d = __atomic_load_n(&Debug, __ATOMIC_ACQUIRE);
    if (d == 5 && !evtest::exists(dir + "/saw5")) evtest::put(dir + "/saw5", "");
    if (d == 7) return 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return 2;
}

TEST(Events, DebugEventTwiceReadsTheControlFileTwice) {
  lltest::TempDir dir;
  const std::string ctl = dir.file("qzdbg.tmp");
  Child child("ev_debug", {dir.path()}, {"TMPDIR=" + dir.path(), "TMP=" + dir.path(), "TEMP=" + dir.path()});
  const int pid = evtest::pid_of(dir.path());
  ASSERT_GT(pid, 0);
  evtest::put(ctl, "Debug = 5\n");
  ASSERT_TRUE(evtest::send_debug(pid));
  ASSERT_TRUE(evtest::wait_for(dir.file("saw5"), 20000));
  EXPECT_FALSE(evtest::exists(ctl));
  evtest::put(ctl, "Debug=7");
  ASSERT_TRUE(evtest::send_debug(pid));
  const auto r = child.wait();
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_FALSE(evtest::exists(ctl));
}

// A daemon blocked in select is released by the cancel that follows its kill
// handler (which here only takes note).
namespace {
std::atomic<int> g_killed{0};
void note(int sig) { g_killed = sig; }
}  // namespace

LLTEST_CHILD(ev_select) {
  Tcp_Is_Loaded();
  regevent(9, note);
  qz_socket_t s = qzsocket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  const unsigned char loopback[4] = {127, 0, 0, 1};  // network order, without the socket library's helpers
  std::memcpy(&a.sin_addr, loopback, 4);
  if (qzbind(s, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || qzlisten(s, 1) != 0) return 3;
  int code = 41;
  std::thread t([&] {
#ifndef _WIN32
    // The signal itself must not be what interrupts the select: it goes to
    // another thread, and only the cancel can release this one.
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, nullptr);
#endif
    evtest::put(std::string(argv[0]) + "/tid", std::to_string(evtest::my_tid()));
    qz_fd_set rs;
    QZ_FD_ZERO(&rs);
    QZ_FD_SET(s, &rs);
    const int r = qz_select(0, &rs, nullptr, nullptr, nullptr);
    if (r == -1 && errno == EINTR && g_killed == 9) code = 40;
  });
  evtest::ready(argv[0]);
  t.join();
  return code;
}

TEST(Events, KillReleasesABlockingSelect) {
  lltest::TempDir dir;
  Child child("ev_select", {dir.path()});
  const int pid = evtest::pid_of(dir.path());
  ASSERT_GT(pid, 0);
  // The kill must come once the child is blocked: a cancel raised before a
  // call starts does not concern that call.
#ifdef _WIN32
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
#else
  ASSERT_TRUE(evtest::wait_for(dir.file("tid")));
  const std::string sys = "/proc/" + std::to_string(pid) + "/task/" + lltest::read_file(dir.file("tid")) + "/syscall";
  for (int i = 0; i < 1000; ++i) {
    const int nr = std::atoi(lltest::read_file(sys).c_str());
    if (nr == SYS_poll || nr == SYS_ppoll || nr == SYS_select || nr == SYS_pselect6 || nr == SYS_epoll_wait ||
        nr == SYS_epoll_pwait)
      break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
#endif
  EXPECT_TRUE(evtest::send_kill(pid));
  const auto r = child.wait();
  EXPECT_EQ(r.exit_code, 40) << r.err;
}

TEST(Events, QuitNowNormalisesTheFlag) {
  Quit = 5;
  EXPECT_EQ(quit_now(), 1);
  EXPECT_EQ(Quit, 1);
  EXPECT_EQ(quit_now(), 1);
  Quit = 0;
  EXPECT_EQ(quit_now(), 0);
}

#ifndef _WIN32
// The control file lives in a shared directory: only our own plain file with
// one link that nobody else may write is read (and deleted).
TEST(Events, HostileDebugControlFiles) {
  lltest::TempDir dir;
  const std::string f = dir.file("qzdbg.tmp"), target = dir.file("target");
  struct Case {
    const char *what;
    std::string text;
    int (*prepare)(const std::string &f, const std::string &target);
    int read;
    int debug;  // expected Debug afterwards (-1: unchanged)
  };
  auto none = [](const std::string &, const std::string &) { return 0; };
  const Case cases[] = {
      {"plain", "Debug = 3\n", none, 1, 3},
      {"no equals sign", "Debug 4", none, 1, -1},
      {"huge number", "Debug=99999999999999999999999", none, 1, 2147483647},
      {"binary", std::string("\x01\x02\0Debug=6", 10), none, 1, -1},
      {"10 KB", "Debug=4" + std::string(10240, ' ') + "x", none, 1, 4},
      {"symbolic link", "Debug=8", [](const std::string &a, const std::string &t) {
         return std::rename(a.c_str(), t.c_str()) | symlink(t.c_str(), a.c_str()); }, 0, -1},
      {"second link", "Debug=8", [](const std::string &a, const std::string &t) { return link(a.c_str(), t.c_str()); }, 0, -1},
      {"writable by others", "Debug=8", [](const std::string &a, const std::string &) { return chmod(a.c_str(), 0666); }, 0, -1},
      {"another owner", "Debug=8", [](const std::string &a, const std::string &) { return chown(a.c_str(), 65534, 65534); }, 0, -1},
  };
  for (const Case &c : cases) {
    std::remove(target.c_str());
    evtest::put(f, c.text);
    ASSERT_EQ(c.prepare(f, target), 0) << c.what;
    Debug = -1;
    EXPECT_EQ(llt_read_debug_file(f.c_str()), c.read) << c.what;
    EXPECT_EQ(Debug, c.debug) << c.what;
    EXPECT_EQ(evtest::exists(f), c.read == 0) << c.what;  // a refused file stays where it is
    if (std::string(c.what) == "symbolic link") {
      EXPECT_TRUE(evtest::exists(target));
    }
    std::remove(f.c_str());
  }
  Debug = 0;
}

// An interrupt is the console's Ctrl-C: the kill handler gets 2.
TEST(Events, InterruptCallsTheKillHandlerWithTwo) {
  lltest::TempDir dir;
  Child child("ev_kill", {dir.path(), "own"});
  const int pid = evtest::pid_of(dir.path());
  ASSERT_GT(pid, 0);
  EXPECT_EQ(sigqueue(pid, SIGINT, sigval{}), 0);
  EXPECT_EQ(child.wait().exit_code, 24);
}

// A forked child listens for its own events with the handler it inherited.
std::atomic<bool> g_listening{false};
void note_listening(int) { g_listening.store(true); }

LLTEST_CHILD(ev_fork) {
  regevent(9, exit23);
  // Fork only once the event thread has started and waits: a sanitizer's
  // allocator that thread holds locked while it starts stays locked in the
  // child (glibc's own malloc is safe there).
  regevent(17, note_listening);
  evtest::send_debug(evtest::my_pid());
  for (int i = 0; i < 5000 && !g_listening.load(); ++i) usleep(1000);
  const pid_t p = fork();
  if (p == 0) {
    evtest::ready(argv[0]);
    _exit(evtest::linger());
  }
  int st = 0;
  waitpid(p, &st, 0);
  return WIFEXITED(st) ? WEXITSTATUS(st) : 100 + WTERMSIG(st);
}

TEST(Events, ForkedChildGetsItsOwnListener) {
  lltest::TempDir dir;
  Child child("ev_fork", {dir.path()});
  const int pid = evtest::pid_of(dir.path());
  ASSERT_GT(pid, 0);
  EXPECT_TRUE(evtest::send_kill(pid));
#if defined(__SANITIZE_THREAD__)
  const int expected = 100 + SIGTERM;  // no thread in a forked child: the default disposition
#else
  const int expected = 23;
#endif
  EXPECT_EQ(child.wait().exit_code, expected);
}

// An unprivileged process leaves a file it does not own alone.
LLTEST_CHILD(ev_unprivileged) {
  if (setgid(65534) != 0 || setuid(65534) != 0) return 3;
  return llt_read_debug_file(argv[0]) == 0 && evtest::exists(argv[0]) ? 0 : 1;
}

TEST(Events, ControlFileOfAnotherUserIsIgnored) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to drop to another user";
  lltest::TempDir dir;
  chmod(dir.path().c_str(), 01777);
  const std::string f = dir.file("qzdbg.tmp");
  evtest::put(f, "Debug=9");
  EXPECT_EQ(lltest::run_child("ev_unprivileged", {f}).exit_code, 0);
  EXPECT_TRUE(evtest::exists(f));
}
#endif
