// The event log: portable rules (proc/eventlog.cpp) and the platform's log
// behind them (proc/posix/eventlog.cpp: the system log's local socket;
// proc/win32/eventlog.cpp: the registry and the event-log service).
#pragma once
#include <cstddef>
#include <cstdint>

namespace ll::evlog {

// Largest message handed to the log, in bytes of its stored form (UTF-16 on
// Windows, UTF-8 on POSIX).
constexpr size_t kMessageCap = 12284;
// Units of UTF-16 in kMessageCap bytes.
constexpr size_t kWideCap = kMessageCap / 2;
// The formatter's buffer: enough UTF-8 for kWideCap units (three bytes at
// most per unit) and a terminator.
constexpr size_t kFormatCap = kWideCap * 3 + 8;

// The library's own product key, given to the set-up by initialisation.
constexpr const char *kProductKey = "bsw";

// UTF-8 to UTF-16 for the event log: characters beyond U+FFFF become
// surrogate pairs, invalid sequences U+FFFD, a line feed (not already after
// a carriage return) becomes CR LF. Stops before a unit, pair or line end
// that would pass 'cap' units. Writes a terminator after the units (out has
// cap + 1 units); returns the number of units.
size_t to_event_wide(const char *utf8, char16_t *out, size_t cap) noexcept;

// UTF-8 for the system log: invalid sequences become U+FFFD, trailing line
// ends are dropped, and the text stops before a character that would pass
// 'cap' bytes. Writes a terminator (out has cap + 1 bytes); returns the length.
size_t to_log_text(const char *utf8, char *out, size_t cap) noexcept;

// Name of an event type in a system-log message ("error", "audit failure",
// ...; "type <n>" for other values, written into buf of 16 bytes).
const char *type_name(int type, char *buf) noexcept;

namespace os {
// Registers the event source in the system's registry; 1 when it is
// registered afterwards, 0 on failure (reported at debug level 1).
int setup_source(const char *source) noexcept;
// Writes one event with an already cut message; 1 when the log took it.
int report(const char *source, int type, int category, uint32_t id, const char *utf8) noexcept;
// Closes what the log holds open (at library teardown).
void close() noexcept;
}  // namespace os

}  // namespace ll::evlog
