// The output layer's platform services (frame/posix/output.cpp,
// frame/win32/output.cpp) and its internal entry points.
#pragma once
#include <cstddef>
#include <cstdio>
#include <ctime>

namespace ll {

// Writes an already formatted UTF-8 text to a stream with the descriptor
// treatment of the output layer; the writer's result.
int write_text(FILE *stream, const char *text) noexcept;

// Forgets a descriptor's mark (utf8_fd/user_fd): for the library's own close
// calls, so that a later descriptor of the same number starts unmarked.
void forget_fd_mark(int fd) noexcept;

namespace os {
// True when the descriptor is a console (a character device).
bool is_console(int fd) noexcept;
// The descriptor behind a stream, -1 when none.
int stream_fd(FILE *stream) noexcept;
// True when the process runs as a service (no usable runtime streams).
bool run_by_service() noexcept;
// Writes to standard output (1) or error (2) with the system's write call,
// at the end when it is a disk file. The bytes written, or -1.
int write_std(int which, const char *text, size_t len) noexcept;
// Directory of the running executable with a trailing separator.
bool executable_dir(char *out, size_t size) noexcept;
// fopen with a UTF-8 name.
FILE *fopen_utf8(const char *path, const char *mode) noexcept;
// One piece of qzputs: the UTF-8 text written as wide characters to a
// converted stream. The runtime's result.
int put_wide(const char *utf8, FILE *stream) noexcept;
// Length of the console-code-page character at s (1 when unsure).
size_t oem_char_len(const char *s, size_t avail) noexcept;
// Reads a line from a converted standard input as UTF-8 (newline removed).
char *read_user_line(char *out, size_t size) noexcept;
// Local broken-down time of now.
void local_now(std::tm &out) noexcept;
// _putenv semantics: "NAME=VALUE" sets, "NAME=" removes; 0 or -1.
int put_env(const char *assignment) noexcept;
}  // namespace os

}  // namespace ll
