// LZW decoder: streams of the real compress tool (committed, and on POSIX
// also made fresh), the code-level rules on hand-packed streams, the count
// when the output is too small, and corrupt streams.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <liblocal.h>

#include "lltest.h"

#ifndef _WIN32
#include <sys/wait.h>
#endif

namespace {

using Bytes = std::vector<unsigned char>;

// The generators of data/make_lzw_vectors.py.
struct Rng {
  uint32_t x;
  uint32_t next() {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    return x;
  }
};
const char *const kWords[] = {"the",    "of",     "and",     "to",     "in",      "is",   "that",    "for",
                              "it",     "as",     "was",     "with",   "be",      "by",   "on",      "not",
                              "he",     "this",   "are",     "or",     "his",     "from", "at",      "which",
                              "but",    "have",   "an",      "they",   "you",     "were", "her",     "she",
                              "there",  "been",   "one",     "all",    "backup",  "volume", "restore", "client",
                              "server", "tape",   "session", "catalog"};
Bytes gen_text(size_t n, uint32_t seed) {
  Rng r{seed};
  std::string s;
  while (s.size() < n) {
    const uint32_t v = r.next();
    s += kWords[v % (sizeof kWords / sizeof kWords[0])];
    s += (v >> 8) % 10 == 0 ? ".\n" : " ";
  }
  return Bytes(s.begin(), s.begin() + (ptrdiff_t)n);
}
Bytes gen_binary(size_t n, uint32_t seed) {
  Rng r{seed};
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) {
    const uint32_t v = r.next(), k = (v >> 8) % 4;
    b[i] = (unsigned char)(k == 0 ? v & 0xFF : k == 1 ? 0 : k == 2 ? (i >> 4) & 0xFF : (v >> 16) % 8);
  }
  return b;
}
Bytes gen_random(size_t n, uint32_t seed) {
  Rng r{seed};
  Bytes b(n);
  for (auto &c : b) c = (unsigned char)(r.next() >> 24);
  return b;
}
Bytes gen_mixed(size_t n, uint32_t seed) {
  Bytes a = gen_text(n / 3, seed), b = gen_random(n / 3, seed + 1), c = gen_text(n - 2 * (n / 3), seed + 2);
  a.insert(a.end(), b.begin(), b.end());
  a.insert(a.end(), c.begin(), c.end());
  return a;
}

// A stream of the compress tool kept in data/lzw (see make_lzw_vectors.py).
Bytes tool_stream(const std::string &name) {
  const std::string path = std::string(LL_UTIL_DATA) + "/lzw/" + name + ".z";
  Bytes out;
  if (FILE *f = std::fopen(path.c_str(), "rb")) {
    unsigned char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) out.insert(out.end(), buf, buf + n);
    std::fclose(f);
  }
  EXPECT_FALSE(out.empty()) << "cannot read " << path;
  return out;
}

// Packs codes the way the compress tool writes them: LSB first, in chunks of
// as many bytes as the code width, a new chunk after 8 codes, at every change
// of width and after a clear (a chunk left early is still written whole).
Bytes pack(const std::vector<int> &codes) {
  Bytes out, chunk;
  int width = 9, maxcode = 511, free_ent = 257, in_chunk = 0;
  unsigned bitpos = 0;
  bool first = true, clear = false, open = false;
  for (int c : codes) {
    if (!open || clear || free_ent > maxcode || in_chunk == 8) {
      out.insert(out.end(), chunk.begin(), chunk.end());
      if (free_ent > maxcode) {
        ++width;
        maxcode = width == 12 ? 4096 : (1 << width) - 1;
      }
      if (clear) {
        width = 9;
        maxcode = 511;
        clear = false;
      }
      chunk.assign((size_t)width, 0);
      bitpos = 0;
      in_chunk = 0;
      open = true;
    }
    for (int b = 0; b < width; ++b, ++bitpos)
      if (c >> b & 1) chunk[bitpos / 8] |= (unsigned char)(1 << (bitpos % 8));
    ++in_chunk;
    if (c == 256) {
      free_ent = 256;
      clear = true;
    } else if (first) {
      first = false;
    } else if (free_ent < 4096) {
      ++free_ent;
    }
  }
  chunk.resize((bitpos + 7) / 8);  // the last chunk holds only what was written
  out.insert(out.end(), chunk.begin(), chunk.end());
  return out;
}

Bytes decode(const Bytes &z, size_t cap, int *count = nullptr) {
  Bytes out(cap + 64, 0xEE);
  const int n = dcmprss(z.data(), (int)z.size(), out.data(), (int)cap);
  for (size_t i = cap; i < out.size(); ++i) EXPECT_EQ(out[i], 0xEE) << "written past dst_len at " << i;
  if (count) *count = n;
  out.resize(n < 0 ? 0 : std::min<size_t>((size_t)n, cap));
  return out;
}

}  // namespace

TEST(Lzw, CommittedToolStreams) {
  struct Case {
    const char *name;
    Bytes original;
  } cases[] = {{"text", gen_text(30000, 1)},
               {"binary", gen_binary(9000, 2)},
               {"random", gen_random(6000, 3)},
               {"mixed", gen_mixed(36000, 4)}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const Bytes z = tool_stream(c.name);
    int n = 0;
    EXPECT_EQ(decode(z, c.original.size() + 100, &n), c.original);
    EXPECT_EQ(n, (int)c.original.size());
    // Exactly the right size works too: the count never passes dst_len.
    EXPECT_EQ(decode(z, c.original.size()), c.original);
  }
}

#ifndef _WIN32
// Fresh streams from the tool: "compress -b12 -c" with the header removed.
TEST(Lzw, LiveToolStreams) {
  lltest::TempDir dir;
  std::vector<std::pair<std::string, Bytes>> inputs = {
      {"one", Bytes{'A'}},
      {"text", gen_text(400000, 11)},
      {"binary", gen_binary(200000, 12)},
      {"random", gen_random(100000, 13)},
      {"mixed", gen_mixed(600000, 14)},
      {"zeros", Bytes(300000, 0)}};
  for (const auto &[name, data] : inputs) {
    SCOPED_TRACE(name);
    const std::string path = dir.file(name);
    dir.write(name, std::string(data.begin(), data.end()));
    const std::string cmd = "compress -b12 -c < '" + path + "' > '" + path + ".Z'";
    const int rc = std::system(cmd.c_str());
    ASSERT_TRUE(WIFEXITED(rc) && (WEXITSTATUS(rc) == 0 || WEXITSTATUS(rc) == 2)) << cmd;
    const std::string zs = dir.read(name + ".Z");
    ASSERT_GE(zs.size(), 3u);
    const Bytes z(zs.begin() + 3, zs.end());
    EXPECT_EQ(decode(z, data.size() + 1), data);
    // Too small by one: the first dst_len bytes, and a count past dst_len.
    if (data.size() < 2) continue;
    int n = 0;
    const Bytes part = decode(z, data.size() - 1, &n);
    EXPECT_GT(n, (int)data.size() - 1);
    EXPECT_TRUE(std::equal(part.begin(), part.end(), data.begin()));
  }
}
#endif

TEST(Lzw, FirstCodeAndEmptyInputs) {
  unsigned char out[8] = {0};
  const Bytes one = pack({'A'});
  EXPECT_EQ(dcmprss(one.data(), (int)one.size(), out, 8), 1);
  EXPECT_EQ(out[0], 'A');
  EXPECT_EQ(dcmprss(one.data(), 0, out, 8), 0);  // no code
  EXPECT_EQ(dcmprss(nullptr, 0, out, 8), 0);
  // The tool's output for one byte, header removed.
  const unsigned char tool_one[] = {0x41, 0x00};
  EXPECT_EQ(dcmprss(tool_one, 2, out, 8), 1);
  // A clear right after the first code, and nothing else.
  const Bytes clear_only = pack({'x', 256});
  EXPECT_EQ(dcmprss(clear_only.data(), (int)clear_only.size(), out, 8), 1);
  EXPECT_EQ(out[0], 'x');
}

TEST(Lzw, CodeRules) {
  // 'a' 'b' then 257 = "ab"; 259 is the next free code: the previous string
  // and its own first byte ("ab" + "a"); then 259 as defined by now.
  const Bytes z = pack({'a', 'b', 257, 259, 259});
  const Bytes want = {'a', 'b', 'a', 'b', 'a', 'b', 'a', 'a', 'b', 'a'};
  int n = 0;
  EXPECT_EQ(decode(z, 64, &n), want);
  EXPECT_EQ(n, 10);

  // After a clear, new entries start again at 257 (the first one lands on
  // 256, which is never looked up).
  const Bytes zc = pack({'p', 'q', 256, 'x', 'y', 257, 258});
  EXPECT_EQ(decode(zc, 64), (Bytes{'p', 'q', 'x', 'y', 'x', 'y', 'y', 'x'}));
}

TEST(Lzw, WidthGrowsWithTheDictionary) {
  // Enough codes to pass 511, 1023 and 2047 entries and fill the table:
  // single bytes, each adding an entry; the last ones name long entries.
  std::vector<int> codes;
  Bytes want;
  for (int i = 0; i < 4200; ++i) {
    const int c = (i * 7 + i / 256) & 0xFF;
    codes.push_back(c);
    want.push_back((unsigned char)c);
  }
  // Entry 257 + k is (byte k, byte k+1); name a few from every width.
  for (int e : {300, 600, 1500, 3000, 4095}) {
    codes.push_back(e);
    const int k = e - 257;
    want.push_back(want[(size_t)k]);
    want.push_back(want[(size_t)k + 1]);
  }
  EXPECT_EQ(decode(pack(codes), want.size() + 10), want);
}

TEST(Lzw, CountWhenOutputTooSmall) {
  // Strings a, b, ab, aba, aba (ending at 1, 2, 4, 7, 10): the count is the
  // room plus one for the string that no longer fits, then one per further code.
  const Bytes z = pack({'a', 'b', 257, 259, 259});
  const Bytes full = {'a', 'b', 'a', 'b', 'a', 'b', 'a', 'a', 'b', 'a'};
  const int rows[][2] = {{1, 5}, {3, 6}, {4, 6}, {7, 8}, {9, 10}, {10, 10}};
  for (const auto &[cap, count] : rows) {
    int n = 0;
    const Bytes got = decode(z, (size_t)cap, &n);
    EXPECT_TRUE(std::equal(got.begin(), got.end(), full.begin())) << cap;
    EXPECT_EQ(n, count) << cap;
  }
}

TEST(Lzw, CorruptStreamsStayInBounds) {
  // An entry whose prefix is itself: the chain never ends.
  const Bytes loop = pack({'a', 258, 'a', 258, 'b'});
  unsigned char out[64];
  const int n = dcmprss(loop.data(), (int)loop.size(), out, sizeof out);
  EXPECT_GE(n, 1);
  EXPECT_LE(n, (int)sizeof out);

  // Long strings after the output is full: only the count grows.
  std::vector<int> codes = {'z'};
  for (int e = 257; e < 4096; ++e) codes.push_back(e);  // each the previous string + 1 byte
  const Bytes z = pack(codes);
  int count = 0;
  decode(z, 1, &count);
  EXPECT_EQ(count, (int)codes.size());
  // In full: strings of 1, 2, ... 3840 bytes.
  const size_t total = codes.size() * (codes.size() + 1) / 2;
  const Bytes all = decode(z, total + 1, &count);
  EXPECT_EQ(count, (int)total);
  EXPECT_EQ(std::count(all.begin(), all.end(), 'z'), (ptrdiff_t)total);
  // Garbage of every kind: no crash, the count stays plausible.
  Bytes junk = gen_random(50000, 99);
  std::vector<unsigned char> big(1 << 20);
  EXPECT_LE(dcmprss(junk.data(), (int)junk.size(), big.data(), (int)big.size()), (int)big.size());
}

TEST(Lzw, ChunkOutlivesAZeroRoomCall) {
  // A call with no room reads the first code and leaves the rest of that
  // chunk in the thread's buffer; the next call on this thread starts there.
  std::thread([] {
    const Bytes first = pack({'x', 'y', 'z'}), second = pack({'a', 'b', 'c'});
    unsigned char out[16];
    EXPECT_EQ(dcmprss(first.data(), (int)first.size(), out, 0), 0);
    const int n = dcmprss(second.data(), (int)second.size(), out, sizeof out);
    EXPECT_EQ(std::string((char *)out, (size_t)n), "yzabc");
    // A completed call leaves nothing behind.
    EXPECT_EQ(dcmprss(second.data(), (int)second.size(), out, sizeof out), 3);
    EXPECT_EQ(std::string((char *)out, 3), "abc");
    T_threadexit();
  }).join();
}

TEST(Lzw, ThreadsDecodeIndependently) {
  const Bytes z = tool_stream("mixed");
  const Bytes want = gen_mixed(36000, 4);
  std::vector<std::thread> ts;
  for (int t = 0; t < 4; ++t)
    ts.emplace_back([&] {
      for (int i = 0; i < 20; ++i) EXPECT_EQ(decode(z, want.size()), want);
      T_threadexit();
    });
  for (auto &t : ts) t.join();
}
