// Services: the process's service state and the service main, shared by the
// portable rules (proc/service.cpp) and the back-ends (proc/posix/service.cpp
// on the system's service manager, proc/win32/service.cpp on the service
// control manager).
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include <liblocal/service.h>

namespace ll::svc {

// Internal states.
constexpr int kNone = 0, kStarting = 1, kRunning = 2, kPaused = 3, kStopping = 4;

// States of another service, as the manager reports them.
enum class Status { Stopped = 1, StartPending, StopPending, Running, ContinuePending, PausePending, Paused };

// The manager's service-request time-out error.
constexpr int kStartTimeout = 1053;

// Times of the service machinery (the test seam shortens them).
struct Times {
  uint32_t start_limit_s = 1800;  // a service that never reaches running is stopped
  uint32_t grace_ms = 40000;      // the program's time to end after its stop handler
  uint32_t wait_ms = 10000;       // the service main's wait while not running
  uint32_t poll_ms = 5000;        // start_service / stop_service polling
};
Times &times() noexcept;

int state() noexcept;
// Sets the state and wakes the service main.
void set_state(int s) noexcept;
const char *name() noexcept;
const char *display() noexcept;
void set_display(const std::string &d) noexcept;
int exit_code() noexcept;

// The service main's loop; returns never (ends the process).
[[noreturn]] void service_main() noexcept;

// Controls from the manager.
enum class Control { Stop, Pause, Continue };
void control(Control c) noexcept;

// The stop signal of a process that is a registered service: begins the
// service's stop and returns true; false when the process is no service.
bool take_stop_signal() noexcept;

namespace os {
// The platform's test for "started by the service manager".
bool run_by_service() noexcept;
// True where the kill event is also the manager's stop request.
bool stop_signal_is_service_stop() noexcept;
// Registers the process as the service 'name' and starts the thread that runs
// service_main. false when that thread cannot be started.
bool begin(const char *name) noexcept;
// True once the registration has failed for good (state will stay 0).
bool failed() noexcept;
// Reports a state to the manager; false (with the platform error) on failure.
bool report(int state, int exit_code, uint32_t checkpoint, uint32_t wait_hint, int *error) noexcept;
// Called from the teardown at process exit: the stopped state.
void final_report(int exit_code) noexcept;
void close_handles() noexcept;
// Pause and continue (suspend / resume the registering thread).
bool can_pause() noexcept;
void suspend_main(bool suspend) noexcept;
// Ends the process after the service main's loop.
[[noreturn]] void end_process(int exit_code) noexcept;

// Another service: its status (false when it cannot be queried), start, stop.
bool query(const char *name, Status *out) noexcept;
bool start(const char *name) noexcept;
bool stop(const char *name) noexcept;

// Installation from the command line: the running program becomes the
// service, started with 'args'. Both print their failures and return false.
bool install(const char *name, const char *display, const std::vector<std::string> &args) noexcept;
bool remove(const char *name) noexcept;

int win9x_service(int flag) noexcept;
}  // namespace os

}  // namespace ll::svc
