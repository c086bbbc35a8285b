// Operating-system services the frame needs, one implementation per back-end
// (frame/posix/os.cpp, frame/win32/os.cpp). Contracts only; no platform types.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

namespace ll::os {

uint32_t process_id() noexcept;
uint32_t thread_id() noexcept;
// Millisecond tick counter (wraps after 2^32 ms, as the Win32 one does).
uint32_t tick_ms() noexcept;
void sleep_ms(uint32_t ms) noexcept;

// Raw environment value in the platform's encoding; false when unset.
bool get_env(const char *name, std::string &out) noexcept;
// Raw getenv pointer (runtime storage), or null.
const char *get_env_ptr(const char *name) noexcept;

// Temporary directory without a trailing separator.
std::string temp_dir() noexcept;

// Real and effective user and group ids of the process.
void ids(long &ruid, long &euid, long &rgid, long &egid) noexcept;

// Registers fn to run at process exit.
void at_exit(void (*fn)()) noexcept;

// Called when the per-process area is created and destroyed (sockets start-up
// and clean-up on Windows; nothing on POSIX).
void process_area_created() noexcept;
void process_area_destroyed() noexcept;

// Called once after fork in the child (POSIX); lets caches keyed on the
// process id start over. Installs the hook the first time it is called.
void install_fork_hook(void (*child)()) noexcept;

// Reads at most 'max' bytes of a file and deletes it; false when it cannot be opened.
bool read_and_delete(const char *path_utf8, std::string &out, size_t max) noexcept;

}  // namespace ll::os

namespace ll::os {
// The platform's directory separator as a one-character string.
const char *dir_sep() noexcept;
}  // namespace ll::os
