// Creating a child process on Linux.
//
// The child is made with clone(CLONE_VM | CLONE_VFORK | CLONE_PIDFD): it runs
// on a stack of ours in our memory until it calls exec, while this thread
// waits, so nothing of a large parent is copied. Between the clone and the
// exec the child makes raw system calls only: it opens the null device as
// input when none is given, sets up descriptors 0-2,
// clears close-on-exec on the descriptors of the inherited set, closes every
// other descriptor with close_range, resets the signal dispositions and the
// signal mask, and execs. A failure on that way is stored as an errno in the
// memory it shares with us: this thread runs again only once the child has
// exec'd or ended, so the parent returns -1 with the child's errno without a
// pipe between the two.
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

#include <liblocal/process.h>

#include "frame/fault.h"
#include "proc/process_os.h"

extern char **environ;

// The thread sanitizer treats every clone as a fork and would take the
// child's bookkeeping, made in our shared memory, for the parent's own: its
// builds make the child with fork instead (same child code, same results;
// the child's errno then comes back through a close-on-exec pipe).
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
  bool null_input;         // 0 is the null device, opened by the child
  const int *keep;         // set members above 2, sorted, unique
  size_t nkeep;
  const int *skip;         // descriptors close_range leaves open, sorted
  size_t nskip;
  int errfd;               // fork builds: the error pipe's write end
  int err;                 // the child's errno when it failed before exec
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

[[noreturn]] LL_CHILD_CODE void child_fail(ChildArgs *a, int err) {
#if defined(LL_CHILD_BY_FORK)
  syscall(SYS_write, a->errfd, &err, sizeof err);
#else
  // Our memory: the parent reads it once the child has ended.
  __atomic_store_n(&a->err, err, __ATOMIC_RELAXED);
#endif
  for (;;) syscall(SYS_exit_group, 127);
}

// Runs in the child, in our memory, until exec.
LL_CHILD_CODE int child_main(void *p) {
  ChildArgs *a = static_cast<ChildArgs *>(p);
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
  if (a->null_input) {
    // Opened close-on-exec: a copy left at 1 or 2 (where the caller has
    // none) goes at exec, and the one made 0 loses the flag below.
    const long n = sys(SYS_openat, AT_FDCWD, reinterpret_cast<long>("/dev/null"), O_RDONLY | O_CLOEXEC);
    if (n < 0) child_fail(a, errno);
    src[0] = static_cast<int>(n);
  }
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
// first executable file of that name on PATH (kept in 'found').
const char *find_program(const char *name, std::string &found) {
  if (std::strchr(name, '/')) return name;
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
      found = std::move(cand);
      return found.c_str();
    }
    if (!e) break;
    p = e + 1;
  }
  errno = ENOENT;
  return nullptr;
}

// The length of the name of "NAME=VALUE" with its "=", which two strings of
// the same variable share; 0 when there is no name. A leading "=" belongs to
// the name.
size_t name_len(const char *s) noexcept {
  const char *eq = s[0] ? std::strchr(s + 1, '=') : nullptr;
  return eq ? static_cast<size_t>(eq - s) + 1 : 0;
}

bool names_match(const char *a, size_t alen, const char *b) noexcept {
  return std::strncmp(a, b, alen) == 0;
}

// The child's environment as exec takes it: the given strings (the first of
// each name), then ours without the names they set. The strings are not
// copied: the child's exec copies them, and the C library never frees a
// string of the environment that setenv made.
void build_env(const std::vector<std::string> &given, std::vector<char *> &out) {
  size_t n = 0;
  for (char **e = environ; e && *e; ++e) ++n;
  out.reserve(given.size() + n + 1);
  for (const std::string &g : given) {
    const size_t gl = name_len(g.c_str());
    bool dup = false;
    for (size_t i = 0; i < out.size() && !dup; ++i) dup = names_match(out[i], gl, g.c_str());
    if (!dup) out.push_back(const_cast<char *>(g.c_str()));
  }
  const size_t ngiven = out.size();
  for (char **e = environ; e && *e; ++e) {
    const size_t el = name_len(*e);
    if (el == 0) continue;  // no name: not passed on
    bool dup = false;
    for (size_t i = 0; i < ngiven && !dup; ++i) dup = names_match(out[i], el, *e);
    if (!dup) out.push_back(*e);
  }
  out.push_back(nullptr);
}

}  // namespace

uint32_t own_pid() noexcept { return static_cast<uint32_t>(getpid()); }

int create(const SpawnReq &req, Child &node) noexcept {
  try {
    std::string found;
    const char *program = find_program(req.path, found);
    if (!program) return -1;

    ChildArgs a{};
    a.path = program;
    a.argv = req.argv;
    a.flags = req.flags;
    a.errfd = -1;
    if (req.token) {
      const auto *u = static_cast<const qz_spawn_user *>(req.token);
      a.as_user = true;
      a.uid = u->uid;
      a.gid = u->gid;
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
    for (int i = 0; i < 3; ++i) {
      const int s = req.stdfds ? req.stdfds[i] : -1;
      if (s != -1 && !open_fd(s)) {
        errno = EBADF;
        return -1;
      }
      a.std_src[i] = s;
    }

    std::vector<char *> envp;
    build_env(req.env, envp);
    a.envp = envp.data();
    a.keep = a.skip = keep.data();
    a.nkeep = a.nskip = keep.size();

    // No input given: the null device, never the caller's own input.
    if (a.std_src[0] == -1) {
      if (LL_FAULT(open)) return -1;
      a.null_input = true;
    }

#if defined(LL_CHILD_BY_FORK)
    // Closes the error pipe, keeping errno.
    int ep[2] = {-1, -1};
    struct Opened {
      int *fds[2];
      ~Opened() {
        const int saved = errno;
        for (int *p : fds)
          if (*p >= 0) close(*p);
        errno = saved;
      }
    } opened{{&ep[0], &ep[1]}};
    std::vector<int> skip;
    if (LL_FAULT(open) || pipe2(ep, O_CLOEXEC) != 0) return -1;
    skip = keep;
    skip.insert(std::upper_bound(skip.begin(), skip.end(), ep[1]), ep[1]);
    a.skip = skip.data();
    a.nskip = skip.size();
    a.errfd = ep[1];
#endif

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
    const int pid = LL_FAULT(spawn) ? -1 : fork();
    if (pid == 0) child_main(&a);
    const int clone_err = errno;
    if (pid > 0) pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
    const int pid = LL_FAULT(spawn) ? -1
                                    : clone(child_main, stack_mem + kStack,
                                            CLONE_VM | CLONE_VFORK | CLONE_PIDFD | SIGCHLD, &a, &pidfd);
    const int clone_err = errno;
#endif
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &old, nullptr, 8);
    if (pid < 0) {
      errno = clone_err == ENOMEM ? EAGAIN : clone_err;
      return -1;
    }
    int child_err = __atomic_load_n(&a.err, __ATOMIC_RELAXED);
#if defined(LL_CHILD_BY_FORK)
    close(ep[1]);
    ep[1] = -1;
    ssize_t n;
    do n = read(ep[0], &child_err, sizeof child_err);
    while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(sizeof child_err)) child_err = 0;
#endif
    if (child_err != 0) {
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
