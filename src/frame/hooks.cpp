// Attach and teardown hooks of families that have nothing to do yet. A family
// that takes one over deletes it here and defines it in its own files.
#include "frame/teardown_hooks.h"

namespace ll::hooks {
void start_event_listener() noexcept {}
void eventlog_teardown() noexcept {}
void unload_dynamic_libraries() noexcept {}
void hostname_cache_clear() noexcept {}
}  // namespace ll::hooks
