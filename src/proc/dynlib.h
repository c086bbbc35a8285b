// Libraries loaded on demand by dll_find_routine: the cache (proc/dynlib.cpp)
// and the platform's loader behind it (proc/{posix,win32}/dynlib.cpp).
#pragma once

namespace ll::dynlib {

// Releases every library of the cache and empties it (library shutdown).
void unload_all() noexcept;

namespace os {
// The file exists and is not a directory; opens nothing.
bool exists(const char *file) noexcept;
// Loads a library with the system's error boxes off; null on failure.
void *load(const char *file) noexcept;
// A routine of a loaded library, or null.
void *symbol(void *module, const char *routine) noexcept;
void unload(void *module) noexcept;
}  // namespace os

}  // namespace ll::dynlib
