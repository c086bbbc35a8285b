// Points where later families plug into attach and teardown. Each is defined
// once, by the family that owns it (frame/hooks.cpp holds those whose family
// has nothing to do yet).
#pragma once

namespace ll::hooks {
void start_event_listener() noexcept;      // process events: listener thread
void eventlog_teardown() noexcept;         // close event-log and service handles
void unload_dynamic_libraries() noexcept;  // libraries loaded by name on demand
void hostname_cache_clear() noexcept;      // host identity: alias cache
}  // namespace ll::hooks
