// Bounded stress: many threads started, waited for and killed at once; a
// contended mutex; a producer and a consumer handing items over qz_cond.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "lltest.h"
#include <liblocal/thread.h>

namespace {

// Win32 mutex objects are kernel objects (a server round trip each under
// Wine): fewer rounds there.
constexpr int kScale = lltest::kWindows ? 50 : 1;

struct Shared {
  qz_mtx_t *m = nullptr;
  qz_cond_t *c = nullptr;
  int stop = 0;
};

void *worker(void *a) {
  auto *s = static_cast<Shared *>(a);
  const uint32_t me = qz_thr_getid();
  switch (me % 3) {
    case 0:
      return reinterpret_cast<void *>(uintptr_t{me});
    case 1:
      qz_thr_yield();
      return reinterpret_cast<void *>(uintptr_t{me});
    default: {  // blocks until told to stop, or killed
      qz_mtx_lock(s->m);
      const qz_timespec_t iv{0, 20000000};
      while (!s->stop) qz_cond_timedwait(s->c, s->m, &iv);
      qz_mtx_unlock(s->m);
      return reinterpret_cast<void *>(uintptr_t{me});
    }
  }
}

TEST(ThreadStress, SixtyFourThreadsCreateWaitKill) {
  constexpr int kDrivers = 16, kPerDriver = 4;
  const int rounds = lltest::kWindows ? 3 : 8;
  Shared s;
  ASSERT_EQ(qz_mtx_create(&s.m), 1);
  ASSERT_EQ(qz_cond_create(&s.c), 1);
  std::atomic<int> failures{0}, killed{0}, waited{0};
  std::vector<std::thread> drivers;
  for (int d = 0; d < kDrivers; ++d)
    drivers.emplace_back([&, d] {
      for (int r = 0; r < rounds; ++r) {
        qz_thr_t *ts[kPerDriver];
        for (auto &t : ts)
          if (qz_thr_create(&t, worker, &s) != 1) ++failures;
        for (int i = 0; i < kPerDriver; ++i) {
          uint32_t st = 0;
          int nowait = 1;
          if ((d + r + i) % 2 == 0) {
            if (qz_thr_kill(ts[i], 0xDEAD) != 1) ++failures;
            ++killed;
          } else {
            // Not waiting for the blocked kind: they are killed or stopped below.
            if (qz_thr_wait(ts[i], &st, &nowait) != 1) ++failures;
            if (nowait && st == 0xDEAD) ++failures;
            ++waited;
          }
        }
        for (auto &t : ts) {
          qz_thr_kill(t, 0xDEAD);  // ends the ones still blocked
          if (qz_thr_destroy(t) != 1) ++failures;
        }
      }
    });
  for (auto &t : drivers) t.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(killed + waited, kDrivers * kPerDriver * rounds);
  EXPECT_EQ(qz_cond_destroy(s.c), 1);
  EXPECT_EQ(qz_mtx_destroy(s.m), 1);
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

// Bounded queue between one producer and one consumer, each waiting in a
// predicate loop; every item arrives once and in order.
TEST(ThreadStress, ProducerConsumerLosesNoItem) {
  const long kItems = 1000000 / kScale;
  constexpr int kCap = 64;
  struct Queue {
    qz_mtx_t *m;
    qz_cond_t *not_empty, *not_full;
    long buf[kCap];
    int head = 0, count = 0;
  } q{};
  ASSERT_EQ(qz_mtx_create(&q.m), 1);
  ASSERT_EQ(qz_cond_create(&q.not_empty), 1);
  ASSERT_EQ(qz_cond_create(&q.not_full), 1);

  struct Args {
    Queue *q;
    long items;
  } args{&q, kItems};

  qz_thr_t *producer, *consumer;
  ASSERT_EQ(qz_thr_create(
                &producer,
                [](void *a) -> void * {
                  auto *x = static_cast<Args *>(a);
                  Queue &q = *x->q;
                  for (long i = 1; i <= x->items; ++i) {
                    qz_mtx_lock(q.m);
                    while (q.count == kCap) qz_cond_wait(q.not_full, q.m);
                    q.buf[(q.head + q.count) % kCap] = i;
                    ++q.count;
                    qz_mtx_unlock(q.m);
                    qz_cond_signal(q.not_empty);
                  }
                  return nullptr;
                },
                &args),
            1);
  ASSERT_EQ(qz_thr_create(
                &consumer,
                [](void *a) -> void * {
                  auto *x = static_cast<Args *>(a);
                  Queue &q = *x->q;
                  long expect = 1, bad = 0;
                  while (expect <= x->items) {
                    qz_mtx_lock(q.m);
                    while (q.count == 0) qz_cond_wait(q.not_empty, q.m);
                    const long v = q.buf[q.head];
                    q.head = (q.head + 1) % kCap;
                    --q.count;
                    qz_mtx_unlock(q.m);
                    qz_cond_signal(q.not_full);
                    bad += v != expect++;
                  }
                  return reinterpret_cast<void *>(bad);
                },
                &args),
            1);
  int nowait = 0;
  uint32_t st = 1;
  ASSERT_EQ(qz_thr_wait(producer, nullptr, &nowait), 1);
  ASSERT_EQ(qz_thr_wait(consumer, &st, &nowait), 1);
  EXPECT_EQ(st, 0u);  // items out of order or lost
  EXPECT_EQ(q.count, 0);
  EXPECT_EQ(qz_thr_destroy(producer), 1);
  EXPECT_EQ(qz_thr_destroy(consumer), 1);
  EXPECT_EQ(qz_cond_destroy(q.not_empty), 1);
  EXPECT_EQ(qz_cond_destroy(q.not_full), 1);
  EXPECT_EQ(qz_mtx_destroy(q.m), 1);
}

}  // namespace
