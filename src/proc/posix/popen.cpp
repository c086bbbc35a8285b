// Pipes, the command interpreter, thread priority and the standard
// descriptors on Linux.
#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "frame/fault.h"
#include "proc/process_os.h"

namespace ll::process::os {

int make_pipe(int fds[2]) noexcept { return LL_FAULT(open) ? -1 : pipe2(fds, O_CLOEXEC); }

void close_fd(int fd) noexcept {
  if (fd >= 0) ::close(fd);
}

bool command_words(const char *command, std::vector<std::string> &store) noexcept {
  try {
    store = {"/bin/sh", "-c", command};
    return true;
  } catch (...) {
    errno = ENOMEM;
    return false;
  }
}

// The calling thread's own nice value (Linux keeps one per thread).
int thread_nice(int increment) noexcept {
  const pid_t tid = static_cast<pid_t>(syscall(SYS_gettid));
  errno = 0;
  const int cur = getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
  if (cur == -1 && errno != 0) return -1;
  long long want = static_cast<long long>(cur) + increment;
  if (want < -20) want = -20;
  if (want > 19) want = 19;
  return setpriority(PRIO_PROCESS, static_cast<id_t>(tid), static_cast<int>(want)) == 0 ? 0 : -1;
}

int setup_stdfds(const char *path) noexcept {
  const int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0666);
  if (fd < 0) return -1;
  int r = -1;
  if (dup2(fd, 2) >= 0 && dup2(fd, 1) >= 0) r = dup2(fd, 0);
  if (fd > 2) ::close(fd);
  return r;
}

void openstdfiles() noexcept {
  for (int i = 0; i < 3; ++i) {
    const int fd = ::open("/dev/null", O_RDWR);
    if (fd < 0) return;
    if (fd >= 3) {
      ::close(fd);
      return;
    }
  }
}

void closenstdfiles(int keep) noexcept {
  const int saved = errno;
  if (keep > 3) syscall(SYS_close_range, 3u, static_cast<unsigned>(keep - 1), 0u);
  const unsigned from = keep >= 3 ? static_cast<unsigned>(keep) + 1 : 3u;
  if (from != 0) syscall(SYS_close_range, from, ~0U, 0u);
  errno = saved;
}

}  // namespace ll::process::os
