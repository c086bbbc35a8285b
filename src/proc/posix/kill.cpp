// Signalling children on Linux. A child of the table is reached through its
// process descriptor (pidfd_send_signal), so a signal never lands on another
// process that reuses the id; other ids go through kill(2). A request to
// stop is the stop signal, SIGTERM, which the process-event layer turns into
// the program's kill handler.
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "proc/process_os.h"
#include <liblocal/output.h>
#include <liblocal/syserr.h>

namespace ll::process::os {
namespace {

int send(uint32_t id, const Child *node, int sig) noexcept {
  long r;
  if (node && node->obj >= 0)
    r = syscall(SYS_pidfd_send_signal, static_cast<int>(node->obj), sig, nullptr, 0);
  else if (node)
    r = (errno = ESRCH, -1);
  else if (id == 0 || id > static_cast<uint32_t>(INT32_MAX))
    r = (errno = ESRCH, -1);
  else
    r = ::kill(static_cast<pid_t>(id), sig);
  return r == 0 ? 0 : -1;
}

}  // namespace

int terminate(Child &c) noexcept { return send(c.id, &c, SIGKILL); }

int request_stop(uint32_t id, Child *node) noexcept {
  if (send(id, node, SIGTERM) == 0) return 0;
  const int saved = errno;
  dprintf(2, "Kill failed on %d with error: %s\n", static_cast<int>(id), qzmo_strerror(saved));
  errno = saved;
  return -1;
}

int probe(uint32_t id, Child *node) noexcept {
  if (send(id, node, 0) == 0 || errno == EPERM) return 0;
  errno = ESRCH;
  return -1;
}

}  // namespace ll::process::os
