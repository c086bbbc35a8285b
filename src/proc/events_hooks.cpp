// Process events: the frame's attach hook.
#include "frame/teardown_hooks.h"
#include "proc/events.h"

namespace ll::hooks {
void start_event_listener() noexcept { ll::ev::os::attach(); }
}  // namespace ll::hooks
