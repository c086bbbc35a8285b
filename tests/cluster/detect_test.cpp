// Detection of the cluster type in a fresh process: a map script in a
// temporary installation tree, scripts that are missing or fail, and the
// answers that depend on the type.
#ifdef _WIN32
#include <winsock2.h>
#else
#include <netdb.h>
#include <sys/socket.h>
#endif

#include <gtest/gtest.h>

#include <liblocal/appdir.h>
#include <liblocal/cluster.h>
#include <liblocal/frame.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <atomic>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "lltest.h"
#include "seams.h"

extern "C" void llt_appdir_reset(const char *exe, int sep);
extern "C" void llt_hostid_resolver(void *(*byname)(const char *), void *(*byaddr)(const char *, int, int));

namespace {

// An API library that does not exist: no native cluster (Wine would answer
// every OpenCluster of its own library with a cluster).
const char *kNoApi = "no-such-clusapi.dll";

// A name service where every name N is "N.example" with the alias N.
void *example_names(const char *name) {
  static hostent h;
  static std::string official, alias;
  static char *aliases[2], *no_addr[1];
  alias = name;
  if (alias.size() > 8 && alias.compare(alias.size() - 8, 8, ".example") == 0) alias.resize(alias.size() - 8);
  official = alias + ".example";
  aliases[0] = alias.data();
  h = hostent{};
  h.h_name = official.data();
  h.h_aliases = aliases;
  h.h_addrtype = AF_INET;
  h.h_length = 4;
  h.h_addr_list = no_addr;
  return &h;
}
void *no_addresses(const char *, int, int) { return nullptr; }

// argv: installation root, API library ("-": the system's), queries.
// Queries: "lv=NAME" (clu_is_localvirthost), "own=PATH" (clu_pathl_gethost),
// "mode=NAME|DIR" (clu_is_cluster_mode, "-" for a null argument).
LLTEST_CHILD(clu_detect) {
  const std::string prog = std::string(argv[0]) + (lltest::kWindows ? "\\bin\\prog.exe" : "/bin/prog");
  llt_appdir_reset(prog.c_str(), lltest::kWindows ? '\\' : '/');  // runs from <root>/bin
  qz_find_installdir(prog.c_str());
  if (std::strcmp(argv[1], "-") != 0) llt_clu_set_api_library(argv[1]);
  Debug = 7;
  std::printf("type=%d host=%d\n", clu_init(nullptr), clu_is_cluster_host());
  char *local = clu_pathl_gethost(nullptr);
  std::printf("local=%s\n", local);
  std::free(local);
  for (int i = 2; i < argc; ++i) {
    std::string q = argv[i];
    const size_t eq = q.find('=');
    const std::string key = q.substr(0, eq), arg = q.substr(eq + 1);
    if (key == "lv") {
      std::printf("lv %s=%d\n", arg.c_str(), clu_is_localvirthost(arg.c_str()));
    } else if (key == "own") {
      char *h = clu_pathl_gethost(arg.c_str());
      std::printf("own %s=%s\n", arg.c_str(), h ? h : "(null)");
      std::free(h);
    } else if (key == "names") {
      llt_hostid_resolver(example_names, no_addresses);
    } else if (key == "svc") {
      const size_t b1 = arg.find('|'), b2 = arg.rfind('|');
      const std::string h = arg.substr(0, b1), path = arg.substr(b1 + 1, b2 - b1 - 1);
      char *r = clus_get_service_hostname(h == "-" ? nullptr : h.c_str(), path.c_str(), std::atoi(arg.c_str() + b2 + 1),
                                          nullptr);
      std::printf("svc %s=%s\n", arg.c_str(), r ? r : "(null)");
      std::free(r);
    } else if (key == "addvirt") {
      clu_pathl_addpath(lltest::kWindows ? "C:\\" : "/");
      std::printf("added=%d\n", clu_pathl_addvirthosts());
      clu_pathl_normalize();
      clu_pathl_finalize();
    } else if (key == "mounts") {
      char **v = nullptr;
      std::printf("mounts %s:", arg.c_str());
      clu_pathl_getmounts(arg.c_str(), &v, nullptr);
      for (char **m = v; m && *m; ++m) {
        std::printf(" %s", *m);
        std::free(*m);
      }
      std::free(v);
      std::printf("\n");
    } else if (key == "mode") {
      const size_t bar = arg.find('|');
      const std::string n = arg.substr(0, bar), d = arg.substr(bar + 1);
      std::printf("mode=%d\n", clu_is_cluster_mode(n == "-" ? nullptr : n.c_str(), d == "-" ? nullptr : d.c_str()));
    }
  }
  return 0;
}

}  // namespace

// Threads that all ask first: detection runs once and every thread sees its
// answer.
LLTEST_CHILD(clu_race) {
  const std::string prog = std::string(argv[0]) + (lltest::kWindows ? "\\bin\\prog.exe" : "/bin/prog");
  llt_appdir_reset(prog.c_str(), lltest::kWindows ? '\\' : '/');
  qz_find_installdir(prog.c_str());
  llt_clu_set_api_library("no-such-clusapi.dll");
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i)
    threads.emplace_back([&, i] {
      const int lv = i % 2 ? clu_is_localvirthost("vh1") : (clu_is_cluster_host(), clu_is_localvirthost("vh1"));
      if (lv != 1 || clu_get_type() != CLU_TYPE_HX) ++wrong;
    });
  for (std::thread &t : threads) t.join();
  std::printf("wrong=%d\n", wrong.load());
  return 0;
}

class Detect : public ::testing::Test {
 protected:
  lltest::TempDir root;
  std::string bin() const { return root.file("bin"); }
  // Writes the map script printing these lines.
  void map_script(const std::vector<std::string> &lines, int exit_code = 0) {
    const std::string dir = bin();
#ifdef _WIN32
    std::string body = "@echo off\r\n";
    for (const std::string &l : lines) body += (l.empty() ? "echo.\r\n" : "echo " + l + "\r\n");
    body += "exit /b " + std::to_string(exit_code) + "\r\n";
    root.write("bin\\hxmap.bat", body);
#else
    std::string body = "#!/bin/sh\ncat <<'MAP'\n";
    for (const std::string &l : lines) body += l + "\n";
    body += "MAP\nexit " + std::to_string(exit_code) + "\n";
    root.write("bin/hxmap", body);
    chmod(root.file("bin/hxmap").c_str(), 0755);
#endif
  }
  lltest::ChildResult run(std::vector<std::string> queries, const char *api = kNoApi,
                          const std::string &cluster = "") {
    queries.insert(queries.begin(), {root.path(), lltest::kWindows ? api : "-"});
    return lltest::run_child("clu_detect", queries, {"LLCLU_TEST=" + cluster});
  }
  void SetUp() override {
#ifdef _WIN32
    std::system(("mkdir \"" + bin() + "\"").c_str());
#else
    mkdir(bin().c_str(), 0755);
#endif
  }
};

namespace {

const std::vector<std::string> kMap = {
    "# this node's map",
    "",
    "clu_type: BSW_HX_TYPE",
    "interface version: 1",
    "nodename:     node-one",
    "hostname: vh1",
    lltest::kWindows ? "owned paths: C:\\ C:\\windows" : "owned paths: /proc/ /usr/share relative",
    "hostname: vh2.example",
    lltest::kWindows ? "owned paths: D:\\nowhere" : "owned paths: /sys",
};

TEST_F(Detect, MapScriptMakesAnHxNode) {
  map_script(kMap);
  const auto r = run({"lv=vh1", "lv=VH2.EXAMPLE", "lv=vh3", "lv="});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("type=2 host=1\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("lv vh1=1\nlv VH2.EXAMPLE=1\nlv vh3=0\nlv =0\n"), std::string::npos) << r.out;
  EXPECT_NE(r.err.find("Hx_nodename set to node-one."), std::string::npos);
  EXPECT_NE(r.err.find("Clu_cluster_type = HX"), std::string::npos);
  EXPECT_NE(r.err.find("clu_is_localvirthost_hx(): NULL hostname"), std::string::npos);
}

TEST_F(Detect, HxOwnerIsTheHostOfTheLongestOwnedMountDirectory) {
  map_script(kMap);
  const auto r = lltest::kWindows ? run({"own=C:\\x\\y"}) : run({"own=/proc/self", "own=/sys/kernel", "own=/usr/share"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const size_t at = r.out.find("local=");
  ASSERT_NE(at, std::string::npos);
  const std::string local = r.out.substr(at + 6, r.out.find('\n', at) - at - 6);
  if (lltest::kWindows) {
    EXPECT_NE(r.out.find("own C:\\x\\y=vh1\n"), std::string::npos) << r.out;
  } else {
    EXPECT_NE(r.out.find("own /proc/self=vh1\nown /sys/kernel=vh2.example\nown /usr/share=" + local + "\n"),
              std::string::npos)
        << r.out;
  }
  EXPECT_NE(r.err.find("is neither raw device nor fs mount dir - rejecting"), std::string::npos);
  EXPECT_NE(r.err.find("is fs mount dir - ok"), std::string::npos);
  EXPECT_NE(r.err.find("\tvhostname=vh1\n"), std::string::npos);
}

TEST_F(Detect, ThreadsAskingAtOnceShareOneDetection) {
  map_script(kMap);
  const auto r = lltest::run_child("clu_race", {root.path()});
  EXPECT_EQ(r.out, "wrong=0\n") << r.err;
  EXPECT_EQ(r.exit_code, 0);
}

#ifndef _WIN32
TEST_F(Detect, ServiceHostNames) {
  map_script({"clu_type: BSW_HX_TYPE", "nodename: n1", "hostname: vh1", "owned paths: /proc",
              "hostname: vh2.example", "owned paths: /sys"});
  const auto r = run({"names", "svc=x|/|3", "svc=vh1|/sys/kernel|2", "svc=-|/sys/kernel|2", "svc=vh1|/proc/1|2",
                      "svc=x|/|1"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("svc x|/|3=(null)\n"
                       "svc vh1|/sys/kernel|2=(null)\n"          // vh1 does not own /sys
                       "svc -|/sys/kernel|2=vh2.example\n"        // the owner of the path, kept from here on
                       "svc vh1|/proc/1|2=vh2.example\n"),          // owns it, but the kept name answers
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("svc x|/|1="), std::string::npos) << r.out;  // this machine's name
  EXPECT_EQ(r.out.find("svc x|/|1=(null)"), std::string::npos) << r.out;
}
#endif

TEST_F(Detect, ClusterModeIsKeptOnceBothArgumentsAreGiven) {
  map_script(kMap);
  root.write("bin/prog.clustersvr", "");
  const std::string dir = bin() + (lltest::kWindows ? "\\" : "/");
  const auto r = run({"mode=-|" + dir, "mode=prog|" + dir, "mode=other|" + dir});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("mode=0\nmode=1\nmode=1\n"), std::string::npos) << r.out;
}

TEST_F(Detect, NoClusterWhenTheScriptIsWrongOrAbsent) {
  struct Case {
    const char *name;
    std::vector<std::string> lines;
    int exit_code;
    const char *trace;
  } cases[] = {
      {"another clu_type", {"clu_type: BSW_OTHER_TYPE", "hostname: vh1"}, 0, "Can't build fspath_vhost_map"},
      {"no clu_type", {"nodename: n", "hostname: vh1"}, 0, "Can't build fspath_vhost_map"},
      {"script fails", kMap, 3, "failed: map not used"},
      {"no script", {}, -1, "No access to file: "},
  };
  for (const Case &c : cases) {
    if (c.exit_code >= 0)
      map_script(c.lines, c.exit_code);
    else
      std::remove(root.file(lltest::kWindows ? "bin\\hxmap.bat" : "bin/hxmap").c_str());
    const auto r = run({"lv=vh1", "mode=prog|" + bin()});
    ASSERT_EQ(r.exit_code, 0) << c.name << r.err;
    EXPECT_EQ(r.out.rfind("type=0 host=0\n", 0), 0u) << c.name << ": " << r.out;
    EXPECT_NE(r.out.find("\nlv vh1=0\nmode=0\n"), std::string::npos) << c.name << ": " << r.out;
    EXPECT_NE(r.err.find(c.trace), std::string::npos) << c.name << ": " << r.err;
    EXPECT_NE(r.err.find("Clu_cluster_type = NONE (forced)"), std::string::npos) << c.name;
    EXPECT_NE(r.err.find("clu_is_localvirthost(): unknown cluster type"), std::string::npos) << c.name;
  }
#ifndef _WIN32
  map_script(kMap);
  chmod(root.file("bin/hxmap").c_str(), 0644);  // not executable
  const auto r = run({});
  EXPECT_NE(r.out.find("type=0 host=0"), std::string::npos) << r.out;
  EXPECT_NE(r.err.find("No access to file: "), std::string::npos);
#endif
}

#ifdef _WIN32
// The native kind through the test cluster library: groups online and
// offline on this node, their network names and disks.
const std::string kGroups =
    "group=G1,online,here,vh1,E:;group=G2,offline,here,vh2,F:;group=G3,partial,here,vh3,G:+H:;"
    "group=G4,online,othernode,vh4,I:;group=G5,online,here,,J:";

TEST_F(Detect, NativeVirtualHostsAreTheGroupsOnlineHere) {
  const auto r = run({"lv=vh1", "lv=VH1.corp.example", "lv=vh2", "lv=vh3", "lv=vh4", "lv=G5", "lv="}, "llclutest.dll",
                     kGroups);
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out.rfind("type=1 host=1\n", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("lv vh1=1\nlv VH1.corp.example=1\nlv vh2=0\nlv vh3=1\nlv vh4=0\nlv G5=0\nlv =0\n"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.err.find("Clu_cluster_type = NATIVE"), std::string::npos);
  EXPECT_NE(r.err.find("ClusterResourceOnline"), std::string::npos);
}

TEST_F(Detect, NativeDisksFillThePathList) {
  const auto r = run({"addvirt", "own=E:\\data", "own=g:\\", "own=H:\\x", "own=F:\\x", "own=C:\\x", "mounts=vh3"},
                     "llclutest.dll", kGroups);
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const size_t at = r.out.find("local=");
  ASSERT_NE(at, std::string::npos);
  const std::string local = r.out.substr(at + 6, r.out.find('\n', at) - at - 6);
  EXPECT_NE(r.out.find("added=3\n"), std::string::npos) << r.out;  // E: of G1, G: and H: of G3
  EXPECT_NE(r.out.find("own E:\\data=vh1\nown g:\\=vh3\nown H:\\x=vh3\nown F:\\x=" + local + "\nown C:\\x=" +
                       local + "\nmounts vh3: G:\\ H:\\\n"),
            std::string::npos)
      << r.out;
  // Without a list the owner comes from the cluster's disks directly.
  const auto d = run({"own=F:\\x", "own=C:\\x"}, "llclutest.dll", kGroups);
  EXPECT_NE(d.out.find("own F:\\x=vh2\nown C:\\x=" + local + "\n"), std::string::npos) << d.out;
}

TEST_F(Detect, NativeClusterAbsentIncompleteOrBesideAMap) {
  map_script(kMap);
  const auto both = run({}, "llclutest.dll", kGroups);
  EXPECT_EQ(both.out.rfind("type=0 host=0\n", 0), 0u) << both.out;
  EXPECT_NE(both.err.find("Warning: more than one cluster type detected..."), std::string::npos);
  EXPECT_NE(both.err.find("Clu_cluster_type = NONE (forced)"), std::string::npos);
  std::remove(root.file("bin\\hxmap.bat").c_str());

  const auto partial = run({"lv=vh1"}, "llclutest_partial.dll", kGroups);
  EXPECT_EQ(partial.out.rfind("type=0 host=0\n", 0), 0u) << partial.out;
  EXPECT_NE(partial.err.find("ClusterResourceControl not found"), std::string::npos) << partial.err;
  EXPECT_NE(partial.err.find("Cluster API should be loaded before calling OpenCluster"), std::string::npos);

  const auto absent = run({"own=E:\\x"}, "llclutest.dll", "absent");
  EXPECT_EQ(absent.out.rfind("type=0 host=0\n", 0), 0u) << absent.out;
  EXPECT_NE(absent.err.find("Running in a non-cluster environment"), std::string::npos);
}
#endif

}  // namespace
