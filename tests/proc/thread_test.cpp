// Threads, mutexes and condition variables: the behaviour callers rely on.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>

#include "lltest.h"
#include <liblocal/frame.h>
#include <liblocal/thread.h>

extern "C" void llt_thr_fail_step(int step);

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

long long ms_since(Clock::time_point t0) {
  return std::chrono::duration_cast<milliseconds>(Clock::now() - t0).count();
}
void *ptr(uintptr_t v) { return reinterpret_cast<void *>(v); }
void nap(int ms) { std::this_thread::sleep_for(milliseconds(ms)); }

qz_thr_t *start(qz_thr_func fn, void *arg = nullptr) {
  qz_thr_t *t = nullptr;
  EXPECT_EQ(qz_thr_create(&t, fn, arg), 1);
  return t;
}
uint32_t wait_status(qz_thr_t *t) {
  uint32_t st = 0xFFFFFFFFu;
  int nowait = 0;
  EXPECT_EQ(qz_thr_wait(t, &st, &nowait), 1);
  return st;
}

// A second thread that tries to lock the mutex; tells whether it got it.
class LockProbe {
 public:
  explicit LockProbe(qz_mtx_t *m) : t_([this, m] { got_ = qz_mtx_lock(m) == 1 && qz_mtx_unlock(m) == 1; }) {}
  ~LockProbe() { t_.join(); }
  bool got_within(int ms) {
    for (const auto t0 = Clock::now(); !got_ && ms_since(t0) < ms;) nap(5);
    return got_;
  }

 private:
  std::atomic<bool> got_{false};
  std::thread t_;
};

// A per-thread area whose destruction is counted.
std::atomic<int> g_area_dtors{0};
void *counted_area(qz_area_dtor *out) {
  *out = [](void *) { ++g_area_dtors; };
  static int dummy;
  return &dummy;
}

struct Gate {  // a flag and a condition to wait for it
  qz_mtx_t *m = nullptr;
  qz_cond_t *c = nullptr;
  int open = 0;
  Gate() { EXPECT_TRUE(qz_mtx_create(&m) && qz_cond_create(&c)); }
  ~Gate() { EXPECT_TRUE(qz_cond_destroy(c) && qz_mtx_destroy(m)); }
  void wait_open() {
    qz_mtx_lock(m);
    while (!open) qz_cond_wait(c, m);
    qz_mtx_unlock(m);
  }
  void set_open() {
    qz_mtx_lock(m);
    open = 1;
    qz_mtx_unlock(m);
    qz_cond_signal(c);
  }
};

void *lock_arg(void *m) { return ptr(qz_mtx_lock(static_cast<qz_mtx_t *>(m))); }
void *lock_arg_and_exit(void *m) {
  qz_mtx_lock(static_cast<qz_mtx_t *>(m));
  qz_thr_exit(3);
  return nullptr;
}
void *wait_gate(void *g) {
  static_cast<Gate *>(g)->wait_open();
  return ptr(7);
}
void *use_area_and_return(void *) {
  T_GetDataAreaPtr(counted_area);
  return ptr(11);
}
void *use_area_and_exit(void *) {
  T_GetDataAreaPtr(counted_area);
  qz_thr_exit(42);
  return ptr(1);  // not reached
}

TEST(ThreadApi, BadInputAnswersZero) {
  qz_mtx_t *m;
  qz_cond_t *c;
  ASSERT_TRUE(qz_mtx_create(&m) && qz_cond_create(&c));
  int nowait = 0;
  uint32_t st;
  EXPECT_EQ(qz_mtx_create(nullptr) + qz_mtx_lock(nullptr) + qz_mtx_unlock(nullptr) + qz_mtx_destroy(nullptr), 0);
  EXPECT_EQ(qz_cond_create(nullptr) + qz_cond_signal(nullptr) + qz_cond_destroy(nullptr), 0);
  EXPECT_EQ(qz_cond_wait(nullptr, m) + qz_cond_wait(c, nullptr) + qz_cond_timedwait(nullptr, m, nullptr), 0);
  EXPECT_EQ(qz_thr_create(nullptr, nullptr, nullptr) + qz_thr_kill(nullptr, 1) + qz_thr_destroy(nullptr), 0);
  EXPECT_EQ(qz_thr_wait(nullptr, &st, &nowait), 0);
  // Destroy recognises records that are gone, and records of another kind.
  EXPECT_EQ(qz_cond_destroy(reinterpret_cast<qz_cond_t *>(m)), 0);
  EXPECT_EQ(qz_thr_destroy(reinterpret_cast<qz_thr_t *>(c)), 0);
  EXPECT_EQ(qz_cond_destroy(c), 1);
  EXPECT_EQ(qz_cond_destroy(c), 0);
  EXPECT_EQ(qz_mtx_destroy(m), 1);
  EXPECT_EQ(qz_mtx_destroy(m), 0);
  qz_thr_t *t = start(nullptr);  // no function: status 0
  EXPECT_EQ(qz_thr_wait(t, &st, nullptr), 0);
  EXPECT_EQ(wait_status(t), 0u);
  EXPECT_EQ(qz_thr_destroy(t), 1);
  EXPECT_EQ(qz_thr_destroy(t), 0);
}

// ------------------------------------------------------------------ mutexes

TEST(Mutex, RecursiveAndExcludesOthersUntilFullyUnlocked) {
  qz_mtx_t *m;
  ASSERT_EQ(qz_mtx_create(&m), 1);
  ASSERT_TRUE(qz_mtx_lock(m) && qz_mtx_lock(m));
  {
    LockProbe probe(m);
    EXPECT_FALSE(probe.got_within(100));
    EXPECT_EQ(qz_mtx_unlock(m), 1);
    EXPECT_FALSE(probe.got_within(100));  // still held once
    EXPECT_EQ(qz_mtx_unlock(m), 1);
    EXPECT_TRUE(probe.got_within(10000));
  }
  EXPECT_EQ(qz_mtx_destroy(m), 1);
}

TEST(Mutex, UnlockByNonOwnerAnswersOneAndLeavesItHeld) {
  qz_mtx_t *m;
  ASSERT_EQ(qz_mtx_create(&m), 1);
  EXPECT_EQ(qz_mtx_unlock(m), 1);  // not held at all
  ASSERT_EQ(qz_mtx_lock(m), 1);
  int other = -1;
  std::thread([&] { other = qz_mtx_unlock(m); }).join();
  EXPECT_EQ(other, 1);
  {
    LockProbe probe(m);
    EXPECT_FALSE(probe.got_within(100));
    EXPECT_EQ(qz_mtx_unlock(m), 1);
    EXPECT_TRUE(probe.got_within(10000));
  }
  EXPECT_EQ(qz_mtx_destroy(m), 1);
}

TEST(Mutex, AbandonedByEndedThreadIsAcquired) {
  qz_mtx_t *m;
  ASSERT_EQ(qz_mtx_create(&m), 1);
  qz_thr_t *t = start(lock_arg, m);  // ends by returning
  EXPECT_EQ(wait_status(t), 1u);
  EXPECT_EQ(qz_thr_destroy(t), 1);
  std::thread([m] {  // a thread the library did not start
    qz_mtx_lock(m);
    qz_mtx_lock(m);
  }).join();
  EXPECT_TRUE(LockProbe(m).got_within(10000));
  t = start(lock_arg_and_exit, m);
  EXPECT_EQ(wait_status(t), 3u);
  EXPECT_EQ(qz_thr_destroy(t), 1);
  EXPECT_TRUE(qz_mtx_lock(m) && qz_mtx_unlock(m));
  EXPECT_EQ(qz_mtx_destroy(m), 1);
}

// ------------------------------------------------------- condition variables

TEST(Cond, ShortIntervalsReturnAtOnceHoldingTheMutexAndSignalsAreNotKept) {
  errno = 4321;  // left alone by every call here
  Gate g;
  EXPECT_TRUE(qz_cond_signal(g.c) && qz_cond_signal(g.c));  // no waiter: lost
  qz_mtx_lock(g.m);
  const qz_timespec_t zero{0, 0}, under_a_ms{0, 999999}, negative{-1, 0}, neg_nsec{0, -5000000}, tenth{0, 100000000};
  EXPECT_EQ(qz_cond_timedwait(g.c, g.m, &tenth), 0);
  const auto t0 = Clock::now();
  EXPECT_EQ(qz_cond_timedwait(g.c, g.m, &zero), 0);
  EXPECT_EQ(qz_cond_timedwait(g.c, g.m, &under_a_ms), 0);  // truncated to 0 ms
  EXPECT_EQ(qz_cond_timedwait(g.c, g.m, &negative), 0);
  EXPECT_EQ(qz_cond_timedwait(g.c, g.m, &neg_nsec), 0);
  EXPECT_LE(ms_since(t0), 1000);
  LockProbe probe(g.m);
  EXPECT_FALSE(probe.got_within(100));
  qz_mtx_unlock(g.m);
  EXPECT_TRUE(probe.got_within(10000));
  EXPECT_EQ(errno, 4321);
}

TEST(Cond, IntervalIsRelativeAndTruncatedToMilliseconds) {
  Gate g;
  qz_mtx_lock(g.m);
  const qz_timespec_t iv{1, 999999999};
  const auto t0 = Clock::now();
  EXPECT_EQ(qz_cond_timedwait(g.c, g.m, &iv), 0);
  const long long took = ms_since(t0);
  EXPECT_GE(took, lltest::kWindows ? 1999 - 20 : 1999 - 1);
  EXPECT_LE(took, 1999 + 1500);
  qz_mtx_unlock(g.m);
}

TEST(Cond, TimedWaitWokenBySignalAndHugeIntervalStillWaits) {
  Gate g;
  std::atomic<int> result{-1};
  std::atomic<bool> waiting{false};
  std::thread waiter([&] {
    qz_mtx_lock(g.m);
    waiting = true;
    const qz_timespec_t huge{INT32_MAX, 999999999};
    int r = 0;
    while (!g.open) r = qz_cond_timedwait(g.c, g.m, &huge);
    result = r;
    qz_mtx_unlock(g.m);
  });
  while (!waiting) nap(1);
  nap(100);
  EXPECT_EQ(result.load(), -1);  // a huge interval is not taken for "no wait"
  g.set_open();
  waiter.join();
  EXPECT_EQ(result.load(), 1);
}

TEST(Cond, EachSignalWakesExactlyOneWaiter) {
  constexpr int kWaiters = 4;
  Gate g;
  int inside = 0;
  std::atomic<int> woken{0};
  std::thread ts[kWaiters];
  for (auto &t : ts)
    t = std::thread([&] {
      qz_mtx_lock(g.m);
      ++inside;
      qz_cond_wait(g.c, g.m);  // no predicate: count raw wake-ups
      ++woken;
      qz_mtx_unlock(g.m);
    });
  // A waiter counts itself before it lets the mutex go, so once all are
  // inside and the mutex is free, every one of them is a waiter.
  for (int n = 0; n < kWaiters; nap(2)) {
    qz_mtx_lock(g.m);
    n = inside;
    qz_mtx_unlock(g.m);
  }
  for (int i = 1; i <= kWaiters; ++i) {
    EXPECT_EQ(qz_cond_signal(g.c), 1);
    for (const auto t0 = Clock::now(); woken < i && ms_since(t0) < 10000;) nap(1);
    nap(100);
    EXPECT_EQ(woken.load(), i);
  }
  for (auto &t : ts) t.join();
}

// ------------------------------------------------------------------ threads

TEST(Thread, WaitDeliversTheFunctionsResult) {
  errno = 4321;  // left alone by every call here
  uint32_t tid_inside = 0;
  qz_thr_t *t = start(
      [](void *a) -> void * {
        *static_cast<uint32_t *>(a) = qz_thr_getid();
        return ptr(0x1234);
      },
      &tid_inside);
  EXPECT_EQ(wait_status(t), 0x1234u);
  EXPECT_EQ(qz_thr_idsequal(tid_inside, qz_thr_getid()), 0);
  EXPECT_EQ(qz_thr_idsequal(tid_inside, tid_inside), 1);
  // Once ended, a wait without blocking keeps the flag set and gives the status.
  int nowait = 1;
  uint32_t st = 0;
  EXPECT_EQ(qz_thr_wait(t, &st, &nowait), 1);
  EXPECT_EQ(nowait, 1);
  EXPECT_EQ(st, 0x1234u);
  EXPECT_EQ(qz_thr_destroy(t), 1);
  EXPECT_EQ(errno, 4321);
}

TEST(Thread, FailedCreateRollsBackAndStoresNull) {
  for (int step = 1; step <= 4; ++step) {
    llt_thr_fail_step(step);
    qz_thr_t *t = reinterpret_cast<qz_thr_t *>(&step);
    EXPECT_EQ(qz_thr_create(&t, nullptr, nullptr), 0) << "step " << step;
    EXPECT_EQ(t, nullptr) << "step " << step;
  }
  qz_thr_t *t = start(nullptr);  // the seam is spent
  wait_status(t);
  EXPECT_EQ(qz_thr_destroy(t), 1);
}

TEST(Thread, NoWaitOnRunningThreadClearsFlagWithoutStatus) {
  Gate g;
  qz_thr_t *t = start(wait_gate, &g);
  int nowait = 1;
  uint32_t st = 99;
  EXPECT_EQ(qz_thr_wait(t, &st, &nowait), 1);
  EXPECT_EQ(nowait, 0);
  EXPECT_EQ(st, 99u);
  g.set_open();
  EXPECT_EQ(wait_status(t), 7u);
  EXPECT_EQ(qz_thr_destroy(t), 1);
}

TEST(Thread, PerThreadAreasGoWhenTheThreadEnds) {
  const int before = g_area_dtors.load();
  qz_thr_t *t = start(use_area_and_return);
  EXPECT_EQ(qz_thr_destroy(t), 1);  // the thread has finished once destroy returns
  EXPECT_EQ(g_area_dtors.load(), before + 1);
  // Ended through qz_thr_exit: its status comes from the wait.
  t = start(use_area_and_exit);
  EXPECT_EQ(wait_status(t), 42u);
  EXPECT_EQ(g_area_dtors.load(), before + 2);
  EXPECT_EQ(qz_thr_destroy(t), 1);
}

TEST(Thread, KillRunningThreadEndsItWithThatStatus) {
  Gate never;
  struct Holding {
    Gate g;
    qz_mtx_t *m = nullptr;
  } holding;
  ASSERT_EQ(qz_mtx_create(&holding.m), 1);
  qz_thr_t *blocked = start(
      [](void *a) -> void * {
        auto *g = static_cast<Gate *>(a);
        T_GetDataAreaPtr(counted_area);
        qz_mtx_lock(g->m);
        while (!g->open) qz_cond_wait(g->c, g->m);  // lets the mutex go while waiting
        return ptr(1);
      },
      &never);
  qz_thr_t *sleeping = start(
      [](void *a) -> void * {
        auto *h = static_cast<Holding *>(a);
        qz_mtx_lock(h->m);
        h->g.set_open();
        nap(60000);
        return ptr(1);
      },
      &holding);
  holding.g.wait_open();
  nap(100);
  const int before = g_area_dtors.load();
  const auto t0 = Clock::now();
  EXPECT_EQ(qz_thr_kill(blocked, 17), 1);
  EXPECT_EQ(qz_thr_kill(sleeping, 18), 1);
  EXPECT_LE(ms_since(t0), 10000);
  // The killed thread's areas are released: by the thread itself on its way
  // out (POSIX), or by the killer once Windows has ended it on the spot.
  EXPECT_EQ(g_area_dtors.load(), before + 1);
  uint32_t st = 0;
  int nowait = 1;
  EXPECT_EQ(qz_thr_wait(blocked, &st, &nowait), 1);
  EXPECT_EQ(nowait, 1);
  EXPECT_EQ(st, 17u);
  EXPECT_EQ(wait_status(sleeping), 18u);
  EXPECT_TRUE(qz_thr_destroy(blocked) && qz_thr_destroy(sleeping));
  // The killed waiter had let its mutex go; the sleeper abandoned its own.
  EXPECT_TRUE(LockProbe(never.m).got_within(10000));
  EXPECT_TRUE(LockProbe(holding.m).got_within(10000));
  EXPECT_EQ(qz_mtx_destroy(holding.m), 1);
}

TEST(Thread, KillOfEndedThreadKeepsTheFirstStatus) {
  qz_thr_t *t = start(use_area_and_return);
  EXPECT_EQ(wait_status(t), 11u);
  EXPECT_EQ(qz_thr_kill(t, 99), 1);
  EXPECT_EQ(wait_status(t), 11u);
  EXPECT_EQ(qz_thr_destroy(t), 1);
  // A thread ended through qz_thr_exit has stored nothing: kill's status is
  // the first, and kill lets destroy go on.
  t = start(use_area_and_exit);
  nap(100);
  EXPECT_EQ(qz_thr_kill(t, 9), 1);
  EXPECT_EQ(wait_status(t), 9u);
  EXPECT_EQ(qz_thr_destroy(t), 1);
}

TEST(Thread, DestroyBlocksUntilTheThreadHasFinished) {
  std::atomic<bool> done{false};
  qz_thr_t *t = start(
      [](void *a) -> void * {
        nap(300);
        *static_cast<std::atomic<bool> *>(a) = true;
        return nullptr;
      },
      &done);
  const auto t0 = Clock::now();
  EXPECT_EQ(qz_thr_destroy(t), 1);
  EXPECT_TRUE(done.load());
  EXPECT_GE(ms_since(t0), 250);
}

}  // namespace
