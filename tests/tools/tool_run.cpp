#include "tool_run.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#ifdef _WIN32
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#else
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
extern char **environ;
#endif

#include "lltest.h"

namespace fs = std::filesystem;

namespace tooltest {

static fs::path u8(const std::string &s) { return fs::path(std::u8string(s.begin(), s.end())); }

std::string tool_path() {
  fs::path p = u8(lltest::self_path()).parent_path() / (lltest::kWindows ? "llocal.exe" : "llocal");
  auto s = p.u8string();
  return std::string(s.begin(), s.end());
}

std::string read_file(const std::string &path) {
  std::ifstream in(u8(path), std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void write_file(const std::string &path, const std::string &data) {
  std::ofstream o(u8(path), std::ios::binary | std::ios::trunc);
  o.write(data.data(), static_cast<std::streamsize>(data.size()));
}

bool file_exists(const std::string &path) {
  std::error_code ec;
  return fs::exists(u8(path), ec);
}

std::vector<std::string> list_dir(const std::string &dir) {
  std::vector<std::string> names;
  for (const auto &e : fs::directory_iterator(u8(dir))) {
    auto s = e.path().filename().u8string();
    names.emplace_back(s.begin(), s.end());
  }
  return names;
}

std::string lcg_bytes(size_t n, unsigned seed) {
  std::string s(n, '\0');
  uint32_t x = seed;
  for (auto &c : s) {
    x = x * 1103515245u + 12345u;
    c = static_cast<char>(x >> 24);
  }
  return s;
}

std::string data_file(const std::string &name) { return std::string(LL_TOOLS_DATA) + "/" + name; }

static std::string strip_cr(const std::string &s) {
  std::string o;
  o.reserve(s.size());
  for (char c : s)
    if (c != '\r') o += c;
  return o;
}

Result run(const std::vector<std::string> &args, const std::string &input, const std::string &cwd) {
  Result r;
  lltest::TempDir dir;
  const std::string out = dir.file("out"), err = dir.file("err");
  std::vector<std::string> argv = {tool_path()};
  argv.insert(argv.end(), args.begin(), args.end());
#ifdef _WIN32
  std::wstring cmd;
  for (const auto &a : argv) {
    // Quoted by the rules the C runtime parses.
    std::wstring w = u8(a).wstring();
    cmd += L'"';
    size_t bs = 0;
    for (wchar_t c : w) {
      if (c == L'\\') {
        ++bs;
      } else if (c == L'"') {
        cmd.append(bs + 1, L'\\');
        bs = 0;
      } else {
        bs = 0;
      }
      cmd += c;
    }
    cmd.append(bs, L'\\');
    cmd += L"\" ";
  }
  SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
  HANDLE ho = CreateFileW(u8(out).wstring().c_str(), GENERIC_WRITE, FILE_SHARE_READ, &sa, CREATE_ALWAYS, 0, nullptr);
  HANDLE he = CreateFileW(u8(err).wstring().c_str(), GENERIC_WRITE, FILE_SHARE_READ, &sa, CREATE_ALWAYS, 0, nullptr);
  HANDLE hi = CreateFileW(input.empty() ? L"NUL" : u8(input).wstring().c_str(), GENERIC_READ,
                          FILE_SHARE_READ | FILE_SHARE_WRITE, &sa, OPEN_EXISTING, 0, nullptr);
  STARTUPINFOW si{};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdInput = hi;
  si.hStdOutput = ho;
  si.hStdError = he;
  PROCESS_INFORMATION pi{};
  const std::wstring wcwd = cwd.empty() ? std::wstring() : u8(cwd).wstring();
  if (CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, TRUE, 0, nullptr, cwd.empty() ? nullptr : wcwd.c_str(),
                     &si, &pi)) {
    if (WaitForSingleObject(pi.hProcess, 120000) == WAIT_TIMEOUT) {
      TerminateProcess(pi.hProcess, 124);
      WaitForSingleObject(pi.hProcess, INFINITE);
    }
    DWORD code = 0;
    GetExitCodeProcess(pi.hProcess, &code);
    r.exit_code = static_cast<int>(code);
    CloseHandle(pi.hProcess);
    CloseHandle(pi.hThread);
  }
  CloseHandle(ho);
  CloseHandle(he);
  CloseHandle(hi);
#else
  std::vector<char *> cargv;
  for (auto &a : argv) cargv.push_back(a.data());
  cargv.push_back(nullptr);
  // A child that changes directory first: posix_spawn has no portable way.
  pid_t pid = fork();
  if (pid == 0) {
    const int in = open(input.empty() ? "/dev/null" : input.c_str(), O_RDONLY);
    const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (in < 0 || o < 0 || e < 0 || dup2(in, 0) < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) _exit(126);
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
    execv(cargv[0], cargv.data());
    _exit(127);
  }
  int status = 0;
  if (pid > 0 && waitpid(pid, &status, 0) == pid)
    r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
#endif
  r.out_raw = read_file(out);
  r.out = strip_cr(r.out_raw);
  r.err = strip_cr(read_file(err));
  return r;
}

}  // namespace tooltest
