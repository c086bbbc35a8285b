// Pipes, the command interpreter, thread priority and the standard
// descriptors on Windows.
#include <fcntl.h>
#include <io.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "frame/fault.h"
#include "frame/win32/win.h"
#include "proc/process_os.h"
#include <liblocal/osver.h>
#include <liblocal/quote.h>

namespace ll::process::os {

int make_pipe(int fds[2]) noexcept {
  SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, FALSE};
  HANDLE r, w;
  if (LL_FAULT(open) || !CreatePipe(&r, &w, &sa, 16384)) return -1;
  const int rfd = _open_osfhandle(reinterpret_cast<intptr_t>(r), _O_BINARY | _O_RDONLY);
  if (rfd < 0) {
    CloseHandle(r);
    CloseHandle(w);
    return -1;
  }
  const int wfd = _open_osfhandle(reinterpret_cast<intptr_t>(w), _O_BINARY | _O_WRONLY);
  if (wfd < 0) {
    _close(rfd);
    CloseHandle(w);
    return -1;
  }
  fds[0] = rfd;
  fds[1] = wfd;
  return 0;
}

void close_fd(int fd) noexcept {
  if (fd >= 0) _close(fd);
}

// popen's command line: split by the Windows rules, joined again by spawn,
// which runs it through the command interpreter.
bool command_words(const char *command, std::vector<std::string> &store) noexcept {
  char *copy = _strdup(command);
  if (!copy) {
    errno = ENOMEM;
    return false;
  }
  int count = 0;
  char **vec = nullptr;
  bool ok = tokenize(copy, &count, &vec, nullptr, 0) == nullptr && count > 0;
  try {
    if (ok) store.assign(vec, vec + count);
  } catch (...) {
    ok = false;
  }
  std::free(vec);
  std::free(copy);
  if (!ok) errno = EINVAL;
  return ok;
}

namespace {

// The five thread priorities and the nice scale.
int nice_of(int priority) noexcept {
  switch (priority) {
    case THREAD_PRIORITY_LOWEST: return 19;
    case THREAD_PRIORITY_BELOW_NORMAL: return 10;
    case THREAD_PRIORITY_ABOVE_NORMAL: return -10;
    case THREAD_PRIORITY_HIGHEST: return -20;
    default: return 0;
  }
}

int priority_of(long long nice) noexcept {
  if (nice <= -20) return THREAD_PRIORITY_HIGHEST;
  if (nice <= -10) return THREAD_PRIORITY_ABOVE_NORMAL;
  if (nice < 10) return THREAD_PRIORITY_NORMAL;
  if (nice < 19) return THREAD_PRIORITY_BELOW_NORMAL;
  return THREAD_PRIORITY_LOWEST;
}

}  // namespace

int thread_nice(int increment) noexcept {
  HANDLE self = GetCurrentThread();
  const int cur = GetThreadPriority(self);
  if (cur == THREAD_PRIORITY_ERROR_RETURN) return -1;
  const long long want = static_cast<long long>(nice_of(cur)) + increment;
  return SetThreadPriority(self, priority_of(want)) ? 0 : -1;
}

int setup_stdfds(const char *path) noexcept {
  HANDLE h;
  if (Win32OSVersion() == 4) {
    const std::wstring w = ll::win::widen(path);
    char a[4096];
    if (!WideCharToMultiByte(CP_ACP, 0, w.c_str(), -1, a, sizeof a, nullptr, nullptr)) return -1;
    h = CreateFileA(a, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                    FILE_ATTRIBUTE_NORMAL, nullptr);
  } else {
    h = CreateFileW(ll::win::widen(path).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                    OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  }
  if (h == INVALID_HANDLE_VALUE) {
    errno = ENOENT;
    return -1;
  }
  SetFilePointer(h, 0, nullptr, FILE_END);
  SetStdHandle(STD_INPUT_HANDLE, h);
  SetStdHandle(STD_OUTPUT_HANDLE, h);
  SetStdHandle(STD_ERROR_HANDLE, h);
  const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(h), _O_APPEND);
  if (fd < 0) {
    CloseHandle(h);
    return -1;
  }
  int r = _dup2(fd, 2);
  if (r == 0) r = _dup2(fd, 1);
  if (r == 0) r = _dup2(fd, 0);
  return r;  // the file's own descriptor stays open: the standard handles are it
}

void openstdfiles() noexcept {
  for (int i = 0; i < 3; ++i) {
    const int fd = _open("NUL", _O_RDWR);
    if (fd < 0) return;
    if (fd >= 3) {
      _close(fd);
      return;
    }
  }
}

// Nothing is inherited that was not asked for.
void closenstdfiles(int) noexcept {}

}  // namespace ll::process::os
