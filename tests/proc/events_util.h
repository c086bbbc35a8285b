// Helpers of the process-event and service tests: a child of this binary
// that runs while the test talks to it, and the sending side of the events.
#pragma once
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "lltest.h"
#include <liblocal/process.h>

#ifdef _WIN32
#include <process.h>
#include <windows.h>
#else
#include <signal.h>
#include <unistd.h>
#endif

namespace evtest {

inline int my_pid() {
#ifdef _WIN32
  return _getpid();
#else
  return static_cast<int>(getpid());
#endif
}

inline int my_tid() {
#ifdef _WIN32
  return static_cast<int>(GetCurrentThreadId());
#else
  return static_cast<int>(gettid());
#endif
}

// Written whole or not at all, so a polling reader never sees half of it.
inline void put(const std::string &path, const std::string &text) {
  const std::string tmp = path + ".part";
  {
    std::ofstream f(tmp, std::ios::binary | std::ios::trunc);
    f << text;
  }
  std::remove(path.c_str());
  std::rename(tmp.c_str(), path.c_str());
}

inline bool exists(const std::string &path) { return std::ifstream(path).good(); }

// Waits (at most ms) until the file exists.
inline bool wait_for(const std::string &path, int ms = 30000) {
  for (int waited = 0; waited < ms; waited += 10) {
    if (exists(path)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

// Child side: announce the pid once set up.
inline void ready(const std::string &dir) { put(dir + "/pid", std::to_string(my_pid())); }

// Child side: wait (bounded) for the parent to end us.
inline int linger(int ms = 30000) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
  return 99;
}

// A child of this binary that runs on a thread of the test while the test
// sends it events.
class Child {
 public:
  Child(const std::string &name, std::vector<std::string> args, std::vector<std::string> env = {})
      : th_([this, name, args, env] { result_ = lltest::run_child(name, args, env, 60000); }) {}
  ~Child() {
    if (th_.joinable()) th_.join();
  }
  lltest::ChildResult wait() {
    th_.join();
    return result_;
  }

 private:
  lltest::ChildResult result_;
  std::thread th_;
};

inline int pid_of(const std::string &dir) {
  if (!wait_for(dir + "/pid")) return -1;
  return std::stoi(lltest::read_file(dir + "/pid"));
}

#ifdef _WIN32
inline bool set_named(int pid, const wchar_t *suffix) {
  wchar_t name[64];
  swprintf(name, 64, L"%d%ls", pid, suffix);
  HANDLE h = nullptr;
  for (int i = 0; i < 500 && !h; ++i)
    if (!(h = OpenEventW(EVENT_MODIFY_STATE, FALSE, name))) Sleep(10);
  if (!h) return false;
  const bool ok = SetEvent(h) != 0;
  CloseHandle(h);
  return ok;
}
inline bool send_debug(int pid) { return set_named(pid, L"DEBUGEVENT"); }
#else
inline bool send_debug(int pid) { return pid > 0 && sigqueue(pid, SIGUSR1, sigval{}) == 0; }
#endif
// The sending side of the kill event is the process family's kill.
inline bool send_kill(int pid) { return pid > 0 && ll_kill(pid, 15) == 0; }

}  // namespace evtest
