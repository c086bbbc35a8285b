// Process events: the listener thread started at attach (placeholder).
#include "frame/teardown_hooks.h"

namespace ll::hooks {
void start_event_listener() noexcept {}
}  // namespace ll::hooks
