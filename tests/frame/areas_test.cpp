// The data-area registry: creation, sequence numbers, the per-thread cache,
// teardown order for a thread and for the process.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <liblocal.h>

#include "lltest.h"

extern "C" int llt_area_seq(qz_area_init init, int per_process);
extern "C" int llt_registry_count(void);

namespace {

// A family of initialisers whose destructors record the order they ran in.
// Kept alive past static destruction: per-process areas of this kind are
// destroyed at library detach, after the program's own statics.
std::string &g_log = *new std::string;
template <int N> void dtor_n(void *a) {
  g_log += std::to_string(N);
  std::free(a);
}
template <int N> void *init_n(qz_area_dtor *out) {
  *out = dtor_n<N>;
  auto *p = static_cast<int *>(std::calloc(1, sizeof(int)));
  *p = N;
  return p;
}
// An initialiser that leaves the destructor null: the area goes with free().
void *init_plain(qz_area_dtor *) { return std::calloc(1, 16); }

}  // namespace

TEST(DataAreas, EachThreadHasItsOwnAreaAndSharesTheProcessOne) {
  void *t1 = T_GetDataAreaPtr(init_n<1>), *p1 = P_GetDataAreaPtr(init_n<1>);
  EXPECT_EQ(T_GetDataAreaPtr(init_n<1>), t1);
  EXPECT_NE(p1, t1);  // per-process and per-thread areas of one kind are distinct
  std::atomic<int> bad{0};
  std::vector<std::thread> ts;
  for (int i = 0; i < 16; ++i)
    ts.emplace_back([&bad, i, t1, p1] {
      for (int k = 0; k < 200; ++k) {
        auto *a = static_cast<int *>(T_GetDataAreaPtr(init_n<1>));
        if (k == 0) *a = i + 100;
        bad += *a != i + 100 || a == t1 || P_GetDataAreaPtr(init_n<1>) != p1;
      }
      T_threadexit();
    });
  for (auto &t : ts) t.join();
  EXPECT_EQ(bad.load(), 0);
  T_threadexit();
}

// Threads that make the same per-process area at once all get one area; the
// copies made meanwhile are destroyed. The initialiser sleeps, so the
// threads really meet there.
std::atomic<int> g_race_made{0}, g_race_freed{0};
void *race_init(qz_area_dtor *dtor) {
  ++g_race_made;
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  *dtor = [](void *p) {
    ++g_race_freed;
    std::free(p);
  };
  return std::calloc(1, 8);
}

TEST(DataAreas, ThreadsMakingOneProcessAreaAtOnceShareIt) {
  std::vector<std::thread> threads;
  void *seen[8] = {};
  for (int i = 0; i < 8; ++i) threads.emplace_back([&, i] { seen[i] = P_GetDataAreaPtr(race_init); });
  for (auto &t : threads) t.join();
  for (void *p : seen) EXPECT_EQ(p, seen[0]);
  EXPECT_EQ(P_GetDataAreaPtr(race_init), seen[0]);
  EXPECT_EQ(g_race_freed.load(), g_race_made.load() - 1);
}

TEST(DataAreas, ThreadExitDestroysInReverseCreationOrder) {
  std::thread th([] {
    g_log.clear();
    T_GetDataAreaPtr(init_n<1>);
    T_GetDataAreaPtr(init_n<2>);
    T_GetDataAreaPtr(init_n<3>);
    EXPECT_EQ(llt_area_seq(init_n<1>, 0), 1);
    EXPECT_EQ(llt_area_seq(init_n<3>, 0), 3);
    T_GetDataAreaPtr(init_plain);
    T_threadexit();
    EXPECT_EQ(g_log, "321");
    // After the teardown the thread starts over with fresh areas.
    EXPECT_EQ(llt_area_seq(init_n<1>, 0), 0);
    EXPECT_EQ(*static_cast<int *>(T_GetDataAreaPtr(init_n<2>)), 2);
    EXPECT_EQ(llt_area_seq(init_n<2>, 0), 1);
    T_threadexit();
  });
  th.join();
  // A thread that never had an area leaves no entry behind.
  const int before = llt_registry_count();
  std::thread([] { T_threadexit(); }).join();
  EXPECT_EQ(llt_registry_count(), before);
}

TEST(DataAreas, CachedHitsFollowTeardownAndReuse) {
  // A hit served from the lookup cache must never outlive its area.
  std::thread th([] {
    for (int round = 0; round < 50; ++round) {
      auto *a = static_cast<int *>(T_GetDataAreaPtr(init_n<4>));
      EXPECT_EQ(*a, 4);
      *a = 40 + round;
      EXPECT_EQ(*static_cast<int *>(T_GetDataAreaPtr(init_n<4>)), 40 + round);
      T_threadexit();
      EXPECT_EQ(*static_cast<int *>(T_GetDataAreaPtr(init_n<4>)), 4);  // fresh, not the cached old one
      T_threadexit();
    }
  });
  th.join();
}

TEST(DataAreas, LibraryAreasBehindTheExportedPointer) {
  qzinit("areas");
  ASSERT_NE(Global_liblocal_p_varp, nullptr);
  EXPECT_EQ(P_GetDataAreaPtr(get_liblocal_p_init()), Global_liblocal_p_varp);
  EXPECT_NE(T_GetDataAreaPtr(get_liblocal_t_init()), nullptr);
}

// Sequence numbers in a fresh process: the first per-process area is 1, a
// later per-thread area of a thread that has none is 1 too, and per-process
// numbers keep climbing above every entry of the process.
LLTEST_CHILD(sequence_numbers) {
  P_GetDataAreaPtr(init_n<1>);
  int p1 = llt_area_seq(init_n<1>, 1);
  T_GetDataAreaPtr(init_n<2>);
  T_GetDataAreaPtr(init_n<3>);
  int t2 = llt_area_seq(init_n<2>, 0), t3 = llt_area_seq(init_n<3>, 0);
  int other = 0;
  std::thread([&] {
    T_GetDataAreaPtr(init_n<2>);
    other = llt_area_seq(init_n<2>, 0);
    T_threadexit();
  }).join();
  P_GetDataAreaPtr(init_n<4>);
  int p4 = llt_area_seq(init_n<4>, 1);
  std::printf("%d %d %d %d %d\n", p1, t2, t3, other, p4);
  return 0;
}

TEST(DataAreas, SequenceNumbersInAFreshProcess) {
  EXPECT_EQ(lltest::run_child("sequence_numbers").out, "1 1 2 1 3\n");
}

// Process teardown: every area of the process, per-process and per-thread,
// from the highest sequence number down, at library detach or (with
// set_use_atexit(1) before the first area) from the exit handler.
void say_dtor(void *a) {
  std::printf("%s;", static_cast<const char *>(a));
  std::fflush(stdout);
}
template <int N> void *say_init(qz_area_dtor *out) {
  static const char *names[] = {"a", "b", "t", "c"};
  *out = say_dtor;
  return const_cast<char *>(names[N]);
}

LLTEST_CHILD(process_teardown) {
  if (argc > 0 && std::string(argv[0]) == "atexit") set_use_atexit(1);
  P_GetDataAreaPtr(say_init<0>);  // 1
  P_GetDataAreaPtr(say_init<1>);  // 2
  T_GetDataAreaPtr(say_init<2>);  // 1: the thread's first
  P_GetDataAreaPtr(say_init<3>);  // 3
  std::printf("exit;");
  std::fflush(stdout);
  return 0;
}

TEST(DataAreas, ProcessTeardownRunsInReverseOrder) {
  for (const char *mode : {"detach", "atexit"}) {
    auto r = lltest::run_child("process_teardown", {mode});
    EXPECT_EQ(r.exit_code, 0) << mode << r.err;
    // c (3), b (2), then the two entries numbered 1 in either order.
    EXPECT_TRUE(r.out == "exit;c;b;a;t;" || r.out == "exit;c;b;t;a;") << mode << ": " << r.out;
  }
}
