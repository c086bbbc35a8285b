// Signalling children: 9 ends a child of the calling thread with code 9,
// other signals ask a process to stop (its kill event, or the stop signal),
// 18 is ignored and 0 probes.
#include <liblocal/process.h>

#include <cerrno>

#include "proc/process_os.h"
#include "proc/spawn_internal.h"
#include <liblocal/output.h>
#include <liblocal/syserr.h>
#include <liblocal/thread.h>

namespace ll::process {
namespace {

constexpr int kSigKill = 9;
constexpr int kSigCont = 18;

int kill_node(Child &c) noexcept {
  if (c.is_thread) {
    if (!c.thr || !qz_thr_kill(c.thr, kSigKill)) {
      errno = ESRCH;
      return -1;
    }
    os::done_set(c.obj);
    return 0;
  }
  return os::terminate(c);
}

int probe(ChildTable &t, int id) noexcept {
  if (id == 0 || (id < 0 && static_cast<uint32_t>(-static_cast<int64_t>(id)) == os::own_pid())) {
    for (Child &c : t.nodes)
      if (!c.is_thread && !c.reaped && os::probe(c.id, &c) == 0) return 0;
    errno = ESRCH;
    return -1;
  }
  const uint32_t pid = static_cast<uint32_t>(id < 0 ? -static_cast<int64_t>(id) : id);
  Child *c = find(t, pid);
  if (c && c->reaped) {
    errno = ESRCH;
    return -1;
  }
  return os::probe(pid, c && !c->is_thread ? c : nullptr);
}

}  // namespace
}  // namespace ll::process

using namespace ll::process;

extern "C" LL_API int ll_kill(int id, int sig) noexcept {
  if (sig == kSigCont) return 0;
  if (sig < 0 || sig > 64) {
    errno = EINVAL;
    return -1;
  }
  ChildTable &t = table();
  if (sig == 0) return probe(t, id);

  if (id == 0 || (id < 0 && static_cast<uint32_t>(-static_cast<int64_t>(id)) == os::own_pid())) {
    int result = sig;
    for (Child &c : t.nodes) {
      if (c.is_thread || c.reaped) continue;
      result = sig == kSigKill ? os::terminate(c) : os::request_stop(c.id, &c);
    }
    return result;
  }

  const uint32_t pid = static_cast<uint32_t>(id < 0 ? -static_cast<int64_t>(id) : id);
  Child *c = find(t, pid);
  if (c && c->reaped) c = nullptr;
  if (sig != kSigKill) return os::request_stop(pid, c && !c->is_thread ? c : nullptr);
  if (!c) {
    dprintf(2, "kill: missing process node %d\n", static_cast<int>(pid));
    return sig;
  }
  if (kill_node(*c) != 0) {
    const int saved = errno;
    dprintf(2, "TerminateProc error, %s\n", qzmo_strerror(saved));
    errno = saved;
    return -1;
  }
  return 0;
}
