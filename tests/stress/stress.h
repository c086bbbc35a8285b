// What the stress programs share: their duration, the descriptor (handle)
// count of the process, a watchdog that ends a program that stopped making
// progress, and the report line each one prints.
#pragma once
#include <atomic>
#include <algorithm>
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

#ifdef _WIN32
// The system's table of open handles (class 16), counted for this process:
// the answer where GetProcessHandleCount gives none.
inline int handles_from_table() {
  using Query = LONG(WINAPI *)(ULONG, void *, ULONG, ULONG *);
  auto query = reinterpret_cast<Query>(
      reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
  if (!query) return 0;
  struct Entry {
    ULONG pid;
    BYTE type, flags;
    USHORT value;
    void *object;
    ULONG access;
  };
  std::string buf(1 << 20, '\0');
  for (int tries = 0; tries < 8; ++tries) {
    ULONG need = 0;
    LONG st = query(16, buf.data(), static_cast<ULONG>(buf.size()), &need);
    if (st == static_cast<LONG>(0xC0000004)) {  // the table grew: a bigger buffer
      buf.resize(std::max<size_t>(buf.size() * 2, need + 65536));
      continue;
    }
    if (st != 0) return 0;
    ULONG count;
    std::memcpy(&count, buf.data(), sizeof count);
    const auto *e = reinterpret_cast<const Entry *>(buf.data() + sizeof(void *));
    int mine = 0;
    for (ULONG i = 0; i < count; ++i)
      if (e[i].pid == GetCurrentProcessId()) ++mine;
    return mine;
  }
  return 0;
}
#endif

// Open descriptors (POSIX) or handles (Windows) of this process.
inline int open_handles() {
#ifdef _WIN32
  DWORD n = 0;
  GetProcessHandleCount(GetCurrentProcess(), &n);
  return n ? static_cast<int>(n) : handles_from_table();
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

// Threads started with qz_thr_create and threads ended by qz_thr_kill, for
// the Windows handle count: the library keeps a thread's handle open for the
// life of the process by design, and a thread ended by TerminateThread never
// runs the C runtime's thread-exit callbacks, which leaves its two handles.
inline std::atomic<long> g_threads_made{0}, g_threads_killed{0};

// Handles that may appear besides those: the kernel objects the threads
// runtime makes for a mutex or condition variable when it is first contended
// (this program's and the library's, a few each), kept for the life of the
// process. A handle lost per call or per thread shows far above this.
constexpr int kLazyHandles = 32;

// The closing lines: what ran and whether anything went wrong. Returns the
// exit code. On POSIX the descriptor counts must be equal.
inline int report(const char *name, const std::string &did, double secs, int handles_before, int handles_after) {
  long failures = g_failures.load();
  bool counts_ok = handles_before == handles_after;
#ifdef _WIN32
  const long kept = g_threads_made.load() + 2 * g_threads_killed.load();
  if (handles_before == 0 && handles_after == 0) {  // no way to count here
    std::printf("%s: %s; %.1f s; handles not counted by this system\n", name, did.c_str(), secs);
  } else {
    std::printf("%s: %s; %.1f s; handles %d before, %d after (%ld kept by ended threads, at most %d made once)\n", name,
                did.c_str(), secs, handles_before, handles_after, kept, kLazyHandles);
    counts_ok = handles_after >= handles_before && handles_after - handles_before <= kept + kLazyHandles;
  }
#else
  std::printf("%s: %s; %.1f s; descriptors %d before, %d after\n", name, did.c_str(), secs, handles_before, handles_after);
#endif
  if (!counts_ok) std::printf("FAIL: %s: the open count changed\n", name);
  if (failures) std::printf("FAIL: %s: %ld failures\n", name, failures);
  const bool ok = failures == 0 && counts_ok;
  std::printf("%s: %s\n", name, ok ? "ok" : "FAILED");
  std::fflush(nullptr);
  return ok ? 0 : 1;
}

inline double since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

}  // namespace stress
