// Helpers of the process tests: argument vectors for this binary run as a
// child, running a child with its output captured, descriptors and handles.
#pragma once
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "lltest.h"
#include <liblocal/output.h>
#include <liblocal/process.h>
#include <liblocal/service.h>

#ifdef _WIN32
#  include <fcntl.h>
#  include <io.h>
#  include <windows.h>
#else
#  include <fcntl.h>
#  include <signal.h>
#  include <spawn.h>
#  include <sys/wait.h>
#  include <unistd.h>
extern char **environ;
#endif

namespace proctest {

struct Argv {
  std::vector<std::string> words;
  std::vector<char *> ptrs;
  char **argv() {
    ptrs.clear();
    for (std::string &w : words) ptrs.push_back(w.data());
    ptrs.push_back(nullptr);
    return ptrs.data();
  }
};

inline Argv child_argv(const std::string &name, const std::vector<std::string> &args) {
  Argv a;
  a.words = {lltest::self_path(), "--lltest-child", name};
  a.words.insert(a.words.end(), args.begin(), args.end());
  return a;
}

inline int write_fd(int fd, const std::string &s) {
#ifdef _WIN32
  return _write(fd, s.data(), static_cast<unsigned>(s.size()));
#else
  return static_cast<int>(::write(fd, s.data(), s.size()));
#endif
}

inline int read_fd(int fd, char *buf, size_t n) {
#ifdef _WIN32
  return _read(fd, buf, static_cast<unsigned>(n));
#else
  return static_cast<int>(::read(fd, buf, n));
#endif
}

inline void close_fd(int fd) {
#ifdef _WIN32
  _close(fd);
#else
  ::close(fd);
#endif
}

inline std::string read_all(int fd) {
  std::string s;
  char buf[4096];
  int n;
  while ((n = read_fd(fd, buf, sizeof buf)) > 0) s.append(buf, static_cast<size_t>(n));
  return s;
}

inline std::string read_line(int fd) {
  std::string s;
  char c;
  while (read_fd(fd, &c, 1) == 1 && c != '\n')
    if (c != '\r') s += c;
  return s;
}

// A descriptor number that is not open.
inline int closed_fd() {
  int p[2];
  if (pipe(p) != 0) return 999;
  close_fd(p[0]);
  close_fd(p[1]);
  return p[0];
}

// How a descriptor goes into an inherited set and onto a child's command
// line: Windows hands the child the handle, which it wraps again.
inline qz_socket_t fd_for_set(int fd) {
#ifdef _WIN32
  return static_cast<qz_socket_t>(_get_osfhandle(fd));
#else
  return fd;
#endif
}
inline std::string fd_arg(int fd) { return std::to_string(static_cast<long long>(fd_for_set(fd))); }
inline int fd_from_arg(const char *s) {
#ifdef _WIN32
  return _open_osfhandle(static_cast<intptr_t>(std::strtoll(s, nullptr, 10)), 0);
#else
  return std::atoi(s);
#endif
}

// The arguments after the child's name, as UTF-8.
inline std::vector<std::string> utf8_args(int argc, char **argv) {
  std::vector<std::string> out;
#ifdef _WIN32
  int n = 0;
  LPWSTR *w = CommandLineToArgvW(GetCommandLineW(), &n);
  for (int i = 3; i < n; ++i) {
    int len = WideCharToMultiByte(CP_UTF8, 0, w[i], -1, nullptr, 0, nullptr, nullptr);
    std::string s(static_cast<size_t>(len > 0 ? len - 1 : 0), '\0');
    if (len > 1) WideCharToMultiByte(CP_UTF8, 0, w[i], -1, s.data(), len, nullptr, nullptr);
    out.push_back(s);
  }
  LocalFree(w);
  (void)argc;
  (void)argv;
#else
  for (int i = 0; i < argc; ++i) out.emplace_back(argv[i]);
#endif
  return out;
}

struct ChildRun {
  int pid = -1;
  int status = -1;
  std::string out;
};

// Runs a child with 'input' on its standard input and its standard output
// captured; waits for it.
inline ChildRun run(Argv a, const std::string &input = "", char **env = nullptr, int flags = 0) {
  ChildRun r;
  int out[2], in[2];
  if (pipe(out) != 0 || pipe(in) != 0) return r;
  int triple[3] = {in[0], out[1], -1};
  r.pid = spawn(flags, a.argv(), nullptr, triple, env);
  close_fd(out[1]);
  close_fd(in[0]);
  std::thread feeder([&] {
    size_t done = 0;
    while (r.pid > 0 && done < input.size()) {
      const int n = write_fd(in[1], input.substr(done, 65536));
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    close_fd(in[1]);
  });
  r.out = read_all(out[0]);
  feeder.join();
  close_fd(out[0]);
  if (r.pid > 0) {
    EXPECT_EQ(waitchild(r.pid, &r.status, 0), r.pid);
  }
  if (lltest::kWindows) std::erase(r.out, '\r');
  return r;
}

// Starts a child behind the library's back and waits for it itself: true
// when its own status reached it.
inline bool run_foreign_child(int code, int linger_ms) {
  const std::string self = lltest::self_path(), c = std::to_string(code);
#ifdef _WIN32
  std::wstring cmd = L"\"" + std::wstring(self.begin(), self.end()) + L"\" --lltest-child exit " +
                     std::wstring(c.begin(), c.end());
  STARTUPINFOW si{};
  si.cb = sizeof si;
  PROCESS_INFORMATION pi{};
  if (!CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) return false;
  std::this_thread::sleep_for(std::chrono::milliseconds(linger_ms));
  WaitForSingleObject(pi.hProcess, INFINITE);
  DWORD ec = 0;
  GetExitCodeProcess(pi.hProcess, &ec);
  CloseHandle(pi.hProcess);
  CloseHandle(pi.hThread);
  return ec == static_cast<DWORD>(code);
#else
  std::string w1 = "--lltest-child", w2 = "exit";
  std::string s = self;
  char *v[] = {s.data(), w1.data(), w2.data(), const_cast<char *>(c.c_str()), nullptr};
  pid_t pid;
  if (posix_spawn(&pid, s.c_str(), nullptr, nullptr, v, environ) != 0) return false;
  // It ends while the library's threads are waiting for their own children.
  std::this_thread::sleep_for(std::chrono::milliseconds(linger_ms));
  int st = 0;
  return waitpid(pid, &st, 0) == pid && WIFEXITED(st) && WEXITSTATUS(st) == code;
#endif
}

inline std::atomic<int> stop_requested{0};

// In a child: waits (at most 20 s) for a kill(pid, sig) other than 9 through
// the library's own kill handler (the kill event on Windows, the stop signal
// on POSIX). Says "ready" once the handler is in place.
inline bool wait_for_stop_request() {
  regevent(9, [](int) { stop_requested = 1; });
  std::printf("ready\n");
  std::fflush(stdout);
  for (int i = 0; i < 2000 && !stop_requested; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return stop_requested != 0;
}

}  // namespace proctest
