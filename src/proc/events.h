// Process events: the kill and debug events, the console handler, and the
// thread that runs their handlers. The portable rules are in proc/events.cpp;
// the platform listener in proc/posix/events.cpp and proc/win32/events.cpp.
#pragma once
#include <cstdint>

#include <liblocal/service.h>

namespace ll::ev {

constexpr int kStop = 9;
constexpr int kInterrupt = 2;
constexpr int kDebug = 17;
constexpr int kPipe = 13;
constexpr int kContinue = 18;

// Starts the event thread (and the console handler) once per process.
void start() noexcept;

// Called by the listener, on the event thread.
// The kill event: runs the kill handler with 9; the listener then leaves its loop.
bool on_kill() noexcept;  // false: the service took the stop over; keep listening
// The debug event: runs the debug handler with 17.
void on_debug() noexcept;
// After the loop: raises the socket layer's cancel generation.
void after_loop() noexcept;
// A console control (0 Ctrl-C; other types are stops). Runs on the system's
// console thread on Windows and on the event thread on POSIX.
void on_console(int type) noexcept;

// The socket layer's process-wide cancel.
void raise_cancel() noexcept;

// The default debug handler's work: reads and applies the debug control file.
void read_debug_control() noexcept;

// True once start() has run in this process; forget_start lets a forked
// child take the events over again.
bool started() noexcept;
void forget_start() noexcept;

// Parses the debug control text: "word = number" (the number lands in Debug
// whatever the word); digits beyond the range of an int saturate. False when
// the text holds no assignment.
bool parse_control(const char *text, int *value) noexcept;

namespace os {
// At library attach: Windows starts the listener there; POSIX systems leave
// the process's signals alone until initialisation or the first regevent.
void attach() noexcept;
// Starts the platform listener; 'console' installs the console handler too.
// False when the thread could not be started.
bool start_listener(bool console) noexcept;
// Ends the process with this exit code, now.
[[noreturn]] void exit_process(int code) noexcept;
// Reads the debug control file the way the platform allows safely; 1 when a
// file was read and applied.
int read_debug_control() noexcept;
}  // namespace os

}  // namespace ll::ev

namespace ll::init {
// Start-up step of _qzinit (after the process area exists): ev::start().
void process_events() noexcept;
}  // namespace ll::init
