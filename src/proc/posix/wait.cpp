// Waiting for children on Linux: each process child is a process
// descriptor, each thread child an event descriptor that its start routine
// sets. A wait for one child polls its descriptor and then reaps exactly that
// process with waitid(P_PIDFD); a wait for any child asks the thread's epoll
// set which descriptors are ready, so its cost does not grow with the number
// of running children. Nothing here ever waits for "any process": children
// of other threads, and of code outside the library, are never reaped.
//
// A wait for one process with no time limit is a blocking waitid(P_PIDFD)
// alone: the kernel wakes it for that process only. A program that ignores
// SIGCHLD has its children reaped by the system; Linux then answers ECHILD
// for exactly that process (it never waits for all children, as wait() may
// elsewhere). Timed waits poll the descriptor, which becomes ready when the
// child ends either way, and reap it with waitid(WNOHANG).
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <vector>

#include "proc/process_os.h"

namespace ll::process::os {
namespace {

uint64_t now_ms() noexcept {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

// Time left of a wait begun at 'start', as poll takes it (-1 no limit).
int left(uint32_t ms, uint64_t start) noexcept {
  if (ms == kInfinite) return -1;
  const uint64_t spent = now_ms() - start;
  if (spent >= ms) return 0;
  const uint64_t rest = ms - spent;
  return rest > INT_MAX ? INT_MAX : static_cast<int>(rest);
}

// The exit code a wait reports: a normal exit's code; SIGKILL reports 9, the
// code of a child ended with kill(pid, 9) on every platform; another signal n
// reports 128 + n.
int code_of(const siginfo_t &si) noexcept {
  if (si.si_code == CLD_EXITED) return si.si_status & 0xFF;
  return si.si_status == SIGKILL ? 9 : 128 + si.si_status;
}

// Reaps a process child whose descriptor is ready: 1 reaped (or lost), 0 it
// has not ended, -1 failure.
int reap(Child &c) noexcept {
  siginfo_t si;
  si.si_pid = 0;
  int r;
  do r = waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(c.obj), &si, WEXITED | WNOHANG);
  while (r < 0 && errno == EINTR);
  if (r < 0) {
    if (errno != ECHILD) return -1;
    c.lost = true;
    return 1;
  }
  if (si.si_pid == 0) return 0;
  c.code = code_of(si);
  return 1;
}

int ready(intptr_t fd, int timeout) noexcept {
  pollfd p = {static_cast<int>(fd), POLLIN, 0};
  return poll(&p, 1, timeout);
}

}  // namespace

namespace {

// The thread's epoll set, made the first time a wait for any child needs it
// (a program that only waits by id never pays for it).
bool make_waitset(ChildTable &t) noexcept {
  t.waitset = epoll_create1(EPOLL_CLOEXEC);
  if (t.waitset < 0) {
    t.waitset = -2;  // no epoll set: waits poll every node
    return false;
  }
  for (Child &o : t.nodes)
    if (o.obj >= 0) {
      epoll_event ev{};
      ev.events = EPOLLIN;
      ev.data.fd = static_cast<int>(o.obj);
      if (epoll_ctl(static_cast<int>(t.waitset), EPOLL_CTL_ADD, ev.data.fd, &ev) != 0) {
        close(static_cast<int>(t.waitset));
        t.waitset = -2;
        return false;
      }
    }
  return true;
}

}  // namespace

void added(ChildTable &t, Child &c) noexcept {
  if (t.waitset < 0 || c.obj < 0) return;
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.fd = static_cast<int>(c.obj);
  if (epoll_ctl(static_cast<int>(t.waitset), EPOLL_CTL_ADD, ev.data.fd, &ev) != 0) {
    close(static_cast<int>(t.waitset));
    t.waitset = -2;
  }
}

void release(ChildTable &, Child &c) noexcept {
  close_obj(c.obj);  // which also takes it out of the epoll set
  c.obj = -1;
}

void table_closed(ChildTable &t) noexcept {
  if (t.waitset >= 0) close(static_cast<int>(t.waitset));
  t.waitset = -1;
}

int wait_one(Child &c, uint32_t ms) noexcept {
  if (c.obj < 0) {
    errno = ECHILD;
    return -1;
  }
  if (!c.is_thread && ms == kInfinite) {
    // No time limit: the kernel's own wait for exactly this process.
    siginfo_t si;
    si.si_pid = 0;
    int r;
    do r = waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(c.obj), &si, WEXITED);
    while (r < 0 && errno == EINTR);
    if (r < 0) {
      if (errno != ECHILD) return -1;
      c.lost = true;
      return 1;
    }
    c.code = code_of(si);
    return 1;
  }
  const uint64_t start = now_ms();
  for (;;) {
    if (!c.is_thread && ms == 0) return reap(c);
    const int r = ready(c.obj, left(ms, start));
    if (r < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (r == 0) {
      if (left(ms, start) == 0) return 0;
      continue;
    }
    if (c.is_thread) return 1;
    const int g = reap(c);
    if (g != 0) return g;
    if (left(ms, start) == 0) return 0;
  }
}

int wait_any(ChildTable &t, uint32_t ms) noexcept {
  const uint64_t start = now_ms();
  if (t.waitset == -1) make_waitset(t);
  std::vector<int> cand;
  for (;;) {
    cand.clear();
    int timeout = left(ms, start);
    if (t.waitset >= 0) {
      epoll_event ev[64];
      const int n = epoll_wait(static_cast<int>(t.waitset), ev, 64, timeout);
      if (n < 0) {
        if (errno == EINTR) continue;
        return -1;
      }
      for (int k = 0; k < n; ++k)
        for (size_t i = t.nodes.size(); i-- > 0;)
          if (t.nodes[i].obj == ev[k].data.fd) {
            cand.push_back(static_cast<int>(i));
            break;
          }
    } else {
      std::vector<pollfd> ps;
      std::vector<int> idx;
      try {
        for (size_t i = 0; i < t.nodes.size(); ++i)
          if (t.nodes[i].obj >= 0) {
            ps.push_back({static_cast<int>(t.nodes[i].obj), POLLIN, 0});
            idx.push_back(static_cast<int>(i));
          }
      } catch (...) {
        errno = ENOMEM;
        return -1;
      }
      if (ps.empty()) {
        errno = ECHILD;
        return -1;
      }
      const int n = poll(ps.data(), ps.size(), timeout);
      if (n < 0) {
        if (errno == EINTR) continue;
        return -1;
      }
      for (size_t k = 0; k < ps.size(); ++k)
        if (ps[k].revents) cand.push_back(idx[k]);
    }
    // The newest of the children found ended.
    std::sort(cand.begin(), cand.end(), [](int a, int b) { return a > b; });
    for (int i : cand) {
      Child &c = t.nodes[static_cast<size_t>(i)];
      if (c.is_thread) return i;
      const int g = reap(c);
      if (g > 0) return i;
      if (g < 0) return -1;
    }
    if (left(ms, start) == 0) return -2;
  }
}

int foreign_code(uint32_t) noexcept { return -1; }

intptr_t done_new() noexcept { return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }

void done_set(intptr_t e) noexcept {
  if (e < 0) return;
  const uint64_t one = 1;
  const int saved = errno;
  ssize_t r = write(static_cast<int>(e), &one, sizeof one);
  (void)r;
  errno = saved;
}

void close_obj(intptr_t obj) noexcept {
  if (obj >= 0) {
    const int saved = errno;
    close(static_cast<int>(obj));
    errno = saved;
  }
}

}  // namespace ll::process::os
