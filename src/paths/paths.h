// What the portable path code needs from each back-end (paths/posix/*.cpp,
// paths/win32/*.cpp). Contracts only; no platform types.
#pragma once
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

namespace ll::paths {

constexpr char kBackslash = '\\';
constexpr char kSlash = '/';
// Longest name the library keeps for one entry (260 characters of up to 6 bytes).
constexpr size_t kNameMax = 1560;
// Working buffer for one path.
constexpr size_t kPathBuf = 4096;

// ---- portable helpers (pathsyn.cpp, unc.cpp) ----
bool has_unc_prefix(const char *name) noexcept;  // is_unc_path or the "\??\UNC\" form
int ascii_lower(int c) noexcept;
// canon_dirsep done step by step: the reference the block passes must agree with.
void canon_reference(const char *name, char *buf, int sep) noexcept;
// A block pass of canon_dirsep (canon_run.h); name and buf are not null.
using CanonPass = void (*)(const char *name, char *buf, char sep);
// The 64-byte pass that packs what it keeps (canon_wide.cpp), or null when
// this build or processor cannot run it.
CanonPass packing_pass() noexcept;
bool equal_nocase(const char *a, const char *b) noexcept;
bool prefix_nocase(const char *s, const char *prefix) noexcept;

// The lock that serialises everything that moves the current directory.
std::recursive_mutex &cwd_lock() noexcept;

// ---- back-end (appdir_os.cpp) ----
// The separator of the platform's own path names.
char native_sep() noexcept;
// The running executable's absolute file name; empty when unknown.
std::string exe_path() noexcept;
// Current directory of drive number 'drive' (1 = A) in buf; false on failure.
// POSIX has no drives and answers the process's current directory.
bool drive_cwd(int drive, char *buf, size_t size) noexcept;
// Short (8.3) form of path; false when there is none.
bool short_name(const char *path, char *out, size_t size) noexcept;
// This machine's name as UNC names spell it.
std::string computer_name() noexcept;

// ---- back-end (fileio.cpp) ----
// Closes descriptors the process inherited (nothing on Windows).
void close_inherited() noexcept;
// Makes one directory with the given permissions (ignored on Windows); 0 or -1 with errno.
int make_dir(const char *path, unsigned mode) noexcept;
// The network name behind a mapped drive letter ("\\server\share"); false
// when the drive is not a network drive (always on POSIX).
bool network_name(char drive, std::string &out) noexcept;
// Whether file names compare without regard to case on this platform.
bool names_fold_case() noexcept;

}  // namespace ll::paths
