// The path list: owners by the longest leading path, the drive-root rule,
// the paths a host owns, and the host-matching rule.
#ifdef _WIN32
#include <winsock2.h>
#else
#include <netdb.h>
#include <sys/socket.h>
#endif

#include <gtest/gtest.h>

#include <liblocal/cluster.h>
#include <liblocal/memory.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "lltest.h"
#include "seams.h"

extern "C" void llt_hostid_resolver(void *(*byname)(const char *), void *(*byaddr)(const char *, int, int));

namespace {

// An absolute path on this platform from a relative one with '/'.
std::string P(std::string rel) {
  if (!lltest::kWindows) return "/" + rel;
  for (char &c : rel)
    if (c == '/') c = '\\';
  return "C:\\" + rel;
}

std::string take(char *s) {
  std::string r = s ? s : "(null)";
  std::free(s);
  return r;
}

std::vector<std::string> mounts(const char *host, clu_hostcmp_fn cmp, int *count = nullptr) {
  char **v = nullptr;
  const int n = clu_pathl_getmounts(host, &v, cmp);
  if (count) *count = n;
  std::vector<std::string> r;
  if (!v) return r;
  for (char **p = v; *p; ++p) r.push_back(take(*p));
  std::free(v);
  return r;
}

int alias_of_vha(const char *a, const char *b) {
  auto is = [](const char *x, const char *y) { return std::string(x) == y; };
  return (is(a, "vha") && is(b, "vha-alias")) || (is(a, "vha-alias") && is(b, "vha"));
}

class PathList : public ::testing::Test {
 protected:
  std::string local;
  void SetUp() override {
    llt_clu_force_type(CLU_TYPE_NATIVE);
    clu_init(nullptr);
    clu_pathl_free();
    local = take(clu_pathl_gethost(nullptr));
  }
  void TearDown() override { clu_pathl_free(); }
};

TEST_F(PathList, OwnerIsTheLongestOwnedLeadingPath) {
  // The list as a native cluster fills it: the local drive, a virtual host's
  // directory on it and a virtual host's own volume.
  clu_pathl_addpath(P("").c_str());
  llt_clu_pathl_own(P("data/vdisk").c_str(), "vha");
  llt_clu_pathl_own(P("data/vdisk/deeper").c_str(), "vhb");
  clu_pathl_addpath(P("data/vdisk").c_str());  // the same path unowned: the owned one counts
  clu_pathl_finalize();
  ASSERT_EQ(clu_is_pathl_created(), 1);
  struct Case {
    std::string path, owner;
  } cases[] = {
      {P("data/vdisk"), "vha"},           {P("data/vdisk/x/y"), "vha"}, {P("DATA/VDISK/x"), "vha"},
      {P("data/vdisk/deeper/z"), "vhb"},  {P("data/vdiskette"), local}, {P("data/other"), local},
      {P(""), local},
  };
  for (const Case &c : cases) EXPECT_EQ(take(clu_pathl_gethost(c.path.c_str())), c.owner) << c.path;
}

TEST_F(PathList, FinalizeOwnsWhatIsLeftAndKeepsTheOrderOfAdding) {
  const std::string a = P("a"), b = P("b"), c = P("c");
  clu_pathl_addpath(a.c_str());
  llt_clu_pathl_own(b.c_str(), "vha");
  clu_pathl_addpath(c.c_str());
  clu_pathl_finalize();
  EXPECT_EQ(mounts(local.c_str(), nullptr), (std::vector<std::string>{a, c}));
  EXPECT_EQ(mounts("VHA", nullptr), (std::vector<std::string>{b}));
}

TEST_F(PathList, MountsOfAHostWithAndWithoutAComparison) {
  llt_clu_pathl_own(P("v1").c_str(), "vha");
  llt_clu_pathl_own(P("v2").c_str(), "vha");
  llt_clu_pathl_own(P("w").c_str(), "vhb");
  clu_pathl_finalize();
  int n = -1;
  EXPECT_TRUE(mounts("vha-alias", nullptr, &n).empty());
  EXPECT_EQ(n, 0);
  EXPECT_EQ(mounts("vha-alias", alias_of_vha, &n), (std::vector<std::string>{P("v1"), P("v2")}));
  EXPECT_EQ(n, 2);
  clu_init(alias_of_vha);  // the default for every later comparison
  EXPECT_EQ(mounts("vha-alias", nullptr).size(), 2u);
  EXPECT_EQ(clu_pathl_hostpath_match("vha-alias", P("v2/x").c_str(), nullptr), 1);
  EXPECT_EQ(clu_pathl_hostpath_match("VHB", P("w").c_str(), nullptr), 1);  // case only: no name service
  EXPECT_EQ(clu_pathl_hostpath_match("vhb", P("v1").c_str(), nullptr), 0);
  clu_init(nullptr);
  EXPECT_TRUE(mounts("nobody", nullptr).empty());
}

TEST_F(PathList, DriveRootRuleWithoutAnOwnedPrefix) {
  // No entry leads the path: a drive path falls back to the owner of its
  // drive root, any other path to the local host.
  llt_clu_pathl_own("Q:\\", "vhq");
  llt_clu_pathl_own(P("srv").c_str(), "vha");
  if (lltest::kWindows) {
    EXPECT_EQ(take(clu_pathl_gethost("Q:\\dir\\file")), "vhq");
    EXPECT_EQ(take(clu_pathl_gethost("q:\\")), "vhq");
  }
  EXPECT_EQ(take(clu_pathl_gethost(P("elsewhere").c_str())), local);
}

TEST_F(PathList, NormalizeDropsDuplicatesAndCoveredPaths) {
  clu_pathl_addpath(P("").c_str());
  clu_pathl_addpath(P("data/vdisk/sub").c_str());  // below an owned path: dropped
  clu_pathl_addpath(P("data/vdisk").c_str());      // duplicate of an owned one: dropped
  llt_clu_pathl_own(P("data/vdisk").c_str(), "vha");
  clu_pathl_addpath(P("home").c_str());
  clu_pathl_addpath(P("home").c_str());
  clu_pathl_normalize();
  clu_pathl_finalize();
  EXPECT_EQ(mounts(local.c_str(), nullptr), (std::vector<std::string>{P(""), P("home")}));
  EXPECT_EQ(mounts("vha", nullptr), (std::vector<std::string>{P("data/vdisk")}));
}

TEST_F(PathList, NullArgumentsAreRefusedQuietly) {
  clu_pathl_addpath(nullptr);
  EXPECT_EQ(clu_is_pathl_created(), 0);
  char **v = reinterpret_cast<char **>(&v);
  EXPECT_EQ(clu_pathl_getmounts(nullptr, &v, nullptr), 0);
  EXPECT_EQ(v, nullptr);
  EXPECT_EQ(clu_pathl_hostpath_match(nullptr, "/x", nullptr), 0);
  EXPECT_EQ(clu_pathl_hostpath_match("h", nullptr, nullptr), 0);
  EXPECT_EQ(take(clu_pathl_gethost(nullptr)), local);
  EXPECT_EQ(clu_pathl_addvirthosts(), 0);  // no native cluster behind the forced type
}

// A small name service behind the library's resolver: name -> official
// name and aliases.
std::map<std::string, std::vector<std::string>> g_names = {
    {"alpha", {"alpha.example", "alpha"}},
    {"alpha.example", {"alpha.example", "alpha"}},
    {"a-alias", {"alpha.example", "a-alias"}},
    {"vh1-alias", {"vh1", "vh1-alias"}},
    {"vh1", {"vh1-real", "vh1"}},
    {"x", {"gamma"}},
    {"delta", {"delta.example", "gamma"}},
    {"beta", {"beta.example", "beta"}},
};

void *by_name(const char *name) {
  static hostent h;
  static std::vector<char *> aliases;
  static std::string official;
  auto it = g_names.find(name);
  if (it == g_names.end()) return nullptr;
  official = it->second[0];
  aliases.clear();
  for (size_t i = 1; i < it->second.size(); ++i) aliases.push_back(const_cast<char *>(it->second[i].c_str()));
  aliases.push_back(nullptr);
  static char *no_addr[] = {nullptr};
  h = hostent{};
  h.h_name = official.data();
  h.h_aliases = aliases.data();
  h.h_addrtype = AF_INET;
  h.h_length = 4;
  h.h_addr_list = no_addr;
  return &h;
}
void *by_addr(const char *, int, int) { return nullptr; }

TEST_F(PathList, HostMatchingByOfficialNamesAndAliases) {
  llt_hostid_resolver(by_name, by_addr);
  struct Case {
    const char *owner, *host;
    int match;
  } cases[] = {
      {"alpha.example", "ALPHA.Example", 1},  // case only
      {"alpha.example", "alpha", 1},          // the same official name
      {"alpha", "a-alias", 1},
      {"vh1", "vh1-alias", 1},                // the host's official name is the owner
      {"vh1-alias", "vh1", 1},                // the owner's official name is the host
      {"delta", "x", 1},                      // x's official name is an alias of delta
      {"x", "delta", 0},
      {"alpha", "beta", 0},
      {"alpha", "nosuch", 0},                 // does not resolve
  };
  for (const Case &c : cases) {
    clu_pathl_free();
    llt_clu_pathl_own(P("vol").c_str(), c.owner);
    EXPECT_EQ(clu_pathl_hostpath_match(c.host, P("vol/f").c_str(), nullptr), c.match) << c.owner << " / " << c.host;
  }
  llt_hostid_resolver(nullptr, nullptr);
}

}  // namespace
