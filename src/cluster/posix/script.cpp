// The map script as a child process in a process group of its own, so that
// the whole group can be ended at a limit.
#include "cluster/script.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace ll::cluster {
namespace {

long long now_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

pid_t start(const char *path, int out_fd) {
  posix_spawn_file_actions_t fa;
  posix_spawnattr_t at;
  if (posix_spawn_file_actions_init(&fa)) return -1;
  if (posix_spawnattr_init(&at)) {
    posix_spawn_file_actions_destroy(&fa);
    return -1;
  }
  sigset_t none, dflt;
  sigemptyset(&none);
  sigemptyset(&dflt);
  sigaddset(&dflt, SIGPIPE);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&fa, out_fd, 1);
  posix_spawnattr_setflags(&at, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  posix_spawnattr_setpgroup(&at, 0);
  posix_spawnattr_setsigmask(&at, &none);
  posix_spawnattr_setsigdefault(&at, &dflt);
  char *argv[] = {const_cast<char *>(path), nullptr};
  pid_t pid = -1;
  if (posix_spawn(&pid, path, &fa, &at, argv, environ) != 0) pid = -1;
  posix_spawnattr_destroy(&at);
  posix_spawn_file_actions_destroy(&fa);
  return pid;
}

}  // namespace

bool script_runnable(const char *path) noexcept {
  struct stat st;
  return stat(path, &st) == 0 && S_ISREG(st.st_mode) && access(path, X_OK) == 0;
}

ScriptEnd run_script(const char *path, const ScriptLimits &limits, LineReader &reader) noexcept {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return ScriptEnd::not_started;
  const pid_t pid = start(path, fds[1]);
  close(fds[1]);
  if (pid < 0) {
    close(fds[0]);
    return ScriptEnd::not_started;
  }
  const long long deadline = now_ms() + limits.timeout_ms;
  size_t total = 0;
  ScriptEnd end = ScriptEnd::ok;
  char buf[16384];
  for (;;) {
    const long long left = deadline - now_ms();
    if (left <= 0) {
      end = ScriptEnd::timed_out;
      break;
    }
    pollfd p{fds[0], POLLIN, 0};
    const int r = poll(&p, 1, static_cast<int>(left));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) continue;
    const ssize_t n = read(fds[0], buf, sizeof buf);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) break;
    total += static_cast<size_t>(n);
    if (total > limits.max_output) {
      end = ScriptEnd::too_much_output;
      break;
    }
    reader.feed(buf, static_cast<size_t>(n));
  }
  close(fds[0]);
  int status = 0;
  if (end == ScriptEnd::ok) {
    // Output has ended; the script itself gets what is left of its time.
    for (int nap = 1;; nap = nap < 50 ? nap * 2 : 50) {
      const pid_t w = waitpid(pid, &status, WNOHANG);
      if (w == pid) return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? ScriptEnd::ok : ScriptEnd::failed;
      // A program that ignores SIGCHLD has its children reaped for it: the
      // status is lost, the output was complete.
      if (w < 0 && errno == ECHILD) return ScriptEnd::ok;
      if (now_ms() >= deadline) {
        end = ScriptEnd::timed_out;
        break;
      }
      const timespec ts{0, nap * 1000000L};
      nanosleep(&ts, nullptr);
    }
  }
  kill(-pid, SIGKILL);
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return end;
}

}  // namespace ll::cluster
