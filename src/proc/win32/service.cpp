// Services on Windows: the service control manager.
#include "proc/service_state.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "frame/win32/win.h"
#include <liblocal/catalog.h>
#include <liblocal/frame.h>
#include <liblocal/osver.h>
#include <liblocal/output.h>

namespace ll::svc::os {
namespace {

HANDLE g_main = nullptr;  // the registering thread, for pause and continue
std::atomic<SERVICE_STATUS_HANDLE> g_status{nullptr};
std::atomic<bool> g_failed{false};
std::wstring g_wname;

struct Scm {
  SC_HANDLE mgr = nullptr, svc = nullptr;
  Scm(const char *name, DWORD mgr_access, DWORD svc_access) {
    mgr = OpenSCManagerW(nullptr, nullptr, mgr_access);
    if (mgr && name) svc = OpenServiceW(mgr, ll::win::widen(name).c_str(), svc_access);
  }
  ~Scm() {
    if (svc) CloseServiceHandle(svc);
    if (mgr) CloseServiceHandle(mgr);
  }
};

DWORD WINAPI handler(DWORD control, DWORD, LPVOID, LPVOID) {
  switch (control) {
    case SERVICE_CONTROL_STOP:
    case SERVICE_CONTROL_SHUTDOWN: svc::control(Control::Stop); break;
    case SERVICE_CONTROL_PAUSE: svc::control(Control::Pause); break;
    case SERVICE_CONTROL_CONTINUE: svc::control(Control::Continue); break;
    default: break;
  }
  return NO_ERROR;
}

void WINAPI service_entry(DWORD, LPWSTR *) {
  SERVICE_STATUS_HANDLE h = RegisterServiceCtrlHandlerExW(g_wname.c_str(), handler, nullptr);
  if (!h) {
    dprintf(2, "cannot register the service control handler, error %lu\n", GetLastError());
    g_failed.store(true);
    return;
  }
  g_status.store(h);
  if (SC_HANDLE mgr = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT)) {
    wchar_t disp[257];
    DWORD len = 257;
    if (GetServiceDisplayNameW(mgr, g_wname.c_str(), disp, &len)) set_display(ll::win::narrow(disp));
    CloseServiceHandle(mgr);
  }
  service_main();
}

DWORD WINAPI dispatcher(LPVOID) {
  SERVICE_TABLE_ENTRYW table[2] = {{const_cast<LPWSTR>(g_wname.c_str()), service_entry}, {nullptr, nullptr}};
  if (!StartServiceCtrlDispatcherW(table)) {
    dprintf(2, "service dispatcher failed, error %lu\n", GetLastError());
    g_failed.store(true);
  }
  return 0;
}

}  // namespace

bool run_by_service() noexcept {
  // A service runs without a user profile, hence without HOMEDRIVE.
  if (GetEnvironmentVariableW(L"HOMEDRIVE", nullptr, 0) != 0 || GetLastError() != ERROR_ENVVAR_NOT_FOUND) return false;
  return Win32OSVersion() != 4;
}

bool stop_signal_is_service_stop() noexcept { return false; }

bool begin(const char *name) noexcept {
  g_wname = ll::win::widen(name);
  if (!DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &g_main, 0, FALSE,
                       DUPLICATE_SAME_ACCESS)) {
    g_main = nullptr;
    char text[512];
    dprintf(1, "%s", qzcatgets_buf(text, sizeof text, Catd, 17, 174, "cannot duplicate thread handle\n"));
  }
  HANDLE t = CreateThread(nullptr, 8192, dispatcher, nullptr, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  if (!t) return false;
  CloseHandle(t);
  return true;
}

bool failed() noexcept { return g_failed.load(); }

bool report(int state, int code, uint32_t checkpoint, uint32_t wait_hint, int *error) noexcept {
  SERVICE_STATUS_HANDLE h = g_status.load();
  if (!h) return true;
  static const DWORD kReported[] = {0, SERVICE_START_PENDING, SERVICE_RUNNING, SERVICE_PAUSED, SERVICE_STOP_PENDING};
  SERVICE_STATUS s{};
  s.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  s.dwCurrentState = kReported[state];
  s.dwControlsAccepted =
      state == kStarting ? 0 : SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_PAUSE_CONTINUE | SERVICE_ACCEPT_SHUTDOWN;
  s.dwWin32ExitCode = static_cast<DWORD>(code);
  s.dwCheckPoint = checkpoint;
  s.dwWaitHint = wait_hint;
  if (SetServiceStatus(h, &s)) return true;
  *error = static_cast<int>(GetLastError());
  return false;
}

void final_report(int code) noexcept {
  SERVICE_STATUS_HANDLE h = g_status.exchange(nullptr);
  if (!h) return;
  SERVICE_STATUS s{};
  s.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  s.dwCurrentState = SERVICE_STOPPED;
  s.dwWin32ExitCode = static_cast<DWORD>(code);
  SetServiceStatus(h, &s);
}

void close_handles() noexcept {
  if (g_main) CloseHandle(g_main);
  g_main = nullptr;
}

bool can_pause() noexcept { return g_main != nullptr; }

void suspend_main(bool suspend) noexcept {
  if (suspend) SuspendThread(g_main);
  else ResumeThread(g_main);
}

void end_process(int) noexcept { std::exit(0); }

bool query(const char *name, Status *out) noexcept {
  Scm s(name, SC_MANAGER_CONNECT, SERVICE_QUERY_STATUS);
  SERVICE_STATUS st;
  if (!s.svc || !QueryServiceStatus(s.svc, &st)) return false;
  if (st.dwCurrentState < SERVICE_STOPPED || st.dwCurrentState > SERVICE_PAUSED) return false;
  *out = static_cast<Status>(st.dwCurrentState);
  return true;
}

bool start(const char *name) noexcept {
  Scm s(name, SC_MANAGER_CONNECT, SERVICE_START);
  return s.svc && StartServiceW(s.svc, 0, nullptr);
}

bool stop(const char *name) noexcept {
  Scm s(name, SC_MANAGER_CONNECT, SERVICE_STOP);
  SERVICE_STATUS st;
  return s.svc && ControlService(s.svc, SERVICE_CONTROL_STOP, &st);
}

bool install(const char *name, const char *disp, const std::vector<std::string> &args) noexcept {
  std::vector<wchar_t> path(32768);
  const DWORD n = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
  if (n == 0 || n >= path.size()) {
    printerr("%s: cannot find the program's path, error %lu\n", name, GetLastError());
    return false;
  }
  // The path is quoted: one with blanks can never start another program.
  std::wstring cmd = L"\"" + std::wstring(path.data(), n) + L"\"";
  for (const std::string &a : args) cmd += L" " + ll::win::widen(a.c_str());
  Scm s(nullptr, SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE, 0);
  SC_HANDLE h = s.mgr ? CreateServiceW(s.mgr, ll::win::widen(name).c_str(), ll::win::widen(disp).c_str(),
                                       SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START,
                                       SERVICE_ERROR_NORMAL, cmd.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr)
                      : nullptr;
  if (!h) {
    printerr("%s: cannot install the service, error %lu\n", name, GetLastError());
    return false;
  }
  CloseServiceHandle(h);
  return true;
}

bool remove(const char *name) noexcept {
  Scm s(name, SC_MANAGER_CONNECT, DELETE);
  if (!s.svc || !DeleteService(s.svc)) {
    printerr("%s: cannot remove the service, error %lu\n", name, GetLastError());
    return false;
  }
  return true;
}

int win9x_service(int flag) noexcept {
  if (Win32OSVersion() != 4) return 0;
  using Fn = DWORD(WINAPI *)(DWORD, DWORD);
  HMODULE k = GetModuleHandleW(L"kernel32.dll");
  auto fn = k ? reinterpret_cast<Fn>(reinterpret_cast<void *>(GetProcAddress(k, "RegisterServiceProcess"))) : nullptr;
  if (!fn) return 0;
  return static_cast<int>(fn(0, flag ? 1 : 0));
}

}  // namespace ll::svc::os
