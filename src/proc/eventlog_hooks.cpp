// Event log and libraries loaded by name: their part of the library's teardown.
#include "frame/teardown_hooks.h"
#include "proc/dynlib.h"
#include "proc/eventlog.h"
#include "proc/service_hooks.h"

namespace ll::hooks {
void eventlog_teardown() noexcept {
  ll::svc::teardown();  // its last lines still reach the log
  ll::evlog::os::close();
}
void unload_dynamic_libraries() noexcept { ll::dynlib::unload_all(); }
}  // namespace ll::hooks
