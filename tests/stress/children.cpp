// Children started and reaped from 8 threads at once: each thread keeps up
// to 4 of its own children running, waits for them by id or for any of them,
// and checks every status against the code the child was told to exit with.
// A thread's table holds only its own children: at the end each one must
// answer ECHILD. "--children N" (default 2000, LL_STRESS_CHILDREN) in all;
// spawning stops early when the time ("--seconds") runs out.
#include <map>
#include <string>
#include <vector>

#include "stress.h"
#include <liblocal/frame.h>
#include <liblocal/process.h>
#include <liblocal/thread.h>

namespace {

using stress::fail;

constexpr int kThreads = 8;
constexpr int kInFlight = 4;

std::string g_child;  // the child program's path
stress::Clock::time_point g_deadline;
std::atomic<long> g_started{0}, g_reaped{0};

struct Driver {
  int index = 0;
  int share = 0;
  long started = 0, reaped = 0;
  qz_thr_t *thr = nullptr;
};

int code_for(int thread, long n) { return static_cast<int>((thread * 37 + n * 11) % 251); }

// Reaps one child (a given one, or any) and checks its status.
void reap(Driver &d, std::map<int, int> &running, int id) {
  int status = -1;
  int got = waitchild(id, &status, 0);
  auto it = running.find(got);
  if (got <= 0 || it == running.end()) {
    fail("thread %d: waitchild(%d) gave %d (errno %d)", d.index, id, got, errno);
    if (id > 0) running.erase(id);
    return;
  }
  if (status != it->second << 8) fail("thread %d: child %d: status %#x, code %d expected", d.index, got, status, it->second);
  running.erase(it);
  ++d.reaped;
  ++g_reaped;
}

void *drive(void *arg) {
  Driver &d = *static_cast<Driver *>(arg);
  std::map<int, int> running;  // id -> expected exit code
  long n = 0;
  while (n < d.share && stress::Clock::now() < g_deadline) {
    while (static_cast<int>(running.size()) < kInFlight && n < d.share) {
      const int code = code_for(d.index, n++);
      std::string word = std::to_string(code);
      char *argv[] = {g_child.data(), word.data(), nullptr};
      int id = spawn(0, argv, nullptr, nullptr, nullptr);
      if (id <= 0) {
        fail("thread %d: spawn: %d (errno %d)", d.index, id, errno);
        continue;
      }
      running[id] = code;
      ++d.started;
      ++g_started;
    }
    // Alternately the oldest child by its id, and whichever ends first.
    reap(d, running, (n & 1) ? running.begin()->first : -1);
  }
  while (!running.empty()) reap(d, running, -1);
  int status = 0;
  if (waitchild(-1, &status, 0) != -1 || errno != ECHILD) fail("thread %d: children left after the last was reaped", d.index);
  return nullptr;
}

std::string program_dir(const char *argv0) {
  std::string p = argv0;
  size_t cut = p.find_last_of("/\\");
  return cut == std::string::npos ? std::string(".") : p.substr(0, cut);
}

}  // namespace

int main(int argc, char **argv) {
  qzinit(argv[0]);
  const int secs = stress::seconds(argc, argv, 60);
  const char *count_opt = stress::option(argc, argv, "--children");
  if (!count_opt) count_opt = std::getenv("LL_STRESS_CHILDREN");
  const int total = count_opt ? std::atoi(count_opt) : 2000;
#ifdef _WIN32
  g_child = program_dir(argv[0]) + "\\stress_child.exe";
#else
  g_child = program_dir(argv[0]) + "/stress_child";
#endif

  // One child first: whatever the library makes once for spawning exists
  // before the descriptors are counted.
  {
    char *argv1[] = {g_child.data(), const_cast<char *>("7"), nullptr};
    int status = 0, id = spawn(0, argv1, nullptr, nullptr, nullptr);
    if (id <= 0 || waitchild(id, &status, 0) != id || status != 7 << 8) {
      std::printf("FAIL: the first child of %s did not run (id %d, status %#x)\n", g_child.c_str(), id, status);
      return 1;
    }
  }
  stress::Watchdog dog("stress_children", secs + 120);
  const int before = stress::open_handles();
  g_deadline = stress::Clock::now() + std::chrono::seconds(secs);
  const auto t0 = stress::Clock::now();

  std::vector<Driver> drivers(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    drivers[i].index = i;
    drivers[i].share = total / kThreads + (i < total % kThreads ? 1 : 0);
    if (!qz_thr_create(&drivers[i].thr, drive, &drivers[i])) fail("qz_thr_create");
    else ++stress::g_threads_made;
  }
  for (auto &d : drivers) {
    if (!d.thr) continue;
    int nowait = 0;
    qz_thr_wait(d.thr, nullptr, &nowait);
    qz_thr_destroy(d.thr);
  }
  const double ran = stress::since(t0);
  if (g_started.load() != g_reaped.load()) fail("%ld children started, %ld reaped", g_started.load(), g_reaped.load());
  if (g_started.load() < total) std::printf("stress_children: the time ran out after %ld of %d children\n", g_started.load(), total);
  std::string did = std::to_string(kThreads) + " threads; " + std::to_string(g_started.load()) + " children started, " +
                    std::to_string(g_reaped.load()) + " reaped with the right status; " +
                    std::to_string(static_cast<long>(g_started.load() / (ran > 0 ? ran : 1))) + " per second";
  return stress::report("stress_children", did, ran, before, stress::open_handles());
}
