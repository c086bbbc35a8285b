// Allocators that never fail, and the sliced delay.
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "frame/areas.h"
#include "frame/os.h"
#include <liblocal/memory.h>
#include "frame/fault.h"

namespace {
void default_failed(size_t) { delay(5000); }
std::atomic<qz_xmalloc_handler> g_failed{default_failed};
}  // namespace

extern "C" {

LL_API void *xmalloc(size_t size) noexcept {
  errno = 22;  // left set even on success, as the library always has
  void *p;
  while (!(p = LL_FAULT(alloc) ? nullptr : std::malloc(size ? size : 1))) g_failed.load()(size);
  return p;
}

LL_API void *xcalloc(size_t count, size_t size) noexcept {
  errno = 22;
  void *p;
  while (!(p = LL_FAULT(alloc) ? nullptr : std::calloc(count ? count : 1, size ? size : 1))) g_failed.load()(count * size);
  return p;
}

LL_API char *xstrdup(const char *s) noexcept {
  const size_t n = std::strlen(s) + 1;
  auto *p = static_cast<char *>(xmalloc(n));
  std::memcpy(p, s, n);
  return p;
}

LL_API qz_xmalloc_handler set_xmalloc_failed(qz_xmalloc_handler fn) noexcept {
  g_failed.store(fn ? fn : default_failed);
  return g_failed.load();
}

LL_API unsigned long delay(unsigned long ms) noexcept {
  ll::ProcArea *pa = ll::proc();
  const uint32_t start = ll::os::tick_ms();
  const uint32_t slice = ms < 10 ? 0 : ms < 100 ? 10 : ms < 500 ? 100 : 500;
  uint32_t now;
  do {
    ll::os::sleep_ms(slice);
    if (pa->delay_type != 1) {
      if (int (*peek)(void) = pa->peek; peek && peek() == 1) return 1;
    } else {
      ll::os::sleep_ms(0);
    }
    now = ll::os::tick_ms();
  } while (now < start + static_cast<uint32_t>(ms));  // counter wrap not handled, as built
  return now;
}

LL_API void Set_Delay_PeekFunc(qz_peek_func fn) noexcept { ll::proc()->peek = fn; }
LL_API void Set_Delay_Type(int type) noexcept { ll::proc()->delay_type = type; }

}  // extern "C"
