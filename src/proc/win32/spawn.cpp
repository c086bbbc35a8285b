// Creating a child process on Windows.
//
// The NT class gets the wide creation call with a UTF-16 command line and
// environment, so every argument arrives as it was written; the Windows 9x
// class gets the ANSI call. The child inherits exactly the handles of the
// completed set and the standard triple: they are named in the creation's
// handle list (on the NT class), and marked inheritable only while the
// process-wide creation lock is held, so a concurrent spawn cannot hand them
// to its own child.
//
// Batch files (".bat", ".cmd", decided on the full name as Windows resolves
// it, so "x.bat." is one too) run through the command interpreter of the
// system directory, with AutoRun, echo and delayed expansion off. Every
// argument is passed to the script as data: quoted, with the characters the
// interpreter would act on escaped; an argument that cannot be made safe
// (NUL, CR, LF) refuses the spawn with EINVAL.
#include <cerrno>
#include <cstring>
#include <cwchar>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include <io.h>

#include "frame/fault.h"
#include "frame/areas.h"
#include "frame/syserr.h"
#include "frame/win32/win.h"
#include "proc/process_os.h"
#include "proc/win32/spawn_win.h"
#include <liblocal/env.h>
#include <liblocal/osver.h>

namespace ll::process::os {
namespace {

bool class9x() noexcept { return Win32OSVersion() == 4; }

// Serialises process creation: the inheritable marking is process-wide.
std::mutex &creation_lock() noexcept {
  struct Lock {
    std::mutex m;
  };
  return ll::process_area<Lock>()->m;
}

bool ends_with_ci(const std::wstring &s, const wchar_t *tail) noexcept {
  const size_t n = std::wcslen(tail);
  return s.size() >= n && _wcsicmp(s.c_str() + s.size() - n, tail) == 0;
}

std::wstring system_dir() {
  wchar_t buf[MAX_PATH];
  const UINT n = GetSystemDirectoryW(buf, MAX_PATH);
  return n && n < MAX_PATH ? std::wstring(buf, n) : std::wstring(L"C:\\Windows\\System32");
}

// The program as CreateProcess would find it: a full name, or empty.
std::wstring resolve(const std::wstring &name) {
  wchar_t buf[4096];
  DWORD n;
  if (name.find_first_of(L"\\/:") != std::wstring::npos) {
    n = GetFullPathNameW(name.c_str(), 4096, buf, nullptr);
  } else {
    n = SearchPathW(nullptr, name.c_str(), L".exe", 4096, buf, nullptr);
    if (n && n < 4096) n = GetFullPathNameW(std::wstring(buf, n).c_str(), 4096, buf, nullptr);
  }
  return n && n < 4096 ? std::wstring(buf, n) : std::wstring();
}

// One word of a command line, quoted so that the runtime's argument parser
// gives it back exactly: empty words, blanks, quotes and backslashes before
// quotes survive.
void append_word(std::wstring &line, const std::wstring &w) {
  if (!line.empty()) line += L' ';
  if (!w.empty() && w.find_first_of(L" \t\n\v\"") == std::wstring::npos) {
    line += w;
    return;
  }
  line += L'"';
  size_t backslashes = 0;
  for (wchar_t c : w) {
    if (c == L'\\') {
      ++backslashes;
      continue;
    }
    line.append(c == L'"' ? 2 * backslashes + 1 : backslashes, L'\\');
    backslashes = 0;
    line += c;
  }
  line.append(2 * backslashes, L'\\');
  line += L'"';
}

// One argument of a batch file's command line, passed as data.
bool append_batch_arg(std::wstring &line, const std::wstring &arg) {
  if (arg.find_first_of(std::wstring(L"\r\n\0", 3)) != std::wstring::npos) return false;
  bool quote = arg.empty() || arg.find_first_of(L" \t&|<>^()\"%!,;=[]{}'+`~") != std::wstring::npos ||
               arg.back() == L'\\';
  line += L' ';
  if (quote) line += L'"';
  size_t backslashes = 0;
  for (wchar_t c : arg) {
    if (c == L'\\') {
      ++backslashes;
    } else {
      if (c == L'"') line.append(backslashes, L'\\');  // 2n backslashes before a quote
      backslashes = 0;
    }
    if (c == L'"') line += L'"';         // doubled: stays inside the quotes for the interpreter
    if (c == L'%') line += L"%%cd:~,";   // expands to nothing before the literal '%'
    line += c;
  }
  if (quote) {
    line.append(backslashes, L'\\');
    line += L'"';
  }
  return true;
}

// The inheritable flag of a handle, set for the creation and put back after.
struct Marked {
  HANDLE h;
  DWORD old;
};

bool is_runtime_fd(intptr_t v) noexcept {
  if (v < 0 || v >= 0x10000) return false;
  const intptr_t h = _get_osfhandle(static_cast<int>(v));
  return h != -1 && h != -2;
}

HANDLE handle_of(intptr_t v) noexcept {
  if (v >= 0 && v < 0x10000) {
    // A runtime-library descriptor when it is one, else the handle itself.
    const intptr_t h = _get_osfhandle(static_cast<int>(v));
    if (h != -1 && h != -2) return reinterpret_cast<HANDLE>(h);
  }
  return reinterpret_cast<HANDLE>(v);
}

using DuplicateTokenExFn = BOOL(WINAPI *)(HANDLE, DWORD, LPSECURITY_ATTRIBUTES, SECURITY_IMPERSONATION_LEVEL,
                                          TOKEN_TYPE, PHANDLE);

DuplicateTokenExFn duplicate_token_ex() noexcept {
  static DuplicateTokenExFn fn = [] {
    HMODULE m = LoadLibraryA("ADVAPI32.DLL");
    return m ? reinterpret_cast<DuplicateTokenExFn>(reinterpret_cast<void *>(GetProcAddress(m, "DuplicateTokenEx")))
             : nullptr;
  }();
  return fn;
}

int os_failure() noexcept {
  set_errno_from_os();
  return -1;
}

// A handle closed when it goes out of scope.
struct OwnedHandle {
  HANDLE h = nullptr;
  OwnedHandle() = default;
  OwnedHandle(const OwnedHandle &) = delete;
  OwnedHandle &operator=(const OwnedHandle &) = delete;
  ~OwnedHandle() {
    if (h) CloseHandle(h);
  }
};

}  // namespace

std::string to_ansi(const wchar_t *w, size_t n) {
  const int len = WideCharToMultiByte(CP_ACP, 0, w, static_cast<int>(n), nullptr, 0, nullptr, nullptr);
  std::string out(static_cast<size_t>(len > 0 ? len : 0), '\0');
  if (len > 0) WideCharToMultiByte(CP_ACP, 0, w, static_cast<int>(n), out.data(), len, nullptr, nullptr);
  return out;
}

std::wstring build_env_block(const std::vector<std::string> &extra) {
  std::vector<const char *> set;
  for (const std::string &e : extra) set.push_back(e.c_str());
  set.push_back(nullptr);
  size_t size = 0;
  void *block = mkenv(set.data(), QZ_ENV_WIDE, &size);
  if (!block) throw std::bad_alloc();
  std::wstring out(static_cast<const wchar_t *>(block), size / sizeof(wchar_t));
  std::free(block);
  return out;
}

uint32_t own_pid() noexcept { return GetCurrentProcessId(); }

int create(const SpawnReq &req, Child &node) noexcept {
  try {
    // The full name as Windows resolves it decides whether it is a batch file.
    const std::wstring given = ll::win::widen(req.path);
    const std::wstring full = resolve(given);
    const bool batch = !(req.flags & 64) && (ends_with_ci(full, L".bat") || ends_with_ci(full, L".cmd"));

    std::wstring app, line;
    if (batch) {
      if (full.find(L'"') != std::wstring::npos || full.back() == L'\\') {
        errno = EINVAL;
        return -1;
      }
      app = system_dir() + L"\\cmd.exe";
      line = L"\"" + app + L"\" /d /q /v:off /e:on /s /c \"\"" + full + L"\"";
      for (char **a = req.argv + 1; *a; ++a)
        if (!append_batch_arg(line, ll::win::widen(*a))) {
          errno = EINVAL;
          return -1;
        }
      line += L"\"";
    } else {
      // The vector joined by the runtime's quoting rules, with the resolved
      // program in the place of the first word.
      std::wstring wline;
      append_word(wline, full.empty() ? given : full);
      for (char **a = req.argv + 1; *a; ++a) append_word(wline, ll::win::widen(*a));
      if (req.flags & 64) {
        app = system_dir() + L"\\cmd.exe";
        line = L"\"" + app + L"\" /d /s /c \"" + wline + L"\"";
      } else {
        line = wline;
      }
    }

    const bool ansi = class9x();
    if (ansi && req.stdfds && req.stdfds[1] != -1 && !is_runtime_fd(req.stdfds[1]))
      return relay_create(req, to_ansi(line.c_str(), line.size()), to_ansi(app.c_str(), app.size()), node);

    // Standard handles.
    HANDLE in = nullptr, out = GetStdHandle(STD_OUTPUT_HANDLE), err = GetStdHandle(STD_ERROR_HANDLE);
    if (req.stdfds) {
      HANDLE h[3];
      for (int i = 0; i < 3; ++i) {
        h[i] = nullptr;
        if (req.stdfds[i] == -1) continue;
        h[i] = handle_of(req.stdfds[i]);
        DWORD flags;
        if (h[i] == INVALID_HANDLE_VALUE || !GetHandleInformation(h[i], &flags)) {
          errno = EBADF;
          return -1;
        }
      }
      in = h[0];
      if (h[1]) out = h[1];
      if (h[2]) err = h[2];
    }
    // Input that is also the output: an inheritable duplicate of its own.
    OwnedHandle in_dup;
    if (in && (in == out || in == err)) {
      if (!DuplicateHandle(GetCurrentProcess(), in, GetCurrentProcess(), &in_dup.h, 0, TRUE, DUPLICATE_SAME_ACCESS))
        return os_failure();
      in = in_dup.h;
    }

    // The handles the child inherits: the set, the standard ones.
    std::vector<HANDLE> list;
    auto add = [&list](HANDLE h) {
      if (!h || h == INVALID_HANDLE_VALUE) return;
      for (HANDLE o : list)
        if (o == h) return;
      list.push_back(h);
    };
    add(in);
    add(out);
    add(err);
    if (req.inherit)
      for (int i = 0; i < req.inherit->fd_count; ++i) {
        const intptr_t v = static_cast<intptr_t>(req.inherit->fd_array[i]);
        if (v >= 0 && v <= 2) continue;  // the standard descriptors are the triple
        HANDLE h = handle_of(v);
        DWORD f;
        if (!GetHandleInformation(h, &f)) {
          errno = EBADF;
          return -1;
        }
        add(h);
      }

    const std::wstring env = build_env_block(req.env);
    DWORD flags = CREATE_UNICODE_ENVIRONMENT;
    if (req.flags & 4) flags |= CREATE_NEW_PROCESS_GROUP;
    if (req.flags & 8) flags |= DETACHED_PROCESS;

    // A token to run as: a primary one is used as it is, an impersonation
    // token is duplicated into a primary one.
    HANDLE token = static_cast<HANDLE>(req.token);
    OwnedHandle primary;
    if (token) {
      TOKEN_TYPE type;
      DWORD n = 0;
      if (!GetTokenInformation(token, TokenType, &type, sizeof type, &n)) return os_failure();
      if (type != TokenPrimary) {
        DuplicateTokenExFn dup = duplicate_token_ex();
        if (!dup) {
          SetLastError(ERROR_PROC_NOT_FOUND);
          return os_failure();
        }
        if (!dup(token, TOKEN_ALL_ACCESS, nullptr, SecurityImpersonation, TokenPrimary, &primary.h))
          return os_failure();
        token = primary.h;
      }
    }

    STARTUPINFOEXW si{};
    si.StartupInfo.cb = sizeof si;
    si.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    si.StartupInfo.hStdInput = in;
    si.StartupInfo.hStdOutput = out;
    si.StartupInfo.hStdError = err;
    wchar_t desktop[1] = {0};
    if (token) si.StartupInfo.lpDesktop = desktop;

    SIZE_T attr_size = 0;
    std::vector<unsigned char> attr_mem;
    if (!list.empty() && !ansi) {
      InitializeProcThreadAttributeList(nullptr, 1, 0, &attr_size);
      attr_mem.resize(attr_size);
      auto *attrs = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(attr_mem.data());
      if (InitializeProcThreadAttributeList(attrs, 1, 0, &attr_size) &&
          UpdateProcThreadAttribute(attrs, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, list.data(),
                                    list.size() * sizeof(HANDLE), nullptr, nullptr)) {
        si.lpAttributeList = attrs;
        flags |= EXTENDED_STARTUPINFO_PRESENT;
        si.StartupInfo.cb = sizeof(STARTUPINFOEXW);
      }
    }

    PROCESS_INFORMATION pi{};
    BOOL ok;
    int saved = 0;
    {
      std::lock_guard<std::mutex> g(creation_lock());
      std::vector<Marked> marked;
      for (HANDLE h : list) {
        DWORD f = 0;
        if (GetHandleInformation(h, &f)) {
          marked.push_back({h, f & HANDLE_FLAG_INHERIT});
          SetHandleInformation(h, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
        }
      }
      std::vector<wchar_t> cmd(line.begin(), line.end());
      cmd.push_back(0);
      std::vector<wchar_t> envmem(env.begin(), env.end());
      if (ansi) {
        // The Windows 9x class: the ANSI call, no handle list, no window.
        std::string acmd = to_ansi(line.c_str(), line.size()), aenv = to_ansi(env.data(), env.size());
        const std::string aapp = to_ansi(app.c_str(), app.size());
        STARTUPINFOA sa{};
        sa.cb = sizeof sa;
        sa.dwFlags = STARTF_USESTDHANDLES | STARTF_USESHOWWINDOW;
        sa.wShowWindow = SW_HIDE;
        sa.hStdInput = in;
        sa.hStdOutput = out;
        sa.hStdError = err;
        ok = CreateProcessA(app.empty() ? nullptr : aapp.c_str(), acmd.data(), nullptr, nullptr, TRUE,
                            flags & ~static_cast<DWORD>(CREATE_UNICODE_ENVIRONMENT), aenv.data(), nullptr, &sa, &pi);
      } else if (token)
        ok = CreateProcessAsUserW(token, app.empty() ? nullptr : app.c_str(), cmd.data(), nullptr, nullptr, TRUE,
                                  flags, envmem.data(), nullptr, &si.StartupInfo, &pi);
      else
        ok = !LL_FAULT(spawn) && CreateProcessW(app.empty() ? nullptr : app.c_str(), cmd.data(), nullptr, nullptr, TRUE, flags,
                            envmem.data(), nullptr, &si.StartupInfo, &pi);
      if (!ok) saved = marked_last_error();
      for (const Marked &m : marked) SetHandleInformation(m.h, HANDLE_FLAG_INHERIT, m.old);
    }
    if (si.lpAttributeList) DeleteProcThreadAttributeList(si.lpAttributeList);
    if (!ok) {
      errno = saved;
      return -1;
    }
    CloseHandle(pi.hThread);
    node.obj = reinterpret_cast<intptr_t>(pi.hProcess);
    node.id = pi.dwProcessId;
    return 0;
  } catch (...) {
    errno = ENOMEM;
    return -1;
  }
}

}  // namespace ll::process::os
