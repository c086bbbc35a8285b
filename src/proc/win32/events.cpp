// Process events on Windows: the named events "<pid>KILLEVENT" and
// "<pid>DEBUGEVENT" that other processes set, the thread that waits on them,
// and the console control handler.
#include "proc/events.h"

#include <cstdio>
#include <cstdlib>

#include "frame/win32/win.h"
#include <aclapi.h>
#include <liblocal/frame.h>
#include <liblocal/output.h>

namespace ll::ev {
namespace {

HANDLE g_kill = nullptr;
HANDLE g_debug = nullptr;

void trace_failure(DWORD err) {
  char text[64];
  std::snprintf(text, sizeof text, "error %lu", static_cast<unsigned long>(err));
  dprintf(2, "regeventthread failed, %s\n", text);
}

HANDLE make_event(const wchar_t *suffix) {
  wchar_t name[64];
  std::swprintf(name, 64, L"%lu%ls", static_cast<unsigned long>(GetCurrentProcessId()), suffix);
  HANDLE h = CreateEventW(nullptr, TRUE, FALSE, name);
  if (!h) trace_failure(GetLastError());
  return h;
}

// The debug event may be set by the machine's administrators.
void admin_dacl(HANDLE h) {
  SID_IDENTIFIER_AUTHORITY nt = SECURITY_NT_AUTHORITY;
  PSID admins = nullptr;
  if (!AllocateAndInitializeSid(&nt, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 0, 0, 0, 0, 0, 0,
                                &admins)) {
    trace_failure(GetLastError());
    return;
  }
  const DWORD size = sizeof(ACL) + sizeof(ACCESS_ALLOWED_ACE) + GetLengthSid(admins);
  auto *acl = static_cast<PACL>(std::calloc(1, size));
  if (acl && InitializeAcl(acl, size, ACL_REVISION) && AddAccessAllowedAce(acl, ACL_REVISION, EVENT_ALL_ACCESS, admins)) {
    const DWORD rc = SetSecurityInfo(h, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, acl, nullptr);
    if (rc != ERROR_SUCCESS) trace_failure(rc);
  } else {
    trace_failure(GetLastError());
  }
  std::free(acl);
  FreeSid(admins);
}

DWORD WINAPI listen(LPVOID) {
  HANDLE both[2] = {g_kill, g_debug};
  for (;;) {
    if (!g_kill || !g_debug) {
      // Without its events the thread has nothing to wait for.
      break;
    }
    const DWORD r = WaitForMultipleObjects(2, both, FALSE, INFINITE);
    if (r == WAIT_OBJECT_0) {
      if (on_kill()) break;
      ResetEvent(g_kill);
    } else if (r == WAIT_OBJECT_0 + 1) {
      ResetEvent(g_debug);
      on_debug();
    } else {
      trace_failure(GetLastError());
      Sleep(1000);
    }
  }
  if (g_kill) CloseHandle(g_kill);
  if (g_debug) CloseHandle(g_debug);
  g_kill = g_debug = nullptr;
  after_loop();
  return 0;
}

BOOL WINAPI console(DWORD type) {
  on_console(type == CTRL_C_EVENT ? 0 : static_cast<int>(type) + 1);
  return TRUE;
}

}  // namespace

namespace os {

void attach() noexcept { start(); }

bool start_listener(bool with_console) noexcept {
  // The events exist before anyone learns this process's id from us.
  g_kill = make_event(L"KILLEVENT");
  g_debug = make_event(L"DEBUGEVENT");
  if (g_debug) admin_dacl(g_debug);
  HANDLE t = CreateThread(nullptr, 8192, listen, nullptr, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  if (!t) trace_failure(GetLastError());
  else CloseHandle(t);
  if (with_console) SetConsoleCtrlHandler(console, TRUE);
  return t != nullptr;
}

void exit_process(int code) noexcept { std::exit(code); }

int read_debug_control() noexcept { return qz_read_debug_control(); }

}  // namespace os
}  // namespace ll::ev
