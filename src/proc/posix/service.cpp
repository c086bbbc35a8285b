// Services on a POSIX system: the system's service manager. The process
// speaks to it through the manager's notify datagram (no library of the
// manager's is needed); other services are driven through the manager's
// command-line client; installation writes a unit file.
#include "proc/service_state.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "frame/os.h"
#include "proc/posix/notify.h"
#include <liblocal/catalog.h>
#include <liblocal/frame.h>
#include <liblocal/output.h>

extern char **environ;

namespace ll::svc::os {
namespace {

std::mutex g_paths_lock;
std::string g_client = "/bin/systemctl";
std::string g_unit_dir = "/etc/systemd/system";

std::string client_path() {
  std::lock_guard<std::mutex> g(g_paths_lock);
  return g_client;
}
std::string unit_dir() {
  std::lock_guard<std::mutex> g(g_paths_lock);
  return g_unit_dir;
}

// ------------------------------------------------------------ notify

int g_sock = -1;
sockaddr_un g_addr{};
socklen_t g_addr_len = 0;

// One datagram with the sender's credentials; errno on failure.
bool notify(const std::string &text) {
  if (g_sock < 0 || g_addr_len == 0) {
    errno = ENOTCONN;
    return false;
  }
  iovec iov{const_cast<char *>(text.data()), text.size()};
  union {
    cmsghdr h;
    char buf[CMSG_SPACE(sizeof(ucred))];
  } c{};
  msghdr m{};
  m.msg_name = &g_addr;
  m.msg_namelen = g_addr_len;
  m.msg_iov = &iov;
  m.msg_iovlen = 1;
  m.msg_control = c.buf;
  m.msg_controllen = sizeof c.buf;
  cmsghdr *cm = CMSG_FIRSTHDR(&m);
  cm->cmsg_level = SOL_SOCKET;
  cm->cmsg_type = SCM_CREDENTIALS;
  cm->cmsg_len = CMSG_LEN(sizeof(ucred));
  ucred cr{getpid(), getuid(), getgid()};
  std::memcpy(CMSG_DATA(cm), &cr, sizeof cr);
  for (;;) {
    if (sendmsg(g_sock, &m, MSG_NOSIGNAL) >= 0) return true;
    if (errno == EINTR) continue;
    if (errno == EPERM && m.msg_control) {  // credentials we may not claim: let the kernel add them
      m.msg_control = nullptr;
      m.msg_controllen = 0;
      continue;
    }
    return false;
  }
}

void notify_traced(const std::string &text) {
  if (!notify(text)) dprintf(2, "service manager notification failed, %s\n", std::strerror(errno));
}

void *service_thread(void *) { service_main(); }

uint64_t g_watchdog_us = 0;

void *watchdog_thread(void *) {
  const uint64_t half = g_watchdog_us / 2;
  for (;;) {
    timespec ts{static_cast<time_t>(half / 1000000), static_cast<long>(half % 1000000) * 1000};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
    notify_traced("WATCHDOG=1\n");
  }
  return nullptr;
}

bool start_thread(void *(*fn)(void *), size_t stack) {
  pthread_attr_t a;
  pthread_attr_init(&a);
  pthread_attr_setstacksize(&a, stack);
  pthread_attr_setdetachstate(&a, PTHREAD_CREATE_DETACHED);
  pthread_t t;
  const int rc = pthread_create(&t, &a, fn, nullptr);
  pthread_attr_destroy(&a);
  return rc == 0;
}

std::string take_env(const char *name) {
  const char *v = getenv(name);
  std::string s = v ? v : "";
  unsetenv(name);
  return s;
}

// ------------------------------------------------------------ client

// Unit names as the manager accepts them; never an option.
bool valid_unit(const char *n) {
  const size_t len = std::strlen(n);
  if (len == 0 || len > 200 || n[0] == '-' || n[0] == '.') return false;
  for (const char *p = n; *p; ++p) {
    const unsigned char c = static_cast<unsigned char>(*p);
    if (!(std::isalnum(c) || c == '_' || c == '-' || c == '.' || c == '@' || c == ':' || c == '\\')) return false;
  }
  return true;
}

// Runs the client with a bounded time and output; false when it cannot run.
bool run_client(std::initializer_list<const char *> words, std::string *out, int *status) {
  const std::string path = client_path();
  if (access(path.c_str(), X_OK) != 0) return false;
  std::vector<char *> argv;
  argv.push_back(const_cast<char *>(path.c_str()));
  for (const char *w : words) argv.push_back(const_cast<char *>(w));
  argv.push_back(nullptr);
  int p[2];
  if (pipe2(p, O_CLOEXEC) != 0) return false;
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&fa, p[1], 1);
  posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid;
  const int rc = posix_spawn(&pid, path.c_str(), &fa, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&fa);
  close(p[1]);
  if (rc != 0) {
    close(p[0]);
    return false;
  }
  const uint32_t t0 = ll::os::tick_ms();
  constexpr uint32_t kLimitMs = 30000;
  std::string text;
  for (;;) {
    const uint32_t used = ll::os::tick_ms() - t0;
    if (used >= kLimitMs) break;
    pollfd pf{p[0], POLLIN, 0};
    const int r = poll(&pf, 1, static_cast<int>(kLimitMs - used));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    char buf[512];
    const ssize_t n = read(p[0], buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (text.size() < 4096) text.append(buf, static_cast<size_t>(n));
  }
  close(p[0]);
  int st = 0;
  bool ended = false;
  while (!ended) {
    const pid_t w = waitpid(pid, &st, WNOHANG);
    if (w == pid) {
      ended = true;
    } else if (w < 0 && errno != EINTR) {
      st = 0;  // reaped elsewhere: the output decides
      ended = true;
    } else if (ll::os::tick_ms() - t0 > kLimitMs) {
      kill(pid, SIGKILL);
      while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
      }
      return false;
    } else if (w == 0) {
      ll::os::sleep_ms(5);
    }
  }
  if (out) *out = text;
  if (status) *status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return true;
}

// ------------------------------------------------------------ unit files

// A word of a unit's command line: always quoted, with the manager's
// escapes, so that blanks, quotes and specifiers stay part of the word.
bool quote_word(const std::string &w, std::string &out) {
  out += '"';
  for (const char c : w) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7F) return false;
    if (c == '"' || c == '\\') out += '\\';
    if (c == '%') out += '%';
    if (c == '$') out += '$';
    out += c;
  }
  out += '"';
  return true;
}

std::string plain_line(const char *s) {
  std::string out;
  for (; *s; ++s) {
    const unsigned char u = static_cast<unsigned char>(*s);
    out += u < 0x20 || u == 0x7F ? ' ' : *s;
    if (*s == '%') out += '%';
  }
  return out;
}

std::string self_path() {
  char buf[4096];
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return "";
  return std::string(buf, static_cast<size_t>(n));
}

bool write_file(const std::string &path, const std::string &text) {
  const std::string tmp = path + ".tmp";
  unlink(tmp.c_str());
  const int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  const bool ok = done == text.size() && fsync(fd) == 0;
  close(fd);
  if (!ok || rename(tmp.c_str(), path.c_str()) != 0) {
    const int e = errno;
    unlink(tmp.c_str());
    errno = e;
    return false;
  }
  return true;
}

}  // namespace

// Answered once: registration removes the manager's variables from the
// environment, and the answer must not change with it.
bool run_by_service() noexcept {
  static std::atomic<int> answer{-1};
  int v = answer.load();
  if (v < 0) {
    const char *n = getenv("NOTIFY_SOCKET");
    const char *i = getenv("INVOCATION_ID");
    int expected = -1;
    v = (n && *n) || (i && *i);
    if (!answer.compare_exchange_strong(expected, v)) v = expected;
  }
  return v != 0;
}

bool stop_signal_is_service_stop() noexcept { return true; }

bool begin(const char *) noexcept {
  // The manager's variables go now: a child this daemon starts must never
  // believe that it is the service.
  const std::string sock = take_env("NOTIFY_SOCKET");
  take_env("INVOCATION_ID");
  const std::string wd_usec = take_env("WATCHDOG_USEC");
  const std::string wd_pid = take_env("WATCHDOG_PID");
  if (!sock.empty()) {
    if (notify_address(sock.c_str(), &g_addr, &g_addr_len))
      g_sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    else
      dprintf(2, "service manager socket %s refused\n", sock.c_str());
  }
  if (!start_thread(service_thread, 512 * 1024)) return false;
  if (!wd_usec.empty() && (wd_pid.empty() || std::strtol(wd_pid.c_str(), nullptr, 10) == getpid())) {
    char *end;
    const unsigned long long us = std::strtoull(wd_usec.c_str(), &end, 10);
    if (*end == '\0' && us >= 2 && us < 1000000000000ull) {
      g_watchdog_us = us;
      start_thread(watchdog_thread, 64 * 1024);
    }
  }
  return true;
}

bool failed() noexcept { return false; }

// A failed notification never stops the daemon: the manager may simply be
// gone, and the process is still doing its work.
bool report(int state, int code, uint32_t, uint32_t, int *) noexcept {
  if (state == kRunning) {
    char fmt[512], line[2048];
    std::snprintf(line, sizeof line, qzcatgets_buf(fmt, sizeof fmt, Catd, 17, 175, "%s has started"), display());
    notify_traced("READY=1\nSTATUS=" + plain_line(line) + "\n");
  } else if (state == kStopping) {
    std::string m = "STOPPING=1\n";
    if (code != 0) m += "ERRNO=" + std::to_string(code) + "\nEXIT_STATUS=" + std::to_string(code) + "\n";
    notify_traced(m);
  }
  return true;
}

void final_report(int) noexcept {}
void close_handles() noexcept {}
bool can_pause() noexcept { return false; }
void suspend_main(bool) noexcept {}

void end_process(int code) noexcept {
  std::exit(code == 0 ? 0 : (code & 0xFF) ? (code & 0xFF) : 1);
}

bool query(const char *name, Status *out) noexcept {
  if (!valid_unit(name)) return false;
  std::string text;
  if (!run_client({"is-active", "--", name}, &text, nullptr)) return false;
  text = text.substr(0, text.find('\n'));
  if (text == "active" || text == "reloading") *out = Status::Running;
  else if (text == "activating") *out = Status::StartPending;
  else if (text == "deactivating") *out = Status::StopPending;
  else if (text == "inactive" || text == "failed") *out = Status::Stopped;
  else return false;
  return true;
}

bool start(const char *name) noexcept {
  int st = -1;
  return valid_unit(name) && run_client({"start", "--no-block", "--", name}, nullptr, &st) && st == 0;
}

bool stop(const char *name) noexcept {
  int st = -1;
  return valid_unit(name) && run_client({"stop", "--no-block", "--", name}, nullptr, &st) && st == 0;
}

bool install(const char *name, const char *disp, const std::vector<std::string> &args) noexcept {
  if (!valid_unit(name) || std::strchr(name, '\\')) {
    printerr("%s: not a service name\n", name);
    return false;
  }
  std::string cmd;
  bool ok = quote_word(self_path(), cmd);
  for (const std::string &a : args) {
    cmd += ' ';
    ok = ok && quote_word(a, cmd);
  }
  if (!ok) {
    printerr("%s: the program's path or arguments hold control characters\n", name);
    return false;
  }
  const std::string unit = "[Unit]\nDescription=" + plain_line(disp) +
                           "\n\n[Service]\nType=notify\nNotifyAccess=main\nExecStart=" + cmd +
                           "\nTimeoutStartSec=1800\nTimeoutStopSec=60\n\n[Install]\nWantedBy=multi-user.target\n";
  const std::string path = unit_dir() + "/" + name + ".service";
  if (!write_file(path, unit)) {
    printerr("cannot write %s: %s\n", path.c_str(), std::strerror(errno));
    return false;
  }
  run_client({"daemon-reload"}, nullptr, nullptr);
  run_client({"enable", "--", name}, nullptr, nullptr);
  return true;
}

bool remove(const char *name) noexcept {
  if (!valid_unit(name) || std::strchr(name, '\\')) {
    printerr("%s: not a service name\n", name);
    return false;
  }
  run_client({"disable", "--", name}, nullptr, nullptr);
  const std::string path = unit_dir() + "/" + name + ".service";
  if (unlink(path.c_str()) != 0) {
    printerr("cannot remove %s: %s\n", path.c_str(), std::strerror(errno));
    return false;
  }
  run_client({"daemon-reload"}, nullptr, nullptr);
  return true;
}

int win9x_service(int) noexcept { return 0; }

}  // namespace ll::svc::os

extern "C" {
// Test seam: the manager's command-line client and the unit-file directory
// (null keeps a value).
LL_API void llt_svc_paths(const char *client, const char *unit_dir) noexcept {
  std::lock_guard<std::mutex> g(ll::svc::os::g_paths_lock);
  if (client) ll::svc::os::g_client = client;
  if (unit_dir) ll::svc::os::g_unit_dir = unit_dir;
}
}
