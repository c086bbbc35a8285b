// The key-slot table. A slot word holds the sequence number in its high half
// and, in its low half, the slot's own index while in use or the next free
// slot while free; released slots are reused last-in first-out.
#include <liblocal/keyslot.h>
#include <liblocal/memory.h>
#include <liblocal/output.h>

#include <cstdlib>

namespace {

constexpr uint32_t kMaxCapacity = 0xFFFF;  // 0xFFFF stays free to end the chain

inline uint32_t *slots(ki_table *t) { return reinterpret_cast<uint32_t *>(t) + 2; }
inline const uint32_t *slots(const ki_table *t) { return reinterpret_cast<const uint32_t *>(t) + 2; }

inline bool in_use(uint32_t word, uint32_t slot) { return (word & 0xFFFF) == slot; }

}  // namespace

// Watched values for ki_check: process-wide words meant to be changed from a
// debugger (or the test seam below); 0xFFFFFFFF watches nothing.
volatile uint32_t ki_watch_key = KI_NOKEY;
volatile uint32_t ki_watch_slot = KI_NOKEY;
volatile uint32_t ki_watch_seq = KI_NOKEY;

extern "C" {

LL_API ki_table *ki_alloc(uint32_t capacity) noexcept {
  if (capacity > kMaxCapacity) capacity = kMaxCapacity;
  size_t words = 2 + (capacity ? capacity : 1);
  auto *t = static_cast<ki_table *>(xmalloc(words * sizeof(uint32_t)));
  t->capacity = capacity;
  t->head = 0;
  uint32_t *s = slots(t);
  for (uint32_t i = 0; i < capacity; ++i) s[i] = i + 1;  // sequence 0, next free i + 1
  if (!capacity) s[0] = 0;
  return t;
}

LL_API void ki_free(ki_table *t) noexcept { std::free(t); }

LL_API int ki_newslot(ki_table *t) noexcept {
  if (!t || t->head >= t->capacity) return -1;
  uint32_t slot = t->head;
  uint32_t &w = slots(t)[slot];
  t->head = w & 0xFFFF;
  uint32_t seq = ((w >> 16) + 1) & 0xFFFF;
  w = (seq << 16) | slot;
  return static_cast<int>(slot);
}

LL_API uint32_t ki_newkey(ki_table *t) noexcept {
  int slot = ki_newslot(t);
  if (slot < 0) return KI_NOKEY;
  return (slots(t)[slot] & 0xFFFF0000u) | static_cast<uint32_t>(slot);
}

LL_API int ki_invalidate(ki_table *t, uint32_t key) noexcept {
  uint32_t slot = key & 0xFFFF;
  if (!t || slot >= t->capacity) return -1;
  slots(t)[slot] = (key & 0xFFFF0000u) | (t->head & 0xFFFF);
  t->head = slot;
  return static_cast<int>(slot);
}

LL_API int ki_getslot(const ki_table *t, uint32_t key) noexcept {
  uint32_t slot = key & 0xFFFF;
  if (!t || key == KI_NOKEY || slot >= t->capacity) return -1;
  uint32_t w = slots(t)[slot];
  if (!in_use(w, slot) || (w >> 16) != (key >> 16)) return -1;
  return static_cast<int>(slot);
}

LL_API uint32_t ki_getkey(const ki_table *t, uint32_t slot) noexcept {
  if (!t || slot >= t->capacity) return KI_NOKEY;
  uint32_t w = slots(t)[slot];
  return in_use(w, slot) ? w : KI_NOKEY;
}

LL_API void ki_check(uint32_t key) noexcept {
  const uint32_t k = ki_watch_key, s = ki_watch_slot, q = ki_watch_seq;
  if ((k != KI_NOKEY && key == k) || ((key & 0xFFFF) == s && (key >> 16) == q)) ki_print(key);
}

LL_API void ki_print(uint32_t key) noexcept {
  dprintf(0, "ki_print: %lu, slot %u, seq %u\n", static_cast<unsigned long>(key), key & 0xFFFFu, key >> 16);
}

// Test seam: sets the three watched values.
LL_API void llt_ki_watch(uint32_t key, uint32_t slot, uint32_t seq) noexcept {
  ki_watch_key = key;
  ki_watch_slot = slot;
  ki_watch_seq = seq;
}

}  // extern "C"
