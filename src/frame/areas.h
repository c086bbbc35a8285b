// The data-area registry and the library's own per-process and per-thread
// areas. Families with state of their own keep it in areas of their own,
// keyed by their own initialiser: ll::thread_area<T>() / ll::process_area<T>().
#pragma once
#include <liblocal/frame.h>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>

namespace ll {

// The registry's lock is created on attach; areas may look each other up from
// their initialisers and destructors (they run outside it).
void frame_attach() noexcept;     // idempotent
void frame_detach() noexcept;     // destroys every area of the process
void process_teardown() noexcept; // the same, callable from the exit handler

// Destroys the per-thread areas of another thread of this process that has
// ended without T_threadexit (a killed thread), in reverse creation order.
void thread_areas_release(uint32_t tid) noexcept;

// Number of registry entries of this process (for tests and diagnostics).
int registry_count() noexcept;

// Allocation that never fails: retried every 2000 ms.
void *area_alloc(size_t size) noexcept;

// Typed helpers: T must be default-constructible; one area of type T per
// thread (or per process), destroyed by its destructor.
template <class T> void *area_make(qz_area_dtor *out) {
  void *mem = area_alloc(sizeof(T));
  T *p = new (mem) T();
  *out = [](void *a) {
    static_cast<T *>(a)->~T();
    std::free(a);
  };
  return p;
}
template <class T> T *thread_area() noexcept {
  return static_cast<T *>(T_GetDataAreaPtr(&area_make<T>));
}
template <class T> T *process_area() noexcept {
  return static_cast<T *>(P_GetDataAreaPtr(&area_make<T>));
}

// The library's per-thread area. The fields after the initial ones belong to
// the families that use them.
struct ThreadArea {
  char scratch[1024];          // built error texts
  int err_code;                // current error record
  char *err_text;
  int saved_code;              // saved error record
  char *saved_text;
  char *err_fmt;               // 2048-byte error-format buffer, made on demand
  int tab1_cap, tab1_len;      // two small growable tables (child table, ...)
  void **tab1;
  int tab2_cap, tab2_len;
  void **tab2;
  const char *cur_string;
  int counter;
  int timeout_ms;
  int flag;
};

// The library's per-process area.
struct ProcArea {
  char *myname;                    // 31 bytes, "Baystow" at first
  std::recursive_mutex *cs[3];     // name-service, command-stream, spare
  int (*peek)(void);               // delay peek function
  int delay_type;
  char *owned[16];                 // owned process-wide strings, freed at teardown
};

ThreadArea *thr() noexcept;
ProcArea *proc() noexcept;

}  // namespace ll
