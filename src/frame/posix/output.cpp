// The output layer on POSIX. Consoles are terminals (isatty); the console and
// ANSI code pages are the locale's encoding. A POSIX process always has
// usable standard streams, so it never takes the service write path unless
// UseWrite asks for it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <new>

#include "frame/output.h"
#include <liblocal/utf8.h>

namespace ll::os {

bool is_console(int fd) noexcept { return isatty(fd) == 1; }

int stream_fd(FILE *stream) noexcept { return stream ? fileno(stream) : -1; }

bool run_by_service() noexcept { return false; }

int write_std(int which, const char *text, size_t len) noexcept {
  struct stat st;
  if (fstat(which, &st) == 0 && S_ISREG(st.st_mode)) lseek(which, 0, SEEK_END);
  size_t done = 0;
  while (done < len) {
    const ssize_t n = write(which, text + done, len - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  return static_cast<int>(done);
}

bool executable_dir(char *out, size_t size) noexcept {
  if (size < 2) return false;
  const ssize_t n = readlink("/proc/self/exe", out, size - 1);
  if (n <= 0) return false;
  out[n] = 0;
  char *slash = std::strrchr(out, '/');
  if (!slash) return false;
  slash[1] = 0;
  return true;
}

FILE *fopen_utf8(const char *path, const char *mode) noexcept { return std::fopen(path, mode); }

int put_wide(const char *utf8, FILE *stream) noexcept {
  // The terminal's encoding is the locale's: the text goes out converted.
  const size_t size = std::strlen(utf8) * 2 + 16;
  char *conv = new (std::nothrow) char[size];
  if (!conv) return -1;
  ansi_mbs(conv, utf8, size);
  const int r = std::fputs(conv, stream);
  delete[] conv;
  return r < 0 ? -1 : r;
}

size_t oem_char_len(const char *s, size_t avail) noexcept {
  std::mbstate_t st{};
  const size_t n = std::mbrlen(s, avail < 8 ? avail : 8, &st);
  return (n == 0 || n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2)) ? 1 : n;
}

char *read_user_line(char *out, size_t size) noexcept {
  char *line = new (std::nothrow) char[size];
  if (!line) return nullptr;
  if (!std::fgets(line, static_cast<int>(size), stdin)) {
    delete[] line;
    return nullptr;
  }
  const size_t n = std::strlen(line);
  if (n && line[n - 1] == '\n') line[n - 1] = 0;
  oem_to_utf8(line, out, size);
  delete[] line;
  return out;
}

void local_now(std::tm &out) noexcept {
  const std::time_t now = std::time(nullptr);
  localtime_r(&now, &out);
}

}  // namespace ll::os
