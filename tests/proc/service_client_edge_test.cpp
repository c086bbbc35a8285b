// The calls that drive other services through the manager's command-line
// client, at their edges: every state word the client can answer, names
// that must never reach it, and installations that must write nothing.
// POSIX; the client is a stand-in script (no service manager runs here).
#include <gtest/gtest.h>

#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include <liblocal.h>

#include "lltest.h"

extern "C" void llt_svc_paths(const char *client, const char *unit_dir);
extern "C" void llt_svc_times(unsigned start_limit_s, unsigned grace_ms, unsigned wait_ms, unsigned poll_ms);

namespace {

std::string slurp(const std::string &path) {
  std::ifstream f(path);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

// Answers "is-active" with the word in the file "state"; logs every call.
struct StateClient {
  lltest::TempDir dir;
  StateClient() {
    const std::string d = dir.path();
    dir.write("client", "#!/bin/sh\necho \"$*\" >> " + d + "/log\n"
              "[ \"$1\" = is-active ] && cat " + d + "/state\nexit 0\n");
    chmod(dir.file("client").c_str(), 0755);
    llt_svc_paths(dir.file("client").c_str(), dir.path().c_str());
    llt_svc_times(0, 0, 0, 20);
  }
  ~StateClient() { llt_svc_paths("/bin/systemctl", "/etc/systemd/system"); }
  void state(const std::string &s) const { dir.write("state", s + "\n"); }
  std::string log() const { return slurp(dir.file("log")); }
};

TEST(ServiceClientEdge, EveryStateWordTheClientCanAnswer) {
  StateClient c;
  struct Case {
    const char *word;
    int running, start, stop;
  } cases[] = {
      // running: is_service_running; start/stop: with a limit of 0 seconds,
      // 0 when nothing had to be done, -1 for a state that is no state
      {"active", 1, 0, -1},       {"reloading", 1, 0, -1},   {"activating", 1, 0, -1},
      {"deactivating", 0, 0, -1}, {"inactive", 0, -1, 0},    {"failed", 0, -1, 0},
      {"sideways", 0, -1, -1},    {"", 0, -1, -1},
  };
  for (const auto &k : cases) {
    c.state(k.word);
    EXPECT_EQ(is_service_running("llsvc"), k.running) << k.word;
    EXPECT_EQ(start_service("llsvc", 0), k.start) << k.word;
    c.state(k.word);
    EXPECT_EQ(stop_service("llsvc", 0), k.stop) << k.word;
  }
}

TEST(ServiceClientEdge, NamesThatNeverReachTheClient) {
  StateClient c;
  c.state("active");
  const std::string too_long(201, 's');
  for (const char *name : {"", "-h", ".hidden", "a b", "a/b", "x;reboot", too_long.c_str()}) {
    EXPECT_EQ(is_service_running(name), 0) << name;
    EXPECT_EQ(start_service(name, 0), -1) << name;
    EXPECT_EQ(stop_service(name, 0), -1) << name;
  }
  EXPECT_EQ(is_service_running(nullptr), 0);
  EXPECT_EQ(c.log(), "");
}

TEST(ServiceClientEdge, InstallationsThatWriteNothing) {
  StateClient c;
  std::string w[] = {"prog", "-ADD", "ok", "tab\there"};
  char *argv[] = {w[0].data(), w[1].data(), w[2].data(), w[3].data(), nullptr};
  // A name with a backslash, arguments with a control character, a folder
  // for the unit that does not exist, and a removal of nothing.
  EXPECT_EQ(SvcInstalling2(4, argv, "ll\\svc", nullptr, 0), 1);
  EXPECT_EQ(SvcInstalling2(4, argv, "llsvc", nullptr, 1), 1);
  llt_svc_paths(nullptr, c.dir.file("missing").c_str());
  EXPECT_EQ(SvcInstalling2(3, argv, "llsvc", "Display", 1), 1);
  llt_svc_paths(nullptr, c.dir.path().c_str());
  w[1] = "-rem";
  argv[1] = w[1].data();
  EXPECT_EQ(SvcInstalling(argv, "llsvc", nullptr), 1);
  EXPECT_EQ(SvcInstalling(argv, "ll\\svc", nullptr), 1);
  EXPECT_EQ(SvcInstalling(argv, "", nullptr), 1);  // claimed, nothing to do
  EXPECT_EQ(access(c.dir.file("llsvc.service").c_str(), F_OK), -1);
  EXPECT_EQ(access(c.dir.file("missing").c_str(), F_OK), -1);
  // Only the removal of a well-formed name asked the manager anything.
  EXPECT_EQ(c.log(), "disable -- llsvc\n");
}

}  // namespace
#endif
