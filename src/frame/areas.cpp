// The data-area registry: 64 buckets of entries keyed by (process, thread,
// initialiser), one lock, initialisers and destructors run outside it.
//
// In front of the registry sits a per-thread cache of recent hits so that a
// lookup on the hot path takes no lock. The cache never changes what a lookup
// returns: per-thread entries of a thread change only in that thread (which
// clears its own cache), and every change that can alter a per-process answer
// (a new per-process entry, a teardown, a fork) raises a generation number
// that empties every cache.
#include "frame/areas.h"

#include <atomic>
#include <cstring>

#include "frame/compiler.h"
#include "frame/os.h"
#include "frame/teardown_hooks.h"
#include "frame/fault.h"

extern "C" {
LL_API void *Global_liblocal_p_varp = nullptr;
}

namespace ll {
namespace {

struct Entry {
  uint32_t pid;
  uint32_t tid;  // 0 for a per-process entry
  void *area;
  int32_t seq;
  int per_process;
  qz_area_init init;
  qz_area_dtor dtor;
  Entry *next;
};

constexpr int kBuckets = 64;
constexpr uint32_t kProcessKey = 0;

Entry *g_buckets[kBuckets];
alignas(std::recursive_mutex) unsigned char g_lock_mem[sizeof(std::recursive_mutex)];
std::recursive_mutex *g_lock;
std::once_flag g_attach_once;
std::atomic<int> g_use_atexit{1};
std::atomic<uint64_t> g_generation{1};

struct Slot {
  qz_area_init init;
  void *area;
};
constexpr int kSlots = 8;
struct Cache {
  uint64_t gen;
  unsigned next_t, next_p;
  Slot t[kSlots];
  Slot p[kSlots];
};
thread_local Cache tc LL_TLS_FAST;

void invalidate_all() noexcept { g_generation.fetch_add(1, std::memory_order_acq_rel); }

void on_fork_child() noexcept {
  // The child keeps the parent's entries but has a new process id: lookups
  // must go to the registry again, and the lock may have been held by a
  // thread that does not exist here.
  g_lock = new (g_lock_mem) std::recursive_mutex();
  invalidate_all();
}

inline unsigned bucket_of(qz_area_init init, uint32_t pid, uint32_t tid) noexcept {
  return static_cast<unsigned>((reinterpret_cast<uintptr_t>(init) >> 4) + pid + tid) & (kBuckets - 1);
}

void exit_handler() { process_teardown(); }

void *lookup_slow(qz_area_init init, int per_process) noexcept {
  frame_attach();
  const uint32_t pid = os::process_id();
  const uint32_t tid = per_process ? kProcessKey : os::thread_id();
  const unsigned b = bucket_of(init, pid, tid);

  g_lock->lock();
  for (Entry *e = g_buckets[b]; e; e = e->next) {
    if (e->pid == pid && e->init == init && e->per_process == per_process && (per_process || e->tid == tid)) {
      void *area = e->area;
      g_lock->unlock();
      return area;
    }
  }
  int32_t high = 0;
  bool any = false;
  for (int i = 0; i < kBuckets; ++i) {
    for (Entry *e = g_buckets[i]; e; e = e->next) {
      if (e->pid != pid) continue;
      any = true;
      if (per_process) {
        if (e->seq > high) high = e->seq;
      } else if (!e->per_process && e->tid == tid && e->seq > high) {
        high = e->seq;
      }
    }
  }
  if (!any && g_use_atexit.load() == 1) os::at_exit(exit_handler);
  g_lock->unlock();

  auto *e = static_cast<Entry *>(area_alloc(sizeof(Entry)));
  e->pid = pid;
  e->tid = tid;
  e->per_process = per_process;
  e->seq = high + 1;
  e->init = init;
  e->dtor = nullptr;
  e->area = init(&e->dtor);

  g_lock->lock();
  if (per_process) {
    // Another thread may have made the same per-process area meanwhile: the
    // first one in stays, and every thread gets it.
    for (Entry *other = g_buckets[b]; other; other = other->next) {
      if (other->pid == pid && other->init == init && other->per_process) {
        void *area = other->area;
        g_lock->unlock();
        if (e->dtor) e->dtor(e->area);
        std::free(e);
        return area;
      }
    }
  }
  e->next = g_buckets[b];
  g_buckets[b] = e;
  if (per_process) invalidate_all();
  g_lock->unlock();
  return e->area;
}

// Unlinks and returns the entry of this process (and thread, unless all) with
// the highest sequence number, or null.
Entry *take_highest(uint32_t pid, uint32_t tid, bool all) noexcept {
  Entry **best = nullptr;
  for (int i = 0; i < kBuckets; ++i) {
    for (Entry **pe = &g_buckets[i]; *pe; pe = &(*pe)->next) {
      Entry *e = *pe;
      if (e->pid != pid) continue;
      if (!all && (e->per_process || e->tid != tid)) continue;
      if (!best || e->seq > (*best)->seq) best = pe;
    }
  }
  if (!best) return nullptr;
  Entry *e = *best;
  *best = e->next;
  return e;
}

void destroy_entry(Entry *e) noexcept {
  if (e->dtor)
    e->dtor(e->area);
  else
    std::free(e->area);
  std::free(e);
}

void clear_thread_cache() noexcept {
  std::memset(tc.t, 0, sizeof tc.t);
  std::memset(tc.p, 0, sizeof tc.p);
  tc.gen = 0;
}

// The rest of the cache, then the registry. A hit further down moves to the
// front so that the inline check in the exported lookups finds it next time.
__attribute__((noinline)) void *cached_lookup(qz_area_init init, int per_process) noexcept {
  Slot *slots = per_process ? tc.p : tc.t;
  if (tc.gen == g_generation.load(std::memory_order_acquire)) {
    for (int i = 1; i < kSlots; ++i)
      if (slots[i].init == init) {
        Slot hit = slots[i];
        slots[i] = slots[0];
        slots[0] = hit;
        return hit.area;
      }
  } else {
    clear_thread_cache();
  }
  const uint64_t gen = g_generation.load(std::memory_order_acquire);
  void *area = lookup_slow(init, per_process);
  if (gen == g_generation.load(std::memory_order_acquire)) {
    tc.gen = gen;
    // Keep the new answer in front; the one it displaces takes the next free
    // (or oldest) place.
    unsigned &next = per_process ? tc.next_p : tc.next_t;
    slots[1 + next++ % (kSlots - 1)] = slots[0];
    slots[0] = Slot{init, area};
  }
  return area;
}

}  // namespace

void *area_alloc(size_t size) noexcept {
  for (;;) {
    if (void *p = LL_FAULT(alloc) ? nullptr : std::calloc(1, size)) return p;
    os::sleep_ms(2000);
  }
}

void frame_attach() noexcept {
  std::call_once(g_attach_once, [] {
    g_lock = new (g_lock_mem) std::recursive_mutex();
    os::install_fork_hook(on_fork_child);
    set_use_atexit(0);
    // The event-log teardown would be registered here only while the
    // exit-handler switch is still on, which by construction it is not.
    if (g_use_atexit.load() != 0) os::at_exit(hooks::eventlog_teardown);
    hooks::start_event_listener();
  });
}

void process_teardown() noexcept {
  if (!g_lock) return;
  const uint32_t pid = os::process_id();
  clear_thread_cache();
  invalidate_all();
  for (;;) {
    g_lock->lock();
    Entry *e = take_highest(pid, 0, true);
    g_lock->unlock();
    if (!e) break;
    destroy_entry(e);
  }
  invalidate_all();
  bool empty = true;
  g_lock->lock();
  for (int i = 0; i < kBuckets; ++i) empty = empty && !g_buckets[i];
  g_lock->unlock();
  if (empty) hooks::unload_dynamic_libraries();
}

void frame_detach() noexcept {
  process_teardown();
  hooks::eventlog_teardown();
}

void thread_areas_release(uint32_t tid) noexcept {
  if (!g_lock) return;
  const uint32_t pid = os::process_id();
  for (;;) {
    g_lock->lock();
    Entry *e = take_highest(pid, tid, false);
    g_lock->unlock();
    if (!e) break;
    destroy_entry(e);
  }
}

int registry_count() noexcept {
  frame_attach();
  const uint32_t pid = os::process_id();
  int n = 0;
  std::lock_guard<std::recursive_mutex> g(*g_lock);
  for (int i = 0; i < kBuckets; ++i)
    for (Entry *e = g_buckets[i]; e; e = e->next) n += e->pid == pid;
  return n;
}

}  // namespace ll

using namespace ll;

extern "C" {

LL_API void *T_GetDataAreaPtr(qz_area_init init) noexcept {
  // The hit path: the most recent answer for this kind, still current.
  if (LL_LIKELY(tc.t[0].init == init && tc.gen == g_generation.load(std::memory_order_acquire)))
    return tc.t[0].area;
  return cached_lookup(init, 0);
}

LL_API void *P_GetDataAreaPtr(qz_area_init init) noexcept {
  if (LL_LIKELY(tc.p[0].init == init && tc.gen == g_generation.load(std::memory_order_acquire)))
    return tc.p[0].area;
  return cached_lookup(init, 1);
}

LL_API void T_threadexit(void) noexcept {
  if (!g_lock) return;
  const uint32_t pid = os::process_id();
  const uint32_t tid = os::thread_id();
  for (;;) {
    clear_thread_cache();
    g_lock->lock();
    Entry *e = take_highest(pid, tid, false);
    g_lock->unlock();
    if (!e) break;
    destroy_entry(e);
  }
  clear_thread_cache();
}

LL_API void set_use_atexit(int use) noexcept { g_use_atexit.store(use); }

// Test seam: the sequence number of the calling thread's (or the process's)
// entry for an initialiser, 0 when there is none.
LL_API int llt_area_seq(qz_area_init init, int per_process) noexcept {
  frame_attach();
  const uint32_t pid = os::process_id();
  const uint32_t tid = per_process ? kProcessKey : os::thread_id();
  std::lock_guard<std::recursive_mutex> g(*g_lock);
  for (Entry *e = g_buckets[bucket_of(init, pid, tid)]; e; e = e->next)
    if (e->pid == pid && e->init == init && e->per_process == per_process && (per_process || e->tid == tid))
      return e->seq;
  return 0;
}

}  // extern "C"
