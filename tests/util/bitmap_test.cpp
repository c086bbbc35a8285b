#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include <liblocal/bitmap.h>

namespace {

constexpr uint32_t kNone = QZBITMAP_NONE;

TEST(Bitmap, NewFillsAndOwnership) {
  qzbitmap *m = qzbitmap_new(0, nullptr, 0, nullptr, 0);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->flags, QZBITMAP_OWNS_BITS);
  EXPECT_EQ(m->bits[0], 0u);  // one word even for size 0
  qzbitmap_free(&m);
  EXPECT_EQ(m, nullptr);
  qzbitmap_free(&m);  // already null: nothing

  m = qzbitmap_new(40, nullptr, 255, nullptr, 0);
  EXPECT_EQ(m->bits[1], 0xFFFFFFFFu);
  EXPECT_EQ(m->hwm, kNone);  // the fill does not move the mark
  qzbitmap_free(&m);

  uint32_t mine[2] = {0x12345678u, 0x9u};
  m = qzbitmap_new(64, mine, 1, nullptr, 0);  // fill 1 keeps the contents
  EXPECT_EQ(m->flags, 0u);
  EXPECT_EQ(m->bits, mine);
  EXPECT_EQ(qzbitmap_isset(m, 3), 1);
  EXPECT_EQ(qzbitmap_isset(m, 0), 0);
  qzbitmap_free(&m);  // the caller's array stays
  EXPECT_EQ(mine[1], 0x9u);
}

// An empty map's allocated word is part of its array: the whole-array
// operations reach it. A caller's array for an empty map has no words.
TEST(Bitmap, EmptyMapWholeArrayOperations) {
  uint32_t dirty = 0;
  qzbitmap *m = qzbitmap_new(0, nullptr, 255, &dirty, 0x4);
  EXPECT_EQ(m->bits[0], 0xFFFFFFFFu);
  qzbitmap_clr_all(m);
  EXPECT_EQ(m->bits[0], 0u);
  EXPECT_EQ(m->hwm, kNone);
  EXPECT_EQ(dirty, 0x4u);
  qzbitmap_set_all(m);
  EXPECT_EQ(m->bits[0], 0xFFFFFFFFu);
  EXPECT_EQ(m->hwm, kNone);  // size - 1 of an empty map
  EXPECT_EQ(qzbitmap_next_set(m, 0), 1u);
  EXPECT_EQ(qzbitmap_next_clr(m, 0), kNone);
  EXPECT_EQ(qzbitmap_sethwm(m), kNone);  // the word is all padding
  qzbitmap_grow(m, 3, 0);
  EXPECT_EQ(m->bits[0], 0u);
  qzbitmap_free(&m);

  uint32_t beside = 0x5u;
  m = qzbitmap_new(0, &beside, 0, nullptr, 0);
  qzbitmap_set_all(m);
  qzbitmap_clr_all(m);
  EXPECT_EQ(beside, 0x5u);
  qzbitmap_free(&m);
}

TEST(Bitmap, SetClrMarkAndDirtyWord) {
  uint32_t dirty = 0;
  qzbitmap *m = qzbitmap_new(100, nullptr, 0, &dirty, 0x40);
  EXPECT_EQ(dirty, 0u);  // new does not mark
  qzbitmap_set(m, 5);
  qzbitmap_set(m, 3);
  EXPECT_EQ(dirty, 0x40u);
  EXPECT_EQ(m->hwm, 5u);  // never lowered by a set
  dirty = 0;
  qzbitmap_clr(m, 5);
  EXPECT_EQ(dirty, 0x40u);
  EXPECT_EQ(m->hwm, 5u);  // nor by a clear
  EXPECT_EQ(qzbitmap_sethwm(m), 3u);
  qzbitmap_clr(m, 3);
  EXPECT_EQ(qzbitmap_sethwm(m), kNone);
  dirty = 0;
  qzbitmap_set_all(m);
  EXPECT_EQ(m->hwm, 99u);
  EXPECT_EQ(dirty, 0x40u);
  dirty = 0;
  qzbitmap_clr_all(m);
  EXPECT_EQ(m->hwm, kNone);
  EXPECT_EQ(dirty, 0x40u);
  EXPECT_EQ(m->bits[3], 0u);
  qzbitmap_free(&m);
}

TEST(Bitmap, SearchEdgesAndUnmaskedPadding) {
  qzbitmap *m = qzbitmap_new(40, nullptr, 0, nullptr, 0);
  EXPECT_EQ(qzbitmap_next_set(m, 40), 41u);  // size + 1, not the not-found value
  EXPECT_EQ(qzbitmap_next_set(m, 1000), 41u);
  EXPECT_EQ(qzbitmap_next_clr(m, 40), kNone);
  // set_all sets the padding too: past the real bits a search finds it.
  qzbitmap_set_all(m);
  for (uint32_t i = 34; i < 40; ++i) qzbitmap_clr(m, i);
  EXPECT_EQ(qzbitmap_next_set(m, 34), 40u);
  EXPECT_EQ(qzbitmap_sethwm(m), 33u);  // the mark only counts real bits
  // Every real bit set: the first clear bit is the first padding bit.
  qzbitmap_set_all(m);
  m->bits[1] &= 0xFFu;
  EXPECT_EQ(qzbitmap_next_clr(m, 0), 40u);
  qzbitmap_free(&m);
}

TEST(Bitmap, WordScanAgreesWithBitByBit) {
  std::mt19937 rng(11);
  for (uint32_t size : {1u, 31u, 32u, 33u, 95u, 1000u, 4096u}) {
    qzbitmap *m = qzbitmap_new(size, nullptr, 0, nullptr, 0);
    for (uint32_t i = 0; i < size / 7 + 1; ++i) qzbitmap_set(m, rng() % size);
    const uint32_t words_end = (size + 31) / 32 * 32;
    for (int flip = 0; flip < 2; ++flip) {
      for (uint32_t s = 0; s < size; ++s) {
        uint32_t want_set = kNone, want_clr = kNone;
        for (uint32_t i = words_end; i-- > s;) (qzbitmap_isset(m, i) ? want_set : want_clr) = i;
        ASSERT_EQ(qzbitmap_next_set(m, s), want_set) << size << " " << s;
        ASSERT_EQ(qzbitmap_next_clr(m, s), want_clr) << size << " " << s;
      }
      for (uint32_t w = 0; w < words_end / 32; ++w) m->bits[w] = ~m->bits[w];
    }
    qzbitmap_free(&m);
  }
}

TEST(Bitmap, GrowBitByBitThenWholeWords) {
  uint32_t dirty = 0;
  qzbitmap *m = qzbitmap_new(10, nullptr, 0, &dirty, 1);
  qzbitmap_grow(m, 40, 255);
  EXPECT_EQ(m->size, 50u);
  EXPECT_EQ(m->bits[0], 0xFFFFFC00u);  // bits 10..31 one by one
  EXPECT_EQ(m->bits[1], 0xFFFFFFFFu);  // the next word whole
  EXPECT_EQ(m->hwm, 31u);
  EXPECT_EQ(dirty, 1u);
  dirty = 0;
  qzbitmap_grow(m, 10, 0);  // 50 -> 60: same word count, bits 50..59 cleared
  EXPECT_EQ(m->bits[1], 0xF003FFFFu);
  EXPECT_EQ(dirty, 1u);
  qzbitmap_grow(m, 30, 7);  // another fill: new words take the byte, the old word is left
  EXPECT_EQ(m->bits[1], 0xF003FFFFu);
  EXPECT_EQ(m->bits[2], 0x07070707u);
  qzbitmap_free(&m);

  // Growing within the last word keeps the array.
  m = qzbitmap_new(40, nullptr, 0, nullptr, 0);
  uint32_t *before = m->bits;
  qzbitmap_grow(m, 24, 255);
  EXPECT_EQ(m->bits, before);
  EXPECT_EQ(m->hwm, 63u);
  qzbitmap_free(&m);

  // From size 0 the first word counts as added whole: no mark, no dirt.
  m = qzbitmap_new(0, nullptr, 0, &dirty, 2);
  dirty = 0;
  qzbitmap_grow(m, 8, 255);
  EXPECT_EQ(m->bits[0], 0xFFFFFFFFu);
  EXPECT_EQ(m->hwm, kNone);
  EXPECT_EQ(dirty, 0u);
  qzbitmap_free(&m);
}

TEST(Bitmap, GrowReplacesEvenTheCallersArray) {
  auto *mine = static_cast<uint32_t *>(std::malloc(sizeof(uint32_t)));
  *mine = 0x5u;
  qzbitmap *m = qzbitmap_new(32, mine, 1, nullptr, 0);
  qzbitmap_grow(m, 1, 0);  // frees 'mine'
  EXPECT_EQ(m->bits[0], 0x5u);
  EXPECT_EQ(m->flags, 0u);  // still not the library's, so free leaves it
  uint32_t *grown = m->bits;
  qzbitmap_free(&m);
  std::free(grown);
}

}  // namespace
