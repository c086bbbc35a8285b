// Services: a daemon started, stopped and told to stop by its manager, and
// the calls that drive other services and install this one.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "events_util.h"
#include "lltest.h"
#include "notify_listener.h"
#include <liblocal/frame.h>
#include <liblocal/service.h>

extern "C" void llt_svc_times(unsigned start_limit_s, unsigned grace_ms, unsigned wait_ms, unsigned poll_ms);

using evtest::Child;

namespace {
// The child's folder, for its stop handler. A plain array: the process may
// end (and run static destructors) from the service's thread at any moment.
char g_dir[1024];
void stop_handler(int sig) { evtest::put(std::string(g_dir) + "/handler", std::to_string(sig)); }
}  // namespace

#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>

extern "C" void llt_svc_paths(const char *client, const char *unit_dir);

using Listener = lltest::NotifyListener;

LLTEST_CHILD(svc_probe) { return RunByService() == 0 && !std::getenv("NOTIFY_SOCKET") ? 0 : 1; }

// A daemon run by the manager. Modes: "stop5" starts and stops itself with
// exit code 5; "signal" starts and waits for the stop signal; "never" never
// reports running; "bad" runs with a notify socket that cannot be used.
LLTEST_CHILD(svc_notify) {
  std::snprintf(g_dir, sizeof g_dir, "%s", argv[0]);
  const std::string mode = argv[1];
  qzinit("svcnotify");
  // A start limit of one second for the daemon that never starts; the others
  // get ten, since starting the probe child below can take longer than a
  // second on a loaded machine under the address sanitizer.
  llt_svc_times(mode == "never" ? 1 : 10, 200, 100, 100);
  if (RunByService() != 1) return 10;
  regevent(9, stop_handler);
  if (RegisterThisService("llsvc") != 1) return 11;
  if (std::getenv("NOTIFY_SOCKET") || std::getenv("INVOCATION_ID") || RunByService() != 1) return 12;
  if (lltest::run_child("svc_probe").exit_code != 0) return 13;
  if (mode == "never") return evtest::linger();
  if (StartThisService(nullptr) != 0) return 14;
  if (StartThisService(nullptr) != -1) return 15;  // already running
  if (mode == "bad") return 0;
  if (mode == "stop5" && StopThisService(nullptr, 5) != 0) return 16;
  evtest::ready(g_dir);
  return evtest::linger();
}

TEST(Service, NotifyProtocolFromStartToStop) {
  const struct {
    const char *mode;
    int code;
    std::vector<std::string> msgs;
  } cases[] = {
      {"stop5", 5, {"READY=1\nSTATUS=llsvc has started\n", "STOPPING=1\nERRNO=5\nEXIT_STATUS=5\n"}},
      {"signal", 0, {"READY=1\nSTATUS=llsvc has started\n", "STOPPING=1\n"}},
      {"never", 1053 & 0xFF, {"STOPPING=1\nERRNO=1053\nEXIT_STATUS=1053\n"}},
  };
  // Keep-alives every 200 ms: the kernel queues at most ten datagrams for a
  // listener, and a daemon's notification then waits for room, so faster
  // ones only crowd the queue when the listener's thread is held up on a
  // loaded machine.
  for (const auto &c : cases) {
    lltest::TempDir dir;
    Listener l(dir.file("notify"));
    ASSERT_TRUE(l.ok());
    Child child("svc_notify", {dir.path(), c.mode},
                {"NOTIFY_SOCKET=" + dir.file("notify"), "INVOCATION_ID=0123abcd", "WATCHDOG_USEC=400000"});
    if (std::string(c.mode) == "signal") {
      const int pid = evtest::pid_of(dir.path());
      for (int i = 0; i < 1000 && l.keepalives() < 2; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
      EXPECT_GE(l.keepalives(), 2);
      evtest::send_kill(pid);
    }
    const auto r = child.wait();
    EXPECT_EQ(r.exit_code, c.code) << c.mode << r.err;
    // The children that never get as far as announcing themselves are known
    // by the sender of their messages.
    // The listener's thread may still be taking the last datagram in.
    int pid = 0;
    for (int i = 0; i < 1000; ++i) {
      pid = evtest::exists(dir.file("pid")) ? std::stoi(lltest::read_file(dir.file("pid"))) : l.first_sender();
      if (l.from(pid).size() >= c.msgs.size()) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(l.from(pid), c.msgs) << c.mode;
    EXPECT_EQ(lltest::read_file(dir.file("handler")), "9") << c.mode;
  }
}

TEST(Service, UnusableNotifySocketNeverStopsTheDaemon) {
  lltest::TempDir dir;
  dir.write("plain", "not a socket");
  const std::string values[] = {"relative/sock", dir.file("missing/sock"), dir.file("plain"),
                                "@" + std::string(120, 'x'), "@llt-nobody-listens-here", "/" + std::string(120, 'y')};
  for (const auto &v : values)
    EXPECT_EQ(lltest::run_child("svc_notify", {dir.path(), "bad"}, {"NOTIFY_SOCKET=" + v}).exit_code, 0) << v;
}

namespace {
// A stand-in for the manager's command-line client (none exists here): it
// logs its words and keeps a unit's state in a file.
struct FakeClient {
  lltest::TempDir dir;
  FakeClient() {
    const std::string d = dir.path();
    dir.write("client", "#!/bin/sh\necho \"$*\" >> " + d + "/log\ncase \"$1\" in\n"
              "is-active) cat " + d + "/state 2>/dev/null || echo inactive ;;\n"
              "start) if [ -e " + d + "/stuck ]; then echo activating; else echo active; fi > " + d + "/state ;;\n"
              "stop) echo inactive > " + d + "/state ;;\nesac\nexit 0\n");
    chmod(dir.file("client").c_str(), 0755);
    llt_svc_paths(dir.file("client").c_str(), dir.path().c_str());
    llt_svc_times(0, 0, 0, 50);
  }
  ~FakeClient() { llt_svc_paths("/bin/systemctl", "/etc/systemd/system"); }
  std::string log() const { return lltest::read_file(dir.file("log")); }
};
}  // namespace

TEST(Service, OtherServicesThroughTheManagersClient) {
  FakeClient fc;
  EXPECT_EQ(is_service_running("llsvc"), 0);
  EXPECT_EQ(start_service("llsvc", 5), 0);
  EXPECT_EQ(is_service_running("llsvc"), 1);
  EXPECT_EQ(start_service("llsvc", 5), 0);  // already running: not started again
  EXPECT_EQ(stop_service("llsvc", 5), 0);
  EXPECT_EQ(stop_service("llsvc", 5), 0);
  EXPECT_EQ(fc.log(), "is-active -- llsvc\nis-active -- llsvc\nstart --no-block -- llsvc\nis-active -- llsvc\n"
                      "is-active -- llsvc\nis-active -- llsvc\nis-active -- llsvc\nstop --no-block -- llsvc\n"
                      "is-active -- llsvc\nis-active -- llsvc\n");
  fc.dir.write("stuck", "");
  EXPECT_EQ(start_service("llsvc", 0), -1);  // never gets past starting
  EXPECT_EQ(start_service("-H", 5), -1);     // never an option
  llt_svc_paths(fc.dir.file("missing").c_str(), nullptr);
  EXPECT_EQ(is_service_running("llsvc"), 0);
  EXPECT_EQ(start_service("llsvc", 5), -1);
  EXPECT_EQ(stop_service("llsvc", 5), -1);
}

TEST(Service, InstallAndRemoveWriteTheUnitFile) {
  FakeClient fc;
  const std::string unit = fc.dir.file("llsvc.service");
  std::string words[] = {"prog", "-add", "--flag", "two words", "50%\"$"};
  char *argv[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(), words[4].data(), nullptr};
  EXPECT_EQ(SvcInstalling2(5, argv, "llsvc", "Test Display", 1), 1);
  const std::string text = lltest::read_file(unit);
  EXPECT_NE(text.find("Description=Test Display\n"), std::string::npos) << text;
  EXPECT_NE(text.find("ExecStart=\"" + lltest::self_path() + "\" \"--flag\" \"two words\" \"50%%\\\"$$\"\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("Type=notify\n"), std::string::npos);
  std::string rem = "-REM";
  argv[1] = rem.data();
  EXPECT_EQ(SvcInstalling(argv, "llsvc", nullptr), 1);
  EXPECT_FALSE(evtest::exists(unit));
  EXPECT_EQ(fc.log(), "daemon-reload\nenable -- llsvc\ndisable -- llsvc\ndaemon-reload\n");
  std::string other = "-other";
  argv[1] = other.data();
  EXPECT_EQ(SvcInstalling2(5, argv, "llsvc", nullptr, 1), 0);
  argv[1] = nullptr;
  EXPECT_EQ(SvcInstalling2(1, argv, "llsvc", nullptr, 1), 0);
  EXPECT_FALSE(evtest::exists(unit));
}
#endif  // !_WIN32


#ifdef _WIN32
namespace {
const char kName[] = "llsvctest";

// The test service: the test binary run by the service control manager. Its
// folder holds "mode" ("run", or "never": it never reports running), the
// words it was started with, and what happened.
LLTEST_CHILD(svc_win) {
  SetEnvironmentVariableW(L"HOMEDRIVE", nullptr);  // set by Wine even in services
  std::snprintf(g_dir, sizeof g_dir, "%s", argv[0]);
  std::string words;
  for (int i = 0; i < argc; ++i) words += std::string(i ? " " : "") + argv[i];
  evtest::put(std::string(g_dir) + "/args", words);
  const bool never = lltest::read_file(std::string(g_dir) + "/mode") == "never";
  qzinit("svcwin");
  if (never) llt_svc_times(1, 300, 200, 0);
  regevent(9, stop_handler);
  evtest::put(std::string(g_dir) + "/registered", std::to_string(RegisterThisService(kName)));
  if (!never) StartThisService(nullptr);
  for (int i = 0; i < 2400; ++i) {
    const std::string dir = g_dir;
    if (!never && evtest::exists(dir + "/handler")) return 0;
    if (evtest::exists(dir + "/stop5")) {
      std::remove((dir + "/stop5").c_str());
      StopThisService(nullptr, 5);
    }
    Sleep(50);
  }
  return 1;
}

struct Svc {
  SC_HANDLE mgr = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
  SC_HANDLE h = nullptr;
  Svc() { h = mgr ? OpenServiceW(mgr, L"llsvctest", SERVICE_ALL_ACCESS) : nullptr; }
  ~Svc() {
    if (h) CloseServiceHandle(h);
    if (mgr) CloseServiceHandle(mgr);
  }
  SERVICE_STATUS status() const {
    SERVICE_STATUS st{};
    QueryServiceStatus(h, &st);
    return st;
  }
  // Waits (at most 30 s) for a state.
  bool reaches(DWORD state) const {
    for (int i = 0; i < 600; ++i) {
      if (status().dwCurrentState == state) return true;
      Sleep(50);
    }
    return false;
  }
  bool control(DWORD c) const {
    SERVICE_STATUS st;
    return ControlService(h, c, &st) != 0;
  }
};

std::string image_path() {
  wchar_t buf[2048];
  DWORD size = sizeof buf;
  if (RegGetValueW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services\\llsvctest", L"ImagePath",
                   RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, nullptr, buf, &size) != ERROR_SUCCESS)
    return "";
  char out[4096];
  WideCharToMultiByte(CP_UTF8, 0, buf, -1, out, sizeof out, nullptr, nullptr);
  return out;
}
}  // namespace

TEST(Service, WindowsServiceFromInstallToRemoval) {
  for (int i = 0; i < 200; ++i) {  // left over from an interrupted run: gone once no handle is open
    Svc old;
    if (!old.h) break;
    old.control(SERVICE_CONTROL_STOP);
    if (old.status().dwCurrentState == SERVICE_STOPPED) DeleteService(old.h);
    Sleep(50);
  }
  lltest::TempDir dir;
  llt_svc_times(0, 0, 0, 200);
  std::string words[] = {lltest::self_path(), "-add", "--lltest-child", "svc_win", dir.path(), "extra"};
  char *argv[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(), words[4].data(),
                  words[5].data(), nullptr};
  ASSERT_EQ(SvcInstalling2(6, argv, kName, "liblocal test service", 1), 1);
  char self[MAX_PATH];
  GetModuleFileNameA(nullptr, self, MAX_PATH);
  EXPECT_EQ(image_path(), "\"" + std::string(self) + "\" --lltest-child svc_win " + dir.path() + " extra");
  {
  Svc svc;
  ASSERT_TRUE(svc.h) << GetLastError();

  // Started, paused, continued and stopped by the manager.
  evtest::put(dir.file("mode"), "run");
  EXPECT_EQ(start_service(kName, 60), 0);
  EXPECT_EQ(is_service_running(kName), 1);
  EXPECT_EQ(lltest::read_file(dir.file("registered")), "1");
  EXPECT_EQ(lltest::read_file(dir.file("args")), dir.path() + " extra");
  EXPECT_TRUE(svc.control(SERVICE_CONTROL_PAUSE));
  EXPECT_TRUE(svc.reaches(SERVICE_PAUSED));
  EXPECT_TRUE(svc.control(SERVICE_CONTROL_CONTINUE));
  EXPECT_TRUE(svc.reaches(SERVICE_RUNNING));
  EXPECT_EQ(stop_service(kName, 60), 0);
  EXPECT_EQ(lltest::read_file(dir.file("handler")), "9");
  EXPECT_EQ(svc.status().dwWin32ExitCode, 0u);
  EXPECT_EQ(is_service_running(kName), 0);

  // Stopped by itself with exit code 5.
  std::remove(dir.file("handler").c_str());
  EXPECT_EQ(start_service(kName, 60), 0);
  evtest::put(dir.file("stop5"), "");
  EXPECT_TRUE(svc.reaches(SERVICE_STOPPED));
  EXPECT_EQ(svc.status().dwWin32ExitCode, 5u);

  // Never reports running: stopped with the time-out error once the (short)
  // start limit has passed; the stop handler's grace ends the process.
  std::remove(dir.file("handler").c_str());
  evtest::put(dir.file("mode"), "never");
  EXPECT_EQ(start_service(kName, 1), -1);
  EXPECT_TRUE(svc.reaches(SERVICE_STOPPED));
  EXPECT_EQ(svc.status().dwWin32ExitCode, 1053u);
  EXPECT_EQ(lltest::read_file(dir.file("handler")), "9");
  }  // the manager deletes a service once no handle to it is open

  std::string rem = "-rem";
  argv[1] = rem.data();
  EXPECT_EQ(SvcInstalling(argv, kName, nullptr), 1);
  EXPECT_EQ(image_path(), "");
  EXPECT_EQ(is_service_running(kName), 0);
  EXPECT_EQ(start_service(kName, 1), -1);
}
#endif

TEST(Service, PlainProcessIsNoService) {
  lltest::ScopedEnv a("NOTIFY_SOCKET", nullptr), b("INVOCATION_ID", nullptr), c("HOMEDRIVE", "C:");
  EXPECT_EQ(RunByService(), 0);
  EXPECT_EQ(RegisterThisService("llsvc"), 0);
  EXPECT_EQ(StartThisService(nullptr), -1);
  EXPECT_EQ(StopThisService(nullptr, 5), -1);
  EXPECT_EQ(Win9xService(1), 0);
}
