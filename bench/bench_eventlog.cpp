// The event log and dll_find_routine against their native peers measured in
// the same run: eventprintf against syslog(3) of the same text, both to a
// datagram listener on the system log's socket; a cached dll_find_routine
// against dlsym on an open handle. Prints "ratio" lines with the goal of each.
//
// The system log's socket is the listener's own: the program runs in a mount
// namespace of its own with a private /dev, so syslog(3) reaches the same
// listener without touching the machine's /dev (this needs root).
#include "ratio_main.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include <liblocal/eventlog.h>
#include <liblocal/output.h>

#ifndef _WIN32
#include <dlfcn.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#endif

namespace {

#ifndef _WIN32
// ------------------------------------------------------- the log listener

std::atomic<long> g_received{0};
int g_listener = -1;

bool start_listener() {
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("none", "/dev", "tmpfs", 0, nullptr) != 0) {
    std::perror("bench_eventlog: private /dev");
    return false;
  }
  g_listener = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un sa{};
  sa.sun_family = AF_UNIX;
  std::strcpy(sa.sun_path, "/dev/log");
  if (bind(g_listener, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) return false;
  std::thread([] {
    char buf[16384];
    while (recv(g_listener, buf, sizeof buf, 0) > 0) ++g_received;
  }).detach();
  return true;
}

// Waits until the listener has taken everything an earlier run sent, so that
// no run pays for another's backlog.
void drain() {
  for (long last = -1; last != g_received.load();) {
    last = g_received.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

const char *const kText = "backup of %s ended: %d files, %d errors\nsee the job log for details";

std::atomic<long> g_dropped{0};

void BM_syslog(benchmark::State &state) {
  drain();
  openlog("tapectl", LOG_PID | LOG_NDELAY, LOG_USER);
  int i = 0;
  for (auto _ : state) syslog(LOG_ERR, kText, "client7", ++i, 0);
  closelog();
}

void BM_eventprintf(benchmark::State &state) {
  drain();
  setMyname("tapectl");
  int i = 0;
  long dropped = 0;
  for (auto _ : state) dropped += eventprintf(QZ_EVENT_ERROR, 0, kText, "client7", ++i, 0) == 0;
  g_dropped += dropped;
}

// ------------------------------------------------------ routine lookups

const char *const kLibs[] = {"libc.so.6", "libpthread.so.0", "libm.so.6"};

void BM_dlsym(benchmark::State &state) {
  void *h = dlopen(kLibs[2], RTLD_NOW);
  for (auto _ : state) benchmark::DoNotOptimize(dlsym(h, "cos"));
  dlclose(h);
}

void BM_dll_find_routine(benchmark::State &state) {
  void *fn = nullptr;
  for (const char *lib : kLibs) dll_find_routine(lib, "cos", &fn);  // the third slot
  for (auto _ : state) {
    dll_find_routine(kLibs[2], "cos", &fn);
    benchmark::DoNotOptimize(fn);
  }
}

// In turns, three times each: the ratio is taken over the sums.
BENCHMARK(BM_syslog)->UseRealTime();
BENCHMARK(BM_eventprintf)->UseRealTime();
BENCHMARK(BM_syslog)->UseRealTime();
BENCHMARK(BM_eventprintf)->UseRealTime();
BENCHMARK(BM_syslog)->UseRealTime();
BENCHMARK(BM_eventprintf)->UseRealTime();
BENCHMARK(BM_dlsym);
BENCHMARK(BM_dll_find_routine);
#endif

double sum_of(const llbench::Results &times, const std::string &prefix) {
  double sum = 0;
  for (const auto &r : times)
    if (r.first.rfind(prefix, 0) == 0) sum += r.second;
  return sum;
}

void print_ratios(const llbench::Results &times) {
  const double sys = sum_of(times, "BM_syslog"), ev = sum_of(times, "BM_eventprintf");
  const double dl = llbench::time_of(times, "BM_dlsym"), dr = llbench::time_of(times, "BM_dll_find_routine");
  if (sys > 0 && ev > 0)
    std::printf("ratio eventprintf            %.2fx the time of syslog(3) to the same listener (goal <= 1.5x)\n",
                ev / sys);
  if (dl > 0 && dr > 0)
    std::printf("ratio dll_find_routine (hit) %.2fx the time of dlsym on an open handle (goal <= 2x)\n", dr / dl);
#ifndef _WIN32
  std::printf("events dropped by eventprintf: %ld (the listener received %ld in all)\n", g_dropped.load(),
              g_received.load());
#endif
}

}  // namespace

int main(int argc, char **argv) {
#ifndef _WIN32
  if (!start_listener()) return 1;
#endif
  return llbench::run(argc, argv, print_ratios);
}
