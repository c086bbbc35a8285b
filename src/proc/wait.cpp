// Reaping children of the calling thread: one by id, or any of them.
//
// A node is marked reaped when a wait has seen it end; its object is closed
// then (a process is gone once reaped: nothing is left to wait on or signal)
// and the node itself goes at the start of the next waitchild.
#include <liblocal/process.h>

#include <algorithm>
#include <cerrno>

#include "proc/process_os.h"
#include "proc/spawn_internal.h"
#include <liblocal/output.h>
#include <liblocal/thread.h>

namespace ll::process {

void mark_reaped(ChildTable &t, Child &c) noexcept {
  if (c.reaped) return;
  c.reaped = true;
  ++t.reaped;
  if (c.is_thread && c.thr) {
    // The function has returned (or the thread was killed): its status,
    // once the thread has let go of its event.
    uint32_t st = 0;
    int nowait = 0;
    if (qz_thr_wait(c.thr, &st, &nowait)) c.code = static_cast<int>(st);
    qz_thr_destroy(c.thr);
    c.thr = nullptr;
  }
  os::release(t, c);
  if (static_cast<size_t>(t.reaped) == t.nodes.size()) os::table_closed(t);
}

namespace {

void remove_reaped(ChildTable &t) noexcept {
  if (t.reaped == 0) return;
  t.nodes.erase(std::remove_if(t.nodes.begin(), t.nodes.end(), [](const Child &c) { return c.reaped; }),
                t.nodes.end());
  t.reaped = 0;
}

int no_child() noexcept {
  errno = ECHILD;
  return -1;
}

}  // namespace
}  // namespace ll::process

using namespace ll::process;

extern "C" LL_API int waitchild(int id, int *status, int options) noexcept {
  int dummy;
  if (!status) status = &dummy;
  *status = 255;
  ChildTable &t = table();
  if (t.nodes.empty()) return no_child();
  remove_reaped(t);
  if (t.nodes.empty()) return no_child();
  const uint32_t ms = (options & QZ_WAIT_NOHANG) ? 0 : os::kInfinite;

  Child *c;
  if (id != -1) {
    c = find(t, static_cast<uint32_t>(id));
    if (!c) {
      // Not ours: the id comes back as it is, with what the system says of it.
      *status = static_cast<int>(static_cast<unsigned>(os::foreign_code(static_cast<uint32_t>(id))) << 8);
      return id;
    }
    const int r = os::wait_one(*c, ms);
    if (r == 0) return 0;
    if (r < 0 || c->lost) {
      if (c->lost) mark_reaped(t, *c);
      return no_child();
    }
  } else {
    const int i = os::wait_any(t, ms);
    if (i == -2) return 0;
    if (i < 0) return no_child();
    c = &t.nodes[static_cast<size_t>(i)];
    if (c->lost) {
      // Ended, but reaped by the system (a program that ignores SIGCHLD).
      mark_reaped(t, *c);
      return no_child();
    }
  }
  mark_reaped(t, *c);
  *status = static_cast<int>(static_cast<unsigned>(c->code) << 8);
  dprintf(1, "waitchild reaped, %s %d\n", c->is_thread ? "tid" : "pid", static_cast<int>(c->id));
  return static_cast<int>(c->id);
}
