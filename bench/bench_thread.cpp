// Threads and synchronisation against the native primitives measured in the
// same run: an uncontended lock+unlock, a ping-pong between two threads over
// condition variables, and a thread's create+wait+destroy. Prints "ratio"
// lines with the goal of each.
#include "ratio_main.h"

#include <cstdio>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <liblocal/frame.h>
#include <liblocal/thread.h>

#ifdef _WIN32
#include "frame/win32/win.h"
#else
#include <pthread.h>
#endif

namespace {

// ------------------------------------------------------------ lock + unlock

void BM_native_mutex(benchmark::State &state) {
#ifdef _WIN32
  CRITICAL_SECTION cs;
  InitializeCriticalSection(&cs);
  for (auto _ : state) {
    EnterCriticalSection(&cs);
    LeaveCriticalSection(&cs);
  }
  DeleteCriticalSection(&cs);
#else
  pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
  for (auto _ : state) {
    pthread_mutex_lock(&m);
    pthread_mutex_unlock(&m);
  }
#endif
}

void BM_qz_mtx(benchmark::State &state) {
  qz_mtx_t *m;
  qz_mtx_create(&m);
  for (auto _ : state) {
    qz_mtx_lock(m);
    qz_mtx_unlock(m);
  }
  qz_mtx_destroy(m);
}

// ---------------------------------------------------------------- ping-pong
// Two threads take turns; one iteration is one round trip.

#ifdef _WIN32
struct NativePingPong {
  CRITICAL_SECTION cs;
  CONDITION_VARIABLE cv[2];
  int turn = 0;
  bool stop = false;
  NativePingPong() {
    InitializeCriticalSection(&cs);
    InitializeConditionVariable(&cv[0]);
    InitializeConditionVariable(&cv[1]);
  }
  ~NativePingPong() { DeleteCriticalSection(&cs); }
  void lock() { EnterCriticalSection(&cs); }
  void unlock() { LeaveCriticalSection(&cs); }
  void wait(int i) { SleepConditionVariableCS(&cv[i], &cs, INFINITE); }
  void signal(int i) { WakeConditionVariable(&cv[i]); }
};
#else
struct NativePingPong {
  pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t cv[2] = {PTHREAD_COND_INITIALIZER, PTHREAD_COND_INITIALIZER};
  int turn = 0;
  bool stop = false;
  void lock() { pthread_mutex_lock(&m); }
  void unlock() { pthread_mutex_unlock(&m); }
  void wait(int i) { pthread_cond_wait(&cv[i], &m); }
  void signal(int i) { pthread_cond_signal(&cv[i]); }
};
#endif

struct QzPingPong {
  qz_mtx_t *m;
  qz_cond_t *cv[2];
  int turn = 0;
  bool stop = false;
  QzPingPong() {
    qz_mtx_create(&m);
    qz_cond_create(&cv[0]);
    qz_cond_create(&cv[1]);
  }
  ~QzPingPong() {
    qz_cond_destroy(cv[0]);
    qz_cond_destroy(cv[1]);
    qz_mtx_destroy(m);
  }
  void lock() { qz_mtx_lock(m); }
  void unlock() { qz_mtx_unlock(m); }
  void wait(int i) { qz_cond_wait(cv[i], m); }
  void signal(int i) { qz_cond_signal(cv[i]); }
};

// Hands the turn to 'to' and waits until it comes back to 'me'.
template <class P> bool hand_over(P &p, int me, int to) {
  p.lock();
  p.turn = to;
  p.unlock();
  p.signal(to);
  p.lock();
  while (p.turn != me && !p.stop) p.wait(me);
  const bool stop = p.stop;
  p.unlock();
  return !stop;
}

template <class P> void ping_pong(benchmark::State &state) {
  P p;
  std::thread partner([&] {
    p.lock();
    while (p.turn != 1 && !p.stop) p.wait(1);
    p.unlock();
    while (hand_over(p, 1, 0)) {
    }
  });
  for (auto _ : state) hand_over(p, 0, 1);
  p.lock();
  p.stop = true;
  p.turn = 1;
  p.unlock();
  p.signal(1);
  partner.join();
}

void BM_native_pingpong(benchmark::State &state) { ping_pong<NativePingPong>(state); }
void BM_qz_cond_pingpong(benchmark::State &state) { ping_pong<QzPingPong>(state); }

// ------------------------------------------------------ create + wait + end

#ifdef _WIN32
DWORD WINAPI native_body(void *) { return 0; }
#else
void *native_body(void *) { return nullptr; }
#endif

void BM_native_thread(benchmark::State &state) {
  for (auto _ : state) {
#ifdef _WIN32
    HANDLE h = CreateThread(nullptr, 0, native_body, nullptr, 0, nullptr);
    WaitForSingleObject(h, INFINITE);
    CloseHandle(h);
#else
    pthread_t t;
    pthread_create(&t, nullptr, native_body, nullptr);
    pthread_join(t, nullptr);
#endif
  }
}

void BM_qz_thread(benchmark::State &state) {
  for (auto _ : state) {
    qz_thr_t *t;
    qz_thr_create(&t, [](void *) -> void * { return nullptr; }, nullptr);
    int nowait = 0;
    qz_thr_wait(t, nullptr, &nowait);
    qz_thr_destroy(t);
  }
}

BENCHMARK(BM_native_mutex);
BENCHMARK(BM_qz_mtx);
BENCHMARK(BM_native_pingpong)->UseRealTime();
BENCHMARK(BM_qz_cond_pingpong)->UseRealTime();
BENCHMARK(BM_native_thread)->UseRealTime();
BENCHMARK(BM_qz_thread)->UseRealTime();

void print_ratios(const llbench::Results &times) {
#ifdef _WIN32
  const char *mtx = "CRITICAL_SECTION", *cv = "CONDITION_VARIABLE", *thr = "CreateThread+Wait";
#else
  const char *mtx = "pthread_mutex", *cv = "pthread_cond", *thr = "pthread_create+join";
#endif
  const double m = llbench::time_of(times, "BM_qz_mtx") / llbench::time_of(times, "BM_native_mutex");
  const double p = llbench::time_of(times, "BM_native_pingpong") / llbench::time_of(times, "BM_qz_cond_pingpong");
  const double t = llbench::time_of(times, "BM_qz_thread") / llbench::time_of(times, "BM_native_thread");
  std::printf("ratio qz_mtx_lock+unlock        %.2fx the time of %s (goal <= 1.5x)\n", m, mtx);
  std::printf("ratio qz_cond ping-pong         %.2fx the round trips of %s (goal >= 0.7x)\n", p, cv);
  std::printf("ratio qz_thr_create+wait+destroy %.2fx the time of %s (goal <= 1.5x)\n", t, thr);
}

}  // namespace

int main(int argc, char **argv) {
  qzinit("bench_thread");
  // The C library takes its mutexes without a bus lock for as long as the
  // process has never had a second thread. A process using this library
  // always has one (the process-event listener), so measure both sides in
  // that state.
  std::thread([] {}).join();
  return llbench::run(argc, argv, print_ratios);
}
