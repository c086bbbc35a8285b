// Event log and libraries loaded by name: their teardown (placeholder).
#include "frame/teardown_hooks.h"

namespace ll::hooks {
void eventlog_teardown() noexcept {}
void unload_dynamic_libraries() noexcept {}
}  // namespace ll::hooks
