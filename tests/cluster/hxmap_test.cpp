// The map script's output: its lines, its keys, and a script that misbehaves.
#include <gtest/gtest.h>

#include <liblocal/cluster.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <sys/stat.h>

#include "lltest.h"
#include "seams.h"

namespace {

std::string decode(const std::string &bytes, size_t chunk = 0) {
  char *s = llt_clu_decode_map(bytes.data(), bytes.size(), chunk);
  std::string r = s;
  std::free(s);
  return r;
}

const std::string kType = "clu_type: BSW_HX_TYPE\n";
// Mount directories every test machine has, and a directory that is none.
const std::string kMount = lltest::kWindows ? "C:\\" : "/";
const std::string kMountSlash = lltest::kWindows ? " \"C:\\\\\"" : " /proc//";
const std::string kMountTrimmed = lltest::kWindows ? "C:\\" : "/proc";
const std::string kNotMount = lltest::kWindows ? "C:\\windows" : "/usr/share";

TEST(HxMapLines, DecodesKeysAndSkipsWhatIsNotAnEntry) {
  struct Case {
    const char *name;
    std::string in, want;
  } cases[] = {
      {"comments, blanks, nodename with blanks",
       "# map of this node\n\n" + kType + "interface version: 1\nnodename:   \tnode1  \n",
       "active=1\nnode=node1\n"},
      {"CR LF and no final newline", "clu_type: BSW_HX_TYPE\r\nnodename: n2\r\nhostname: v1", "active=1\nnode=n2\nhost=v1\n"},
      {"no clu_type: inactive", "nodename: n\nhostname: v1\n", "active=0\nnode=n\nhost=v1\n"},
      {"another type abandons everything", "nodename: n\nclu_type: BSW_OTHER\n" + kType + "hostname: v1\n",
       "active=0 abandoned\nnode=\n"},
      {"lines without a colon and unknown keys", kType + "garbage line\n: empty key\ncolour: blue\nnodename: n\n",
       "active=1\nnode=n\n"},
      {"host texts of unknown form start no entry",
       kType + "hostname: bad host!\nhostname: -dash\nhostname: a/b\nhostname: 192.0.2.1\nhostname: vh-2.example\n",
       "active=1\nnode=\nhost=vh-2.example\n"},
      {"NUL bytes spoil only their line", kType + std::string("nodename: a\0b\n", 14) + "hostname: v\n",
       "active=1\nnode=\nhost=v\n"},
      {"a line of 1 MB is dropped whole", kType + "nodename: " + std::string(1 << 20, 'x') + "\nhostname: v\n",
       "active=1\nnode=\nhost=v\n"},
      {"relative and empty owned paths are rejected", kType + "hostname: v\nowned paths: rel/dir ./x \"\"\n",
       "active=1\nnode=\nhost=v\n"},
      {"owned paths are checked against the file-system table",
       kType + "hostname: v\nowned paths: " + kMount + kMountSlash + " " + kNotMount + "\n",
       "active=1\nnode=\nhost=v\n path=" + kMount + "\n path=" + kMountTrimmed + "\n"},
      {"owned paths before any host go nowhere", kType + "owned paths: /\nhostname: v\n", "active=1\nnode=\nhost=v\n"},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(decode(c.in), c.want) << c.name;
    for (size_t chunk : {1, 7, 4096}) EXPECT_EQ(decode(c.in, chunk), c.want) << c.name << ", chunk " << chunk;
  }
}

// A script's run is bounded in time and output; its exit status counts.
class HxScript : public ::testing::Test {
 protected:
  lltest::TempDir dir;
  std::string script(const std::string &name, const std::string &body) {
#ifdef _WIN32
    const std::string file = name + ".bat";
    dir.write(file, "@echo off\r\n" + body);
#else
    const std::string file = name;
    dir.write(file, "#!/bin/sh\n" + body);
    chmod(dir.file(file).c_str(), 0755);
#endif
    return dir.file(file);
  }
};

TEST_F(HxScript, RunsAreBoundedAndJudgedByTheirEnd) {
#ifdef _WIN32
  const std::string ok = script("ok", "echo a\r\necho b\r\n");
  const std::string fails = script("fails", "echo a\r\nexit 3\r\n");
  const std::string hangs = script("hangs", ":loop\r\ngoto loop\r\n");
  const std::string floods = script("floods", ":loop\r\necho xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx\r\ngoto loop\r\n");
#else
  const std::string ok = script("ok", "echo a; printf b");
  const std::string fails = script("fails", "echo a; exit 3\n");
  const std::string hangs = script("hangs", "echo a; sleep 60\n");
  const std::string floods = script("floods", "while :; do echo xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx; done\n");
#endif
  struct Case {
    std::string path;
    int end;
  } cases[] = {{ok, 0}, {fails, 1}, {dir.file("missing"), 2}, {hangs, 3}, {floods, 4}};
  for (const Case &c : cases) {
    int lines = -1;
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(llt_clu_run_script(c.path.c_str(), 1500, 4096, &lines), c.end) << c.path;
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_LT(ms, 10000) << c.path;
    if (c.end == 0) {
      EXPECT_EQ(lines, 2);
    }
  }
}

}  // namespace
