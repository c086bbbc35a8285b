// Processes against the C library's own calls measured in the same run, all
// in wall time: spawn + waitchild of a tiny static child beside posix_spawn +
// waitpid (also with 1 GiB of touched heap, and with 10 000 inheritable
// descriptors open), reaping one ended child among 500 running ones, popen +
// read + pclose, and two threads spawning at once. Prints "ratio" lines with
// the goal of each.
//
// The spawn and popen ratios (plain, large parent, many descriptors, command
// streams, two threads) come from runs in turns: blocks of the peer's and the
// library's calls alternate, so that whatever else a shared machine does
// falls on both alike, and the ratio is the median of the blocks' ratios. The
// separate runs stay in the table for reference.
#include <stdio.h>

#include "ratio_main.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

// The C library's popen, pclose and kill, before the library's header maps the names.
static FILE *(*const libc_popen)(const char *, const char *) = ::popen;
static int (*const libc_pclose)(FILE *) = ::pclose;
static int (*const libc_kill)(pid_t, int) = ::kill;

#include <liblocal/frame.h>
#include <liblocal/process.h>

extern char **environ;

namespace {

std::string g_child;  // the tiny static child program

char **child_argv() {
  static char *v[2] = {g_child.data(), nullptr};
  return v;
}

void native_once() {
  pid_t pid;
  if (posix_spawn(&pid, g_child.c_str(), nullptr, nullptr, child_argv(), environ) != 0) std::abort();
  int st;
  waitpid(pid, &st, 0);
}

void library_once() {
  const int pid = spawn(0, child_argv(), nullptr, nullptr, nullptr);
  if (pid <= 0) std::abort();
  waitchild(pid, nullptr, 0);
}

void BM_posix_spawn(benchmark::State &state) {
  for (auto _ : state) native_once();
}
void BM_spawn(benchmark::State &state) {
  for (auto _ : state) library_once();
}

// ------------------------------------------------------------- in turns

using Clock = std::chrono::steady_clock;

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

double thread_cpu() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

constexpr int kBlock = 10;  // calls of one kind in a row

// A ratio from runs in turns: the median of the blocks' ratios, and the
// middle half of them.
struct Turns {
  double median = 0, lo = 0, hi = 0;
  void set(std::vector<double> r) {
    if (r.empty()) return;
    std::sort(r.begin(), r.end());
    median = r[r.size() / 2];
    lo = r[r.size() / 4];
    hi = r[r.size() * 3 / 4];
  }
};
Turns g_plain, g_big, g_manyfds, g_popen, g_threads;

// One iteration: a block of the peer's calls, then a block of the library's
// (the order swapped every other iteration). The library's time over the
// peer's.
template <class Peer, class Lib>
void in_turns(benchmark::State &state, Turns &out, Peer peer, Lib lib) {
  std::vector<double> ratios;
  double wall[2] = {0, 0}, cpu[2] = {0, 0};
  bool lib_first = false;
  for (auto _ : state) {
    double block[2];
    for (int step = 0; step < 2; ++step) {
      const int kind = step ^ (lib_first ? 1 : 0);  // 0 the peer, 1 the library
      const auto t0 = Clock::now();
      const double c0 = thread_cpu();
      for (int i = 0; i < kBlock; ++i) kind ? lib() : peer();
      cpu[kind] += thread_cpu() - c0;
      block[kind] = seconds(Clock::now() - t0);
      wall[kind] += block[kind];
    }
    lib_first = !lib_first;
    ratios.push_back(block[1] / block[0]);
  }
  out.set(ratios);
  const double calls = static_cast<double>(state.iterations()) * kBlock;
  state.counters["ratio"] = out.median;
  state.counters["wall_us"] = wall[1] / calls * 1e6;
  state.counters["peer_wall_us"] = wall[0] / calls * 1e6;
  state.counters["cpu_us"] = cpu[1] / calls * 1e6;
  state.counters["peer_cpu_us"] = cpu[0] / calls * 1e6;
}

void BM_spawn_in_turns(benchmark::State &state) { in_turns(state, g_plain, native_once, library_once); }

// Two threads spawn at once; the pair's blocks alternate between the peer and
// the library, each block's time the wall time from its start to the moment
// both threads are through.
void BM_2threads_in_turns(benchmark::State &state) {
  constexpr int kBlocks = 40;
  std::vector<double> ratios;
  double wall[2] = {0, 0};
  for (auto _ : state) {
    Clock::time_point start;
    double block[2];
    int kind = 0;
    std::barrier sync(2);
    auto body = [&](bool timer) {
      for (int b = 0; b < 2 * kBlocks; ++b) {
        if (timer) {
          kind = (b & 1) ^ ((b >> 1) & 1);  // peer, library, library, peer, ...
          start = Clock::now();
        }
        sync.arrive_and_wait();
        for (int i = 0; i < kBlock; ++i) kind ? library_once() : native_once();
        sync.arrive_and_wait();
        if (timer) {
          block[kind] = seconds(Clock::now() - start);
          wall[kind] += block[kind];
          if (b & 1) ratios.push_back(block[0] / block[1]);
        }
      }
    };
    std::thread other(body, false);
    body(true);
    other.join();
  }
  g_threads.set(ratios);
  const double calls = static_cast<double>(state.iterations()) * kBlocks * kBlock * 2;  // of a kind, both threads
  state.counters["ratio"] = g_threads.median;
  state.counters["spawns/s"] = wall[1] > 0 ? calls / wall[1] : 0;
  state.counters["peer_spawns/s"] = wall[0] > 0 ? calls / wall[0] : 0;
}

// ------------------------------------------------------------ a large parent

size_t available_bytes() {
  std::ifstream f("/proc/meminfo");
  std::string key;
  size_t kb;
  std::string unit;
  while (f >> key >> kb >> unit)
    if (key == "MemAvailable:") return kb * 1024;
  return 0;
}

struct BigHeap {
  char *p = nullptr;
  size_t n = 0;
  BigHeap() {
    const size_t want = size_t(1) << 30;
    if (available_bytes() < 3 * want) return;  // a shared machine: only when it fits easily
    p = static_cast<char *>(std::malloc(want));
    if (p) {
      std::memset(p, 1, want);
      n = want;
    }
  }
  ~BigHeap() { std::free(p); }
};

void BM_posix_spawn_big(benchmark::State &state) {
  BigHeap h;
  if (!h.n) state.SkipWithError("not enough free memory for 1 GiB");
  for (auto _ : state) native_once();
}
void BM_spawn_big(benchmark::State &state) {
  BigHeap h;
  if (!h.n) state.SkipWithError("not enough free memory for 1 GiB");
  for (auto _ : state) library_once();
}
void BM_big_in_turns(benchmark::State &state) {
  BigHeap h;
  if (!h.n) state.SkipWithError("not enough free memory for 1 GiB");
  in_turns(state, g_big, native_once, library_once);
}
void BM_fork_big(benchmark::State &state) {
  BigHeap h;
  if (!h.n) state.SkipWithError("not enough free memory for 1 GiB");
  for (auto _ : state) {
    const pid_t pid = fork();
    if (pid == 0) {
      execve(g_child.c_str(), child_argv(), environ);
      _exit(127);
    }
    int st;
    waitpid(pid, &st, 0);
  }
}

// ------------------------------------------------ 10 000 open descriptors

struct ManyFds {
  std::vector<int> fds;
  ManyFds() {
    rlimit rl;
    getrlimit(RLIMIT_NOFILE, &rl);
    if (rl.rlim_cur < 10100) {
      rl.rlim_cur = rl.rlim_max < 10100 ? rl.rlim_max : 10100;
      setrlimit(RLIMIT_NOFILE, &rl);
    }
    const int base = open("/dev/null", O_RDONLY);  // inheritable on purpose
    for (int i = 0; i < 10000 && base >= 0; ++i) {
      const int fd = dup(base);
      if (fd < 0) break;
      fds.push_back(fd);
    }
    if (base >= 0) close(base);
  }
  ~ManyFds() {
    for (int fd : fds) close(fd);
  }
};

void BM_posix_spawn_closefrom(benchmark::State &state) {
  ManyFds m;
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addclosefrom_np(&fa, 3);
  for (auto _ : state) {
    pid_t pid;
    if (posix_spawn(&pid, g_child.c_str(), &fa, nullptr, child_argv(), environ) != 0) std::abort();
    int st;
    waitpid(pid, &st, 0);
  }
  posix_spawn_file_actions_destroy(&fa);
  state.counters["fds"] = static_cast<double>(m.fds.size());
}
void BM_spawn_manyfds(benchmark::State &state) {
  ManyFds m;
  for (auto _ : state) library_once();
  state.counters["fds"] = static_cast<double>(m.fds.size());
}
void BM_manyfds_in_turns(benchmark::State &state) {
  ManyFds m;
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addclosefrom_np(&fa, 3);
  auto peer = [&fa] {
    pid_t pid;
    if (posix_spawn(&pid, g_child.c_str(), &fa, nullptr, child_argv(), environ) != 0) std::abort();
    int st;
    waitpid(pid, &st, 0);
  };
  in_turns(state, g_manyfds, peer, library_once);
  posix_spawn_file_actions_destroy(&fa);
}

// ---------------------------------------- one ended child among 500 running

constexpr int kRunning = 500;
char sleep_prog[] = "/bin/sleep";
char sleep_arg[] = "600";
char *sleep_argv[] = {sleep_prog, sleep_arg, nullptr};

// Waits until the process has ended (a zombie), without reaping it.
void until_zombie(pid_t pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/stat";
  for (;;) {
    std::ifstream f(path);
    if (!f) return;  // gone already
    std::string line;
    std::getline(f, line);
    const size_t close_paren = line.rfind(')');
    if (close_paren != std::string::npos && line.size() > close_paren + 2 && line[close_paren + 2] == 'Z') return;
    std::this_thread::yield();
  }
}

void BM_waitpid_any_of_500(benchmark::State &state) {
  std::vector<pid_t> running;
  for (int i = 0; i < kRunning; ++i) {
    pid_t pid;
    if (posix_spawn(&pid, sleep_prog, nullptr, nullptr, sleep_argv, environ) == 0) running.push_back(pid);
  }
  for (auto _ : state) {
    pid_t pid;
    if (posix_spawn(&pid, g_child.c_str(), nullptr, nullptr, child_argv(), environ) != 0) {
      state.SkipWithError("posix_spawn failed");
      break;
    }
    until_zombie(pid);
    const auto t0 = std::chrono::steady_clock::now();
    int st;
    waitpid(-1, &st, 0);
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
  }
  for (pid_t p : running) libc_kill(p, SIGKILL);
  for (pid_t p : running) waitpid(p, nullptr, 0);
}

void BM_waitchild_any_of_500(benchmark::State &state) {
  std::vector<int> running;
  for (int i = 0; i < kRunning; ++i) {
    const int pid = spawn(0, sleep_argv, nullptr, nullptr, nullptr);
    if (pid > 0) running.push_back(pid);
  }
  for (auto _ : state) {
    const int pid = spawn(0, child_argv(), nullptr, nullptr, nullptr);
    if (pid <= 0) {
      state.SkipWithError("spawn failed");
      break;
    }
    until_zombie(pid);
    const auto t0 = std::chrono::steady_clock::now();
    waitchild(-1, nullptr, 0);
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
  }
  kill(0, 9);
  for (size_t i = 0; i < running.size(); ++i) waitchild(-1, nullptr, 0);
}

// ------------------------------------------------------ command streams

void read_and_close(FILE *fp, int (*close_fn)(FILE *)) {
  char buf[64];
  while (std::fread(buf, 1, sizeof buf, fp) > 0) {
  }
  close_fn(fp);
}

void BM_libc_popen(benchmark::State &state) {
  for (auto _ : state) read_and_close(libc_popen("echo x", "r"), libc_pclose);
}
void BM_popen(benchmark::State &state) {
  for (auto _ : state) read_and_close(popen("echo x", "r"), [](FILE *f) { return pclose(f); });
}
void BM_popen_in_turns(benchmark::State &state) {
  in_turns(
      state, g_popen, [] { read_and_close(libc_popen("echo x", "r"), libc_pclose); },
      [] { read_and_close(popen("echo x", "r"), [](FILE *f) { return pclose(f); }); });
}

// ------------------------------------------------- two threads spawning

void BM_posix_spawn_2threads(benchmark::State &state) {
  for (auto _ : state) native_once();
}
void BM_spawn_2threads(benchmark::State &state) {
  for (auto _ : state) library_once();
}

BENCHMARK(BM_posix_spawn)->UseRealTime();
BENCHMARK(BM_spawn)->UseRealTime();
BENCHMARK(BM_spawn_in_turns)->UseRealTime()->MinTime(4.0);
BENCHMARK(BM_posix_spawn_big)->UseRealTime();
BENCHMARK(BM_spawn_big)->UseRealTime();
BENCHMARK(BM_big_in_turns)->UseRealTime()->MinTime(3.0);
BENCHMARK(BM_fork_big)->UseRealTime();
BENCHMARK(BM_posix_spawn_closefrom)->UseRealTime();
BENCHMARK(BM_spawn_manyfds)->UseRealTime();
BENCHMARK(BM_manyfds_in_turns)->UseRealTime()->MinTime(3.0);
BENCHMARK(BM_waitpid_any_of_500)->UseManualTime()->Iterations(300);
BENCHMARK(BM_waitchild_any_of_500)->UseManualTime()->Iterations(300);
BENCHMARK(BM_libc_popen)->UseRealTime();
BENCHMARK(BM_popen)->UseRealTime();
BENCHMARK(BM_popen_in_turns)->UseRealTime()->MinTime(3.0);
BENCHMARK(BM_posix_spawn_2threads)->Threads(2)->UseRealTime();
BENCHMARK(BM_spawn_2threads)->Threads(2)->UseRealTime();
BENCHMARK(BM_2threads_in_turns)->UseRealTime()->Iterations(2);

void print_ratios(const llbench::Results &t) {
  auto ratio = [&](const char *a, const char *b) {
    const double x = llbench::time_of(t, a), y = llbench::time_of(t, b);
    return x > 0 && y > 0 ? x / y : 0.0;
  };
  auto line = [](const char *what, const Turns &r, const char *peer, const char *goal, double separate) {
    std::printf("ratio %-30s %.2fx the %s in turns (goal %s; middle half of the blocks %.2f-%.2fx;"
                " separate runs %.2fx)\n",
                what, r.median, peer, goal, r.lo, r.hi, separate);
  };
  line("spawn+waitchild", g_plain, "time of posix_spawn+waitpid", "<= 1.1x", ratio("BM_spawn/", "BM_posix_spawn/"));
  line("spawn+waitchild, 1 GiB heap", g_big, "time of posix_spawn+waitpid", "<= 1.15x",
       ratio("BM_spawn_big", "BM_posix_spawn_big"));
  std::printf("ratio %-30s %.1fx the time of posix_spawn+waitpid\n", "fork+exec, 1 GiB heap",
              ratio("BM_fork_big", "BM_posix_spawn_big"));
  line("spawn+waitchild, 10000 fds", g_manyfds, "time of posix_spawn+closefrom", "<= 1.15x",
       ratio("BM_spawn_manyfds", "BM_posix_spawn_closefrom"));
  std::printf("ratio %-30s %.2fx the time of waitpid(-1) (goal <= 2x)\n", "waitchild(-1) among 500",
              ratio("BM_waitchild_any_of_500", "BM_waitpid_any_of_500"));
  line("popen+read+pclose", g_popen, "time of the C library's", "<= 1.1x", ratio("BM_popen/", "BM_libc_popen/"));
  line("two threads spawning", g_threads, "throughput of posix_spawn", ">= 0.8x",
       ratio("BM_posix_spawn_2threads", "BM_spawn_2threads"));
}

}  // namespace

int main(int argc, char **argv) {
  qzinit("bench_spawn");
  // The tiny static child is built next to this program.
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return 1;
  self[n] = 0;
  g_child = std::string(self);
  g_child = g_child.substr(0, g_child.rfind('/') + 1) + "bench_spawn_child";
  if (access(g_child.c_str(), X_OK) != 0) {
    std::fprintf(stderr, "bench_spawn: %s is missing\n", g_child.c_str());
    return 1;
  }
  return llbench::run(argc, argv, print_ratios);
}
