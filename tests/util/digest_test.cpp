// cksum CRC and SHA-1: published vectors, values of coreutils cksum and
// sha1sum for fixed data (and, on POSIX, for fresh files run through the real
// tools), every code path against the others, and the descriptor reader.
#include <gtest/gtest.h>

#include <fcntl.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <liblocal.h>

#include "lltest.h"

#ifdef _WIN32
#include <io.h>
#else
#include <unistd.h>
#endif
#ifndef O_BINARY
#define O_BINARY 0
#endif

extern "C" {
int llt_update_posix_crc_path(int path, uint32_t *state, const void *buf, uint32_t len) noexcept;
int llt_sha_update_path(int path, sha_ctx *ctx, const void *buf, size_t len) noexcept;
int llt_sha_final_path(int path, unsigned char digest[20], sha_ctx *ctx) noexcept;
}

namespace {

using Bytes = std::vector<unsigned char>;

Bytes gen(size_t n, uint32_t x) {
  Bytes b(n);
  for (auto &c : b) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    c = (unsigned char)(x >> 24);
  }
  return b;
}

// coreutils cksum and sha1sum over gen(n, 0x9E3779B9 ^ n).
struct Known {
  size_t n;
  uint32_t cksum;
  const char *sha1;
};
const Known kKnown[] = {
    {0, 0xFFFFFFFFu, "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
    {1, 0x7830D4CBu, "c3156e00d3c2588c639e0d3cf6821258b05761c7"},
    {55, 0xA48C9892u, "71e16f47cdc10bc56b83f50d2f57fd960c272c67"},
    {56, 0x68544FA8u, "600dd436824ac3b594141066ead96dbb19f27018"},
    {64, 0xC10D902Eu, "5b5c450f4cd844fffe9045cf7570c6ae7a41cd62"},
    {65, 0x376D46E8u, "17323718df615bda23ff7612dc30dfcb14bba5fd"},
    {120, 0xD85682E4u, "7254b9447b38b306a5bc1fd064055b8e2335247a"},
    {16384, 0x5909FE24u, "2310ed0808dfe9331ca60c23dfebe9ed5d3c0376"},
    {16385, 0xF06DD9A9u, "f576346978f627d2d47725eeff35d4ac56539d93"},
    {3145735, 0xEB6CC9A9u, "b249d8bac1ab118c1fcca191fb191669941a10b0"},
};

std::string plain_hex(const unsigned char d[20]) {
  char t[SHA_TEXT_SIZE];
  std::string s = sha_to_string(d, t);
  s.erase(std::remove(s.begin(), s.end(), ' '), s.end());
  return s;
}

std::string sha_text(const void *p, size_t n) {
  sha_ctx c;
  unsigned char d[20];
  char t[SHA_TEXT_SIZE];
  sha_init(&c);
  sha_update(&c, p, n);
  sha_final(d, &c);
  return sha_to_string(d, t);
}

uint32_t cksum_of(const void *p, size_t n) {
  uint32_t s;
  init_posix_crc(&s);
  update_posix_crc(&s, p, (uint32_t)n);
  final_posix_crc(&s, (uint32_t)n, (uint32_t)((uint64_t)n >> 32));
  return s;
}

// crc() over a file holding the bytes.
int crc_file(const lltest::TempDir &dir, const Bytes &b, uint32_t *value, uint32_t *len) {
  dir.write("f", std::string(b.begin(), b.end()));
  const int fd = open(dir.file("f").c_str(), O_RDONLY | O_BINARY);
  EXPECT_GE(fd, 0);
  const int rc = crc(fd, value, len);
  close(fd);
  return rc;
}

// sha_stream over a file, as plain hexadecimal.
std::string sha_file(const std::string &path) {
  FILE *f = std::fopen(path.c_str(), "rb");
  EXPECT_NE(f, nullptr) << path;
  if (!f) return "";
  sha_ctx c;
  unsigned char d[20];
  sha_stream(d, &c, f);
  std::fclose(f);
  return plain_hex(d);
}

}  // namespace

TEST(Crc, PublishedValues) {
  EXPECT_EQ(cksum_of("123456789", 9), 0x377A6011u);
  EXPECT_EQ(cksum_of("", 0), 0xFFFFFFFFu);
  // The final length goes in low byte first, as many bytes as it has; a
  // 64-bit length is the same as its five bytes run through an update.
  uint32_t a = 0x12345678, b = 0x12345678;
  final_posix_crc(&a, 0, 1);
  update_posix_crc(&b, "\x00\x00\x00\x00\x01", 5);
  EXPECT_EQ(a, ~b);
}

TEST(Crc, PathsAgreeOnEveryLengthAndSplit) {
  const Bytes b = gen(5000, 77);
  std::mt19937 rng(5);
  for (uint32_t len = 0; len < 700; ++len) {
    const uint32_t off = rng() % 64;
    uint32_t s0 = rng(), s1 = s0;
    ASSERT_EQ(llt_update_posix_crc_path(0, &s0, b.data() + off, len), 0);
    if (llt_update_posix_crc_path(1, &s1, b.data() + off, len) < 0) GTEST_SKIP() << "no carry-less multiply";
    ASSERT_EQ(s0, s1) << len;
  }
  // Incremental updates of any split give the one-shot value.
  const uint32_t whole = cksum_of(b.data(), b.size());
  for (int i = 0; i < 50; ++i) {
    uint32_t s;
    init_posix_crc(&s);
    size_t pos = 0;
    while (pos < b.size()) {
      const size_t n = std::min<size_t>(b.size() - pos, rng() % 300);
      update_posix_crc(&s, b.data() + pos, (uint32_t)n);
      pos += n;
    }
    final_posix_crc(&s, (uint32_t)b.size(), 0);
    EXPECT_EQ(s, whole);
  }
}

TEST(Crc, FailedReadStoresNothing) {
  lltest::TempDir dir;
  const int fd = open(dir.file("w").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_BINARY, 0600);
  ASSERT_GE(fd, 0);
  uint32_t v = 7, len = 9;
  EXPECT_EQ(crc(fd, &v, &len), 1);  // not open for reading
  EXPECT_EQ(v, 7u);
  EXPECT_EQ(len, 9u);
  close(fd);
}

TEST(Sha1, PublishedVectors) {
  EXPECT_EQ(sha_text("abc", 3), "a9993e36 4706816a ba3e2571 7850c26c 9cd0d89d");
  EXPECT_EQ(sha_text("", 0), "da39a3ee 5e6b4b0d 3255bfef 95601890 afd80709");
  const char *m56 = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
  EXPECT_EQ(sha_text(m56, 56), "84983e44 1c3bd26e baae4aa1 f95129e5 e54670f1");
  const std::string million(1000000, 'a');
  EXPECT_EQ(sha_text(million.data(), million.size()), "34aa973c d4c4daa4 f61eeb2b dbad2731 6534016f");
}

TEST(Digest, KnownDataEveryPathAndFile) {
  lltest::TempDir dir;
  for (const Known &k : kKnown) {
    SCOPED_TRACE(k.n);
    const Bytes b = gen(k.n, 0x9E3779B9u ^ (uint32_t)k.n);
    EXPECT_EQ(cksum_of(b.data(), b.size()), k.cksum);
    uint32_t v = 0, len = 1;
    ASSERT_EQ(crc_file(dir, b, &v, &len), 0);
    EXPECT_EQ(v, k.cksum);
    EXPECT_EQ(len, (uint32_t)k.n);
    for (int path = 0; path < 3; ++path) {
      sha_ctx c;
      unsigned char d[20];
      sha_init(&c);
      if (llt_sha_update_path(path, &c, b.data(), b.size()) < 0) continue;  // not on this processor
      EXPECT_EQ(c.local, (int)(k.n % 64));
      ASSERT_EQ(llt_sha_final_path(path, d, &c), 0);
      EXPECT_EQ(plain_hex(d), k.sha1) << "path " << path;
    }
    EXPECT_EQ(sha_file(dir.file("f")), k.sha1);  // the file crc_file wrote
  }
}

TEST(Sha1, SplitUpdatesAndReturnValue) {
  const Bytes b = gen(10000, 3);
  const std::string whole = sha_text(b.data(), b.size());
  std::mt19937 rng(9);
  for (int i = 0; i < 40; ++i) {
    sha_ctx c;
    sha_init(&c);
    size_t pos = 0;
    while (pos < b.size()) {
      const size_t n = std::min<size_t>(b.size() - pos, rng() % 200);
      const int left = sha_update(&c, b.data() + pos, n);
      pos += n;
      EXPECT_EQ(left, (int)(pos % 64));
    }
    unsigned char d[20];
    char t[SHA_TEXT_SIZE];
    sha_final(d, &c);
    EXPECT_EQ(sha_to_string(d, t), whole);
  }
  // The 64-bit bit count: 2^29 bytes carry into count_hi.
  sha_ctx c;
  sha_init(&c);
  c.count_lo = 0xFFFFFFF8u;
  sha_update(&c, "x", 1);
  EXPECT_EQ(c.count_hi, 1u);
  EXPECT_EQ(c.count_lo, 0u);
}

#ifndef _WIN32
// Fresh random files against the real tools.
namespace {
std::string run(const std::string &cmd) {
  std::string out;
  FILE *p = popen(cmd.c_str(), "r");
  if (!p) return out;
  char buf[256];
  while (std::fgets(buf, sizeof buf, p)) out += buf;
  pclose(p);
  return out;
}
}  // namespace

TEST(Digest, LiveAgainstCksumAndSha1sum) {
  lltest::TempDir dir;
  std::random_device rd;
  const uint32_t seed = rd() | 1;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  std::vector<size_t> sizes = {0, 55, 56, 64, 8192, 16384 * 3 + 5, 5 * 1024 * 1024 + 3};
  for (int i = 0; i < 5; ++i) sizes.push_back(rng() % 100000);
  for (size_t n : sizes) {
    SCOPED_TRACE(n);
    const Bytes b = gen(n, rng() | 1);
    dir.write("live", std::string(b.begin(), b.end()));
    const std::string path = dir.file("live");
    unsigned long want_crc = 0, want_len = 0;
    ASSERT_EQ(std::sscanf(run("cksum < '" + path + "'").c_str(), "%lu %lu", &want_crc, &want_len), 2);
    uint32_t v = 0, len = 0;
    ASSERT_EQ(crc_file(dir, b, &v, &len), 0);
    EXPECT_EQ(v, (uint32_t)want_crc);
    EXPECT_EQ(len, (uint32_t)want_len);
    EXPECT_EQ(cksum_of(b.data(), b.size()), (uint32_t)want_crc);
    EXPECT_EQ(sha_file(path), run("sha1sum < '" + path + "'").substr(0, 40));
  }
}
#endif
