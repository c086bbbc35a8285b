// The operating-system objects behind threads, mutexes and condition
// variables, one implementation per back-end (proc/posix/thread.cpp,
// proc/win32/thread.cpp). Handles are opaque pointers.
//
// Mutex objects are recursive, owned by a thread, and released when the owner
// ends while holding them (the next locker acquires them). Events are
// auto-reset: a set releases exactly one waiter, or stays set until one comes.
#pragma once
#include <cstdint>

namespace ll::thr_os {

constexpr uint32_t kInfinite = 0xFFFFFFFFu;

// Mutex objects. lock: true once held (also when it was abandoned).
// unlock: 1 released, -1 the caller is not the owner, 0 other failure.
// close: false when the object cannot be closed (it stays valid).
void *mutex_new() noexcept;
bool mutex_close(void *m) noexcept;
bool mutex_lock(void *m) noexcept;
int mutex_unlock(void *m) noexcept;

// Auto-reset events, created non-signalled. wait: 1 signalled, 0 timed out,
// -1 failure. ms == kInfinite waits without limit.
void *event_new() noexcept;
bool event_close(void *e) noexcept;
bool event_set(void *e) noexcept;
int event_wait(void *e, uint32_t ms) noexcept;

// Threads. start: runs routine(arg) on a new thread (default stack, at once)
// and stores the thread's handle.
using Routine = void (*)(void *arg);
using Body = void *(*)(void *arg);
bool thread_start(Routine routine, void *arg, void **handle) noexcept;
// Runs the caller's start function on the new thread: from here on a kill
// may end the thread.
void *run_body(Body fn, void *arg) noexcept;
// Called by the new thread once it holds its record's lock after the start
// function: from here on a kill no longer ends it (it is finishing).
void thread_finishing() noexcept;
// Waits without limit until the thread has ended; then its exit code.
bool thread_join(void *h) noexcept;
bool thread_exit_code(void *h, uint32_t *code) noexcept;
// Ends the thread with that exit code and returns once it is gone:
// 1 ended, -1 it had already ended, 0 failure. A thread that kills itself
// does not return.
int thread_terminate(void *h, uint32_t code) noexcept;
// The record no longer refers to the thread.
void thread_release(void *h) noexcept;
[[noreturn]] void thread_exit(uint32_t code) noexcept;
void yield() noexcept;

// Spans in which a kill of the calling thread waits (allocation, the record's
// bookkeeping): a kill arriving inside takes effect when the span ends.
void nokill_enter() noexcept;
void nokill_leave() noexcept;
struct NoKill {
  NoKill() noexcept { nokill_enter(); }
  ~NoKill() { nokill_leave(); }
  NoKill(const NoKill &) = delete;
  NoKill &operator=(const NoKill &) = delete;
};

}  // namespace ll::thr_os
