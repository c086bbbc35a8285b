// Start-up step of _qzinit: the process's events are taken over here (on
// POSIX systems the signals; on Windows the listener already runs since
// attach).
#include "proc/events.h"

namespace ll::init {
void process_events() noexcept { ll::ev::start(); }
}  // namespace ll::init
