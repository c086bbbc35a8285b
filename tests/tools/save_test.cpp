// llocal serve / save / restore / list / stop: a real server process on
// loopback and real clients, end to end.
#include <gtest/gtest.h>
#include <liblocal.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#ifdef _WIN32
#include <winsock2.h>
#else
#include <netinet/in.h>
#include <sys/socket.h>
#endif

#include "lltest.h"
#include "tool_run.h"

namespace fs = std::filesystem;
using tooltest::run;

namespace {

fs::path u8(const std::string &s) { return fs::path(std::u8string(s.begin(), s.end())); }

// A save server in a temporary store, on a free loopback port.
class Server {
 public:
  Server() {
    store_ = dir_.file("store");
    std::string port_file = dir_.file("port");
    std::string tool = tooltest::tool_path();
    std::vector<std::string> words = {tool, "serve", "--store", store_, "--listen", "127.0.0.1:0", "--port-file",
                                      port_file};
    std::vector<char *> argv;
    for (auto &w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    pid_ = spawn(0, argv.data(), nullptr, nullptr, nullptr);
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

std::string first_line(const std::string &s) { return s.substr(0, s.find('\n')); }

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
// Reads until the server closes; the first byte (a frame type) or -1.
int raw_reply(qz_socket_t s) {
  char buf[4096];
  int first = -1;
  for (int n; (n = qzrecv(s, buf, sizeof buf, 0)) > 0;)
    if (first < 0) first = static_cast<unsigned char>(buf[0]);
  return first;
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
  tooltest::Result ra, rb;
  std::thread other([&] { rb = run({"save", srv.addr(), b.string()}); });
  ra = run({"save", srv.addr(), a.string()});
  other.join();
  ASSERT_EQ(ra.exit_code, 0) << ra.err;
  ASSERT_EQ(rb.exit_code, 0) << rb.err;
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

  // A name that climbs out of the save is refused with an error frame.
  std::string entry = std::string(1, '\0') + std::string(4, '\0') + std::string(16, '\0') + "\x04" + std::string(3, '\0') + "../x";
  qz_socket_t s = raw_connect(srv.port());
  raw_send(s, frame(1, kHelloSave) + frame(4, entry));
  EXPECT_EQ(raw_reply(s), 2);  // OK for the hello, then the error and the end
  qzsoclose(s);
  // A client cut off inside a block, and one sending a frame longer than any allowed.
  s = raw_connect(srv.port());
  raw_send(s, frame(1, kHelloSave) + frame(4, std::string(1, '\0') + std::string(20, '\0') + "\x01\0\0\0f").substr(0, 40));
  qzsoclose(s);
  s = raw_connect(srv.port());
  raw_send(s, std::string("\x04\0\0\0\xff\xff\xff\x7f", 8));
  EXPECT_EQ(raw_reply(s), -1);
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

TEST(Save, StopEndsTheServerWhileAClientWaits) {
  Server srv;
  qz_socket_t s = raw_connect(srv.port());
  raw_send(s, frame(1, kHelloSave));  // then silence
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(srv.stop(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(20));
  EXPECT_EQ(raw_reply(s), 2);  // the hello's answer, then the connection's end
  qzsoclose(s);
  EXPECT_EQ(run({"list", "127.0.0.1:1"}).exit_code, 2);
}

}  // namespace
