#include "lltest.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#ifdef _WIN32
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#else
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
extern char **environ;
#endif

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace lltest {

static std::map<std::string, ChildFn> &children() {
  static std::map<std::string, ChildFn> m;
  return m;
}

ChildRegistration::ChildRegistration(const char *name, ChildFn fn) { children()[name] = fn; }

std::string self_path() {
#ifdef _WIN32
  wchar_t buf[32768];
  DWORD n = GetModuleFileNameW(nullptr, buf, 32768);
  auto u8 = fs::path(std::wstring(buf, n)).u8string();
  return std::string(u8.begin(), u8.end());
#else
  return fs::read_symlink("/proc/self/exe").string();
#endif
}

void set_env(const char *name, const char *value) {
#ifdef _WIN32
  std::string s = std::string(name) + "=" + (value ? value : "");
  _putenv(s.c_str());
#else
  if (value)
    setenv(name, value, 1);
  else
    unsetenv(name);
#endif
}

ScopedEnv::ScopedEnv(const char *name, const char *value) : name_(name) {
  const char *v = std::getenv(name);
  had_ = v != nullptr;
  if (v) old_ = v;
  set_env(name, value);
}
ScopedEnv::~ScopedEnv() { set_env(name_.c_str(), had_ ? old_.c_str() : nullptr); }

static std::string slurp(const fs::path &p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  std::string s = ss.str();
  std::string out;
  for (char c : s)
    if (c != '\r') out += c;
  return out;
}

ChildResult run_child(const std::string &name, const std::vector<std::string> &args,
                      const std::vector<std::string> &env, int timeout_ms) {
  ChildResult r;
  TempDir dir;
  const fs::path out = fs::u8path(dir.file("out")), err = fs::u8path(dir.file("err"));
  // Environment changes go into this process around the spawn; tests are
  // single-threaded while they start children.
  std::vector<std::pair<std::string, std::pair<bool, std::string>>> saved;
  for (const auto &e : env) {
    auto eq = e.find('=');
    std::string n = e.substr(0, eq), v = eq == std::string::npos ? "" : e.substr(eq + 1);
    const char *old = std::getenv(n.c_str());
    saved.push_back({n, {old != nullptr, old ? old : ""}});
    set_env(n.c_str(), v.empty() ? nullptr : v.c_str());
  }
  std::vector<std::string> argv = {self_path(), "--lltest-child", name};
  argv.insert(argv.end(), args.begin(), args.end());
#ifdef _WIN32
  std::wstring cmd;
  for (const auto &a : argv) {
    // Quote each word by the rules the C runtime parses.
    std::wstring w = fs::u8path(a).wstring();
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
  HANDLE ho = CreateFileW(out.wstring().c_str(), GENERIC_WRITE, FILE_SHARE_READ, &sa, CREATE_ALWAYS, 0, nullptr);
  HANDLE he = CreateFileW(err.wstring().c_str(), GENERIC_WRITE, FILE_SHARE_READ, &sa, CREATE_ALWAYS, 0, nullptr);
  HANDLE hi = CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &sa, OPEN_EXISTING, 0, nullptr);
  STARTUPINFOW si{};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdInput = hi;
  si.hStdOutput = ho;
  si.hStdError = he;
  PROCESS_INFORMATION pi{};
  if (CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi)) {
    if (WaitForSingleObject(pi.hProcess, static_cast<DWORD>(timeout_ms)) == WAIT_TIMEOUT) {
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
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&fa, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid;
  if (posix_spawn(&pid, cargv[0], &fa, nullptr, cargv.data(), environ) == 0) {
    int status = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
      pid_t w = waitpid(pid, &status, WNOHANG);
      if (w == pid) break;
      if (std::chrono::steady_clock::now() > deadline) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        break;
      }
      usleep(2000);
    }
    r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  posix_spawn_file_actions_destroy(&fa);
#endif
  for (auto &s : saved) set_env(s.first.c_str(), s.second.first ? s.second.second.c_str() : nullptr);
  r.out = slurp(out);
  r.err = slurp(err);
  return r;
}

TempDir::TempDir() {
  static std::mt19937_64 rng(std::random_device{}() ^ static_cast<uint64_t>(
                                                           std::chrono::steady_clock::now().time_since_epoch().count()));
  fs::path base = fs::temp_directory_path();
  for (;;) {
    fs::path p = base / ("lltest-" + std::to_string(rng() % 100000000000ull));
    std::error_code ec;
    if (fs::create_directory(p, ec)) {
      auto u8 = p.u8string();
      path_.assign(u8.begin(), u8.end());
      break;
    }
  }
}

TempDir::~TempDir() {
  std::error_code ec;
  fs::remove_all(fs::u8path(path_), ec);
}

std::string TempDir::file(const std::string &name) const {
  return path_ + (kWindows ? "\\" : "/") + name;
}

void TempDir::write(const std::string &name, const std::string &content) const {
  std::ofstream o(fs::u8path(file(name)), std::ios::binary);
  o << content;
}

std::string TempDir::read(const std::string &name) const {
  std::ifstream in(fs::u8path(file(name)), std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

}  // namespace lltest

int main(int argc, char **argv) {
  if (argc >= 3 && std::strcmp(argv[1], "--lltest-child") == 0) {
    auto &m = lltest::children();
    auto it = m.find(argv[2]);
    if (it == m.end()) {
      std::fprintf(stderr, "no child named %s\n", argv[2]);
      return 127;
    }
    int rc = it->second(argc - 3, argv + 3);
    std::fflush(stdout);
    std::fflush(stderr);
    return rc;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
