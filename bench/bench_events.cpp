// Process events against the raw mechanism measured in the same run: the
// time from a signal sent to another process until its handler has answered
// (the library's event thread, against a plain signal handler that wakes a
// thread through a pipe), and quit_now against sched_yield. Prints "ratio"
// lines with the goal of each.
#include "ratio_main.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <liblocal/frame.h>
#include <liblocal/service.h>

namespace {

int g_ack = -1;  // the child's end of the answer pipe
int g_self[2];   // the raw child's own wake-up pipe

void answer() {
  const char b = 1;
  if (write(g_ack, &b, 1) != 1) _exit(3);
}

void library_handler(int) { answer(); }

void raw_signal(int) {
  const int saved = errno;
  const char b = 1;
  if (write(g_self[1], &b, 1) < 0) {
  }
  errno = saved;
}

void *raw_thread(void *) {
  for (;;) {
    char b;
    if (read(g_self[0], &b, 1) == 1) answer();
  }
  return nullptr;
}

// A child that answers every SIGUSR1 on 'ack'; the parent ends it.
struct Peer {
  pid_t pid = -1;
  int ack = -1;
  explicit Peer(bool library) {
    int p[2];
    if (pipe(p) != 0) std::abort();
    pid = fork();
    if (pid == 0) {
      close(p[0]);
      g_ack = p[1];
      if (library) {
        regevent(17, library_handler);
      } else {
        if (pipe(g_self) != 0) _exit(2);
        struct sigaction sa {};
        sa.sa_handler = raw_signal;
        sa.sa_flags = SA_RESTART;
        sigaction(SIGUSR1, &sa, nullptr);
        pthread_t t;
        pthread_create(&t, nullptr, raw_thread, nullptr);
      }
      const char b = 0;
      if (write(g_ack, &b, 1) != 1) _exit(3);  // ready
      for (;;) pause();
    }
    close(p[1]);
    ack = p[0];
    char b;
    if (read(ack, &b, 1) != 1) std::abort();
  }
  ~Peer() {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    close(ack);
  }
  void round_trip() const {
    kill(pid, SIGUSR1);
    char b;
    if (read(ack, &b, 1) != 1) std::abort();
  }
};

void BM_raw_signal_wakeup(benchmark::State &state) {
  Peer peer(false);
  for (auto _ : state) peer.round_trip();
}

// The debug event travels the same way as the kill event (which ends the
// listener after one delivery, so it cannot be repeated in one child).
void BM_event_handler(benchmark::State &state) {
  Peer peer(true);
  for (auto _ : state) peer.round_trip();
}

void BM_sched_yield(benchmark::State &state) {
  for (auto _ : state) sched_yield();
}

void BM_quit_now(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(quit_now());
}

BENCHMARK(BM_raw_signal_wakeup)->UseRealTime();
BENCHMARK(BM_event_handler)->UseRealTime();
BENCHMARK(BM_sched_yield);
BENCHMARK(BM_quit_now);

void print_ratios(const llbench::Results &times) {
  const double h = llbench::time_of(times, "BM_event_handler") / llbench::time_of(times, "BM_raw_signal_wakeup");
  const double q = llbench::time_of(times, "BM_quit_now") / llbench::time_of(times, "BM_sched_yield");
  std::printf("ratio event to handler  %.2fx the time of kill(SIGUSR1) to a pipe wake-up (goal <= 2x)\n", h);
  std::printf("ratio quit_now          %.2fx the time of sched_yield (goal <= 2x)\n", q);
}

}  // namespace

int main(int argc, char **argv) { return llbench::run(argc, argv, print_ratios); }
