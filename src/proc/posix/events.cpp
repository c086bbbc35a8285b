// Process events on POSIX systems: the kill event is the stop signal
// (SIGTERM), the debug event SIGUSR1, and an interrupt (SIGINT) is the
// console's Ctrl-C. The signal handler only writes the signal's number to a
// pipe; the event thread reads the pipe and runs the library's handlers, so
// no handler ever runs in signal context and no thread's signal mask changes.
#include "proc/events.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "frame/os.h"
#include <liblocal/frame.h>
#include <liblocal/output.h>

#if defined(__SANITIZE_THREAD__)
#define LL_EVENTS_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define LL_EVENTS_TSAN 1
#endif
#endif

namespace ll::ev {
namespace {

// The pipe stays open for the life of the process: a handler may be writing
// to it at any moment, and a closed number could be reused for a file.
std::atomic<int> g_wr{-1};
int g_rd = -1;
bool g_console = false;
std::atomic<bool> g_fork_hook{false};

constexpr size_t kStack = 512 * 1024;  // handlers run ordinary code (exit, formatting)

void on_signal(int sig) {
  const int saved = errno;
  const int fd = g_wr.load(std::memory_order_relaxed);
  if (fd >= 0) {
    const unsigned char b = static_cast<unsigned char>(sig);
    ssize_t n = write(fd, &b, 1);
    (void)n;  // a full pipe already holds an unread wake-up
  }
  errno = saved;
}

void trace_failure(int err) { dprintf(2, "regeventthread failed, %s\n", std::strerror(err)); }

void *listen(void *) {
  const int rd = g_rd;
  for (;;) {
    unsigned char b;
    const ssize_t n = read(rd, &b, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n != 1) {
      trace_failure(n < 0 ? errno : EPIPE);
      ll::os::sleep_ms(1000);
      continue;
    }
    if (b == SIGTERM) {
      if (on_kill()) break;
    } else if (b == SIGUSR1) {
      on_debug();
    } else if (b == SIGINT) {
      on_console(0);
    }
  }
  after_loop();
  return nullptr;
}

bool make_pipe() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) | O_NONBLOCK);
  g_rd = fds[0];
  g_wr.store(fds[1]);
  return true;
}

bool start_thread() {
  pthread_attr_t a;
  pthread_attr_init(&a);
  pthread_attr_setstacksize(&a, kStack > size_t(PTHREAD_STACK_MIN) ? kStack : size_t(PTHREAD_STACK_MIN));
  pthread_attr_setdetachstate(&a, PTHREAD_CREATE_DETACHED);
  pthread_t t;
  const int rc = pthread_create(&t, &a, listen, nullptr);
  pthread_attr_destroy(&a);
  if (rc != 0) {
    trace_failure(rc);
    return false;
  }
  return true;
}

void take_signal(int sig) {
  struct sigaction sa {};
  sa.sa_handler = on_signal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  sigaction(sig, &sa, nullptr);
}

[[maybe_unused]] void give_back(int sig) {
  struct sigaction sa {};
  sa.sa_handler = SIG_DFL;
  sigemptyset(&sa.sa_mask);
  sigaction(sig, &sa, nullptr);
}

// After fork the child's signals must reach a listener of its own: the
// parent's thread does not exist here, and the pipe is shared with the parent.
void fork_child() {
  if (!started()) return;
  const int old_rd = g_rd, old_wr = g_wr.load();
#ifdef LL_EVENTS_TSAN
  // The thread sanitizer cannot start a thread in the child of a threaded
  // process: the child gives the signals back and takes them over again at
  // its next regevent or initialisation.
  g_wr.store(-1);
  g_rd = -1;
  give_back(SIGTERM);
  give_back(SIGUSR1);
  if (g_console) give_back(SIGINT);
  forget_start();
#else
  if (!make_pipe()) {
    g_wr.store(-1);
    return;
  }
  start_thread();
#endif
  close(old_rd);
  close(old_wr);
}

}  // namespace

namespace os {

void attach() noexcept {}

bool start_listener(bool console) noexcept {
  if (!g_fork_hook.exchange(true)) pthread_atfork(nullptr, nullptr, fork_child);
  if (g_rd < 0 && !make_pipe()) {
    trace_failure(errno);
    return false;
  }
  g_console = console;
  take_signal(SIGTERM);
  take_signal(SIGUSR1);
  if (console) take_signal(SIGINT);
  return start_thread();
}

void exit_process(int code) noexcept { std::exit(code); }

namespace {
int read_control_file(const char *path) {
  if (!path || !*path) return 0;
  // The file sits in a shared temporary directory: follow no link, block on
  // nothing, and take it only when it is our own plain file that nobody else
  // can write, so that nobody can plant settings or have us delete a file.
  const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return 0;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1 || st.st_uid != geteuid() ||
      (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    close(fd);
    dprintf(2, "debug control file %s refused\n", path);
    return 0;
  }
  char buf[1025];
  size_t got = 0;
  while (got < 1024) {
    const ssize_t n = read(fd, buf + got, 1024 - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  buf[got] = '\0';
  struct stat now;
  if (lstat(path, &now) == 0 && now.st_dev == st.st_dev && now.st_ino == st.st_ino) unlink(path);
  close(fd);
  int value;
  if (ll::ev::parse_control(buf, &value)) __atomic_store_n(&Debug, value, __ATOMIC_RELEASE);
  return 1;
}
}  // namespace

int read_debug_control() noexcept { return read_control_file(qz_debug_control_file()); }

}  // namespace os
}  // namespace ll::ev

// Test seam: the debug handler's reader on a file of the test's choosing.
extern "C" LL_API int llt_read_debug_file(const char *path) noexcept { return ll::ev::os::read_control_file(path); }
