// The never-failing allocators and the sliced delay.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <liblocal.h>

#include "lltest.h"

using Clock = std::chrono::steady_clock;
static long long ms_since(Clock::time_point t) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

TEST(Memory, AllocatorsReturnUsableMemoryAndLeaveErrno22) {
  errno = 0;
  void *p = xmalloc(100);
  EXPECT_EQ(errno, 22);
  ASSERT_NE(p, nullptr);
  std::memset(p, 1, 100);
  std::free(p);
  auto *z = static_cast<unsigned char *>(xcalloc(10, 10));
  for (int i = 0; i < 100; ++i) ASSERT_EQ(z[i], 0);
  std::free(z);
  char *s = xstrdup("h\xc3\xa9llo");
  EXPECT_STREQ(s, "h\xc3\xa9llo");
  std::free(s);
  std::free(xmalloc(0));  // a zero-size request still gives memory to free
  // The setter answers the handler now in force; a null one puts the default back.
  qz_xmalloc_handler def = set_xmalloc_failed(nullptr);
  ASSERT_NE(def, nullptr);
  auto mine = [](size_t) {};
  EXPECT_EQ(set_xmalloc_failed(mine), static_cast<qz_xmalloc_handler>(mine));
  EXPECT_EQ(set_xmalloc_failed(nullptr), def);
}

// A handler sees the failed size on every retry; this one ends the process.
LLTEST_CHILD(xmalloc_failure) {
  set_xmalloc_failed([](size_t size) {
    std::printf("failed %zu\n", size);
    std::fflush(stdout);
    std::exit(7);
  });
  void *volatile p = xmalloc(SIZE_MAX / 2);
  std::printf("unexpected %p\n", p);
  return 0;
}

TEST(Memory, FailureHandlerIsCalledWithTheSize) {
  // The sanitizers' allocators must answer a failure the way malloc does.
  auto r = lltest::run_child("xmalloc_failure", {},
                             {"ASAN_OPTIONS=allocator_may_return_null=1", "TSAN_OPTIONS=allocator_may_return_null=1"});
  EXPECT_EQ(r.exit_code, 7) << r.err;
  EXPECT_EQ(r.out, "failed " + std::to_string(SIZE_MAX / 2) + "\n");
}

namespace {
int g_peeks;
int peek_count() { return ++g_peeks, 0; }
}  // namespace

TEST(Delay, WaitsInSlicesAndThePeekFunctionEndsIt) {
  g_peeks = 0;
  Set_Delay_PeekFunc(peek_count);
  auto t = Clock::now();
  delay(50);
  EXPECT_GE(ms_since(t), 50);
  EXPECT_GE(g_peeks, 1);
  EXPECT_LE(g_peeks, 12);  // 10 ms slices (not a busy loop), with timer slack
  g_peeks = 0;
  delay(0);  // one 0 ms slice, one peek
  EXPECT_EQ(g_peeks, 1);
  g_peeks = 0;
  Set_Delay_Type(1);  // plain yielding: the peek function is not called
  t = Clock::now();
  delay(30);
  EXPECT_GE(ms_since(t), 20);  // the system's sleep may end a tick early
  EXPECT_EQ(g_peeks, 0);
  Set_Delay_Type(0);
  // A peek function that answers non-zero ends the wait after the first slice.
  Set_Delay_PeekFunc([] { return 1; });
  t = Clock::now();
  EXPECT_EQ(delay(2000), 1u);
  const long long took = ms_since(t);
  EXPECT_GE(took, 450);   // one 500 ms slice
  EXPECT_LT(took, 1800);  // not the whole wait
  Set_Delay_PeekFunc(nullptr);
}
