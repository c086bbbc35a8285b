// Process events: the handler rules, the default handlers and quit_now.
// The listener that turns the platform's events into calls of on_kill,
// on_debug and on_console is in the back-ends.
#include "proc/events.h"

#include <atomic>
#include <mutex>

#include "frame/os.h"
#include "proc/service_state.h"
#include <liblocal/frame.h>
#include <liblocal/memory.h>
#include <liblocal/output.h>
#include <liblocal/service.h>
#include <liblocal/socket.h>

namespace ll::ev {
namespace {

std::atomic<qz_event_handler> g_kill{nullptr};
std::atomic<uint32_t> g_kill_thread{0};
std::atomic<qz_event_handler> g_debug{nullptr};
std::atomic<bool> g_started{false};
std::mutex g_start_lock;

void exit_handler(int sig) {
  if (sig != kContinue) os::exit_process(9);
}

void debug_file_handler(int sig) {
  if (sig == kDebug) read_debug_control();
}

qz_event_handler as_handler(uintptr_t v) { return reinterpret_cast<qz_event_handler>(v); }
bool is_function(qz_event_handler h) { return h != as_handler(0) && h != as_handler(1); }

}  // namespace

void start() noexcept {
  if (g_started.load(std::memory_order_acquire)) return;
  std::lock_guard<std::mutex> g(g_start_lock);
  if (g_started.load(std::memory_order_relaxed)) return;
  g_kill.store(exit_handler);
  g_debug.store(debug_file_handler);
  if (!os::start_listener(RunByService() == 0)) dprintf(2, "regeventthread failed, %s\n", "cannot start thread");
  g_started.store(true, std::memory_order_release);
}

bool started() noexcept { return g_started.load(std::memory_order_acquire); }
void forget_start() noexcept { g_started.store(false); }

bool on_kill() noexcept {
  // A registered service stops the way its manager would stop it: the stop
  // handler runs from the service's own thread, which then ends the process.
  if (svc::take_stop_signal()) return false;
  if (qz_event_handler h = g_kill.load()) h(kStop);
  return true;
}

void on_debug() noexcept {
  if (qz_event_handler h = g_debug.load()) h(kDebug);
}

void after_loop() noexcept { raise_cancel(); }

void on_console(int type) noexcept {
  qz_event_handler h = g_kill.load();
  if (!h) return;
  raise_cancel();
  h(type == 0 ? kInterrupt : kStop);
}

void raise_cancel() noexcept { qz_socancel(); }

void read_debug_control() noexcept {
  if (!os::read_debug_control()) dprintf(2, "no debug control file read\n");
}

}  // namespace ll::ev

using namespace ll::ev;

extern "C" {

LL_API int regevent(int sig, qz_event_handler handler) noexcept {
  start();
  if (sig == kPipe) return 0;
  if (sig == kDebug) {
    if (handler == QZ_EVENT_DEFAULT) g_debug.store(debug_file_handler);
    else if (handler != QZ_EVENT_KEEP) g_debug.store(handler);
    return 0;
  }
  if (handler == QZ_EVENT_DEFAULT) {
    if (g_kill_thread.load() == ll::os::thread_id()) g_kill.store(exit_handler);
  } else if (handler != QZ_EVENT_KEEP) {
    g_kill.store(handler);
    g_kill_thread.store(ll::os::thread_id());
    if (is_function(handler) && RunByService()) sethandlerfunc(handler);
  }
  return 0;
}

LL_API int quit_now(void) noexcept {
  delay(0);
  const int q = __atomic_load_n(&Quit, __ATOMIC_RELAXED);
  if (q == 0) return 0;
  if (q != 1) __atomic_store_n(&Quit, 1, __ATOMIC_RELAXED);
  return 1;
}

}  // extern "C"
