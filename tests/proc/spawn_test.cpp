// spawn, waitchild, kill and spawnthread with real children: this binary run
// again as the child.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "lltest.h"
#include "proc_test_util.h"
#include <liblocal/env.h>
#include <liblocal/process.h>

#ifdef _WIN32
#  include <fcntl.h>
#  include <io.h>
#  include <windows.h>
#else
#  include <fcntl.h>
#  include <signal.h>
#  include <spawn.h>
#  include <sys/resource.h>
#  include <sys/stat.h>
#  include <sys/sysmacros.h>
#  include <sys/wait.h>
#  include <unistd.h>
extern char **environ;
#endif

using proctest::ChildRun;
using proctest::child_argv;
using lltest::open_handles;
using proctest::run;

// ---------------------------------------------------------------- children

// Each argument (as the system delivered it, in UTF-8) on a line of its own, in hex.
LLTEST_CHILD(args) {
  for (const std::string &a : proctest::utf8_args(argc, argv)) {
    for (unsigned char c : a) std::printf("%02x", c);
    std::printf("\n");
  }
  return 0;
}

LLTEST_CHILD(env) {
  for (int i = 0; i < argc; ++i) {
    const char *v = lltest::kWindows ? qzgetenv(argv[i]) : std::getenv(argv[i]);
    std::printf("%s=%s\n", argv[i], v ? v : "(unset)");
  }
  return 0;
}

LLTEST_CHILD(exit) { return std::atoi(argv[0]); }

LLTEST_CHILD(cat) {
  int c;
  while ((c = std::getchar()) != EOF) std::putchar(c);
  return 0;
}

LLTEST_CHILD(sleep) {
  std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(argv[0])));
  return 0;
}

// argv: a descriptor of the inherited set, one outside it. 0 when the first
// takes the marker and the second is unusable.
LLTEST_CHILD(fds) {
  const int good = proctest::fd_from_arg(argv[0]);
  const int bad = proctest::fd_from_arg(argv[1]);
  if (good < 0 || proctest::write_fd(good, "marker") != 6) return 1;
  return bad >= 0 && proctest::write_fd(bad, "leak") >= 0 ? 2 : 0;
}

// Waits for the request to stop and ends with 42 (the events layer's handler
// is stood in for by a bare one).
LLTEST_CHILD(stoppable) { return proctest::wait_for_stop_request() ? 42 : 1; }

// ------------------------------------------------------------------ tests

TEST(Spawn, ArgumentsArriveByteForByte) {
  const std::vector<std::string> words = {
      "plain", "two words", "", "a\"quote", "back\\slash\\", "\\\\server\\share", "tab\there",
      "caf\xc3\xa9", "euro \xe2\x82\xac", "\xe6\x97\xa5\xe6\x9c\xac", "\xf0\x9f\x98\x80", "*?<>|&^%!"};
  ChildRun r = run(child_argv("args", words));
  ASSERT_EQ(r.status, 0);
  std::string want;
  for (const std::string &w : words) {
    for (unsigned char c : w) {
      char b[3];
      std::snprintf(b, sizeof b, "%02x", c);
      want += b;
    }
    want += "\n";
  }
  EXPECT_EQ(r.out, want);
}

TEST(Spawn, EnvironmentGetsProgramNameAndExtrasFirst) {
  lltest::ScopedEnv own("LLT_SHADOWED", "parent");
  std::string extra = "LLT_EXTRA=x y \xc3\xa9", shadow = "LLT_SHADOWED=child";
  std::vector<char *> env = {extra.data(), shadow.data(), nullptr};
  ChildRun r = run(child_argv("env", {"BSW_MAST", "LLT_EXTRA", "LLT_SHADOWED", "PATH"}), "", env.data());
  ASSERT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("BSW_MAST=" + std::string(getMyname()) + "\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("LLT_EXTRA=x y \xc3\xa9\n"), std::string::npos);
  EXPECT_NE(r.out.find("LLT_SHADOWED=child\n"), std::string::npos);
  EXPECT_EQ(r.out.find("PATH=(unset)"), std::string::npos);
}

TEST(Spawn, ExitCodesAndWaitFlag) {
  struct Case {
    int code, status;
  } cases[] = {{0, 0}, {3, 3 << 8}, {255, 255 << 8}, {256, lltest::kWindows ? 256 << 8 : 0}};
  for (const Case &c : cases) {
    ChildRun r = run(child_argv("exit", {std::to_string(c.code)}));
    EXPECT_EQ(r.status, c.status) << c.code;
    EXPECT_EQ(QZ_WEXITCODE(r.status), lltest::kWindows ? c.code : c.code & 0xFF);
  }
  // Waiting inside spawn: 3 is abnormal, 256 is not (its low 8 bits are 0).
  auto a3 = child_argv("exit", {"3"}), a256 = child_argv("exit", {"256"});
  EXPECT_EQ(spawn(QZ_SPAWN_WAIT, a3.argv(), nullptr, nullptr, nullptr), -1);
  EXPECT_GT(spawn(QZ_SPAWN_WAIT, a256.argv(), nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(waitchild(-1, nullptr, 0), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST(Spawn, ChildReadsStandardInput) {
  std::string big(100000, 'x');
  big += "end\n";
  ChildRun r = run(child_argv("cat", {}), big);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, big);
}

TEST(Spawn, ChildInheritsExactlyTheSet) {
  const int before = open_handles();
  int inside[2], outside[2];
  ASSERT_EQ(pipe(inside), 0);
  ASSERT_EQ(pipe(outside), 0);
  qz_fd_set set;
  set.fd_count = 1;
  set.fd_array[0] = proctest::fd_for_set(inside[1]);
  auto a = child_argv("fds", {proctest::fd_arg(inside[1]), proctest::fd_arg(outside[1])});
  const int pid = spawn(0, a.argv(), &set, nullptr, nullptr);
  ASSERT_GT(pid, 0);
  proctest::close_fd(inside[1]);
  int status = -1;
  EXPECT_EQ(waitchild(pid, &status, 0), pid);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(proctest::read_all(inside[0]), "marker");
  proctest::close_fd(outside[1]);
  EXPECT_EQ(proctest::read_all(outside[0]), "");  // no copy of the write end lived on in the child
  proctest::close_fd(inside[0]);
  proctest::close_fd(outside[0]);
  EXPECT_EQ(open_handles(), before);
}

TEST(Wait, ResultsWithoutAnEndedChild) {
  int status = 0;
  EXPECT_EQ(waitchild(-1, &status, 0), -1);
  EXPECT_EQ(errno, ECHILD);
  EXPECT_EQ(status, 255);
  auto a = child_argv("sleep", {"3000"});
  const int pid = spawn(0, a.argv(), nullptr, nullptr, nullptr);
  ASSERT_GT(pid, 0);
  EXPECT_EQ(waitchild(-1, &status, QZ_WAIT_NOHANG), 0);
  EXPECT_EQ(status, 255);
  EXPECT_EQ(waitchild(pid, &status, QZ_WAIT_NOHANG), 0);
  // An id that is not ours passes through, with the failed query's status.
  EXPECT_EQ(waitchild(pid + 100000, &status, 0), pid + 100000);
  EXPECT_EQ(status, -256);
  EXPECT_EQ(kill(pid, 0), 0);
  EXPECT_EQ(kill(pid, 18), 0);
  EXPECT_EQ(kill(pid, 9), 0);
  EXPECT_EQ(waitchild(-1, &status, 0), pid);
  EXPECT_EQ(status, 9 << 8);
  EXPECT_TRUE(QZ_WKILLED(status));
  EXPECT_EQ(kill(pid, 0), -1);
  EXPECT_EQ(errno, ESRCH);
  EXPECT_EQ(kill(pid, 9), 9);  // no node any more
  EXPECT_EQ(kill(0, 9), 9);    // no children at all: the signal number
}

TEST(Wait, ManyChildrenAtOnce) {
  const int before = open_handles();
  constexpr int kChildren = 70;
  std::set<int> pids;
  for (int i = 0; i < kChildren; ++i) {
    auto a = child_argv("exit", {std::to_string(i % 7)});
    int pid = spawn(0, a.argv(), nullptr, nullptr, nullptr);
    // A loaded Wine now and then refuses a process start for the moment.
    for (int retry = 0; lltest::kWindows && pid < 0 && retry < 5; ++retry) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      pid = spawn(0, a.argv(), nullptr, nullptr, nullptr);
    }
    ASSERT_GT(pid, 0);
    pids.insert(pid);
  }
  for (int i = 0; i < kChildren; ++i) {
    int status = -1;
    const int pid = waitchild(-1, &status, 0);
    ASSERT_EQ(pids.erase(pid), 1u) << pid;
    EXPECT_EQ(status & 0xFF, 0);
  }
  EXPECT_EQ(waitchild(-1, nullptr, 0), -1);
  EXPECT_EQ(open_handles(), before);
}

TEST(Wait, EachThreadReapsOnlyItsOwnChildren) {
  // A child the library did not start, waited for by its starter.
  std::atomic<bool> foreign_ok{false};
  std::thread outsider([&] { foreign_ok = proctest::run_foreign_child(7, 1500); });
  auto worker = [](int code, std::atomic<int> *bad) {
    std::set<int> mine;
    for (int i = 0; i < 5; ++i) {
      auto a = child_argv("exit", {std::to_string(code)});
      mine.insert(spawn(0, a.argv(), nullptr, nullptr, nullptr));
    }
    for (int i = 0; i < 5; ++i) {
      int status = -1;
      const int pid = waitchild(-1, &status, 0);
      if (!mine.erase(pid) || status != code << 8) ++*bad;
    }
    if (waitchild(-1, nullptr, 0) != -1) ++*bad;
  };
  std::atomic<int> bad{0};
  std::thread t1(worker, 1, &bad), t2(worker, 2, &bad);
  t1.join();
  t2.join();
  outsider.join();
  EXPECT_EQ(bad, 0);
  EXPECT_TRUE(foreign_ok);
}

TEST(Kill, StopRequestReachesTheChild) {
  auto a = child_argv("stoppable", {});
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  int triple[3] = {-1, out[1], -1};
  const int pid = spawn(0, a.argv(), nullptr, triple, nullptr);
  ASSERT_GT(pid, 0);
  proctest::close_fd(out[1]);
  EXPECT_EQ(proctest::read_line(out[0]), "ready");  // its handler is in place
  EXPECT_EQ(kill(pid, 15), 0);
  int status = -1;
  EXPECT_EQ(waitchild(pid, &status, 0), pid);
  EXPECT_EQ(status, 42 << 8);
  proctest::close_fd(out[0]);
}

namespace {
std::atomic<int> thread_go{0};
void *thread_body(void *arg) {
  while (!thread_go) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return arg;
}
}  // namespace

TEST(SpawnThread, ThreadsAreChildrenToo) {
  thread_go = 0;
  const int t1 = spawnthread(thread_body, reinterpret_cast<void *>(5));
  const int t2 = spawnthread(thread_body, reinterpret_cast<void *>(6));
  ASSERT_GT(t1, 0);
  ASSERT_GT(t2, 0);
  int status = 0;
  EXPECT_EQ(waitchild(t1, &status, QZ_WAIT_NOHANG), 0);
  EXPECT_EQ(kill(t2, 9), 0);
  EXPECT_EQ(waitchild(-1, &status, 0), t2);
  EXPECT_EQ(status, 9 << 8);
  thread_go = 1;
  EXPECT_EQ(waitchild(-1, &status, 0), t1);
  EXPECT_EQ(status, 5 << 8);
  EXPECT_EQ(spawnthread(nullptr, nullptr), -1);
}

TEST(Spawn, BadInput) {
  const int before = open_handles();
  auto ok = child_argv("exit", {"0"});
  char *empty_vec[] = {nullptr};
  char empty_name[] = "", missing[] = "llt-no-such-program";
  char *empty_word[] = {empty_name, nullptr}, *missing_vec[] = {missing, nullptr};
  qz_fd_set big;
  big.fd_count = QZ_FD_SETSIZE + 1;
  qz_fd_set negative;
  negative.fd_count = -1;
  int closed[3] = {proctest::closed_fd(), -1, -1};
  char noeq[] = "NOEQUALS";
  char *bad_env[] = {noeq, nullptr};
  struct Case {
    const char *what;
    char **argv;
    qz_fd_set *set;
    int *triple;
    char **env;
    int err;
  } cases[] = {
      {"null vector", nullptr, nullptr, nullptr, nullptr, EINVAL},
      {"empty vector", empty_vec, nullptr, nullptr, nullptr, EINVAL},
      {"empty name", empty_word, nullptr, nullptr, nullptr, EINVAL},
      {"missing program", missing_vec, nullptr, nullptr, nullptr, lltest::kWindows ? -1 : ENOENT},
      {"count above 1024", ok.argv(), &big, nullptr, nullptr, EINVAL},
      {"negative count", ok.argv(), &negative, nullptr, nullptr, EINVAL},
      {"closed descriptor", ok.argv(), nullptr, closed, nullptr, EBADF},
      {"string without =", ok.argv(), nullptr, nullptr, bad_env, EINVAL},
  };
  for (const Case &c : cases) {
    errno = 0;
    EXPECT_EQ(spawn(0, c.argv, c.set, c.triple, c.env), -1) << c.what;
    if (c.err != -1) EXPECT_EQ(errno, c.err) << c.what;
    else EXPECT_NE(errno, 0) << c.what;
  }
  // A full set is valid.
  qz_fd_set full;
  full.fd_count = QZ_FD_SETSIZE;
  for (int i = 0; i < QZ_FD_SETSIZE; ++i) full.fd_array[i] = proctest::fd_for_set(2);
  const int pid = spawn(0, ok.argv(), &full, nullptr, nullptr);
  ASSERT_GT(pid, 0);
  EXPECT_EQ(waitchild(pid, nullptr, 0), pid);
  EXPECT_EQ(waitchild(-1, nullptr, 0), -1);
  EXPECT_EQ(open_handles(), before);
}

#ifndef _WIN32
TEST(SpawnPosix, ExecFailureCarriesTheChildsErrno) {
  lltest::TempDir d;
  d.write("not-executable", "#!/bin/sh\nexit 0\n");
  std::string p = d.file("not-executable");
  char *v[] = {p.data(), nullptr};
  EXPECT_EQ(spawn(0, v, nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(waitchild(-1, nullptr, 0), -1);  // nothing recorded, nothing left
}

// The whole environment, one string a line.
LLTEST_CHILD(environ) {
  for (char **e = environ; *e; ++e) std::printf("%s\n", *e);
  return 0;
}

// Each name reaches the child once: the first given string of a name, then
// ours for the names not given (a longer name that starts with a given one
// is another variable).
TEST(SpawnPosix, EnvironmentHoldsEachNameOnce) {
  lltest::ScopedEnv shadowed("LLT_NAME", "parent"), longer("LLT_NAME_LONGER", "kept"), plain("LLT_OTHER", "o");
  std::string first = "LLT_NAME=first", second = "LLT_NAME=second", mast = "BSW_MAST=given";
  std::vector<char *> env = {first.data(), second.data(), mast.data(), nullptr};
  ChildRun r = run(child_argv("environ", {}), "", env.data());
  ASSERT_EQ(r.status, 0);
  auto count = [&](const std::string &prefix) {
    int n = 0;
    for (size_t at = 0; (at = r.out.find("\n" + prefix, at)) != std::string::npos; ++at) ++n;
    return n;
  };
  r.out.insert(0, "\n");
  EXPECT_EQ(count("LLT_NAME="), 1) << r.out;
  EXPECT_EQ(count("LLT_NAME=first\n"), 1);
  EXPECT_EQ(count("LLT_NAME_LONGER=kept\n"), 1);
  EXPECT_EQ(count("LLT_OTHER=o\n"), 1);
  EXPECT_EQ(count("BSW_MAST="), 1);  // the program's own name comes first and wins
  EXPECT_EQ(count("BSW_MAST=" + std::string(getMyname()) + "\n"), 1);
}

// What the child got as standard descriptors: 1 when 0 is not the null
// device, plus 2 / 4 when 1 / 2 are open.
LLTEST_CHILD(stdio_report) {
  struct stat st;
  const bool null_input = fstat(0, &st) == 0 && S_ISCHR(st.st_mode) && st.st_rdev == makedev(1, 3);
  return (null_input ? 0 : 1) | (fcntl(1, F_GETFD) != -1 ? 2 : 0) | (fcntl(2, F_GETFD) != -1 ? 4 : 0);
}

// Closes the standard descriptors named in argv[0], then reports what a
// child started without a triple got.
LLTEST_CHILD(spawn_with_closed) {
  for (const char *p = argv[0]; *p; ++p) close(*p - '0');
  auto a = child_argv("stdio_report", {});
  const int pid = spawn(0, a.argv(), nullptr, nullptr, nullptr);
  int status = -1;
  if (pid <= 0 || waitchild(pid, &status, 0) != pid) return 100;
  return QZ_WEXITCODE(status);
}

// Input not given is the null device, whatever descriptors the caller lacks;
// descriptors the caller has closed stay closed in the child.
TEST(SpawnPosix, NullInputWithClosedStandardDescriptors) {
  const struct {
    const char *closed;
    int report;
  } cases[] = {{"-", 2 | 4}, {"1", 4}, {"12", 0}, {"012", 0}, {"0", 2 | 4}};
  for (const auto &c : cases) {
    const std::string closed = c.closed[0] == '-' ? "" : c.closed;
    EXPECT_EQ(lltest::run_child("spawn_with_closed", {closed}).exit_code, c.report) << c.closed;
  }
}

LLTEST_CHILD(ignore_sigchld) {
  signal(SIGCHLD, SIG_IGN);
  auto a = child_argv("exit", {"0"});
  const int pid = spawn(0, a.argv(), nullptr, nullptr, nullptr);
  if (pid <= 0) return 1;
  if (waitchild(pid, nullptr, 0) != -1 || errno != ECHILD) return 2;
  const int p2 = spawn(0, a.argv(), nullptr, nullptr, nullptr);
  if (waitchild(-1, nullptr, 0) != -1 || errno != ECHILD || p2 <= 0) return 3;
  return 0;
}

TEST(SpawnPosix, IgnoredSigchldGivesEchildNotAHang) {
  EXPECT_EQ(lltest::run_child("ignore_sigchld", {}, {}, 20000).exit_code, 0);
}

// Signal masks and dispositions start clean in the child.
LLTEST_CHILD(signals) {
  sigset_t m;
  sigprocmask(SIG_SETMASK, nullptr, &m);
  struct sigaction sa;
  sigaction(SIGPIPE, nullptr, &sa);
  return (sigismember(&m, SIGUSR1) ? 1 : 0) + (sa.sa_handler == SIG_IGN ? 2 : 0);
}

TEST(SpawnPosix, SignalStateIsReset) {
  sigset_t block, old;
  sigemptyset(&block);
  sigaddset(&block, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &block, &old);
  struct sigaction ign = {}, prev;
  ign.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ign, &prev);
  ChildRun r = run(child_argv("signals", {}));
  sigaction(SIGPIPE, &prev, nullptr);
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  EXPECT_EQ(r.status, 0);
}
LLTEST_CHILD(ids) {
  std::printf("%d %d\n", static_cast<int>(getuid()), static_cast<int>(getgid()));
  return 0;
}

TEST(SpawnPosix, AsAnotherUser) {
  qz_spawn_user nobody = {65534, 65534};
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  int triple[3] = {-1, out[1], -1};
  auto a = child_argv("ids", {});
  const int pid = spawn_as_user(0, a.argv(), nullptr, triple, nullptr, &nobody);
  ASSERT_GT(pid, 0);
  proctest::close_fd(out[1]);
  EXPECT_EQ(proctest::read_all(out[0]), "65534 65534\n");
  proctest::close_fd(out[0]);
  int status = -1;
  EXPECT_EQ(waitchild(pid, &status, 0), pid);
  EXPECT_EQ(status, 0);
}

// An ordinary user at its process limit.
LLTEST_CHILD(at_process_limit) {
  if (setgid(65534) != 0 || setuid(65534) != 0) return 10;
  rlimit old, none;
  getrlimit(RLIMIT_NPROC, &old);
  none = {0, old.rlim_max};
  if (setrlimit(RLIMIT_NPROC, &none) != 0) return 11;
  const int before = open_handles();
  auto a = child_argv("exit", {"0"});
  const int pid = spawn(0, a.argv(), nullptr, nullptr, nullptr);
  const int err = errno;
  const int after = open_handles();
  setrlimit(RLIMIT_NPROC, &old);  // the leak checker at exit needs a thread
  if (pid != -1 || err != EAGAIN) return 1;
  return after == before ? 0 : 2;
}

TEST(SpawnPosix, ProcessLimitReached) { EXPECT_EQ(lltest::run_child("at_process_limit").exit_code, 0); }
#endif
