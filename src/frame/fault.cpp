// Fault injection: the per-thread countdown and the test seams.
#include "frame/fault.h"

#include <liblocal/export.h>

std::atomic<int> llt_fault_armed{0};

namespace ll::fault {
namespace {
struct State {
  unsigned kinds = 0;     // what the countdown counts; 0: not armed
  long nth = 0;           // the call (1-based) that fails
  bool persistent = false;  // and every later one
  long calls = 0;         // calls of the armed kinds seen since arming
  long failed = 0;        // failures injected since arming
};
thread_local State t_state;
}  // namespace

}  // namespace ll::fault

using ll::fault::t_state;

extern "C" {

LL_API int llt_fault_hit(unsigned kind) noexcept {
  auto &s = t_state;
  if (!(s.kinds & kind)) return 0;
  const long n = ++s.calls;
  if (n < s.nth || (n > s.nth && !s.persistent)) return 0;
  ++s.failed;
  ll::fault::set_error(static_cast<ll::fault::Kind>(kind));
  return 1;
}

// Arms the calling thread: its nth call (1-based) of any of the kinds (a
// mask of ll::fault::Kind bits) fails, and with 'persistent' every later one
// too. Re-arming starts the count over.
LL_API void llt_fault_arm(unsigned kinds, long nth, int persistent) noexcept {
  auto &s = t_state;
  if (s.kinds == 0 && kinds != 0) llt_fault_armed.fetch_add(1);
  if (s.kinds != 0 && kinds == 0) llt_fault_armed.fetch_sub(1);
  s = {};
  s.kinds = kinds;
  s.nth = nth;
  s.persistent = persistent != 0;
}

// Disarms the calling thread; returns the number of failures injected since
// it was armed.
LL_API long llt_fault_disarm(void) noexcept {
  const long failed = t_state.failed;
  llt_fault_arm(0, 0, 0);
  return failed;
}

// Calls of the armed kinds the calling thread has made since it was armed.
LL_API long llt_fault_calls(void) noexcept { return t_state.calls; }

}  // extern "C"
