// Growable bitmaps. Searches work a word at a time; the padding bits past the
// size in the last word are deliberately not masked (see bitmap.h).
#include <liblocal/bitmap.h>
#include <liblocal/memory.h>

#include <bit>
#include <cstdlib>
#include <cstring>

namespace {

inline uint64_t words_for(uint64_t bits) { return (bits + 31) >> 5; }

// Words in the map's array: an array the library allocated for an empty map
// still has its one word, and whole-array operations reach it too.
inline uint64_t array_words(const qzbitmap *m) {
  if (m->size == 0 && (m->flags & QZBITMAP_OWNS_BITS)) return 1;
  return words_for(m->size);
}

inline void mark_dirty(qzbitmap *m) {
  if (m->dirty) *m->dirty |= m->dirty_mask;
}

// Index of the first word at or after 'wi' that differs from 'skip' (0 or
// all ones), or nw. Compares four words at a time where it can.
inline uint32_t skip_words(const uint32_t *w, uint32_t wi, uint32_t nw, uint32_t skip) {
  const uint64_t pat = skip ? ~uint64_t{0} : 0;
  while (wi + 4 <= nw) {
    uint64_t a, b;
    std::memcpy(&a, w + wi, 8);
    std::memcpy(&b, w + wi + 2, 8);
    if ((a ^ pat) | (b ^ pat)) break;
    wi += 4;
  }
  while (wi < nw && w[wi] == skip) ++wi;
  return wi;
}

inline void fill_words(uint32_t *w, uint64_t n, int fill) {
  if (n) std::memset(w, fill & 0xFF, static_cast<size_t>(n) * sizeof(uint32_t));
}

}  // namespace

extern "C" {

LL_API qzbitmap *qzbitmap_new(uint32_t size, uint32_t *bits, int fill, uint32_t *dirty,
                              uint32_t dirty_mask) noexcept {
  auto *m = static_cast<qzbitmap *>(xmalloc(sizeof(qzbitmap)));
  m->flags = 0;
  m->dirty_mask = dirty_mask;
  m->dirty = dirty;
  m->size = size;
  m->hwm = QZBITMAP_NONE;
  uint64_t n = words_for(size);
  if (!bits) {
    uint64_t alloc = words_for(size ? size : 1);
    bits = static_cast<uint32_t *>(xcalloc(static_cast<size_t>(alloc), sizeof(uint32_t)));
    m->flags = QZBITMAP_OWNS_BITS;
    n = alloc;
  }
  m->bits = bits;
  if (fill != 1) fill_words(bits, n, fill);
  return m;
}

LL_API void qzbitmap_grow(qzbitmap *m, uint32_t added, int fill) noexcept {
  if (!m || added == 0) return;
  const uint64_t old_size = m->size;
  uint64_t new_size = old_size + added;
  if (new_size > 0xFFFFFFFFu) new_size = 0xFFFFFFFFu;  // the size is a 32-bit count
  const uint64_t old_words = words_for(old_size);
  const uint64_t new_words = words_for(new_size);
  if (old_words != new_words) {
    auto *w = static_cast<uint32_t *>(xmalloc(static_cast<size_t>(new_words) * sizeof(uint32_t)));
    if (old_words) std::memcpy(w, m->bits, static_cast<size_t>(old_words) * sizeof(uint32_t));
    std::free(m->bits);  // even a caller's array, and flags stay as they were
    m->bits = w;
  }
  m->size = static_cast<uint32_t>(new_size);
  // New bits inside the old last word go one by one; other fills leave them.
  const uint64_t edge = old_words * 32 < new_size ? old_words * 32 : new_size;
  for (uint64_t i = old_size; i < edge; ++i) {
    if (fill == 255)
      qzbitmap_set(m, static_cast<uint32_t>(i));
    else if (fill == 0)
      qzbitmap_clr(m, static_cast<uint32_t>(i));
    else
      break;
  }
  if (new_words > old_words) fill_words(m->bits + old_words, new_words - old_words, fill);
}

LL_API void qzbitmap_free(qzbitmap **mp) noexcept {
  if (!mp || !*mp) return;
  qzbitmap *m = *mp;
  *mp = nullptr;
  if (m->flags & QZBITMAP_OWNS_BITS) std::free(m->bits);
  std::free(m);
}

LL_API int qzbitmap_isset(const qzbitmap *m, uint32_t i) noexcept {
  return (m->bits[i >> 5] >> (i & 31)) & 1u;
}

LL_API void qzbitmap_set(qzbitmap *m, uint32_t i) noexcept {
  m->bits[i >> 5] |= 1u << (i & 31);
  if (m->hwm == QZBITMAP_NONE || m->hwm < i) m->hwm = i;
  mark_dirty(m);
}

LL_API void qzbitmap_clr(qzbitmap *m, uint32_t i) noexcept {
  m->bits[i >> 5] &= ~(1u << (i & 31));
  mark_dirty(m);
}

LL_API void qzbitmap_set_all(qzbitmap *m) noexcept {
  fill_words(m->bits, array_words(m), 0xFF);
  m->hwm = m->size - 1;  // none for an empty map
  mark_dirty(m);
}

LL_API void qzbitmap_clr_all(qzbitmap *m) noexcept {
  fill_words(m->bits, array_words(m), 0);
  m->hwm = QZBITMAP_NONE;
  mark_dirty(m);
}

LL_API uint32_t qzbitmap_next_set(const qzbitmap *m, uint32_t start) noexcept {
  if (start >= m->size) return m->size + 1;
  const uint32_t nw = static_cast<uint32_t>(words_for(m->size));
  uint32_t wi = start >> 5;
  uint32_t w = m->bits[wi] & (~0u << (start & 31));
  if (!w) {
    wi = skip_words(m->bits, wi + 1, nw, 0);
    if (wi >= nw) return QZBITMAP_NONE;
    w = m->bits[wi];
  }
  return (wi << 5) + static_cast<uint32_t>(std::countr_zero(w));
}

LL_API uint32_t qzbitmap_next_clr(const qzbitmap *m, uint32_t start) noexcept {
  if (start >= m->size) return QZBITMAP_NONE;
  const uint32_t nw = static_cast<uint32_t>(words_for(m->size));
  uint32_t wi = start >> 5;
  uint32_t w = ~m->bits[wi] & (~0u << (start & 31));
  if (!w) {
    wi = skip_words(m->bits, wi + 1, nw, ~0u);
    if (wi >= nw) return QZBITMAP_NONE;
    w = ~m->bits[wi];
  }
  return (wi << 5) + static_cast<uint32_t>(std::countr_zero(w));
}

LL_API uint32_t qzbitmap_sethwm(qzbitmap *m) noexcept {
  // The highest set bit below size, found from the top down.
  uint32_t mark = QZBITMAP_NONE;
  if (m->size) {
    uint32_t wi = (m->size - 1) >> 5;
    uint32_t w = m->bits[wi];
    const uint32_t tail = m->size & 31;
    if (tail) w &= (1u << tail) - 1;  // padding does not count here
    for (;;) {
      if (w) {
        mark = (wi << 5) + 31 - static_cast<uint32_t>(std::countl_zero(w));
        break;
      }
      if (wi == 0) break;
      w = m->bits[--wi];
    }
  }
  m->hwm = mark;
  return mark;
}

}  // extern "C"
