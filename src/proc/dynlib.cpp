// dll_find_routine: routines of libraries loaded on demand, with a cache of
// ten libraries that stay loaded until the library shuts down.
//
// Lookups of a cached library take no lock: a slot's name is written before
// its handle is published, and slots fill in order, so a reader stops at the
// first slot without a handle. Loading happens outside the lock (a library's
// start-up code may itself call dll_find_routine); two threads that load the
// same library at once keep one handle and release the other.
#include "proc/dynlib.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>

#include <liblocal/eventlog.h>
#include <liblocal/output.h>

namespace ll::dynlib {
namespace {

constexpr int kSlots = 10;
constexpr size_t kNameMax = 1560;

struct Slot {
  std::atomic<void *> module{nullptr};
  char name[kNameMax + 1];
};

Slot g_slots[kSlots];
std::mutex g_fill_lock;

bool equal_nocase(const char *a, const char *b) noexcept {
  for (;; ++a, ++b) {
    char x = *a, y = *b;
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
    if (!x) return true;
  }
}

void *cached(const char *file) noexcept {
  for (auto &s : g_slots) {
    void *m = s.module.load(std::memory_order_acquire);
    if (!m) break;
    if (equal_nocase(s.name, file)) return m;
  }
  return nullptr;
}

bool has_directory(const char *file) noexcept {
  return std::strchr(file, '/') || std::strchr(file, '\\') || (file[0] && file[1] == ':');
}

// Loads and caches a library; null when it cannot be loaded or the cache is full.
void *load_and_keep(const char *file, size_t len) noexcept {
  if (has_directory(file) && !os::exists(file)) return nullptr;
  void *m = os::load(file);
  // a module value below 33 is the loader's way of saying no
  if (reinterpret_cast<uintptr_t>(m) < 33) return nullptr;
  std::lock_guard<std::mutex> g(g_fill_lock);
  if (void *other = cached(file)) {
    os::unload(m);
    return other;
  }
  for (auto &s : g_slots) {
    if (s.module.load(std::memory_order_relaxed)) continue;
    std::memcpy(s.name, file, len + 1);
    s.module.store(m, std::memory_order_release);
    return m;
  }
  os::unload(m);
  dprintf(1, "Too many libraries loaded by name, %s not loaded\n", file);
  return nullptr;
}

}  // namespace

void unload_all() noexcept {
  std::lock_guard<std::mutex> g(g_fill_lock);
  for (auto &s : g_slots) {
    void *m = s.module.exchange(nullptr, std::memory_order_acq_rel);
    if (m) os::unload(m);
  }
}

}  // namespace ll::dynlib

extern "C" {

LL_API int dll_find_routine(const char *file, const char *routine, void **out) noexcept {
  using namespace ll::dynlib;
  if (!file || !*file || !routine || !out) return 0;
  const size_t len = strnlen(file, kNameMax + 1);
  if (len > kNameMax) return 0;
  void *m = cached(file);
  if (!m) m = load_and_keep(file, len);
  if (!m) return 0;
  *out = os::symbol(m, routine);
  return *out ? 1 : 0;
}

// Test seam: library shutdown's release of the cached libraries.
LL_API void llt_dynlib_unload_all(void) noexcept { ll::dynlib::unload_all(); }

}  // extern "C"
