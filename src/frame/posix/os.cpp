// Frame services on POSIX.
#include "frame/os.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>

namespace ll::os {

uint32_t process_id() noexcept { return static_cast<uint32_t>(getpid()); }

uint32_t thread_id() noexcept {
  static thread_local uint32_t tid = 0;
  if (!tid) tid = static_cast<uint32_t>(syscall(SYS_gettid));
  return tid;
}

uint32_t tick_ms() noexcept {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000u + ts.tv_nsec / 1000000);
}

void sleep_ms(uint32_t ms) noexcept {
  if (ms == 0) {
    sched_yield();
    return;
  }
  timespec ts{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0) {
  }
}

std::string temp_dir() noexcept {
  const char *t = getenv("TMPDIR");
  std::string d = (t && *t) ? t : "/tmp";
  while (d.size() > 1 && d.back() == '/') d.pop_back();
  return d;
}

const char *dir_sep() noexcept { return "/"; }

void ids(long &ruid, long &euid, long &rgid, long &egid) noexcept {
  ruid = static_cast<long>(getuid());
  euid = static_cast<long>(geteuid());
  rgid = static_cast<long>(getgid());
  egid = static_cast<long>(getegid());
}

void at_exit(void (*fn)()) noexcept { std::atexit(fn); }

void process_area_created() noexcept {}
void process_area_destroyed() noexcept {}

namespace {
void (*g_fork_child)() = nullptr;
void fork_child() {
  if (g_fork_child) g_fork_child();
}
}  // namespace

void install_fork_hook(void (*child)()) noexcept {
  static std::once_flag once;
  g_fork_child = child;
  std::call_once(once, [] { pthread_atfork(nullptr, nullptr, fork_child); });
}

bool read_and_delete(const char *path, std::string &out, size_t max) noexcept {
  // The file lies in a shared temporary folder: only a plain file with one
  // link, owned by this process's user and writable by nobody else, is
  // taken, never through a link, and it is removed only while the name still
  // denotes the file that was read.
  int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return false;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1 || st.st_uid != geteuid() ||
      (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    close(fd);
    return false;
  }
  out.assign(max, '\0');
  ssize_t n = read(fd, out.data(), max);
  out.resize(n > 0 ? static_cast<size_t>(n) : 0);
  close(fd);
  struct stat now;
  if (lstat(path, &now) == 0 && now.st_dev == st.st_dev && now.st_ino == st.st_ino) unlink(path);
  return true;
}

}  // namespace ll::os
