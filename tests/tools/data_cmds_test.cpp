// llocal cksum, sha1, pack, unpack and uncompress, run as a process.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>

#include "lltest.h"
#include "tool_run.h"

using tooltest::run;

namespace {

// Inputs whose cksum and sha1sum values were taken from coreutils.
struct Known {
  const char *name;
  std::string data;
  const char *cksum;  // "value length"
  const char *sha1;
};

std::vector<Known> known_inputs() {
  return {
      {"empty", "", "4294967295 0", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {"digits", "123456789", "930766865 9", "f7c3bc1d808e04732adf679965ccc34ca7ae3441"},
      {"lcg70000", tooltest::lcg_bytes(70000, 1), "2579492448 70000", "89746c9aade4b4fbbbb4ce436c863d035628b670"},
      {"lcg1m", tooltest::lcg_bytes((1 << 20) + 7, 2), "1438376498 1048583",
       "e33db2f462845ed2a184183377d57aada117f7ab"},
  };
}

std::string no_blanks(std::string s) {
  s.erase(std::remove(s.begin(), s.end(), ' '), s.end());
  return s;
}

#ifndef _WIN32
// What a coreutils program prints for a file, run in the file's folder.
std::string coreutils(const std::string &prog, const lltest::TempDir &dir, const std::string &name) {
  std::string cmd = "cd '" + dir.path() + "' && " + prog + " '" + name + "'";
  std::string out;
  if (FILE *p = popen(cmd.c_str(), "r")) {
    char buf[256];
    while (fgets(buf, sizeof buf, p)) out += buf;
    pclose(p);
  }
  return out;
}
#endif

TEST(ToolDigest, CksumAndSha1MatchCoreutils) {
  lltest::TempDir dir;
  std::vector<std::string> args_c = {"cksum"}, args_s = {"sha1"};
  std::string want_c, want_s;
  for (const auto &k : known_inputs()) {
    dir.write(k.name, k.data);
    args_c.push_back(k.name);
    args_s.push_back(k.name);
    want_c += std::string(k.cksum) + " " + k.name + "\n";
    want_s += std::string(k.sha1) + "  " + k.name + "\n";
#ifndef _WIN32
    EXPECT_EQ(coreutils("cksum", dir, k.name), std::string(k.cksum) + " " + k.name + "\n");
#endif
  }
  auto c = run(args_c, "", dir.path());
  EXPECT_EQ(c.exit_code, 0) << c.err;
  EXPECT_EQ(c.out, want_c);
  auto s = run(args_s, "", dir.path());
  EXPECT_EQ(s.exit_code, 0) << s.err;
  // The library's text form groups the digest by eight digits.
  EXPECT_EQ(no_blanks(s.out), no_blanks(want_s));
  std::istringstream lines(s.out);
  for (std::string line; std::getline(lines, line);) EXPECT_EQ(line.find("  "), 44u) << line;
}

TEST(ToolDigest, StandardInputAndMissingFiles) {
  lltest::TempDir dir;
  dir.write("in", "hi\n");
  EXPECT_EQ(run({"cksum"}, dir.file("in")).out, "1479881546 3\n");  // named only when asked for
  EXPECT_EQ(run({"cksum", "-"}, dir.file("in")).out, "1479881546 3 -\n");
  EXPECT_EQ(run({"sha1"}, dir.file("in")).out, "55ca6286 e3e4f4fb a5d04483 33fa99fc 5a404a73\n");
  // A missing file fails the run, but the others are printed.
  dir.write("digits", "123456789");
  auto r = run({"cksum", "nosuch", "digits"}, "", dir.path());
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.out, "930766865 9 digits\n");
  EXPECT_NE(r.err.find("nosuch"), std::string::npos);
}

// ---- pack / unpack ----

std::string pack_roundtrip(const lltest::TempDir &dir, const std::string &data, const std::vector<std::string> &opts) {
  dir.write("in", data);
  std::vector<std::string> args = {"pack", "-f"};
  args.insert(args.end(), opts.begin(), opts.end());
  args.insert(args.end(), {"-o", dir.file("in.llp"), dir.file("in")});
  auto p = run(args);
  EXPECT_EQ(p.exit_code, 0) << p.err;
  auto u = run({"unpack", "-f", "-o", dir.file("out"), dir.file("in.llp")});
  EXPECT_EQ(u.exit_code, 0) << u.err;
  EXPECT_TRUE(dir.read("out") == data) << "round trip of " << data.size() << " bytes differs";
  return dir.read("in.llp");
}

TEST(ToolPack, RoundTrips) {
  lltest::TempDir dir;
  // Empty: the header and the end record only.
  EXPECT_EQ(pack_roundtrip(dir, "", {}).size(), 32u);
  // Below the codec's minimum: one raw block.
  EXPECT_EQ(pack_roundtrip(dir, "x", {}).size(), 32u + 12 + 1);
  pack_roundtrip(dir, std::string(35, 'a'), {});
  // Incompressible data costs only the record headers.
  const std::string noise = tooltest::lcg_bytes(300000, 9);
  EXPECT_LE(pack_roundtrip(dir, noise, {}).size(), noise.size() + 32 + 3 * 12);
  // Highly compressible data shrinks a lot.
  EXPECT_LT(pack_roundtrip(dir, std::string(1 << 20, '\0'), {}).size(), (1u << 20) / 8);
  // Many blocks, the last one short, compressible and raw ones mixed.
  std::string mixed;
  for (int i = 0; i < 12; ++i) mixed += i % 3 ? std::string(1500 + i, char('a' + i)) : tooltest::lcg_bytes(900, i);
  const std::string packed = pack_roundtrip(dir, mixed, {"-b", "1"});
  EXPECT_EQ(packed[8], 0);
  EXPECT_EQ(packed[9], 4);  // block size 1024, little-endian
}

TEST(ToolPack, StreamsThroughStandardInputAndOutput) {
  lltest::TempDir dir;
  const std::string data = tooltest::lcg_bytes(200000, 3) + std::string(200000, 'z');
  dir.write("in", data);
  auto p = run({"pack"}, dir.file("in"));
  ASSERT_EQ(p.exit_code, 0) << p.err;
  dir.write("in.llp", p.out_raw);
  auto u = run({"unpack"}, dir.file("in.llp"));
  ASSERT_EQ(u.exit_code, 0) << u.err;
  EXPECT_TRUE(u.out_raw == data);
}

TEST(ToolPack, RefusesToOverwriteWithoutF) {
  lltest::TempDir dir;
  dir.write("in", "data");
  dir.write("out", "keep");
  auto p = run({"pack", "-o", dir.file("out"), dir.file("in")});
  EXPECT_EQ(p.exit_code, 1);
  EXPECT_EQ(dir.read("out"), "keep");
  EXPECT_EQ(run({"pack", "-f", "-o", dir.file("out"), dir.file("in")}).exit_code, 0);
}

// A damaged container fails with a message naming the trouble, and leaves no
// output file (nor a leftover temporary one); standard output gets nothing
// from a block that failed its check.
TEST(ToolUnpack, RejectsDamagedContainers) {
  lltest::TempDir dir;
  std::string data;
  for (int i = 0; i < 6; ++i) data += std::string(3000, char('k' + i)) + tooltest::lcg_bytes(1000, i);
  dir.write("in", data);
  auto p = run({"pack", "-b", "4", "-o", dir.file("good.llp"), dir.file("in")});
  ASSERT_EQ(p.exit_code, 0) << p.err;
  const std::string good = dir.read("good.llp");
  auto flip = [&](size_t at, char bits) {
    std::string b = good;
    b[at] ^= bits;
    return b;
  };
  std::string old_version = good;
  old_version[4] = 9;
  const std::pair<std::string, const char *> cases[] = {
      {flip(16 + 12 + 100, 0x20), "corrupt packed data at byte 16"},
      {flip(good.size() - 40, 1), "corrupt packed data"},  // a later block
      {flip(16 + 5, 0x7F), "bad block lengths"},            // original length above the block size
      {good.substr(0, good.size() - 16), "ends too early"},
      {good.substr(0, good.size() / 2), "ends too early"},
      {good.substr(0, 10), "ends too early"},
      {good + "x", "data after the end record"},
      {flip(good.size() - 12, 1), "bad end record"},  // total length
      {"hello, world", "not a packed container"},
      {"", "not a packed container"},
      {flip(9, 1), "bad header"},  // block size
      {old_version, "unknown version"},
  };
  for (const auto &[bytes, why] : cases) {
    dir.write("bad.llp", bytes);
    auto r = run({"unpack", "-o", dir.file("restored"), dir.file("bad.llp")});
    EXPECT_EQ(r.exit_code, 1) << why;
    EXPECT_NE(r.err.find(why), std::string::npos) << r.err;
    for (const auto &n : tooltest::list_dir(dir.path())) EXPECT_EQ(n.find("restored"), std::string::npos) << n;
  }
  dir.write("bad.llp", flip(16 + 12 + 5, 0x40));  // the first block
  auto r = run({"unpack"}, dir.file("bad.llp"));
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_TRUE(r.out_raw.empty());
}

// ---- uncompress ----

std::map<std::string, std::string> expected_sha1() {
  std::map<std::string, std::string> m;
  std::istringstream in(tooltest::read_file(tooltest::data_file("expected-sha1.txt")));
  std::string name, sum;
  while (in >> name >> sum) m[name] = sum;
  return m;
}

TEST(ToolUncompress, MatchesTheCompressToolsOutput) {
  const auto want = expected_sha1();
  ASSERT_EQ(want.size(), 3u);
  lltest::TempDir dir;
  for (const auto &[name, sum] : want) {
    const std::string z = tooltest::read_file(tooltest::data_file(name));
    ASSERT_FALSE(z.empty()) << name;
    dir.write(name, z);
    // Written next to the input under the name without ".Z"; the input stays.
    auto r = run({"uncompress", name}, "", dir.path());
    ASSERT_EQ(r.exit_code, 0) << r.err;
    const std::string plain = name.substr(0, name.size() - 2);
    EXPECT_TRUE(tooltest::file_exists(dir.file(name)));
    auto s = run({"sha1", plain}, "", dir.path());
    EXPECT_EQ(no_blanks(s.out), sum + plain + "\n") << name;
    // From standard input to standard output, the same bytes.
    auto c = run({"uncompress"}, dir.file(name));
    EXPECT_EQ(c.exit_code, 0);
    EXPECT_TRUE(c.out_raw == dir.read(plain)) << name;
#ifndef _WIN32
    if (std::system("command -v uncompress >/dev/null 2>&1") == 0) {
      const std::string cmd = "uncompress -c '" + dir.file(name) + "' > '" + dir.file("ref") + "'";
      ASSERT_EQ(std::system(cmd.c_str()), 0);
      EXPECT_TRUE(dir.read("ref") == dir.read(plain)) << name;
    }
#endif
  }
}

TEST(ToolUncompress, ExistingOutputNeedsF) {
  lltest::TempDir dir;
  dir.write("runs.bin.Z", tooltest::read_file(tooltest::data_file("runs.bin.Z")));
  dir.write("runs.bin", "old");
  EXPECT_EQ(run({"uncompress", "runs.bin.Z"}, "", dir.path()).exit_code, 1);
  EXPECT_EQ(dir.read("runs.bin"), "old");
  EXPECT_EQ(run({"uncompress", "-f", "runs.bin.Z"}, "", dir.path()).exit_code, 0);
  EXPECT_EQ(dir.read("runs.bin").size(), 13048u);
}

TEST(ToolUncompress, RejectsWhatItCannotRead) {
  lltest::TempDir dir;
  const std::string good = tooltest::read_file(tooltest::data_file("text.txt.Z"));
  struct Case {
    std::string bytes;
    const char *why;
  };
  std::string wide = good, narrow = good, plain_mode = good;
  wide[2] = static_cast<char>(0x90);  // 16-bit codes
  narrow[2] = static_cast<char>(0x89);
  plain_mode[2] = 0x0C;  // no block mode
  const Case cases[] = {
      {"plain text", "not in compressed format"},
      {good.substr(0, 2), "not in compressed format"},
      {wide, "16-bit codes"},
      {narrow, "9-bit codes"},
      {plain_mode, "unsupported compressed format"},
  };
  for (const auto &c : cases) {
    dir.write("bad.Z", c.bytes);
    auto r = run({"uncompress", "bad.Z"}, "", dir.path());
    EXPECT_EQ(r.exit_code, 1) << c.why;
    EXPECT_NE(r.err.find(c.why), std::string::npos) << r.err;
    EXPECT_FALSE(tooltest::file_exists(dir.file("bad"))) << c.why;
  }
  // A name without ".Z" needs -c or -o.
  dir.write("plain", good);
  EXPECT_EQ(run({"uncompress", "plain"}, "", dir.path()).exit_code, 2);
  auto o = run({"uncompress", "-o", "named", "plain"}, "", dir.path());
  EXPECT_EQ(o.exit_code, 0) << o.err;
  EXPECT_EQ(dir.read("named").size(), 27914u);
}

}  // namespace
