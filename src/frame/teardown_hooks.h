// Points where later families plug into attach and teardown. Each is defined
// once, by the family that owns it.
#pragma once

namespace ll::hooks {
void start_event_listener() noexcept;      // process events: listener thread
void eventlog_teardown() noexcept;         // close event-log and service handles
void unload_dynamic_libraries() noexcept;  // libraries loaded by name on demand
void hostname_cache_clear() noexcept;      // host identity: alias cache
// Cluster layer: true when this host is a node of a cluster (host identity
// keeps the local entry of its alias cache for a shorter time there).
bool cluster_node() noexcept;
}  // namespace ll::hooks
