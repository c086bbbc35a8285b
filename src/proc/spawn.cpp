// Starting child processes and threads, and the per-thread child tables they
// are recorded in. The back-end (proc/posix/spawn.cpp, proc/win32/spawn.cpp)
// creates the process; here are the checks, the extra environment, the
// program's full name, the inherited set and the bookkeeping.
#include <liblocal/process.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include "frame/areas.h"
#include "proc/process_os.h"
#include "proc/spawn_internal.h"
#include <liblocal/appdir.h>
#include <liblocal/output.h>
#include <liblocal/syserr.h>
#include <liblocal/thread.h>

namespace ll::process {

ChildTable::~ChildTable() {
  for (Child &c : nodes) os::release(*this, c);
  os::table_closed(*this);
}

ChildTable &table() noexcept { return *ll::thread_area<ChildTable>(); }

Child *find(ChildTable &t, uint32_t id) noexcept {
  for (size_t i = t.nodes.size(); i-- > 0;)
    if (t.nodes[i].id == id) return &t.nodes[i];
  return nullptr;
}

bool push(ChildTable &t, const Child &c) noexcept {
  try {
    t.nodes.push_back(c);
  } catch (...) {
    errno = ENOMEM;
    return false;
  }
  os::added(t, t.nodes.back());
  return true;
}

namespace {

bool valid_set(const qz_fd_set *s) noexcept { return !s || (s->fd_count >= 0 && s->fd_count <= QZ_FD_SETSIZE); }

void set_add(qz_fd_set &s, qz_socket_t v) noexcept {
  for (int i = 0; i < s.fd_count; ++i)
    if (s.fd_array[i] == v) return;
  if (s.fd_count < QZ_FD_SETSIZE) s.fd_array[s.fd_count++] = v;
}

}  // namespace

int spawn_impl(int flags, char **argv, qz_fd_set *inherit, int *stdfds, char **env, void *token) noexcept {
  if (!argv || !argv[0] || !argv[0][0] || !valid_set(inherit)) {
    errno = EINVAL;
    return -1;
  }
  SpawnReq req;
  req.flags = flags;
  req.argv = argv;
  req.stdfds = stdfds;
  req.token = token;

  // The extra environment: the program's own name first, then the caller's
  // strings in their order.
  try {
    req.env.emplace_back(std::string("BSW_MAST=") + getMyname());
    for (char **e = env; e && *e; ++e) {
      const char *eq = std::strchr(*e, '=');
      if (!eq || eq == *e) {
        errno = EINVAL;
        return -1;
      }
      req.env.emplace_back(*e);
    }
  } catch (...) {
    errno = ENOMEM;
    qzperror(getMyname());
    return -1;
  }

  char full[4096];
  req.path = execpath(argv[0], full, sizeof full);

  // The inherited set, completed from the triple: its entries, then 0, 1, 2.
  qz_fd_set *set = nullptr;
  if (inherit || stdfds) {
    set = static_cast<qz_fd_set *>(::operator new(sizeof(qz_fd_set), std::nothrow));
    if (!set) {
      errno = ENOMEM;
      qzperror(getMyname());
      return -1;
    }
    set->fd_count = 0;
    if (inherit) {
      set->fd_count = inherit->fd_count;
      std::memcpy(set->fd_array, inherit->fd_array, sizeof(qz_socket_t) * inherit->fd_count);
    }
    if (stdfds)
      for (int i = 0; i < 3; ++i)
        if (stdfds[i] != -1) set_add(*set, static_cast<qz_socket_t>(stdfds[i]));
    for (int i = 0; i < 3; ++i) set_add(*set, i);
    req.inherit = set;
  }

  Child node;
  const int r = os::create(req, node);
  ::operator delete(set);
  if (r != 0) {
    const int saved = errno;
    dprintf(1, "cannot exec %s: %s\n", argv[0], qzmo_strerror(saved));
    errno = saved;
    return -1;
  }
  ChildTable &t = table();
  if (!push(t, node)) {
    // Nothing can wait for it: let it run on, unrecorded.
    os::close_obj(node.obj);
    return -1;
  }
  const int pid = static_cast<int>(node.id);
  dprintf(1, "%s started, pid %d\n", argv[0], pid);

  if (flags & QZ_SPAWN_WAIT) {
    int status = 0;
    dprintf(1, "%s waiting, pid %d\n", argv[0], pid);
    if (waitchild(pid, &status, 0) == pid && (status & 0xFF) == 0 && (status & 0xFF00) != 0) {
      dprintf(1, "%s terminated abnormally, pid %d\n", argv[0], pid);
      return -1;
    }
  }
  return pid;
}

namespace {

// The start of a thread made by spawnthread: tells the creator its id, runs
// the function, and sets the node's event when the function has returned.
struct ThreadStart {
  void *(*fn)(void *);
  void *arg;
  intptr_t done;
  std::atomic<uint32_t> tid{0};
};

void *thread_trampoline(void *p) {
  auto *s = static_cast<ThreadStart *>(p);
  void *(*fn)(void *) = s->fn;
  void *arg = s->arg;
  const intptr_t done = s->done;
  // After this store the creator may return: s is gone.
  s->tid.store(qz_thr_getid(), std::memory_order_release);
  s->tid.notify_one();
  void *r = fn(arg);
  os::done_set(done);
  return r;
}

}  // namespace

}  // namespace ll::process

using namespace ll::process;

extern "C" {

LL_API int spawn_as_user(int flags, char **argv, qz_fd_set *inherit, int *stdfds, char **env,
                         void *token) noexcept {
  return spawn_impl(flags, argv, inherit, stdfds, env, token);
}

LL_API int spawn(int flags, char **argv, qz_fd_set *inherit, int *stdfds, char **env) noexcept {
  return spawn_impl(flags, argv, inherit, stdfds, env, nullptr);
}

LL_API int spawnthread(void *(*fn)(void *), void *arg) noexcept {
  if (!fn) {
    errno = EINVAL;
    return -1;
  }
  ChildTable &t = table();
  ThreadStart s;
  s.fn = fn;
  s.arg = arg;
  s.done = os::done_new();
  qz_thr_t *thr = nullptr;
  if (s.done == -1 || !qz_thr_create(&thr, thread_trampoline, &s)) {
    if (s.done == -1) errno = EMFILE;
    else errno = EAGAIN;
    const int saved = errno;
    os::close_obj(s.done);
    dprintf(1, "thread cannot exec: %s\n", qzmo_strerror(saved));
    errno = saved;
    return -1;
  }
  uint32_t tid;
  while ((tid = s.tid.load(std::memory_order_acquire)) == 0) s.tid.wait(0, std::memory_order_acquire);
  Child node;
  node.obj = s.done;
  node.id = tid;
  node.is_thread = true;
  node.thr = thr;
  if (!push(t, node)) return -1;
  dprintf(1, "thread started, tid %d\n", static_cast<int>(tid));
  return static_cast<int>(tid);
}

}  // extern "C"
