// Bounded stress: many threads started, waited for and killed at once; a
// contended mutex; a producer and a consumer handing items over qz_cond.
// Win32 mutex objects are kernel objects (a server round trip each under
// Wine), so the Windows runs are shorter.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "lltest.h"
#include <liblocal/thread.h>

namespace {

struct Shared {
  qz_mtx_t *m = nullptr;
  qz_cond_t *c = nullptr;
  int stop = 0;
};

// Returns at once, yields first, or waits until stopped or killed.
void *worker(void *a) {
  auto *s = static_cast<Shared *>(a);
  const uint32_t me = qz_thr_getid();
  if (me % 3 == 1) qz_thr_yield();
  if (me % 3 == 2) {
    const qz_timespec_t iv{0, 20000000};
    qz_mtx_lock(s->m);
    while (!s->stop) qz_cond_timedwait(s->c, s->m, &iv);
    qz_mtx_unlock(s->m);
  }
  return reinterpret_cast<void *>(uintptr_t{me});
}

TEST(ThreadStress, SixtyFourThreadsCreateWaitKill) {
  constexpr int kDrivers = 16, kPerDriver = 4;
  const int rounds = lltest::kWindows ? 3 : 8;
  Shared s;
  ASSERT_TRUE(qz_mtx_create(&s.m) && qz_cond_create(&s.c));
  std::atomic<int> failures{0};
  std::vector<std::thread> drivers;
  for (int d = 0; d < kDrivers; ++d)
    drivers.emplace_back([&, d] {
      for (int r = 0; r < rounds; ++r) {
        qz_thr_t *ts[kPerDriver];
        for (auto &t : ts) failures += qz_thr_create(&t, worker, &s) != 1;
        for (int i = 0; i < kPerDriver; ++i) {
          uint32_t st = 0;
          int nowait = 1;
          if ((d + r + i) % 2 == 0) {
            failures += qz_thr_kill(ts[i], 0xDEAD) != 1;
          } else {
            failures += qz_thr_wait(ts[i], &st, &nowait) != 1;
            failures += nowait && st == 0xDEAD;  // ended, yet not by a kill
          }
        }
        for (auto &t : ts) {
          qz_thr_kill(t, 0xDEAD);  // ends the ones still waiting
          failures += qz_thr_destroy(t) != 1;
        }
      }
    });
  for (auto &t : drivers) t.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_TRUE(qz_cond_destroy(s.c) && qz_mtx_destroy(s.m));
}

TEST(ThreadStress, ContendedMutexLosesNoIncrement) {
  constexpr int kThreads = 4;
  const int per = lltest::kWindows ? 1000 : 200000;
  qz_mtx_t *m;
  ASSERT_EQ(qz_mtx_create(&m), 1);
  long counter = 0;
  std::vector<std::thread> ts;
  for (int i = 0; i < kThreads; ++i)
    ts.emplace_back([&] {
      for (int k = 0; k < per; ++k) {
        qz_mtx_lock(m);
        qz_mtx_lock(m);  // recursive
        ++counter;
        qz_mtx_unlock(m);
        qz_mtx_unlock(m);
      }
    });
  for (auto &t : ts) t.join();
  EXPECT_EQ(counter, long{kThreads} * per);
  EXPECT_EQ(qz_mtx_destroy(m), 1);
}

// A bounded queue between one producer and one consumer, each waiting in a
// predicate loop; every item must arrive once and in order.
constexpr int kCap = 64;
struct Queue {
  qz_mtx_t *m;
  qz_cond_t *not_empty, *not_full;
  long buf[kCap];
  int head, count;
  long items;
};

void *produce(void *a) {
  Queue &q = *static_cast<Queue *>(a);
  for (long i = 1; i <= q.items; ++i) {
    qz_mtx_lock(q.m);
    while (q.count == kCap) qz_cond_wait(q.not_full, q.m);
    q.buf[(q.head + q.count++) % kCap] = i;
    qz_mtx_unlock(q.m);
    qz_cond_signal(q.not_empty);
  }
  return nullptr;
}

void *consume(void *a) {
  Queue &q = *static_cast<Queue *>(a);
  long bad = 0;
  for (long expect = 1; expect <= q.items; ++expect) {
    qz_mtx_lock(q.m);
    while (q.count == 0) qz_cond_wait(q.not_empty, q.m);
    const long v = q.buf[q.head];
    q.head = (q.head + 1) % kCap;
    --q.count;
    qz_mtx_unlock(q.m);
    qz_cond_signal(q.not_full);
    bad += v != expect;
  }
  return reinterpret_cast<void *>(bad);
}

TEST(ThreadStress, ProducerConsumerLosesNoItem) {
  Queue q{};
  q.items = lltest::kWindows ? 20000 : 1000000;
  ASSERT_TRUE(qz_mtx_create(&q.m) && qz_cond_create(&q.not_empty) && qz_cond_create(&q.not_full));
  qz_thr_t *producer, *consumer;
  ASSERT_TRUE(qz_thr_create(&producer, produce, &q) && qz_thr_create(&consumer, consume, &q));
  int nowait = 0;
  uint32_t bad = 1;
  ASSERT_TRUE(qz_thr_wait(producer, nullptr, &nowait) && qz_thr_wait(consumer, &bad, &nowait));
  EXPECT_EQ(bad, 0u);  // items out of order or lost
  EXPECT_EQ(q.count, 0);
  EXPECT_TRUE(qz_thr_destroy(producer) && qz_thr_destroy(consumer));
  EXPECT_TRUE(qz_cond_destroy(q.not_empty) && qz_cond_destroy(q.not_full) && qz_mtx_destroy(q.m));
}

}  // namespace
