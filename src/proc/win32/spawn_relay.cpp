// The socket relay of the Windows 9x class. A child there cannot take a
// socket as its standard output, so its output goes into a pipe and a reader
// thread copies the pipe to the socket, then reports the child's end on the
// user's output. A child told to read its directives from standard input
// (" -f - ") gets an empty input instead.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "frame/syserr.h"
#include "frame/win32/win.h"
#include "proc/process_os.h"
#include "proc/win32/spawn_win.h"
#include <liblocal/catalog.h>
#include <liblocal/frame.h>
#include <liblocal/memory.h>
#include <liblocal/output.h>
#include <liblocal/process.h>
#include <liblocal/socket.h>
#include <liblocal/syserr.h>

namespace ll::process::os {
namespace {

// A catalog text (set 17) copied into the object under the catalog's lock:
// no other thread's lookup can change it while it is in use.
struct Msg {
  char text[512];
  Msg(int n, const char *def) noexcept { qzcatgets_buf(text, sizeof text, Catd, 17, n, def); }
  const char *c_str() const noexcept { return text; }
};

Msg msg(int n, const char *def) noexcept { return Msg(n, def); }

const char *last_error_text() { return qzmo_strerror(marked_last_error()); }

struct Reader {
  HANDLE pipe;         // read end
  HANDLE process;      // the child, a handle of the reader's own
  char name[260];      // display name
  bool name_flag;      // the display name was replaced
  qz_socket_t socket;
  char buf[1024];
  DWORD count;         // bytes of the last read
};

struct Writer {
  HANDLE pipe;  // the write end of the child's input
};

bool send_all(qz_socket_t s, const char *p, int n) {
  while (n > 0) {
    const int sent = qzsend(s, p, n, 0);
    if (sent <= 0) return false;
    p += sent;
    n -= sent;
  }
  return true;
}

void *reader_main(void *arg) {
  auto *r = static_cast<Reader *>(arg);
  r->count = 0;
  for (;;) {
    DWORD n = 0;
    if (ReadFile(r->pipe, r->buf, sizeof r->buf - 1, &n, nullptr)) {
      if (n == 0) continue;
      r->count = n;
      r->buf[n] = 0;
      if (!send_all(r->socket, r->buf, static_cast<int>(n))) {
        qzprintf(msg(1007, "cannot socket send %s\n%s").c_str(), r->name, qzmo_strerror(errno));
        CloseHandle(r->pipe);
        CloseHandle(r->process);
        std::free(r);
        return reinterpret_cast<void *>(static_cast<intptr_t>(-1));
      }
      continue;
    }
    if (GetLastError() == ERROR_BROKEN_PIPE) break;
  }
  DWORD code = 0;
  bool got = false;
  for (int i = 0; i < 10 && !(got = GetExitCodeProcess(r->process, &code)); ++i) delay(500);
  if (!got || code == STILL_ACTIVE) code = 0;
  r->buf[r->count] = 0;
  qzprintf("%s", r->buf);
  if (code != 0) {
    qzprintf(msg(1005, "=> %s failed : code = %d\n").c_str(), r->name, static_cast<int>(code));
    send_all(r->socket, r->buf, static_cast<int>(r->count));
  } else {
    qzprintf(msg(1004, "=> %s successful\n").c_str(), r->name);
  }
  if (!(r->name_flag && code == 0)) qzprintf("%s", msg(1006, "\nWaiting to be contacted ...\n\n").c_str());
  CloseHandle(r->pipe);
  CloseHandle(r->process);
  std::free(r);
  return reinterpret_cast<void *>(static_cast<uintptr_t>(code));
}

void *writer_main(void *arg) {
  auto *w = static_cast<Writer *>(arg);
  CloseHandle(w->pipe);  // the child sees the end of its input at once
  std::free(w);
  return nullptr;
}

// An inheritable pipe whose end 'keep_read' (or the write end) is made
// ours only: duplicated non-inheritable, the inheritable original closed.
bool make_pipe_pair(HANDLE &ours, HANDLE &theirs, bool ours_is_read, int create_msg, const char *create_def) {
  SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
  HANDLE rd, wr;
  if (!CreatePipe(&rd, &wr, &sa, 0)) {
    qzprintf(msg(create_msg, create_def).c_str(), last_error_text());
    return false;
  }
  HANDLE mine = ours_is_read ? rd : wr;
  theirs = ours_is_read ? wr : rd;
  if (!DuplicateHandle(GetCurrentProcess(), mine, GetCurrentProcess(), &ours, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
    qzprintf(msg(995, "cannot DuplicateHandle : %s\n").c_str(), last_error_text());
    CloseHandle(rd);
    CloseHandle(wr);
    return false;
  }
  CloseHandle(mine);
  return true;
}

std::string base_name(const char *path) {
  std::string s = path;
  const size_t slash = s.find_last_of("\\/:");
  if (slash != std::string::npos) s.erase(0, slash + 1);
  if (s.size() > 4 && _stricmp(s.c_str() + s.size() - 4, ".exe") == 0) s.resize(s.size() - 4);
  return s;
}

}  // namespace

int relay_create(const SpawnReq &req, std::string line, const std::string &app, Child &node) {
  HANDLE out_read = nullptr, out_write = nullptr;
  if (!make_pipe_pair(out_read, out_write, true, 994, "cannot CreatePipe : %s\n")) {
    errno = marked_last_error();
    return -1;
  }
  auto *r = static_cast<Reader *>(std::calloc(1, sizeof(Reader)));
  if (!r) {
    qzprintf("%s", msg(996, "Not enough memory for pipe rparams").c_str());
    CloseHandle(out_read);
    CloseHandle(out_write);
    errno = ENOMEM;
    return -1;
  }
  r->pipe = out_read;
  r->socket = static_cast<qz_socket_t>(static_cast<intptr_t>(req.stdfds[1]));

  // Directives from standard input: the child gets an empty input instead.
  HANDLE in_read = nullptr;
  Writer *w = nullptr;
  const size_t f = line.find(" -f - ");
  const bool directives = f != std::string::npos;
  auto undo = [&]() {
    CloseHandle(out_read);
    CloseHandle(out_write);
    if (in_read) CloseHandle(in_read);
    if (w) {
      CloseHandle(w->pipe);
      std::free(w);
    }
    std::free(r);
  };
  if (directives) {
    line.replace(f, 6, "      ");
    w = static_cast<Writer *>(std::calloc(1, sizeof(Writer)));
    if (!w) {
      qzprintf("%s", msg(997, "Not enough memory for pipe wparams").c_str());
      undo();
      errno = ENOMEM;
      return -1;
    }
    if (!make_pipe_pair(w->pipe, in_read, false, 998, "cannot CreatePipe: %s\n")) {
      std::free(w);
      w = nullptr;
      undo();
      errno = marked_last_error();
      return -1;
    }
  }

  const std::string given = base_name(req.argv[0]);
  if (_stricmp(given.c_str(), "savefs") == 0) {
    std::strcpy(r->name, "probe");
    r->name_flag = true;
  } else {
    std::snprintf(r->name, sizeof r->name, "%s", req.argv[0]);
  }

  qzprintf(msg(999, "=> Beginning %s ...\n").c_str(), r->name);
  if (directives) qzprintf("%s", msg(1000, "Ignoring directives\n").c_str());

  const std::wstring wenv = build_env_block(req.env);
  std::string env = to_ansi(wenv.data(), wenv.size());

  STARTUPINFOA si{};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES | STARTF_USESHOWWINDOW;
  si.wShowWindow = SW_HIDE;
  si.hStdInput = in_read;
  si.hStdOutput = out_write;
  si.hStdError = out_write;
  PROCESS_INFORMATION pi{};
  if (!CreateProcessA(app.empty() ? nullptr : app.c_str(), line.data(), nullptr, nullptr, TRUE, 0, env.data(),
                      nullptr, &si, &pi)) {
    const int saved = marked_last_error();
    qzprintf(msg(1001, "cannot exec %s: %s\n").c_str(), req.argv[0], qzmo_strerror(saved));
    undo();
    errno = saved;
    return -1;
  }
  CloseHandle(pi.hThread);
  CloseHandle(out_write);
  out_write = nullptr;
  if (in_read) {
    CloseHandle(in_read);
    in_read = nullptr;
  }
  node.obj = reinterpret_cast<intptr_t>(pi.hProcess);
  node.id = pi.dwProcessId;

  DuplicateHandle(GetCurrentProcess(), pi.hProcess, GetCurrentProcess(), &r->process, 0, FALSE,
                  DUPLICATE_SAME_ACCESS);
  if (spawnthread(reader_main, r) == -1) {
    qzprintf("%s", msg(1002, "error spawning thread for pipe reading\n").c_str());
    CloseHandle(r->process);
    CloseHandle(out_read);
    std::free(r);
  }
  if (w && spawnthread(writer_main, w) == -1) {
    qzprintf("%s", msg(1003, "error spawning thread for pipe writing\n").c_str());
    CloseHandle(w->pipe);
    std::free(w);
  }
  return 0;
}

}  // namespace ll::process::os
