// Host identity through a counting resolver and a test clock: the alias
// cache, its lifetimes, merging, the negative list and the own addresses.
#include "net_util.h"

#ifndef _WIN32
#include <netdb.h>
#endif

#include <cstdio>
#include <cstdlib>
#include <map>
#include <thread>
#include <string>
#include <vector>

#include "lltest.h"
#include <liblocal/hostid.h>

extern "C" void llt_hostid_clock(int64_t (*clock)(void));
extern "C" void llt_clu_force_type(int type);
extern "C" void llt_hostid_resolver(void *(*byname)(const char *), void *(*byaddr)(const char *, int, int));

using namespace nettest;

namespace {

int64_t g_now = 1000000;
int64_t test_clock() { return g_now; }

// A small name service: name -> {official, aliases, addresses}.
struct Host {
  std::string official;
  std::vector<std::string> aliases;
  std::vector<uint32_t> addrs;  // host order
};
std::map<std::string, Host> g_by_name;
std::map<uint32_t, Host> g_by_addr;
std::map<std::string, int> g_calls;

struct Built {
  hostent h{};
  std::vector<char *> aliases, addrs;
  std::vector<uint32_t> raw;
  std::string name;
};
Built g_built;

void *build(const Host &src) {
  Built &b = g_built;
  b = Built{};
  b.name = src.official;
  for (const std::string &a : src.aliases) b.aliases.push_back(const_cast<char *>(a.c_str()));
  b.aliases.push_back(nullptr);
  for (uint32_t a : src.addrs) b.raw.push_back(be32(a));
  for (uint32_t &a : b.raw) b.addrs.push_back(reinterpret_cast<char *>(&a));
  b.addrs.push_back(nullptr);
  b.h.h_name = b.name.data();
  b.h.h_aliases = b.aliases.data();
  b.h.h_addrtype = AF_INET;
  b.h.h_length = 4;
  b.h.h_addr_list = b.addrs.data();
  return &b.h;
}

void *by_name(const char *name) {
  ++g_calls[name];
  auto it = g_by_name.find(name);
  return it == g_by_name.end() ? nullptr : build(it->second);
}

void *by_addr(const char *addr, int len, int) {
  if (len != 4) return nullptr;
  unsigned char b[4];
  std::memcpy(b, addr, 4);
  uint32_t a = (uint32_t{b[0]} << 24) | (b[1] << 16) | (b[2] << 8) | b[3];
  ++g_calls["#" + std::to_string(a)];
  auto it = g_by_addr.find(a);
  return it == g_by_addr.end() ? nullptr : build(it->second);
}

// Installs the small name service and the test clock; returns the host name.
std::string install_fake() {
  char buf[256] = {};
  system_hostname(buf, sizeof buf);
  std::string self = buf;
  g_calls.clear();
  g_by_name = {
      {self, {"self.example", {self}, {0x0A090909}}},
      {"self.example", {"self.example", {self}, {0x0A090909}}},
      {"alpha", {"alpha.example", {"alpha"}, {0x0A000001}}},
      {"beta", {"shared.example", {"beta"}, {}}},
      {"gamma", {"shared.example", {"gamma"}, {}}},
      {"noaddr", {"noaddr.example", {}, {}}},
  };
  g_by_addr = {
      {0x0A000001, {"alpha.example", {"alpha-if"}, {0x0A000001}}},
      {0x7F000001, {"localhost", {}, {0x7F000001}}},
  };
  llt_hostid_clock(test_clock);
  llt_hostid_resolver(by_name, by_addr);
  return self;
}

class HostId : public testing::Test {
 protected:
  std::string self;
  void SetUp() override { self = install_fake(); }
  void TearDown() override {
    llt_hostid_resolver(nullptr, nullptr);
    llt_hostid_clock(nullptr);
  }
};

TEST_F(HostId, AliasSetsAreAskedOncePerLifetime) {
  EXPECT_EQ(samehost("ALPHA", "alpha"), 1);
  EXPECT_EQ(g_calls.size(), 0u);  // equal names need no look-up

  EXPECT_EQ(samehost("alpha", "alpha-if"), 1);  // a name of the address
  EXPECT_EQ(samehost("Alpha.Example", "alpha"), 1);
  EXPECT_EQ(samehost("alpha", "beta"), 0);
  EXPECT_EQ(g_calls["alpha"], 1);
  char *primary = get_primaryhostname("alpha-if");
  ASSERT_NE(primary, nullptr);
  EXPECT_STREQ(primary, "alpha.example");
  std::free(primary);
  EXPECT_EQ(g_calls["alpha"], 1);

  g_now += 1799;
  EXPECT_EQ(is_validhostname("alpha"), 1);
  EXPECT_EQ(g_calls["alpha"], 1);
  g_now += 2;
  EXPECT_EQ(is_validhostname("alpha"), 1);
  EXPECT_EQ(g_calls["alpha"], 2);
}

TEST_F(HostId, NamesThatDoNotResolveAreAskedOncePerWindow) {
  const std::string long_name(300, 'a');
  struct Row {
    const char *name;
    int calls;
  } rows[] = {{"bogus", 1}, {"bad name!", 1}, {long_name.c_str(), 0}, {"", 0}};
  for (const Row &r : rows) {
    EXPECT_EQ(is_validhostname(r.name), 0);
    EXPECT_EQ(is_validhostname(r.name), 0);
    EXPECT_EQ(get_primaryhostname(r.name), nullptr);
    EXPECT_EQ(g_calls[r.name], r.calls) << r.name;
  }
  g_now += 299;
  EXPECT_EQ(is_validhostname("bogus"), 0);
  EXPECT_EQ(g_calls["bogus"], 1);
  g_now += 2;
  EXPECT_EQ(is_validhostname("bogus"), 0);
  EXPECT_EQ(g_calls["bogus"], 2);
  // An answer with no address is still a host.
  EXPECT_EQ(is_validhostname("noaddr"), 1);
  EXPECT_EQ(is_validhostname(nullptr), 0);
}

TEST_F(HostId, EntriesThatShareANameAreMerged) {
  EXPECT_EQ(is_validhostname("beta"), 1);
  EXPECT_EQ(is_validhostname("gamma"), 1);
  EXPECT_EQ(samehost("beta", "gamma"), 1);
  EXPECT_EQ(g_calls["beta"], 1);
  EXPECT_EQ(g_calls["gamma"], 1);
}

TEST_F(HostId, LocalNames) {
  EXPECT_EQ(is_myname(nullptr), 1);
  EXPECT_EQ(is_myname("localhost"), 1);
  EXPECT_EQ(is_myname(self.c_str()), 1);
  EXPECT_EQ(is_myname("SELF.example"), 1);
  EXPECT_EQ(is_myname("alpha"), 0);
  EXPECT_STREQ(getlocalhost(), "self.example");
  EXPECT_EQ(samehost(nullptr, "localhost"), 1);
  char *p = get_primaryhostname(nullptr);
  ASSERT_NE(p, nullptr);
  EXPECT_STREQ(p, "self.example");
  std::free(p);
  int self_calls = g_calls["self.example"];
  EXPECT_EQ(is_myname("localhost"), 1);
  EXPECT_EQ(g_calls["self.example"], self_calls);
  // The local entry is rebuilt after its lifetime.
  g_now += 1801;
  EXPECT_EQ(is_myname("localhost"), 1);
  EXPECT_EQ(g_calls["self.example"], self_calls + 1);

  sockaddr_in a{};
  _qzmo_get_myaddress(reinterpret_cast<sockaddr *>(&a));
  EXPECT_EQ(a.sin_family, AF_INET);
  EXPECT_EQ(a.sin_addr.s_addr, be32(0x0A090909));
  sockaddr_in b{};
  __qzmo_get_myaddress(reinterpret_cast<sockaddr *>(&b));
  EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0);
}

// On a cluster node this machine's names are rebuilt every 30 seconds, and
// not from the interface addresses (a virtual host's address may be there).
LLTEST_CHILD(hostid_cluster_node) {
  install_fake();
  llt_clu_force_type(2);
  if (is_myname("localhost") != 1) return 1;
  int built = g_calls["self.example"];
  if (g_calls["#2130706433"] != 0) return 2;
  g_now += 29;
  is_myname("localhost");
  if (g_calls["self.example"] != built) return 3;
  g_now += 2;
  is_myname("localhost");
  return g_calls["self.example"] == built + 1 ? 0 : 4;
}

TEST(HostIdSystem, LocalNamesLiveThirtySecondsOnAClusterNode) {
  EXPECT_EQ(lltest::run_child("hostid_cluster_node").exit_code, 0);
}

TEST(HostIdSystem, OwnAddressesComeFromTheInterfaces) {
  sockaddr *list = nullptr;
  int n = get_myaddrs(&list);
  ASSERT_GT(n, 0);
  EXPECT_EQ(get_myaddrs(nullptr), n);
  for (int i = 0; i < n; ++i) {
    auto *rec = reinterpret_cast<sockaddr_in *>(list) + i;
    EXPECT_EQ(rec->sin_family, AF_INET);
    EXPECT_EQ(is_myaddr(2, &rec->sin_addr, 4), 1);
    EXPECT_EQ(is_myaddr(2, &rec->sin_addr, 4), 1);  // the remembered one
  }
  const unsigned char doc_net[4] = {192, 0, 2, 77};  // a documentation address
  EXPECT_EQ(is_myaddr(2, doc_net, 4), 0);
  EXPECT_EQ(is_myaddr(2, nullptr, 4), 0);
  EXPECT_EQ(is_myaddr(2, doc_net, 2), 0);
  EXPECT_EQ(is_myaddr(23, doc_net, 4), 0);
}

TEST(HostIdSystem, ResolverCopiesArePerThread) {
  hostent *h = qzgethostbyname("localhost");
  ASSERT_NE(h, nullptr);
  ASSERT_NE(h->h_addr_list[0], nullptr);
  std::string name = h->h_name;
  hostent *other = nullptr;
  std::thread t([&] { other = qzmo_gethostbyname("localhost"); });
  t.join();
  EXPECT_NE(other, h);
  EXPECT_EQ(std::string(h->h_name), name);
  EXPECT_EQ(qzgethostbyname("no-such-host.invalid"), nullptr);
  EXPECT_GE(errno, 1101);
  EXPECT_LE(errno, 1104);
  EXPECT_EQ(qzgethostbyname(nullptr), nullptr);
  EXPECT_EQ(qzgethostbyaddr(nullptr, 4, AF_INET), nullptr);
}

}  // namespace

#ifdef _WIN32
// Without the IP helper the addresses come from the bound devices' TCP/IP
// values: static addresses, or the DHCP one when the static list ends in 0.
extern "C" void llt_hostid_no_iphelper(int on);

namespace {

const wchar_t kLinkage[] = L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Linkage";

void put_multi(const wchar_t *key, const wchar_t *value, const wchar_t *data, size_t chars) {
  HKEY k;
  ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, key, 0, nullptr, 0, KEY_WRITE, nullptr, &k, nullptr), ERROR_SUCCESS);
  RegSetValueExW(k, value, 0, REG_MULTI_SZ, reinterpret_cast<const BYTE *>(data),
                 static_cast<DWORD>(chars * sizeof(wchar_t)));
  RegCloseKey(k);
}

LLTEST_CHILD(hostid_registry_addrs) {
  llt_hostid_no_iphelper(1);
  sockaddr *list = nullptr;
  int n = get_myaddrs(&list);
  std::printf("%d", n);
  for (int i = 0; i < n; ++i) {
    const unsigned char *a = reinterpret_cast<const unsigned char *>(list) + 16 * i + 4;
    std::printf(" %u.%u.%u.%u", a[0], a[1], a[2], a[3]);
  }
  std::printf(" again %d\n", get_myaddrs(nullptr));
  return 0;
}

TEST(HostIdSystem, RegistryFallbackWithoutTheIpHelper) {
  HKEY probe;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kLinkage, 0, KEY_READ, &probe) == ERROR_SUCCESS) {
    RegCloseKey(probe);
    GTEST_SKIP() << "this system has its own TCP/IP bindings";
  }
  EXPECT_EQ(lltest::run_child("hostid_registry_addrs").out, "0 again 0\n");

  const wchar_t bind[] = L"\\Device\\LLTestA\0\\Device\\LLTestB\0";
  put_multi(kLinkage, L"Bind", bind, sizeof bind / sizeof bind[0]);
  const wchar_t a[] = L"192.0.2.10\0bogus\0" L"192.0.2.11\0";
  put_multi(L"SYSTEM\\CurrentControlSet\\Services\\LLTestA\\Parameters\\Tcpip", L"IPAddress", a, sizeof a / 2);
  const wchar_t b[] = L"0.0.0.0\0";
  const wchar_t dhcp[] = L"192.0.2.20\0";
  put_multi(L"SYSTEM\\CurrentControlSet\\Services\\LLTestB\\Parameters\\Tcpip", L"IPAddress", b, sizeof b / 2);
  put_multi(L"SYSTEM\\CurrentControlSet\\Services\\LLTestB\\Parameters\\Tcpip", L"DHCPIPAddress", dhcp, sizeof dhcp / 2);
  std::string out = lltest::run_child("hostid_registry_addrs").out;
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services\\LLTestA");
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services\\LLTestB");
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, kLinkage);
  EXPECT_EQ(out, "3 192.0.2.10 192.0.2.11 192.0.2.20 again 3\n");
}

}  // namespace
#endif
