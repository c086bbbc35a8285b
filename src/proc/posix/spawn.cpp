// Creating a child process on Linux.
//
// The child is made with clone(CLONE_VM | CLONE_VFORK | CLONE_PIDFD): it runs
// on a stack of ours in our memory until it calls exec, while this thread
// waits, so nothing of a large parent is copied. Between the clone and the
// exec the child makes raw system calls only: it sets up descriptors 0-2,
// clears close-on-exec on the descriptors of the inherited set, closes every
// other descriptor with close_range, resets the signal dispositions and the
// signal mask, and execs. A failure on that way is written as an errno to a
// close-on-exec pipe, so the parent returns -1 with the child's errno.
//
// The process descriptor from CLONE_PIDFD is what the child table holds:
// waits and signals go through it, so they can never reach another process
// that happens to reuse the id.
#include <fcntl.h>
#include <linux/close_range.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "frame/fault.h"
#include "proc/process_os.h"
#include <liblocal/env.h>

// The thread sanitizer treats every clone as a fork and would take the
// child's bookkeeping, made in our shared memory, for the parent's own: its
// builds make the child with fork instead (same child code, same results).
#if defined(__SANITIZE_THREAD__)
#define LL_CHILD_BY_FORK 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define LL_CHILD_BY_FORK 1
#endif
#endif

namespace ll::process::os {
namespace {

constexpr int kNsig = 65;

struct ChildArgs {
  const char *path;
  char *const *argv;
  char *const *envp;
  int std_src[3];          // sources for 0, 1, 2; -1 keeps the caller's
  const int *keep;         // set members above 2, sorted, unique
  size_t nkeep;
  const int *skip;         // keep plus the error pipe, sorted: not closed
  size_t nskip;
  int errfd;
  int flags;
  bool as_user;
  uint32_t uid, gid;
};

// The kernel's sigaction record (for SIG_DFL no restorer is needed).
struct KernelSigaction {
  void *handler;
  unsigned long flags;
  void *restorer;
  uint64_t mask;
};

#define LL_CHILD_CODE __attribute__((noinline, no_sanitize("address", "thread", "undefined")))

LL_CHILD_CODE long sys(long n, long a = 0, long b = 0, long c = 0, long d = 0) {
  return syscall(n, a, b, c, d);
}

[[noreturn]] LL_CHILD_CODE void child_fail(const ChildArgs *a, int err) {
  syscall(SYS_write, a->errfd, &err, sizeof err);
  for (;;) syscall(SYS_exit_group, 127);
}

// Runs in the child, in our memory, until exec.
LL_CHILD_CODE int child_main(void *p) {
  const ChildArgs *a = static_cast<const ChildArgs *>(p);
  KernelSigaction dfl = {reinterpret_cast<void *>(SIG_DFL), 0, nullptr, 0};
  for (int s = 1; s < kNsig; ++s)
    if (s != SIGKILL && s != SIGSTOP) syscall(SYS_rt_sigaction, s, &dfl, nullptr, 8);

  if (a->flags & 8) {
    if (sys(SYS_setsid) < 0) child_fail(a, errno);
  } else if (a->flags & 4) {
    if (sys(SYS_setpgid, 0, 0) < 0) child_fail(a, errno);
  }
  if (a->as_user) {
    if (sys(SYS_setgroups, 0, 0) < 0 || sys(SYS_setgid, a->gid) < 0 || sys(SYS_setuid, a->uid) < 0)
      child_fail(a, errno);
  }

  // Standard descriptors. A source that is itself one of 0-2 (but not its
  // own target) is first moved above 2, so that no target overwrites a
  // source still to be used.
  int src[3] = {a->std_src[0], a->std_src[1], a->std_src[2]};
  for (int i = 0; i < 3; ++i) {
    const int s = src[i];
    if (s >= 0 && s < 3 && s != i) {
      const long n = sys(SYS_fcntl, s, F_DUPFD_CLOEXEC, 3);
      if (n < 0) child_fail(a, errno);
      for (int j = i; j < 3; ++j)
        if (src[j] == s) src[j] = static_cast<int>(n);
    }
  }
  for (int i = 0; i < 3; ++i) {
    if (src[i] < 0) continue;
    const long r = src[i] == i ? sys(SYS_fcntl, i, F_SETFD, 0) : sys(SYS_dup2, src[i], i);
    if (r < 0) child_fail(a, errno);
  }
  for (size_t k = 0; k < a->nkeep; ++k)
    if (sys(SYS_fcntl, a->keep[k], F_SETFD, 0) < 0) child_fail(a, errno);

  // Everything else goes: the gaps between the kept descriptors.
  unsigned int from = 3;
  for (size_t k = 0; k < a->nskip; ++k) {
    const unsigned int fd = static_cast<unsigned int>(a->skip[k]);
    if (fd > from) sys(SYS_close_range, from, fd - 1, 0);
    from = fd + 1;
  }
  sys(SYS_close_range, from, ~0U, 0);

  uint64_t none = 0;
  syscall(SYS_rt_sigprocmask, SIG_SETMASK, &none, nullptr, 8);
  syscall(SYS_execve, a->path, a->argv, a->envp);
  child_fail(a, errno);
}

bool open_fd(int fd) noexcept { return fd >= 0 && fcntl(fd, F_GETFD) != -1; }

// The program as exec takes it: a name with a slash as it is, else the
// first executable file of that name on PATH.
bool find_program(const char *name, std::string &out) {
  if (std::strchr(name, '/')) {
    out = name;
    return true;
  }
  const char *path = getenv("PATH");
  if (!path || !*path) path = "/bin:/usr/bin";
  for (const char *p = path;;) {
    const char *e = std::strchr(p, ':');
    const size_t n = e ? static_cast<size_t>(e - p) : std::strlen(p);
    std::string cand = n ? std::string(p, n) : std::string(".");
    cand += '/';
    cand += name;
    struct stat st;
    if (stat(cand.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(cand.c_str(), X_OK) == 0) {
      out = std::move(cand);
      return true;
    }
    if (!e) break;
    p = e + 1;
  }
  errno = ENOENT;
  return false;
}

}  // namespace

uint32_t own_pid() noexcept { return static_cast<uint32_t>(getpid()); }

int create(const SpawnReq &req, Child &node) noexcept {
  try {
    std::string program;
    if (!find_program(req.path, program)) return -1;

    ChildArgs a{};
    a.path = program.c_str();
    a.argv = req.argv;
    a.flags = req.flags;
    if (req.token) {
      const auto *u = static_cast<const uint32_t *>(req.token);
      a.as_user = true;
      a.uid = u[0];
      a.gid = u[1];
    }

    // Descriptors: every one named must be open.
    std::vector<int> keep;
    if (req.inherit) {
      for (int i = 0; i < req.inherit->fd_count; ++i) {
        const int fd = req.inherit->fd_array[i];
        if (!open_fd(fd)) {
          errno = EBADF;
          return -1;
        }
        if (fd > 2) keep.push_back(fd);
      }
      std::sort(keep.begin(), keep.end());
      keep.erase(std::unique(keep.begin(), keep.end()), keep.end());
    }
    int nullfd = -1;
    for (int i = 0; i < 3; ++i) {
      const int s = req.stdfds ? req.stdfds[i] : -1;
      if (s != -1 && !open_fd(s)) {
        errno = EBADF;
        return -1;
      }
      a.std_src[i] = s;
    }
    if (a.std_src[0] == -1) {
      // No input given: the null device, never the caller's own input.
      nullfd = LL_FAULT(open) ? -1 : open("/dev/null", O_RDONLY | O_CLOEXEC);
      if (nullfd < 0) return -1;
      a.std_src[0] = nullfd;
    }

    // The environment: the given strings first, then ours without the names
    // they set.
    std::vector<const char *> set;
    for (const std::string &e : req.env) set.push_back(e.c_str());
    set.push_back(nullptr);
    struct EnvVector {
      char **v = nullptr;
      ~EnvVector() { std::free(v); }
    } envp;
    envp.v = static_cast<char **>(mkenv(set.data(), QZ_ENV_VECTOR, nullptr));
    if (!envp.v) {
      const int saved = errno;
      if (nullfd >= 0) close(nullfd);
      errno = saved;
      return -1;
    }
    a.envp = envp.v;

    int ep[2];
    if (LL_FAULT(open) || pipe2(ep, O_CLOEXEC) != 0) {
      const int saved = errno;
      if (nullfd >= 0) close(nullfd);
      errno = saved;
      return -1;
    }
    std::vector<int> skip(keep);
    skip.insert(std::upper_bound(skip.begin(), skip.end(), ep[1]), ep[1]);
    a.keep = keep.data();
    a.nkeep = keep.size();
    a.skip = skip.data();
    a.nskip = skip.size();
    a.errfd = ep[1];

    // The child's stack, until it execs. No signal handler may run in the
    // child while it shares our memory: every signal is blocked across the
    // clone, and the child resets them all before it unblocks them.
    constexpr size_t kStack = 32 * 1024;
    alignas(64) char stack_mem[kStack];
    uint64_t all = ~0ULL, old = 0;
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &all, &old, 8);
    int pidfd = -1;
#if defined(LL_CHILD_BY_FORK)
    (void)stack_mem;
    const int pid = fork();
    if (pid == 0) child_main(&a);
    const int clone_err = errno;
    if (pid > 0) pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
    const int pid = LL_FAULT(spawn) ? -1 : clone(child_main, stack_mem + kStack, CLONE_VM | CLONE_VFORK | CLONE_PIDFD | SIGCHLD, &a,
                          &pidfd);
    const int clone_err = errno;
#endif
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &old, nullptr, 8);
    close(ep[1]);
    if (nullfd >= 0) close(nullfd);
    if (pid < 0) {
      close(ep[0]);
      errno = clone_err == ENOMEM ? EAGAIN : clone_err;
      return -1;
    }
    int child_err = 0;
    ssize_t n;
    do n = read(ep[0], &child_err, sizeof child_err);
    while (n < 0 && errno == EINTR);
    close(ep[0]);
    if (n == static_cast<ssize_t>(sizeof child_err)) {
      // The child has ended with 127 without running the program.
      siginfo_t si;
      while (waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(pidfd), &si, WEXITED) < 0 &&
             errno == EINTR) {
      }
      close(pidfd);
      errno = child_err;
      return -1;
    }
    node.obj = pidfd;
    node.id = static_cast<uint32_t>(pid);
    return 0;
  } catch (...) {
    errno = ENOMEM;
    return -1;
  }
}

}  // namespace ll::process::os
