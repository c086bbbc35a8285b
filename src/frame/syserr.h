// The error-number space: how the back-ends turn platform failures into errno
// values, and where built error texts live.
#pragma once
#include <cstddef>

namespace ll {

constexpr int kSysErrFlag = 0x10000000;

// The errno value of a failed platform call: the platform's last error with
// the flag bit added (the raw code is kept), 0 when it reports none.
int marked_last_error() noexcept;
// errno = marked_last_error(); returns it.
int set_errno_from_os() noexcept;
// The library's errno value of a socket failure code of the platform (a
// Winsock code on Windows, an errno value on POSIX).
int socket_errno(int platform_code) noexcept;

// The calling thread's 1024-byte buffer for built texts.
char *text_buffer() noexcept;
constexpr size_t kTextBuffer = 1024;

namespace os {
// The platform's last error (GetLastError, errno).
int last_error() noexcept;
// The operating-system message of 'code' in UTF-8 (line breaks not yet
// removed); false when the system has none.
bool system_message(int code, char *out, size_t size) noexcept;
// The runtime's own text of an error number (console code page), or null.
const char *runtime_text(int code) noexcept;
// The common error number of an operating-system code, or -1 when none.
int common_errno(int syscode) noexcept;
}  // namespace os

}  // namespace ll
