// llocal serve / save / restore / list / stop: a real server process on
// loopback and real clients, end to end.
#include <gtest/gtest.h>
#include <liblocal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#ifdef _WIN32
#include <winsock2.h>
// after the sockets' header
#include <windows.h>
#else
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include "lltest.h"
#include "notify_listener.h"
#include "tool_run.h"

namespace fs = std::filesystem;
using tooltest::run;

namespace {

fs::path u8(const std::string &s) { return fs::path(std::u8string(s.begin(), s.end())); }

// Starts a program without waiting for it (standard output to out_fd when
// it is not -1); its id.
int start(std::vector<std::string> words, int out_fd = -1) {
  std::vector<char *> argv;
  for (auto &w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  int fds[3] = {-1, out_fd, -1};
  return spawn(0, argv.data(), nullptr, fds, nullptr);
}

// A save server in a temporary store, on a free loopback port.
class Server {
 public:
  // 'more' is added to the command line, 'env' (NAME=VALUE) to the server's
  // environment; 'wrap' runs before the tool ("{store}" is the store).
  explicit Server(const std::vector<std::string> &more = {}, const std::string &env = "",
                  const std::vector<std::string> &wrap = {}) {
    store_ = dir_.file("store");
    std::string port_file = dir_.file("port");
    std::vector<std::string> words = wrap;
    for (auto &w : words)
      if (w == "{store}") w = store_;
    for (std::string w : {tooltest::tool_path(), std::string("serve"), std::string("--store"), store_,
                          std::string("--listen"), std::string("127.0.0.1:0"), std::string("--port-file"), port_file})
      words.push_back(w);
    words.insert(words.end(), more.begin(), more.end());
    {
      std::string name = env.substr(0, env.find('='));
      lltest::ScopedEnv set(env.empty() ? "LLTEST_UNUSED" : name.c_str(),
                            env.empty() ? nullptr : env.c_str() + name.size() + 1);
      pid_ = start(words);
    }
    EXPECT_GT(pid_, 0);
    for (int i = 0; i < 300 && !tooltest::file_exists(port_file); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    port_ = std::atoi(tooltest::read_file(port_file).c_str());
    EXPECT_GT(port_, 0);
  }
  ~Server() {
    if (pid_ > 0) stop();
  }
  // Stops the server the way an operator does and returns its exit code.
  int stop() {
    EXPECT_EQ(run({"stop", std::to_string(pid_)}).exit_code, 0);
    int status = -1;
    EXPECT_EQ(waitchild(pid_, &status, 0), pid_);
    pid_ = 0;
    return QZ_WEXITCODE(status);
  }
  int pid() const { return pid_; }
  std::string addr() const { return "127.0.0.1:" + std::to_string(port_); }
  int port() const { return port_; }
  const std::string &store() const { return store_; }

 private:
  lltest::TempDir dir_;
  std::string store_;
  int pid_ = 0, port_ = 0;
};

void put(const fs::path &p, const std::string &data) {
  fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary) << data;
}

// Every file below root with its bytes, by relative name.
std::map<std::string, std::string> tree(const fs::path &root) {
  std::map<std::string, std::string> out;
  for (auto &e : fs::recursive_directory_iterator(root)) {
    auto rel = fs::relative(e.path(), root).generic_u8string();
    out[std::string(rel.begin(), rel.end())] = e.is_directory() ? "<dir>" : tooltest::read_file(e.path().string());
  }
  return out;
}

std::string first_line(const std::string &s) {
  std::string line = s.substr(0, s.find('\n'));
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

// A raw client: connects and sends bytes of its own making.
qz_socket_t raw_connect(int port) {
  Tcp_Is_Loaded();
  qz_socket_t s = qzsocket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  const unsigned char port_be[2] = {static_cast<unsigned char>(port >> 8), static_cast<unsigned char>(port)};
  const unsigned char loopback[4] = {127, 0, 0, 1};
  std::memcpy(&a.sin_port, port_be, 2);
  std::memcpy(&a.sin_addr, loopback, 4);
  EXPECT_EQ(qzconnect(s, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
  return s;
}
std::string frame(uint8_t type, const std::string &payload) {
  std::string f(8, '\0');
  f[0] = static_cast<char>(type);
  for (int i = 0; i < 4; ++i) f[4 + i] = static_cast<char>(payload.size() >> (8 * i));
  return f + payload;
}
void raw_send(qz_socket_t s, const std::string &bytes) {
  for (size_t at = 0; at < bytes.size();) {
    int n = qzsend(s, bytes.data() + at, static_cast<int>(bytes.size() - at), 0);
    if (n <= 0) return;
    at += static_cast<size_t>(n);
  }
}
// Reads until the server closes; the types of the frames that came.
std::string reply_types(qz_socket_t s) {
  std::string got;
  char buf[4096];
  for (int n; (n = qzrecv(s, buf, sizeof buf, 0)) > 0;) got.append(buf, static_cast<size_t>(n));
  std::string types;
  for (size_t at = 0; at + 8 <= got.size();) {
    types += got[at];
    uint32_t len = 0;
    for (int i = 0; i < 4; ++i) len |= static_cast<uint32_t>(static_cast<unsigned char>(got[at + 4 + i])) << (8 * i);
    at += 8 + len;
  }
  return types;
}
// An entry frame's payload for a file called 'name'.
std::string entry_payload(const std::string &name) {
  std::string len(4, '\0');
  for (int i = 0; i < 4; ++i) len[i] = static_cast<char>(name.size() >> (8 * i));
  return std::string(1 + 4 + 8 + 8, '\0') + len + name;
}
const std::string kHelloSave = std::string("LLSV\x01\0\0\0\x01", 9);

TEST(Save, RoundTripOfATreeWithTwoClientsAtOnce) {
  lltest::TempDir t;
  fs::path a = u8(t.file("a")), b = u8(t.file("b"));
  put(a / u8("caf\xc3\xa9") / u8("\xe2\x82\xac-\xe6\x97\xa5\xe6\x9c\xac.txt"), "unicode\n");
  put(a / "empty", "");
  fs::create_directories(a / "empty-dir");
  put(a / "big.bin", tooltest::lcg_bytes(5 << 20, 7));
  for (int i = 0; i < 2000; ++i) put(b / ("d" + std::to_string(i % 20)) / ("f" + std::to_string(i)), std::to_string(i));
  Server srv;
  // The second client runs beside the first, its output in a file.
  std::FILE *out_b = qzfopen(t.file("out-b").c_str(), "wb");
  int pid_b = start({tooltest::tool_path(), "save", srv.addr(), b.string()}, fileno(out_b));
  ASSERT_GT(pid_b, 0);
  tooltest::Result ra = run({"save", srv.addr(), a.string()}), rb;
  int status = -1;
  EXPECT_EQ(waitchild(pid_b, &status, 0), pid_b);
  qzfclose(out_b);
  rb.exit_code = QZ_WEXITCODE(status);
  rb.out = tooltest::read_file(t.file("out-b"));
  ASSERT_EQ(ra.exit_code, 0) << ra.err;
  ASSERT_EQ(rb.exit_code, 0);
  tooltest::Result list = run({"list", srv.addr()});
  EXPECT_EQ(list.exit_code, 0);
  EXPECT_NE(list.out.find(first_line(ra.out)), std::string::npos);
  EXPECT_NE(list.out.find("2000 files"), std::string::npos) << list.out;
  for (auto [res, src] : {std::pair{ra, a}, std::pair{rb, b}}) {
    fs::path back = u8(t.file("back-" + src.filename().string()));
    tooltest::Result r = run({"restore", srv.addr(), first_line(res.out), back.string()});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_TRUE(tree(src) == tree(back / src.filename())) << src;
  }
  EXPECT_EQ(srv.stop(), 0);
}

TEST(Save, DamageAndHostileClientsLeaveTheStoreSound) {
  lltest::TempDir t;
  fs::path src = u8(t.file("src"));
  put(src / "data.bin", tooltest::lcg_bytes(300000, 3));
  Server srv;
  tooltest::Result saved = run({"save", srv.addr(), src.string()});
  ASSERT_EQ(saved.exit_code, 0) << saved.err;

  // Names that climb out of the save, or that no file system of either
  // platform could take, are refused with an error frame.
  for (const char *name :
       {"../x", "a/../../x", "..", "/etc/x", "\\x", "C:x", "a\\..\\x", "a//b", "a/", "", "a\x01", "\xc3(", "a:b"}) {
    qz_socket_t s = raw_connect(srv.port());
    raw_send(s, frame(1, kHelloSave) + frame(4, entry_payload(name)) + frame(7, ""));
    EXPECT_EQ(reply_types(s), "\x02\x03") << name;  // OK for the hello, then the error
    qzsoclose(s);
  }
  qz_socket_t s;
  // A client cut off inside a block, and one sending a frame longer than any allowed.
  s = raw_connect(srv.port());
  raw_send(s,
           frame(1, kHelloSave) + frame(4, std::string(1, '\0') + std::string(20, '\0') + "\x01\0\0\0f").substr(0, 40));
  qzsoclose(s);
  s = raw_connect(srv.port());
  raw_send(s, std::string("\x04\0\0\0\xff\xff\xff\x7f", 8));
  EXPECT_EQ(reply_types(s), "");
  qzsoclose(s);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  // Still one save, nothing half-written beside it.
  std::vector<std::string> names = tooltest::list_dir(srv.store());
  EXPECT_EQ(names.size(), 1u) << names.size();

  // A stored block damaged on disk is found at restore, naming the file.
  fs::path data = u8(srv.store()) / u8(names[0]) / "data";
  std::string bytes = tooltest::read_file(data.string());
  bytes[bytes.size() / 2] ^= 0x5a;
  std::ofstream(data, std::ios::binary) << bytes;
  tooltest::Result r = run({"restore", srv.addr(), first_line(saved.out), t.file("back")});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("data.bin"), std::string::npos) << r.err;
  EXPECT_FALSE(fs::exists(u8(t.file("back")) / "src" / "data.bin"));
  r = run({"restore", srv.addr(), "0000000000000000000000000000000000000000", t.file("x")});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("no such save"), std::string::npos) << r.err;
}

// Connections served by child processes (POSIX) and by threads (Windows,
// and POSIX on request).
const std::vector<std::vector<std::string>> kModes = {{}, {"--threads"}};

TEST(Save, StopEndsTheServerWhileAClientWaits) {
  lltest::TempDir t;
  put(u8(t.file("src")) / "f", "kept");
  for (const auto &mode : kModes) {
    Server srv(mode);
    tooltest::Result saved = run({"save", srv.addr(), t.file("src")});
    EXPECT_EQ(saved.exit_code, 0) << saved.err;
    qz_socket_t s = raw_connect(srv.port());
    raw_send(s, frame(1, kHelloSave));  // then silence
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(srv.stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(20));
    EXPECT_EQ(reply_types(s), std::string("\x02")) << "the hello's answer, then the connection's end";
    qzsoclose(s);
    // The completed save is kept whole; the waiting one left nothing.
    std::vector<std::string> names = tooltest::list_dir(srv.store());
    ASSERT_EQ(names.size(), 1u);
    EXPECT_EQ(tooltest::read_file(srv.store() + "/" + names[0] + "/info").substr(0, 8), "files 1\n");
  }
  EXPECT_EQ(run({"list", "127.0.0.1:1"}).exit_code, 2);
}

TEST(Save, AClientKilledHalfWayLeavesNoSave) {
  lltest::TempDir t;
  put(u8(t.file("src")) / "big.bin", tooltest::lcg_bytes(100 << 20, 5));
  for (const auto &mode : kModes) {
    Server srv(mode);
    int pid = start({tooltest::tool_path(), "save", srv.addr(), t.file("src")});
    ASSERT_GT(pid, 0);
    // Killed once the server holds a few megabytes of the save.
    uintmax_t held = 0;
    for (int i = 0; i < 2000 && held < (4u << 20); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      for (const std::string &n : tooltest::list_dir(srv.store())) {
        std::error_code ec;
        uintmax_t size = fs::file_size(u8(srv.store()) / u8(n) / "data", ec);
        if (!ec && n.rfind(".partial-", 0) == 0) held = size;
      }
    }
    EXPECT_GE(held, 4u << 20);
    EXPECT_EQ(kill(pid, 9), 0);
    int status = 0;
    EXPECT_EQ(waitchild(pid, &status, 0), pid);
    EXPECT_EQ(run({"list", srv.addr()}).out, "");  // nothing that looks finished
    // The handler sees the connection end and discards what it got. Wine
    // keeps a killed process's socket open, so there the server's stop does
    // it instead.
    if (!lltest::kWindows) {
      for (int i = 0; i < 500 && !tooltest::list_dir(srv.store()).empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      EXPECT_EQ(tooltest::list_dir(srv.store()).size(), 0u);
    }
    EXPECT_EQ(srv.stop(), 0);
    EXPECT_EQ(tooltest::list_dir(srv.store()).size(), 0u);
  }
}

// The store folder replaced by a file: saves fail with the reason, the server
// keeps serving, and the saves it held are all there once it is back.
TEST(Save, AStoreThatCannotBeWrittenFailsOnlyTheSave) {
  lltest::TempDir t;
  put(u8(t.file("src")) / "f", "kept");
  Server srv;
  tooltest::Result first = run({"save", srv.addr(), t.file("src")});
  ASSERT_EQ(first.exit_code, 0) << first.err;
  fs::rename(u8(srv.store()), u8(t.file("away")));
  put(u8(srv.store()), "not a folder");
  tooltest::Result r = run({"save", srv.addr(), t.file("src")});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.err.find("cannot make"), std::string::npos) << r.err;
  fs::remove(u8(srv.store()));
  fs::rename(u8(t.file("away")), u8(srv.store()));
  r = run({"save", srv.addr(), t.file("src")});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  r = run({"restore", srv.addr(), first_line(first.out), t.file("back")});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(tooltest::read_file(t.file("back") + "/src/f"), "kept");
  EXPECT_EQ(srv.stop(), 0);
}

#ifndef _WIN32
TEST(Save, ServesUnderTheServiceManager) {
  lltest::TempDir t;
  lltest::NotifyListener manager(t.file("notify"));
  ASSERT_TRUE(manager.ok());
  put(u8(t.file("src")) / "f", "service");
  Server srv({}, "NOTIFY_SOCKET=" + manager.path());
  const int pid = srv.pid();
  EXPECT_EQ(manager.wait_for("READY=1"), pid) << manager.seen();
  tooltest::Result saved = run({"save", srv.addr(), t.file("src")});
  EXPECT_EQ(saved.exit_code, 0) << saved.err;
  tooltest::Result back = run({"restore", srv.addr(), first_line(saved.out), t.file("back")});
  EXPECT_EQ(back.exit_code, 0) << back.err;
  EXPECT_EQ(srv.stop(), 0);
  EXPECT_EQ(manager.wait_for("STOPPING=1", 2000), pid) << manager.seen();
  // Handlers never speak to the manager, and a clean stop reports no error.
  EXPECT_EQ(manager.wait_for("READY=1", 200), 0);
  EXPECT_EQ(manager.seen().find("EXIT_STATUS"), std::string::npos) << manager.seen();
}

bool private_mounts() {
  return lltest::run_program("/usr/bin/unshare", {"-m", "--propagation", "private", "/bin/true"}).exit_code == 0;
}

// The store on a file system of 1 MiB (in a private mount namespace): a save
// that fills it fails with the reason and leaves nothing behind, so the next
// save finds the room again.
TEST(Save, AFullStoreFailsTheSaveAndKeepsNothing) {
  if (!private_mounts()) GTEST_SKIP() << "no private mount namespace";
  lltest::TempDir t;
  put(u8(t.file("big")) / "f", tooltest::lcg_bytes(3 << 20, 9));
  put(u8(t.file("small")) / "f", "fits");
  Server srv({}, "",
             {"/usr/bin/unshare", "-m", "--propagation", "private", "/bin/sh", "-c",
              "mkdir -p \"$0\" && mount -t tmpfs -o size=1m llsave \"$0\" && exec \"$@\"", "{store}"});
  tooltest::Result r = run({"save", srv.addr(), t.file("big")});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.err.find("No space left"), std::string::npos) << r.err;
  for (int i = 0; i < 3; ++i) {  // the room is back each time
    r = run({"save", srv.addr(), t.file("small")});
    EXPECT_EQ(r.exit_code, 0) << r.err;
  }
  r = run({"list", srv.addr()});
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 3) << r.out;
}

// The unit folder and the manager's client are the system's own: the test
// puts folders of its own over them in a private mount namespace, so the
// machine is left as it was (skipped where no namespace can be made).
TEST(Save, InstallsAndRemovesItsService) {
  lltest::TempDir t;
  fs::create_directories(u8(t.file("units")));
  t.write("client", "#!/bin/sh\necho \"$*\" >>'" + t.file("calls") + "'\n");
  t.write("calls", "");
  fs::permissions(u8(t.file("client")), fs::perms::owner_all);
  const std::string script =
      "set -e\n"
      "cd \"$1\"\n"
      "touch ns\n"
      "mount --bind \"$1/units\" /etc/systemd/system || exit 77\n"
      "mount --bind \"$1/client\" /bin/systemctl || exit 77\n"
      "\"$2\" serve -ADD --store 'store dir' --listen 127.0.0.1:7441\n"
      "cp /etc/systemd/system/llocalsave.service unit\n"
      "\"$2\" serve -rem\n"
      "ls -A /etc/systemd/system >left\n";
  t.write("script", script);
  lltest::RunOptions opts;
  opts.cwd = t.path();
  tooltest::Result r = lltest::run_program(
      "/usr/bin/unshare",
      {"-m", "--propagation", "private", "/bin/sh", t.file("script"), t.path(), tooltest::tool_path()}, opts);
  if (!tooltest::file_exists(t.file("ns")) || r.exit_code == 77) GTEST_SKIP() << "no private mount namespace";
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const std::string unit = t.read("unit");
  EXPECT_NE(unit.find("Type=notify\n"), std::string::npos) << unit;
  EXPECT_NE(unit.find("ExecStart=\"" + tooltest::tool_path() + "\" \"serve\" \"--service\" \"--store\" \"" +
                      t.file("store dir") + "\" \"--listen\" \"127.0.0.1:7441\"\n"),
            std::string::npos)
      << unit;
  EXPECT_EQ(t.read("left"), "");
  EXPECT_EQ(t.read("calls"), "daemon-reload\nenable -- llocalsave\ndisable -- llocalsave\ndaemon-reload\n");
}
#endif

#ifdef _WIN32
// A real service: installed with -ADD, started by the service control
// manager, a save and a restore through it, stopped by the manager with a
// clean exit code, removed with -REM.
TEST(Save, RunsAsAWindowsService) {
  lltest::TempDir t;
  put(u8(t.file("src")) / "f", "service");
  const std::string port_file = t.file("port");
  // A name of this run's own: another run of the test may be at work.
  const std::string name = "llocalsave" + std::to_string(GetCurrentProcessId());
  const std::wstring wname(name.begin(), name.end());
  tooltest::Result add = run({"serve", "-ADD", "--name", name, "--store", t.file("store"), "--listen", "127.0.0.1:0",
                              "--port-file", port_file});
  ASSERT_EQ(add.exit_code, 0) << add.err;
  EXPECT_EQ(start_service(name.c_str(), 60), 0);
  for (int i = 0; i < 500 && !tooltest::file_exists(port_file); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  const std::string addr = "127.0.0.1:" + std::to_string(std::atoi(tooltest::read_file(port_file).c_str()));
  tooltest::Result saved = run({"save", addr, t.file("src")});
  EXPECT_EQ(saved.exit_code, 0) << saved.err;
  tooltest::Result back = run({"restore", addr, first_line(saved.out), t.file("back")});
  EXPECT_EQ(back.exit_code, 0) << back.err;
  EXPECT_EQ(tooltest::read_file(t.file("back") + "\\src\\f"), "service");
  EXPECT_EQ(stop_service(name.c_str(), 40), 0);
  SC_HANDLE scm = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
  SC_HANDLE svc = OpenServiceW(scm, wname.c_str(), SERVICE_QUERY_STATUS);
  SERVICE_STATUS st{};
  EXPECT_TRUE(svc && QueryServiceStatus(svc, &st));
  EXPECT_EQ(st.dwCurrentState, static_cast<DWORD>(SERVICE_STOPPED));
  EXPECT_EQ(st.dwWin32ExitCode, 0u);
  if (svc) CloseServiceHandle(svc);
  EXPECT_EQ(run({"serve", "-REM", "--name", name}).exit_code, 0);
  svc = OpenServiceW(scm, wname.c_str(), SERVICE_QUERY_STATUS);
  EXPECT_TRUE(svc == nullptr && GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST);
  if (svc) CloseServiceHandle(svc);
  CloseServiceHandle(scm);
  EXPECT_EQ(tooltest::list_dir(t.file("store")).size(), 1u);
}
#endif

}  // namespace
