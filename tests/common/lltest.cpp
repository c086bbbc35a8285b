#include "lltest.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <list>
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

static std::string utf8(const fs::path &p) {
  auto u8 = p.u8string();
  return std::string(u8.begin(), u8.end());
}

std::string self_path() {
#ifdef _WIN32
  wchar_t buf[32768];
  DWORD n = GetModuleFileNameW(nullptr, buf, 32768);
  return utf8(fs::path(std::wstring(buf, n)));
#else
  return fs::read_symlink("/proc/self/exe").string();
#endif
}

int open_handles() {
#ifdef _WIN32
  DWORD n = 0;
  GetProcessHandleCount(GetCurrentProcess(), &n);
  return static_cast<int>(n);
#else
  int n = 0;
  for ([[maybe_unused]] auto &e : fs::directory_iterator("/proc/self/fd")) ++n;
  return n;
#endif
}

static void set_env(const char *name, const char *value) {
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

static std::string read_path(const fs::path &p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::string read_file(const std::string &path) { return read_path(fs::u8path(path)); }

std::string hex(const std::string &bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

static std::string without_cr(std::string s) {
  std::erase(s, '\r');
  return s;
}

ChildResult run_child(const std::string &name, const std::vector<std::string> &args,
                      const std::vector<std::string> &env, int timeout_ms) {
  std::vector<std::string> words = {"--lltest-child", name};
  words.insert(words.end(), args.begin(), args.end());
  RunOptions opts;
  opts.env = env;
  opts.timeout_ms = timeout_ms;
  return run_program(self_path(), words, opts);
}

ChildResult run_program(const std::string &path, const std::vector<std::string> &args, const RunOptions &opts) {
  ChildResult r;
  TempDir dir;
  const fs::path out = fs::u8path(dir.file("out")), err = fs::u8path(dir.file("err"));
  // Environment changes go into this process around the spawn; tests are
  // single-threaded while they start programs.
  std::list<ScopedEnv> saved;
  for (const auto &e : opts.env) {
    auto eq = e.find('=');
    std::string n = e.substr(0, eq), v = eq == std::string::npos ? "" : e.substr(eq + 1);
    saved.emplace_back(n.c_str(), v.empty() ? nullptr : v.c_str());
  }
  std::vector<std::string> argv = {path};
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
  HANDLE hi = CreateFileW(opts.input.empty() ? L"NUL" : fs::u8path(opts.input).wstring().c_str(), GENERIC_READ,
                          FILE_SHARE_READ | FILE_SHARE_WRITE, &sa, OPEN_EXISTING, 0, nullptr);
  STARTUPINFOW si{};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdInput = hi;
  si.hStdOutput = ho;
  si.hStdError = he;
  PROCESS_INFORMATION pi{};
  const std::wstring wcwd = opts.cwd.empty() ? std::wstring() : fs::u8path(opts.cwd).wstring();
  if (CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, TRUE, 0, nullptr,
                     opts.cwd.empty() ? nullptr : wcwd.c_str(), &si, &pi)) {
    if (WaitForSingleObject(pi.hProcess, static_cast<DWORD>(opts.timeout_ms)) == WAIT_TIMEOUT) {
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
  const std::string in = opts.input.empty() ? "/dev/null" : opts.input;
  // fork rather than posix_spawn: the child may have to change directory first.
  pid_t pid = fork();
  if (pid == 0) {
    const int i = open(in.c_str(), O_RDONLY);
    const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (i < 0 || o < 0 || e < 0 || dup2(i, 0) < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) _exit(126);
    if (!opts.cwd.empty() && chdir(opts.cwd.c_str()) != 0) _exit(126);
    execv(cargv[0], cargv.data());
    _exit(127);
  }
  if (pid > 0) {
    int status = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(opts.timeout_ms);
    for (;;) {
      pid_t w = waitpid(pid, &status, WNOHANG);
      if (w == pid) break;
      if (std::chrono::steady_clock::now() > deadline) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        break;
      }
      usleep(1000);
    }
    r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
#endif
  while (!saved.empty()) saved.pop_back();  // restored in reverse order
  r.out_raw = read_path(out);
  r.out = without_cr(r.out_raw);
  r.err = without_cr(read_path(err));
  return r;
}

TempDir::TempDir() {
  // One generator per thread: tests make folders from several threads.
  thread_local std::mt19937_64 rng(std::random_device{}() ^
                                   static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()));
  std::error_code ec;
  fs::path p;
  do p = fs::temp_directory_path() / ("lltest-" + std::to_string(rng() % 100000000000ull));
  while (!fs::create_directory(p, ec));
  path_ = utf8(p);
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

std::string TempDir::read(const std::string &name) const { return read_file(file(name)); }

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
