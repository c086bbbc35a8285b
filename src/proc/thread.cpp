// Threads, mutexes and condition variables: the records and their rules, on
// top of the mutex objects, auto-reset events and threads of proc/thread_os.h.
//
// A condition variable is an auto-reset event plus a count of the threads
// inside a wait, guarded by a private mutex: a signal sets the event only when
// someone waits, so a signal without a waiter is lost, and the event releases
// exactly one waiter. A thread record carries its own lock and two condition
// variables (started, finished); the creator holds the lock while the new
// thread starts, so create returns only once the thread runs.
#include <liblocal/thread.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <unordered_map>

#include "frame/areas.h"
#include "frame/os.h"
#include "proc/thread_os.h"
#include <liblocal/frame.h>
#include <liblocal/memory.h>

struct qz_mtx {
  void *handle;  // the OS mutex object
};

struct qz_cond {
  void *event;      // auto-reset, created non-signalled
  int32_t waiters;  // threads inside a wait; guarded by 'guard'
  qz_mtx *guard;
};

struct qz_thr {
  qz_mtx *lock;            // protects every other field
  uint32_t *identity;      // {process id, thread id} of the thread, made by it
  int running;             // 1 from the start until finished, killed or waited for
  qz_cond *finished;       // signalled when running drops to 0
  int started;             // set by the new thread as its first act
  qz_cond *started_cond;   // signalled once started is 1
  qz_thr_func function;
  void *argument;
  int status_set;          // the first writer of status wins
  uint32_t status;
  void *thread;            // the OS thread handle (written before the creator unlocks)
  uint32_t thread_id;
  int exiting;             // the thread is past its function and finishing: kill leaves it alone
};

namespace {

namespace os = ll::thr_os;

// errno is not ours to change: the allocators and system calls below may.
struct KeepErrno {
  int saved = errno;
  ~KeepErrno() { errno = saved; }
};

// The records alive in this process, so that a destroy of a record that is
// gone (or was never made) answers 0 instead of freeing it twice.
enum class Kind { mutex, cond, thread };
struct LiveRecords {
  std::mutex mu;
  std::unordered_map<const void *, Kind> map;
};
LiveRecords &live() noexcept { return *ll::process_area<LiveRecords>(); }

void live_add(const void *p, Kind k) noexcept {
  LiveRecords &l = live();
  std::lock_guard<std::mutex> g(l.mu);
  try {
    l.map[p] = k;
  } catch (...) {
  }
}

// Removes the record from the live set; false when it is not there.
bool live_take(const void *p, Kind k) noexcept {
  LiveRecords &l = live();
  std::lock_guard<std::mutex> g(l.mu);
  auto it = l.map.find(p);
  if (it == l.map.end() || it->second != k) return false;
  l.map.erase(it);
  return true;
}

// Test seam: makes step n of the next thread creation fail (1 the finished
// condition, 2 the started condition, 3 the lock, 4 the OS thread).
std::atomic<int> g_fail_step{0};
bool step_fails(int n) noexcept {
  int want = n;
  return g_fail_step.load(std::memory_order_relaxed) == n && g_fail_step.compare_exchange_strong(want, 0);
}

uint32_t interval_ms(const qz_timespec_t *iv) noexcept {
  if (!iv) return os::kInfinite;
  const int64_t ms = static_cast<int64_t>(iv->tv_sec) * 1000 + iv->tv_nsec / 1000000;
  if (ms <= 0) return 0;
  if (ms >= static_cast<int64_t>(os::kInfinite)) return os::kInfinite - 1;
  return static_cast<uint32_t>(ms);
}

// 'visible': the record is handed to the caller and registered as alive.
// A thread record's own lock and conditions are never seen by callers.
int mtx_create(qz_mtx **out, bool visible = true) noexcept {
  if (!out) return 0;
  os::NoKill nk;
  void *h = os::mutex_new();
  if (!h) {
    *out = nullptr;
    return 0;
  }
  auto *m = static_cast<qz_mtx *>(xmalloc(sizeof(qz_mtx)));
  m->handle = h;
  if (visible) live_add(m, Kind::mutex);
  *out = m;
  return 1;
}

int mtx_destroy(qz_mtx *m, bool visible = true) noexcept {
  if (!m) return 0;
  os::NoKill nk;
  if (visible && !live_take(m, Kind::mutex)) return 0;
  if (!os::mutex_close(m->handle)) {
    if (visible) live_add(m, Kind::mutex);
    return 0;
  }
  std::free(m);
  return 1;
}

inline int mtx_lock(qz_mtx *m) noexcept { return m && os::mutex_lock(m->handle) ? 1 : 0; }

// A release refused because the caller is not the owner still counts as done.
inline int mtx_unlock(qz_mtx *m) noexcept { return m && os::mutex_unlock(m->handle) != 0 ? 1 : 0; }

int cond_create(qz_cond **out, bool visible = true) noexcept {
  if (!out) return 0;
  os::NoKill nk;
  *out = nullptr;
  void *ev = os::event_new();
  if (!ev) return 0;
  qz_mtx *guard = nullptr;
  if (!mtx_create(&guard, false)) {
    os::event_close(ev);
    return 0;
  }
  auto *c = static_cast<qz_cond *>(xmalloc(sizeof(qz_cond)));
  c->event = ev;
  c->waiters = 0;
  c->guard = guard;
  if (visible) live_add(c, Kind::cond);
  *out = c;
  return 1;
}

int cond_destroy(qz_cond *c, bool visible = true) noexcept {
  if (!c) return 0;
  os::NoKill nk;
  if (visible && !live_take(c, Kind::cond)) return 0;
  if (!os::event_close(c->event)) {
    if (visible) live_add(c, Kind::cond);
    return 0;
  }
  mtx_destroy(c->guard, false);
  std::free(c);
  return 1;
}

int cond_signal(qz_cond *c) noexcept {
  if (!c) return 0;
  if (!mtx_lock(c->guard)) return 0;
  const bool anyone = c->waiters > 0;
  if (!mtx_unlock(c->guard)) return 0;
  if (anyone && !os::event_set(c->event)) return 0;
  return 1;
}

int cond_wait(qz_cond *c, qz_mtx *m, const qz_timespec_t *iv) noexcept {
  if (!c || !m) return 0;
  if (!mtx_lock(c->guard)) return 0;
  ++c->waiters;
  if (!mtx_unlock(c->guard)) return 0;
  mtx_unlock(m);

  const bool signalled = os::event_wait(c->event, interval_ms(iv)) == 1;

  if (!mtx_lock(c->guard)) return 0;
  --c->waiters;
  if (!mtx_unlock(c->guard)) return 0;
  const int relocked = mtx_lock(m);
  return relocked && signalled ? 1 : 0;
}

// Releases the per-thread state named by an identity record. Only the thread
// itself can release its areas; a thread that was killed releases them on its
// way out where the platform lets it run that far (see docs/threads.md).
void release_identity(uint32_t *id) noexcept {
  if (!id) return;
  if (id[0] == ll::os::process_id() && id[1] == ll::os::thread_id()) T_threadexit();
  std::free(id);
}

// The finish step with the record's lock held; returns the identity record
// when release is on (the caller releases it after unlocking).
uint32_t *finish_locked(qz_thr *r, bool release) noexcept {
  r->running = 0;
  cond_signal(r->finished);
  if (!release) return nullptr;
  uint32_t *id = r->identity;
  r->identity = nullptr;
  return id;
}

void finish(qz_thr *r, bool release) noexcept {
  mtx_lock(r->lock);
  uint32_t *id = finish_locked(r, release);
  mtx_unlock(r->lock);
  release_identity(id);
}

// Runs on the new thread.
void start_routine(void *p) noexcept {
  auto *r = static_cast<qz_thr *>(p);
  qz_thr_func fn;
  void *arg;
  {
    KeepErrno ke;
    auto *id = static_cast<uint32_t *>(xmalloc(2 * sizeof(uint32_t)));
    id[0] = ll::os::process_id();
    id[1] = ll::os::thread_id();
    mtx_lock(r->lock);
    r->started = 1;
    r->running = 1;
    r->thread_id = id[1];
    r->identity = id;
    fn = r->function;
    arg = r->argument;
    mtx_unlock(r->lock);
    if (!cond_signal(r->started_cond)) return;
  }

  void *result = fn ? os::run_body(fn, arg) : nullptr;

  // From the moment the lock is held the thread only finishes; the status,
  // the release and the finish step happen under one hold, so that nobody
  // can free the record between them. The per-thread areas go before
  // 'running' drops, so that a wait or destroy that returns finds them gone.
  mtx_lock(r->lock);
  os::thread_finishing();
  r->exiting = 1;
  if (!r->status_set) {
    r->status = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(result));
    r->status_set = 1;
  }
  uint32_t *id = r->identity;
  r->identity = nullptr;
  release_identity(id);
  finish_locked(r, false);
  mtx_unlock(r->lock);
}

void destroy_parts(qz_thr *r) noexcept {
  if (r->lock) mtx_destroy(r->lock, false);
  if (r->finished) cond_destroy(r->finished, false);
  if (r->started_cond) cond_destroy(r->started_cond, false);
}

int thr_create(qz_thr **out, qz_thr_func fn, void *arg) noexcept {
  if (!out) return 0;
  KeepErrno ke;
  qz_thr *r;
  {
    os::NoKill nk;
    r = static_cast<qz_thr *>(xcalloc(1, sizeof(qz_thr)));
    *out = r;
    r->function = fn;
    r->argument = arg;
    bool ok = !step_fails(1) && cond_create(&r->finished, false);
    ok = ok && !step_fails(2) && cond_create(&r->started_cond, false);
    ok = ok && !step_fails(3) && mtx_create(&r->lock, false);
    ok = ok && mtx_lock(r->lock);
    const bool locked = ok;
    ok = ok && !step_fails(4) && os::thread_start(start_routine, r, &r->thread);
    if (!ok) {
      if (locked) mtx_unlock(r->lock);
      destroy_parts(r);
      std::free(r);
      *out = nullptr;
      return 0;
    }
    live_add(r, Kind::thread);
  }
  // The new thread needs the lock to set 'started', which it can only take
  // once this wait has released it: the signal cannot be missed.
  while (!r->started) cond_wait(r->started_cond, r->lock, nullptr);
  mtx_unlock(r->lock);
  return 1;
}

int thr_wait(qz_thr *r, uint32_t *status, int *nowait) noexcept {
  if (!r || !nowait) return 0;
  KeepErrno ke;
  if (!mtx_lock(r->lock)) return 0;
  const int running = r->running;
  mtx_unlock(r->lock);

  if (*nowait && running) {
    *nowait = 0;
    return 1;
  }
  uint32_t code = 0;
  if (running && (!os::thread_join(r->thread) || !os::thread_exit_code(r->thread, &code))) return 0;

  mtx_lock(r->lock);
  if (!r->status_set) {
    r->status = code;
    r->status_set = 1;
  }
  if (status) *status = r->status;
  mtx_unlock(r->lock);
  finish(r, false);
  return 1;
}

int thr_kill(qz_thr *r, uint32_t status) noexcept {
  if (!r) return 0;
  KeepErrno ke;
  if (!mtx_lock(r->lock)) return 0;
  if (r->running && !r->exiting) {
    // A failure leaves the lock held, as it always has.
    if (os::thread_terminate(r->thread, status) == 0) return 0;
  }
  if (!r->status_set) {
    r->status = status;
    r->status_set = 1;
  }
  mtx_unlock(r->lock);
  finish(r, true);
  return 1;
}

int thr_destroy(qz_thr *r) noexcept {
  if (!r) return 0;
  KeepErrno ke;
  if (!live_take(r, Kind::thread)) return 0;
  if (!mtx_lock(r->lock)) {
    live_add(r, Kind::thread);
    return 0;
  }
  while (r->running) {
    if (!cond_wait(r->finished, r->lock, nullptr) && r->running) {
      live_add(r, Kind::thread);
      return 0;
    }
  }
  mtx_unlock(r->lock);
  os::NoKill nk;
  destroy_parts(r);
  std::free(r->identity);
  // The OS thread handle is not closed here (see docs/threads.md).
  os::thread_release(r->thread);
  std::free(r);
  return 1;
}

}  // namespace

extern "C" {

LL_API int qz_thr_create(qz_thr_t **thr, qz_thr_func fn, void *arg) noexcept { return thr_create(thr, fn, arg); }
LL_API int qz_thr_wait(qz_thr_t *thr, uint32_t *status, int *nowait) noexcept {
  return thr_wait(thr, status, nowait);
}
LL_API int qz_thr_kill(qz_thr_t *thr, uint32_t status) noexcept { return thr_kill(thr, status); }
LL_API int qz_thr_destroy(qz_thr_t *thr) noexcept { return thr_destroy(thr); }
LL_API uint32_t qz_thr_getid(void) noexcept { return ll::os::thread_id(); }
LL_API int qz_thr_idsequal(uint32_t a, uint32_t b) noexcept { return a == b ? 1 : 0; }

LL_API void qz_thr_exit(uint32_t status) noexcept {
  T_threadexit();
  os::thread_exit(status);
}

LL_API int qz_thr_yield(void) noexcept {
  os::yield();
  return 1;
}

LL_API int qz_mtx_create(qz_mtx_t **mtx) noexcept {
  KeepErrno ke;
  return mtx_create(mtx);
}
LL_API int qz_mtx_destroy(qz_mtx_t *mtx) noexcept {
  KeepErrno ke;
  return mtx_destroy(mtx);
}
LL_API int qz_mtx_lock(qz_mtx_t *mtx) noexcept { return mtx_lock(mtx); }
LL_API int qz_mtx_unlock(qz_mtx_t *mtx) noexcept { return mtx_unlock(mtx); }

LL_API int qz_cond_create(qz_cond_t **cond) noexcept {
  KeepErrno ke;
  return cond_create(cond);
}
LL_API int qz_cond_destroy(qz_cond_t *cond) noexcept {
  KeepErrno ke;
  return cond_destroy(cond);
}
LL_API int qz_cond_signal(qz_cond_t *cond) noexcept { return cond_signal(cond); }
LL_API int qz_cond_wait(qz_cond_t *cond, qz_mtx_t *mtx) noexcept { return cond_wait(cond, mtx, nullptr); }
LL_API int qz_cond_timedwait(qz_cond_t *cond, qz_mtx_t *mtx, const qz_timespec_t *interval) noexcept {
  return cond_wait(cond, mtx, interval);
}

// Test seam (declared only in the tests).
LL_API void llt_thr_fail_step(int step) noexcept { g_fail_step.store(step); }

}  // extern "C"
