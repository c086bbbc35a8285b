// The library's own per-process and per-thread areas.
#include <cstring>

#include "frame/areas.h"
#include "frame/os.h"
#include "frame/teardown_hooks.h"
#include <liblocal/memory.h>

namespace ll {
namespace {

void proc_dtor(void *a) {
  auto *p = static_cast<ProcArea *>(a);
  os::process_area_destroyed();
  for (auto *&cs : p->cs) {
    delete cs;
    cs = nullptr;
  }
  std::free(p->myname);
  for (char *s : p->owned) std::free(s);
  void *mine = p;
  __atomic_compare_exchange_n(&Global_liblocal_p_varp, &mine, nullptr, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
  std::free(p);
  hooks::hostname_cache_clear();
}

void *proc_init(qz_area_dtor *out) {
  auto *p = static_cast<ProcArea *>(area_alloc(sizeof(ProcArea)));
  p->myname = static_cast<char *>(area_alloc(31));
  std::strcpy(p->myname, "Baystow");
  for (auto *&cs : p->cs) cs = new std::recursive_mutex();
  os::process_area_created();
  // Two threads may make the area at once; the frame keeps the first one in
  // and ll::proc() publishes that one.
  void *none = nullptr;
  __atomic_compare_exchange_n(&Global_liblocal_p_varp, &none, p, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
  *out = proc_dtor;
  return p;
}

void thread_dtor(void *a) {
  auto *t = static_cast<ThreadArea *>(a);
  std::free(t->tab1);
  std::free(t->tab2);
  std::free(t->err_text);
  std::free(t->saved_text);
  std::free(t->err_fmt);
  std::free(t);
}

void *thread_init(qz_area_dtor *out) {
  auto *t = static_cast<ThreadArea *>(area_alloc(sizeof(ThreadArea)));
  t->tab1_cap = t->tab2_cap = 10;
  t->tab1 = static_cast<void **>(xmalloc(10 * sizeof(void *)));
  t->tab2 = static_cast<void **>(xmalloc(10 * sizeof(void *)));
  std::memset(t->tab1, 0, 10 * sizeof(void *));
  std::memset(t->tab2, 0, 10 * sizeof(void *));
  t->tab1[0] = t;
  t->cur_string = "";
  t->counter = 1;
  t->timeout_ms = 10000;
  t->flag = 1;
  *out = thread_dtor;
  return t;
}

}  // namespace

ThreadArea *thr() noexcept { return static_cast<ThreadArea *>(T_GetDataAreaPtr(thread_init)); }

ProcArea *proc() noexcept {
  if (void *p = __atomic_load_n(&Global_liblocal_p_varp, __ATOMIC_ACQUIRE)) return static_cast<ProcArea *>(p);
  void *p = P_GetDataAreaPtr(proc_init);
  __atomic_store_n(&Global_liblocal_p_varp, p, __ATOMIC_RELEASE);
  return static_cast<ProcArea *>(p);
}

}  // namespace ll

extern "C" {
LL_API qz_area_init get_liblocal_p_init(void) noexcept { return ll::proc_init; }
LL_API qz_area_init get_liblocal_t_init(void) noexcept { return ll::thread_init; }
}
