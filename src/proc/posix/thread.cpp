// Threads, mutex objects and events on Linux: native threads, and mutexes and
// auto-reset events of our own on futexes, so that both keep the Windows
// rules (recursive mutexes released when their owner ends, events that
// release exactly one waiter).
//
// Killing a thread. The killer marks the thread's control block and sends it
// the kill signal; the handler jumps back to the bottom of the thread's stack,
// where the thread releases the mutexes it still holds and its per-thread
// areas, and ends. Inside the library's own short critical spans (a mutex's
// bookkeeping, allocation in create and destroy) the kill waits until the
// span ends; every wait of the library checks for a pending kill before and
// after it sleeps. The killer returns once the thread has ended.
#include "proc/thread_os.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <mutex>
#include <new>

#include "frame/compiler.h"
#include "frame/os.h"
#include <liblocal/frame.h>
#include "frame/fault.h"

namespace ll::thr_os {
namespace {

// ---------------------------------------------------------------- futexes

using Word = std::atomic<uint32_t>;

// Sleeps while *w == expected (at most rel, when given). errno is kept.
void futex_wait(Word *w, uint32_t expected, const timespec *rel) noexcept {
  const int saved = errno;
  syscall(SYS_futex, reinterpret_cast<uint32_t *>(w), FUTEX_WAIT_PRIVATE, expected, rel, nullptr, 0);
  errno = saved;
}

void futex_wake(Word *w, int n) noexcept {
  const int saved = errno;
  syscall(SYS_futex, reinterpret_cast<uint32_t *>(w), FUTEX_WAKE_PRIVATE, n, nullptr, nullptr, 0);
  errno = saved;
}

// ------------------------------------------------------ per-thread state

struct Mutex {
  Word word;       // 0 free; else owner thread id, plus kWaiters
  uint32_t count;  // recursion depth; the owner's
  Mutex *prev;     // links of the owner's list of held mutexes
  Mutex *next;
};
constexpr uint32_t kWaiters = 0x80000000u;
constexpr uint32_t kOwner = 0x7FFFFFFFu;

struct Block;

struct Tls {
  Block *self;     // the control block of a thread this library started
  uint32_t tid;
  int nokill;      // depth of spans in which a kill waits
  uint32_t exit_code;  // qz_thr_exit's status on its way to the bottom of the stack
  Mutex *held;     // mutexes this thread holds
  bool hooked;     // exit hook registered (threads not started here)
};
thread_local Tls tls LL_TLS_FAST;

constexpr int kEnding = 1 << 20;

// The control block of a started thread, shared by the thread and its record.
struct Block {
  Routine routine;
  void *arg;
  pthread_t pt;
  pthread_mutex_t mu;      // guards exiting, kill and exit_code
  bool exiting;            // past the point where a kill can reach it
  std::atomic<uint32_t> kill;
  uint32_t exit_code;
  Word ended;              // 1 once the thread has ended
  std::atomic<int> refs;   // the thread and the record
  sigjmp_buf bottom;
};

void unref(Block *b) noexcept {
  if (b->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    pthread_mutex_destroy(&b->mu);
    b->~Block();
    std::free(b);
  }
}

inline uint32_t my_tid(Tls &t) noexcept {
  if (LL_UNLIKELY(!t.tid)) t.tid = ll::os::thread_id();
  return t.tid;
}

[[noreturn]] void die(Tls &t) noexcept {
  t.nokill = kEnding;
  siglongjmp(t.self->bottom, 1);
}

// A pending kill takes effect here when the thread is outside every span.
inline void kill_point(Tls &t) noexcept {
  if (LL_UNLIKELY(t.self != nullptr) && t.nokill == 0 && t.self->kill.load(std::memory_order_acquire)) die(t);
}

inline void enter(Tls &t) noexcept {
  ++t.nokill;
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

inline void leave(Tls &t) noexcept {
  std::atomic_signal_fence(std::memory_order_seq_cst);
  --t.nokill;
  kill_point(t);
}

int kill_signal() noexcept { return SIGRTMIN + 6; }

void on_kill_signal(int) {
  Tls &t = tls;
  if (!t.self || t.nokill != 0 || !t.self->kill.load(std::memory_order_acquire)) return;
  die(t);
}

void install_kill_handler() noexcept {
  static std::once_flag once;
  std::call_once(once, [] {
    struct sigaction sa = {};
    sa.sa_handler = on_kill_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no restart: a sleeping wait returns and looks for the kill
    sigaction(kill_signal(), &sa, nullptr);
  });
}

// ---------------------------------------------------------- held mutexes

void held_push(Tls &t, Mutex *m) noexcept;

void held_unlink(Tls &t, Mutex *m) noexcept {
  if (m->prev)
    m->prev->next = m->next;
  else
    t.held = m->next;
  if (m->next) m->next->prev = m->prev;
  m->prev = m->next = nullptr;
}

// Releases every mutex the thread still holds: the next locker acquires it.
void abandon_all(Tls &t) noexcept {
  while (Mutex *m = t.held) {
    held_unlink(t, m);
    m->count = 0;
    if (m->word.exchange(0, std::memory_order_release) & kWaiters) futex_wake(&m->word, 1);
  }
}

// Threads this library did not start release their mutexes through a
// thread_local destructor, registered the first time they take one.
struct ExitHook {
  ~ExitHook() { abandon_all(tls); }
};

[[gnu::noinline]] void register_exit_hook(Tls &t) noexcept {
  t.hooked = true;
  static thread_local ExitHook hook;
  (void)&hook;
}

void held_push(Tls &t, Mutex *m) noexcept {
  if (LL_UNLIKELY(!t.self && !t.hooked)) register_exit_hook(t);
  m->prev = nullptr;
  m->next = t.held;
  if (t.held) t.held->prev = m;
  t.held = m;
}

[[gnu::noinline]] void lock_slow(Mutex *m, Tls &t, uint32_t me) noexcept {
  bool slept = false;
  for (;;) {
    uint32_t w = m->word.load(std::memory_order_relaxed);
    if ((w & kOwner) == 0) {
      // After a sleep take it marked contended, so that the next unlock
      // wakes whoever else is asleep.
      if (m->word.compare_exchange_weak(w, me | (slept ? kWaiters : 0), std::memory_order_acquire,
                                        std::memory_order_relaxed))
        return;
      continue;
    }
    if (!(w & kWaiters)) {
      if (!m->word.compare_exchange_weak(w, w | kWaiters, std::memory_order_relaxed)) continue;
      w |= kWaiters;
    }
    --t.nokill;
    kill_point(t);
    futex_wait(&m->word, w, nullptr);
    ++t.nokill;
    slept = true;
  }
}

}  // namespace

// ------------------------------------------------------------------ mutexes

void *mutex_new() noexcept {
  void *mem = std::calloc(1, sizeof(Mutex));
  return mem ? new (mem) Mutex() : nullptr;
}

bool mutex_close(void *h) noexcept {
  auto *m = static_cast<Mutex *>(h);
  Tls &t = tls;
  const uint32_t owner = m->word.load(std::memory_order_acquire) & kOwner;
  if (owner != 0 && owner != my_tid(t)) return false;  // held by another thread
  if (owner != 0) {
    enter(t);
    held_unlink(t, m);
    leave(t);
  }
  m->~Mutex();
  std::free(m);
  return true;
}

bool mutex_lock(void *h) noexcept {
  auto *m = static_cast<Mutex *>(h);
  Tls &t = tls;
  const uint32_t me = my_tid(t);
  enter(t);
  if ((m->word.load(std::memory_order_relaxed) & kOwner) == me) {
    ++m->count;
  } else {
    uint32_t expected = 0;
    if (!m->word.compare_exchange_strong(expected, me, std::memory_order_acquire, std::memory_order_relaxed))
      lock_slow(m, t, me);
    m->count = 1;
    held_push(t, m);
  }
  leave(t);
  return true;
}

int mutex_unlock(void *h) noexcept {
  auto *m = static_cast<Mutex *>(h);
  Tls &t = tls;
  if ((m->word.load(std::memory_order_relaxed) & kOwner) != my_tid(t)) return -1;
  enter(t);
  if (--m->count == 0) {
    held_unlink(t, m);
    if (m->word.exchange(0, std::memory_order_release) & kWaiters) futex_wake(&m->word, 1);
  }
  leave(t);
  return 1;
}

// ------------------------------------------------------------------- events

namespace {
struct Event {
  Word state;     // 1 signalled
  Word sleepers;  // threads asleep (or about to be) on state
};

inline bool try_take(Event *e) noexcept {
  return e->state.load(std::memory_order_relaxed) == 1 && e->state.exchange(0, std::memory_order_acquire) == 1;
}

int64_t now_ns() noexcept {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}
}  // namespace

void *event_new() noexcept {
  void *mem = std::calloc(1, sizeof(Event));
  return mem ? new (mem) Event() : nullptr;
}

bool event_close(void *h) noexcept {
  auto *e = static_cast<Event *>(h);
  e->~Event();
  std::free(e);
  return true;
}

bool event_set(void *h) noexcept {
  auto *e = static_cast<Event *>(h);
  // The waiter counts itself before it sleeps and sleeps only while the state
  // is 0, so either it sees the 1 or this sees its count.
  if (e->state.exchange(1, std::memory_order_seq_cst) == 0 && e->sleepers.load(std::memory_order_seq_cst) > 0)
    futex_wake(&e->state, 1);
  return true;
}

int event_wait(void *h, uint32_t ms) noexcept {
  auto *e = static_cast<Event *>(h);
  Tls &t = tls;
  if (try_take(e)) return 1;
  if (ms == 0) return 0;
  const bool forever = ms == kInfinite;
  const int64_t deadline = forever ? 0 : now_ns() + static_cast<int64_t>(ms) * 1000000;
  for (;;) {
    kill_point(t);
    timespec rel{};
    if (!forever) {
      const int64_t left = deadline - now_ns();
      if (left <= 0) return try_take(e) ? 1 : 0;
      rel.tv_sec = static_cast<time_t>(left / 1000000000);
      rel.tv_nsec = static_cast<long>(left % 1000000000);
    }
    e->sleepers.fetch_add(1, std::memory_order_seq_cst);
    futex_wait(&e->state, 0, forever ? nullptr : &rel);
    e->sleepers.fetch_sub(1, std::memory_order_relaxed);
    if (try_take(e)) return 1;
  }
}

// ------------------------------------------------------------------ threads

namespace {
// Ends the thread's life on the library's side: no kill reaches it any more.
void mark_exiting(Block *b, uint32_t code) noexcept {
  pthread_mutex_lock(&b->mu);
  if (!b->exiting) {
    b->exiting = true;
    if (!b->kill.load(std::memory_order_relaxed)) b->exit_code = code;
  }
  pthread_mutex_unlock(&b->mu);
}

extern "C" void *thread_bottom(void *p) {
  auto *b = static_cast<Block *>(p);
  Tls &t = tls;
  t.self = b;
  my_tid(t);
  t.nokill = 1;  // until the start function runs
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, kill_signal());
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);

  volatile uint32_t code = 0;
  if (sigsetjmp(b->bottom, 1) == 0)
    b->routine(b->arg);
  else
    code = t.exit_code;  // killed (the killer's code wins) or qz_thr_exit

  t.nokill = kEnding;
  mark_exiting(b, code);
  T_threadexit();
  abandon_all(t);
  t.self = nullptr;
  b->ended.store(1, std::memory_order_release);
  futex_wake(&b->ended, INT_MAX);
  unref(b);
  return nullptr;
}
}  // namespace

bool thread_start(Routine routine, void *arg, void **handle) noexcept {
  install_kill_handler();
  void *mem = LL_FAULT(alloc) ? nullptr : std::calloc(1, sizeof(Block));
  if (!mem) return false;
  auto *b = new (mem) Block();
  b->routine = routine;
  b->arg = arg;
  pthread_mutex_init(&b->mu, nullptr);
  b->refs.store(2, std::memory_order_relaxed);
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  const int rc = LL_FAULT(spawn) ? EAGAIN : pthread_create(&b->pt, &attr, thread_bottom, b);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    pthread_mutex_destroy(&b->mu);
    b->~Block();
    std::free(b);
    return false;
  }
  *handle = b;
  return true;
}

void *run_body(Body fn, void *arg) noexcept {
  Tls &t = tls;
  t.nokill = 0;
  kill_point(t);
  return fn(arg);
}

void thread_finishing() noexcept {
  Tls &t = tls;
  if (!t.self) return;
  t.nokill = kEnding;
  mark_exiting(t.self, 0);
}

bool thread_join(void *h) noexcept {
  auto *b = static_cast<Block *>(h);
  Tls &t = tls;
  while (b->ended.load(std::memory_order_acquire) == 0) {
    kill_point(t);
    futex_wait(&b->ended, 0, nullptr);
  }
  return true;
}

bool thread_exit_code(void *h, uint32_t *code) noexcept {
  auto *b = static_cast<Block *>(h);
  if (b->ended.load(std::memory_order_acquire) == 0) return false;
  pthread_mutex_lock(&b->mu);
  *code = b->exit_code;
  pthread_mutex_unlock(&b->mu);
  return true;
}

int thread_terminate(void *h, uint32_t code) noexcept {
  auto *b = static_cast<Block *>(h);
  Tls &t = tls;
  enter(t);
  pthread_mutex_lock(&b->mu);
  if (b->exiting) {
    pthread_mutex_unlock(&b->mu);
    leave(t);
    return -1;
  }
  if (!b->kill.load(std::memory_order_relaxed)) {
    b->exit_code = code;
    b->kill.store(1, std::memory_order_release);
  }
  if (b == t.self) {
    // Killing oneself: gone at once, as on Windows.
    pthread_mutex_unlock(&b->mu);
    die(t);
  }
  const int rc = pthread_kill(b->pt, kill_signal());
  pthread_mutex_unlock(&b->mu);
  leave(t);
  if (rc != 0) return 0;
  // Woken as the thread ends; the signal also interrupts a sleep of the
  // thread's own, which then sees the kill.
  while (b->ended.load(std::memory_order_acquire) == 0) {
    kill_point(t);
    futex_wait(&b->ended, 0, nullptr);
  }
  return 1;
}

void thread_release(void *h) noexcept {
  if (h) unref(static_cast<Block *>(h));
}

void thread_exit(uint32_t code) noexcept {
  Tls &t = tls;
  if (t.self) {
    t.exit_code = code;
    die(t);
  }
  // A thread this library did not start: end it the native way. The call
  // unwinds; this function is declared not to, so reach it through a pointer
  // of a type that says it does not throw.
  abandon_all(t);
  using ExitFn = void (*)(void *) noexcept;
  reinterpret_cast<ExitFn>(&pthread_exit)(reinterpret_cast<void *>(static_cast<uintptr_t>(code)));
  std::abort();
}

void yield() noexcept {
  Tls &t = tls;
  kill_point(t);
  sched_yield();
}

void nokill_enter() noexcept { enter(tls); }
void nokill_leave() noexcept { leave(tls); }

}  // namespace ll::thr_os
