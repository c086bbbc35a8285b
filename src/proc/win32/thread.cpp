// Threads, mutex objects and events on Windows: Win32 threads, unnamed mutex
// objects and unnamed auto-reset events.
#include "proc/thread_os.h"

#include <process.h>

#include <cstdlib>

#include "frame/areas.h"
#include "frame/win32/win.h"
#include "frame/fault.h"

namespace ll::thr_os {

void *mutex_new() noexcept { return CreateMutexA(nullptr, FALSE, nullptr); }

bool mutex_close(void *m) noexcept { return CloseHandle(m) != 0; }

// WAIT_ABANDONED also leaves the mutex held by the caller.
bool mutex_lock(void *m) noexcept { return WaitForSingleObject(m, INFINITE) != WAIT_FAILED; }

int mutex_unlock(void *m) noexcept {
  if (ReleaseMutex(m)) return 1;
  return GetLastError() == ERROR_NOT_OWNER ? -1 : 0;
}

void *event_new() noexcept { return CreateEventA(nullptr, FALSE, FALSE, nullptr); }

bool event_close(void *e) noexcept { return CloseHandle(e) != 0; }

bool event_set(void *e) noexcept { return SetEvent(e) != 0; }

int event_wait(void *e, uint32_t ms) noexcept {
  switch (WaitForSingleObject(e, ms)) {
    case WAIT_OBJECT_0:
      return 1;
    case WAIT_TIMEOUT:
      return 0;
    default:
      return -1;
  }
}

namespace {
struct Start {
  Routine routine;
  void *arg;
};

unsigned __stdcall thread_bottom(void *p) {
  const Start s = *static_cast<Start *>(p);
  std::free(p);
  s.routine(s.arg);
  return 0;  // the start function's result lives in the record only
}
}  // namespace

bool thread_start(Routine routine, void *arg, void **handle) noexcept {
  auto *s = LL_FAULT(alloc) ? nullptr : static_cast<Start *>(std::malloc(sizeof(Start)));
  if (!s) return false;
  s->routine = routine;
  s->arg = arg;
  unsigned id = 0;
  const uintptr_t h = LL_FAULT(spawn) ? 0 : _beginthreadex(nullptr, 0, thread_bottom, s, 0, &id);
  if (!h) {
    std::free(s);
    return false;
  }
  *handle = reinterpret_cast<void *>(h);
  return true;
}

void *run_body(Body fn, void *arg) noexcept { return fn(arg); }

void thread_finishing() noexcept {}

bool thread_join(void *h) noexcept { return WaitForSingleObject(h, INFINITE) == WAIT_OBJECT_0; }

bool thread_exit_code(void *h, uint32_t *code) noexcept {
  DWORD c = 0;
  if (!GetExitCodeThread(h, &c)) return false;
  *code = c;
  return true;
}

int thread_terminate(void *h, uint32_t code) noexcept {
  if (!TerminateThread(h, code)) return GetLastError() == ERROR_INVALID_PARAMETER ? -1 : 0;
  // Termination completes asynchronously; the record may be freed as soon as
  // the kill returns, so see the thread gone first.
  WaitForSingleObject(h, 10000);
  // The thread could not run its own way out: release its areas for it.
  ll::thread_areas_release(GetThreadId(h));
  return 1;
}

// The handle stays open for the life of the process: the product has always
// left it so, and an id or handle value is then never reused while a record
// could still name it.
void thread_release(void *) noexcept {}

void thread_exit(uint32_t code) noexcept {
  _endthreadex(code);
  ExitThread(code);
}

void yield() noexcept { Sleep(0); }

void nokill_enter() noexcept {}
void nokill_leave() noexcept {}

}  // namespace ll::thr_os
