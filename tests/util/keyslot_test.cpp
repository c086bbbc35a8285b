#include <gtest/gtest.h>

#include <set>
#include <string>

#include <liblocal.h>

#include "lltest.h"

extern "C" void llt_ki_watch(uint32_t key, uint32_t slot, uint32_t seq);

namespace {

TEST(KeySlot, KeysCarrySlotAndSequence) {
  ki_table *t = ki_alloc(2);
  EXPECT_EQ(ki_newkey(t), 0x00010000u);
  EXPECT_EQ(ki_newkey(t), 0x00010001u);
  EXPECT_EQ(ki_newkey(t), KI_NOKEY);
  EXPECT_EQ(ki_getslot(t, 0x00010001u), 1);
  EXPECT_EQ(ki_getkey(t, 1), 0x00010001u);
  EXPECT_EQ(ki_getkey(t, 2), KI_NOKEY);

  EXPECT_EQ(ki_invalidate(t, 0x00010000u), 0);
  EXPECT_EQ(ki_getkey(t, 0), KI_NOKEY);
  EXPECT_EQ(ki_newkey(t), 0x00020000u);
  EXPECT_EQ(ki_getslot(t, 0x00010000u), -1);  // stale
  EXPECT_EQ(ki_getslot(t, 0x00020000u), 0);
  EXPECT_EQ(ki_getslot(t, KI_NOKEY), -1);
  EXPECT_EQ(ki_getslot(t, 0x00020005u), -1);  // beyond the capacity
  EXPECT_EQ(ki_invalidate(t, 0x00000007u), -1);
  ki_free(t);
}

TEST(KeySlot, ReleasedSlotsComeBackLastInFirstOut) {
  ki_table *t = ki_alloc(8);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(ki_newslot(t), i);
  for (uint32_t s : {2u, 6u, 4u}) ki_invalidate(t, ki_getkey(t, s));
  for (int s : {4, 6, 2, -1}) EXPECT_EQ(ki_newslot(t), s);
  ki_free(t);
}

TEST(KeySlot, SequenceWrapsAndStaleKeysStayRefused) {
  ki_table *t = ki_alloc(1);
  std::set<uint32_t> seen;
  uint32_t key = 0;
  for (int use = 0; use < 65535; ++use) {
    key = ki_newkey(t);
    ASSERT_TRUE(seen.insert(key).second) << use;
    ki_invalidate(t, key);
  }
  EXPECT_EQ(key, 0xFFFF0000u);
  EXPECT_EQ(ki_newkey(t), 0x00000000u);  // 0xFFFF wraps to 0
  EXPECT_EQ(ki_getslot(t, 0u), 0);
  EXPECT_EQ(ki_getslot(t, 0xFFFF0000u), -1);
  ki_free(t);
}

TEST(KeySlot, CapacityLimits) {
  ki_table *t = ki_alloc(0);
  EXPECT_EQ(ki_newkey(t), KI_NOKEY);
  ki_free(t);
  t = ki_alloc(100000);  // 16-bit links chain at most 65535 slots
  EXPECT_EQ(t->capacity, 65535u);
  int last = -1;
  for (int i = 0; i < 65535; ++i) last = ki_newslot(t);
  EXPECT_EQ(last, 65534);
  EXPECT_EQ(ki_newslot(t), -1);
  ki_free(t);
}

LLTEST_CHILD(ki_watch) {
  ki_print(0x00030002u);
  ki_check(0x00010001u);  // nothing watched
  ki_check(KI_NOKEY);
  llt_ki_watch(0x00050004u, KI_NOKEY, KI_NOKEY);
  ki_check(0x00050004u);
  ki_check(0x00060004u);
  llt_ki_watch(KI_NOKEY, 7, 9);
  ki_check(0x00090007u);
  ki_check(0x00090008u);
  return 0;
}

TEST(KeySlot, CheckPrintsWatchedKeys) {
  auto r = lltest::run_child("ki_watch");
  ASSERT_EQ(r.exit_code, 0) << r.err;
  // Exactly the printed key and the two watched ones, nothing for the others
  // (each line from "ki_print:" on, after whatever prefix the output adds).
  const std::string all = r.out + r.err;
  std::string got;
  for (size_t at = 0; (at = all.find("ki_print:", at)) != std::string::npos; ++at)
    got += all.substr(at, all.find('\n', at) + 1 - at);
  EXPECT_EQ(got,
            "ki_print: 196610, slot 2, seq 3\n"
            "ki_print: 327684, slot 4, seq 5\n"
            "ki_print: 589831, slot 7, seq 9\n");
}

}  // namespace
