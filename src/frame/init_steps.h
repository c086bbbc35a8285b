// The steps of _qzinit, in their order. Each is owned by its family; those
// whose family has not landed yet are empty in frame/init_steps.cpp (a family
// that takes one over deletes it there and defines it in its own files).
#pragma once

namespace ll::init {
void close_inherited() noexcept;                     // 2: qz_close_most
void find_installdir(const char *argv0) noexcept;    // 3: installation directory
void find_appdir(const char *name) noexcept;         // 4: application directory
void locale_and_catalog(const char *name) noexcept;  // 5: locale file, catalog
void event_source() noexcept;                        // 5a: event-log source (once the catalog is open)
void process_events() noexcept;                      // 6a: kill, debug and console events
void time_zone() noexcept;                           // 7: time zone
void cluster_start(const char *name) noexcept;       // 8: cluster layer
void optional_entry_points() noexcept;               // 9: entry points found by name
void set_privileges() noexcept;                      // 10: process privileges
void dtree_handlers() noexcept;                      // 11: directory-walk handlers
const char *temp_dir() noexcept;                     // 12: temporary directory (UTF-8)
void clear_opterr() noexcept;                        // 14: opterr = 0

// True once a call of _qzinit has run to its end in this process.
bool completed() noexcept;
}  // namespace ll::init
