// Signalling children on Windows: TerminateProcess for 9, the child's named
// kill event ("<pid>KILLEVENT", made by its process-event layer) for the
// other signals.
#include <cerrno>
#include <cstdio>

#include "frame/syserr.h"
#include "frame/win32/win.h"
#include "proc/process_os.h"
#include <liblocal/output.h>
#include <liblocal/syserr.h>

namespace ll::process::os {

int terminate(Child &c) noexcept {
  if (c.obj == -1) {
    errno = ESRCH;
    return -1;
  }
  if (TerminateProcess(reinterpret_cast<HANDLE>(c.obj), 9)) return 0;
  set_errno_from_os();
  return -1;
}

int request_stop(uint32_t id, Child *) noexcept {
  char name[32];
  std::snprintf(name, sizeof name, "%u%s", id, "KILLEVENT");
  HANDLE e = OpenEventA(EVENT_ALL_ACCESS, TRUE, name);
  if (!e) {
    const int saved = set_errno_from_os();
    dprintf(2, "Kill failed on %s with error: %s", name, qzmo_strerror(saved));
    errno = saved;
    return -1;
  }
  if (!SetEvent(e)) {
    const int saved = set_errno_from_os();
    CloseHandle(e);
    dprintf(2, "Kill failed, %s", qzmo_strerror(saved));
    errno = saved;
    return -1;
  }
  CloseHandle(e);
  return 0;
}

int probe(uint32_t id, Child *node) noexcept {
  if (node) {
    if (node->obj != -1 && WaitForSingleObject(reinterpret_cast<HANDLE>(node->obj), 0) == WAIT_TIMEOUT) return 0;
    errno = ESRCH;
    return -1;
  }
  HANDLE h = OpenProcess(SYNCHRONIZE, FALSE, id);
  if (!h) {
    if (GetLastError() == ERROR_ACCESS_DENIED) return 0;  // it exists, just not for us
    errno = ESRCH;
    return -1;
  }
  const bool running = WaitForSingleObject(h, 0) == WAIT_TIMEOUT;
  CloseHandle(h);
  if (running) return 0;
  errno = ESRCH;
  return -1;
}

}  // namespace ll::process::os
