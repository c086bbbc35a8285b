// The map script as a child of the command interpreter, in a job object so
// that everything it starts is ended with it at a limit.
#include "frame/win32/win.h"

#include "cluster/script.h"

namespace ll::cluster {
namespace {

struct Handle {
  HANDLE h = nullptr;
  ~Handle() {
    if (h && h != INVALID_HANDLE_VALUE) CloseHandle(h);
  }
};

std::wstring interpreter() {
  wchar_t dir[MAX_PATH];
  const UINT n = GetSystemDirectoryW(dir, MAX_PATH);
  if (!n || n >= MAX_PATH) return L"cmd.exe";
  return std::wstring(dir, n) + L"\\cmd.exe";
}

}  // namespace

bool script_runnable(const char *path) noexcept {
  const DWORD a = GetFileAttributesW(ll::win::widen(path).c_str());
  return a != INVALID_FILE_ATTRIBUTES && !(a & FILE_ATTRIBUTE_DIRECTORY);
}

ScriptEnd run_script(const char *path, const ScriptLimits &limits, LineReader &reader) noexcept {
  if (!script_runnable(path)) return ScriptEnd::not_started;
  SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
  Handle rd, wr, nul, job;
  if (!CreatePipe(&rd.h, &wr.h, &sa, 0)) return ScriptEnd::not_started;
  SetHandleInformation(rd.h, HANDLE_FLAG_INHERIT, 0);
  nul.h = CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &sa, OPEN_EXISTING, 0, nullptr);
  job.h = CreateJobObjectW(nullptr, nullptr);

  STARTUPINFOW si{};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdInput = nul.h;
  si.hStdOutput = wr.h;
  si.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  const std::wstring exe = interpreter();
  std::wstring cmd = L"\"" + exe + L"\" /d /c \"\"" + ll::win::widen(path) + L"\"\"";
  PROCESS_INFORMATION pi{};
  if (!CreateProcessW(exe.c_str(), cmd.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED | CREATE_NO_WINDOW, nullptr,
                      nullptr, &si, &pi))
    return ScriptEnd::not_started;
  Handle proc, thread;
  proc.h = pi.hProcess;
  thread.h = pi.hThread;
  if (job.h) AssignProcessToJobObject(job.h, proc.h);
  ResumeThread(thread.h);
  CloseHandle(wr.h);
  wr.h = nullptr;

  const ULONGLONG deadline = GetTickCount64() + limits.timeout_ms;
  size_t total = 0;
  ScriptEnd end = ScriptEnd::ok;
  char buf[16384];
  for (DWORD nap = 1;; nap = nap < 20 ? nap * 2 : 20) {
    if (GetTickCount64() >= deadline) {
      end = ScriptEnd::timed_out;
      break;
    }
    DWORD avail = 0;
    if (!PeekNamedPipe(rd.h, nullptr, 0, nullptr, &avail, nullptr)) break;  // every writer has gone
    if (!avail) {
      Sleep(nap);
      continue;
    }
    nap = 1;
    DWORD got = 0;
    if (!ReadFile(rd.h, buf, avail < sizeof buf ? avail : sizeof buf, &got, nullptr) || !got) break;
    total += got;
    if (total > limits.max_output) {
      end = ScriptEnd::too_much_output;
      break;
    }
    reader.feed(buf, got);
  }
  if (end == ScriptEnd::ok) {
    const ULONGLONG now = GetTickCount64();
    if (WaitForSingleObject(proc.h, static_cast<DWORD>(deadline > now ? deadline - now : 0)) != WAIT_OBJECT_0)
      end = ScriptEnd::timed_out;
  }
  if (end != ScriptEnd::ok) {
    if (job.h) TerminateJobObject(job.h, 1);
    TerminateProcess(proc.h, 1);
    WaitForSingleObject(proc.h, 5000);
    return end;
  }
  DWORD code = 1;
  GetExitCodeProcess(proc.h, &code);
  return code == 0 ? ScriptEnd::ok : ScriptEnd::failed;
}

}  // namespace ll::cluster
