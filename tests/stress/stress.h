// What the stress programs share: their duration, the descriptor (handle)
// count of the process, a watchdog that ends a program that stopped making
// progress, and the report line each one prints.
#pragma once
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#ifdef _WIN32
#  include <winsock2.h>
#  include <ws2tcpip.h>
#  include <windows.h>
#else
#  include <arpa/inet.h>
#  include <dirent.h>
#  include <netdb.h>
#  include <netinet/in.h>
#  include <unistd.h>
#endif

namespace stress {

using Clock = std::chrono::steady_clock;

// Seconds to run: "--seconds N" on the command line, else LL_STRESS_SECONDS,
// else 'fallback'. At least 1.
inline int seconds(int argc, char **argv, int fallback) {
  const char *text = std::getenv("LL_STRESS_SECONDS");
  for (int i = 1; i + 1 < argc; ++i)
    if (std::strcmp(argv[i], "--seconds") == 0) text = argv[i + 1];
  int n = text ? std::atoi(text) : fallback;
  return n < 1 ? 1 : n;
}

// The value after "--name" on the command line, or null.
inline const char *option(int argc, char **argv, const char *name) {
  for (int i = 1; i + 1 < argc; ++i)
    if (std::strcmp(argv[i], name) == 0) return argv[i + 1];
  return nullptr;
}

// Open descriptors (POSIX) or handles (Windows) of this process.
inline int open_handles() {
#ifdef _WIN32
  DWORD n = 0;
  GetProcessHandleCount(GetCurrentProcess(), &n);
  return static_cast<int>(n);
#else
  int n = -1;  // the listing's own descriptor
  if (DIR *d = opendir("/proc/self/fd")) {
    while (dirent *e = readdir(d))
      if (e->d_name[0] != '.') ++n;
    closedir(d);
  }
  return n;
#endif
}

// Failures are counted and the first few described.
inline std::atomic<long> g_failures{0};

inline void fail(const char *fmt, ...) {
  if (g_failures.fetch_add(1) < 20) {
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    std::fprintf(stderr, "FAIL: %s\n", line);
  }
}

// Ends the process when the program has not finished 'limit' seconds after
// it started: a thread that is never released is a failure, not a hang.
class Watchdog {
 public:
  Watchdog(const char *name, int limit) : name_(name) {
    thread_ = std::thread([this, limit] {
      const auto end = Clock::now() + std::chrono::seconds(limit);
      while (!done_.load()) {
        if (Clock::now() > end) {
          std::fprintf(stderr, "FAIL: %s: still running after %d s\n", name_, limit);
          std::fflush(nullptr);
          std::_Exit(3);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
      }
    });
  }
  ~Watchdog() {
    done_ = true;
    thread_.join();
  }

 private:
  const char *name_;
  std::atomic<bool> done_{false};
  std::thread thread_;
};

// The closing lines: what ran and whether anything went wrong. Returns the
// exit code.
inline int report(const char *name, const std::string &did, double secs, int handles_before, int handles_after) {
  const long failures = g_failures.load();
#ifdef _WIN32
  if (handles_before == 0 && handles_after == 0)  // Wine counts none
    std::printf("%s: %s; %.1f s; handles not counted by this system\n", name, did.c_str(), secs);
  else
    std::printf("%s: %s; %.1f s; handles %d before, %d after\n", name, did.c_str(), secs, handles_before, handles_after);
#else
  std::printf("%s: %s; %.1f s; descriptors %d before, %d after\n", name, did.c_str(), secs, handles_before, handles_after);
#endif
  if (handles_before != handles_after) std::printf("FAIL: %s: the open count changed\n", name);
  if (failures) std::printf("FAIL: %s: %ld failures\n", name, failures);
  const bool ok = failures == 0 && handles_before == handles_after;
  std::printf("%s: %s\n", name, ok ? "ok" : "FAILED");
  std::fflush(nullptr);
  return ok ? 0 : 1;
}

inline double since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

}  // namespace stress
