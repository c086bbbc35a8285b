// sha_update against OpenSSL's SHA-1 (EVP) on 1 GiB in memory, and
// update_posix_crc against a slice-by-8 table loop on the same data (1 MiB
// blocks that stay in cache, and the whole 1 GiB). Prints the ratios (goals:
// SHA-1 >= 0.8x OpenSSL, CRC >= 3x slice-by-8).
//
//   bench_digest --crc-file PATH   prints crc() of a file like cksum does
//   (bench_crc_file.sh compares that, as a whole process, with cksum).
#include "ratio_main.h"
#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <liblocal/digest.h>

extern "C" int llt_sha_update_path(int path, sha_ctx *ctx, const void *buf, size_t len) noexcept;
extern "C" int llt_update_posix_crc_path(int path, uint32_t *state, const void *buf, uint32_t len) noexcept;

namespace {

constexpr size_t kBig = size_t(1) << 30;
constexpr size_t kSmall = size_t(1) << 20;

const std::vector<unsigned char> &buffer() {
  static const std::vector<unsigned char> b = [] {
    std::vector<unsigned char> v(kBig);
    uint64_t x = 88172645463325252ull;
    for (size_t i = 0; i < v.size(); i += 8) {
      x ^= x << 13;
      x ^= x >> 7;
      x ^= x << 17;
      std::memcpy(&v[i], &x, 8);
    }
    return v;
  }();
  return b;
}

// The peer: slice-by-8 over the most-significant-bit-first table.
struct Slice8 {
  uint32_t t[8][256];
  Slice8() {
    for (uint32_t i = 0; i < 256; ++i) {
      uint32_t c = i << 24;
      for (int k = 0; k < 8; ++k) c = (c & 0x80000000u) ? (c << 1) ^ 0x04C11DB7u : c << 1;
      t[0][i] = c;
    }
    for (int k = 1; k < 8; ++k)
      for (int i = 0; i < 256; ++i) t[k][i] = (t[k - 1][i] << 8) ^ t[0][t[k - 1][i] >> 24];
  }
  uint32_t update(uint32_t s, const unsigned char *p, size_t n) const {
    for (; n >= 8; p += 8, n -= 8) {
      const uint32_t w = s ^ ((uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3]);
      s = t[7][w >> 24] ^ t[6][(w >> 16) & 255] ^ t[5][(w >> 8) & 255] ^ t[4][w & 255] ^ t[3][p[4]] ^
          t[2][p[5]] ^ t[1][p[6]] ^ t[0][p[7]];
    }
    while (n--) s = (s << 8) ^ t[0][(s >> 24) ^ *p++];
    return s;
  }
};

void BM_sha_update(benchmark::State &state) {
  const auto &b = buffer();
  const int path = (int)state.range(0);
  for (auto _ : state) {
    sha_ctx c;
    sha_init(&c);
    if (path < 0)
      sha_update(&c, b.data(), b.size());
    else
      llt_sha_update_path(path, &c, b.data(), b.size());
    benchmark::DoNotOptimize(c.digest[0]);
  }
  state.SetBytesProcessed((int64_t)(state.iterations() * b.size()));
}

void BM_openssl_sha1(benchmark::State &state) {
  const auto &b = buffer();
  EVP_MD_CTX *ctx = EVP_MD_CTX_new();
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned len;
  for (auto _ : state) {
    EVP_DigestInit_ex(ctx, EVP_sha1(), nullptr);
    EVP_DigestUpdate(ctx, b.data(), b.size());
    EVP_DigestFinal_ex(ctx, md, &len);
    benchmark::DoNotOptimize(md[0]);
  }
  EVP_MD_CTX_free(ctx);
  state.SetBytesProcessed((int64_t)(state.iterations() * b.size()));
}

void BM_update_posix_crc(benchmark::State &state) {
  const auto &b = buffer();
  const size_t n = (size_t)state.range(0);
  uint32_t s = 0;
  for (auto _ : state)
    for (size_t o = 0; o < kBig && o + n <= kBig; o += n) {
      update_posix_crc(&s, b.data() + o % (n == kSmall ? kSmall : kBig), (uint32_t)n);
      if (n == kSmall && o >= 256 * kSmall) break;
    }
  benchmark::DoNotOptimize(s);
  state.SetBytesProcessed((int64_t)(state.iterations() * (n == kSmall ? 257 * kSmall : kBig)));
}

void BM_slice8(benchmark::State &state) {
  static const Slice8 tab;
  const auto &b = buffer();
  const size_t n = (size_t)state.range(0);
  uint32_t s = 0;
  for (auto _ : state)
    for (size_t o = 0; o < kBig && o + n <= kBig; o += n) {
      s = tab.update(s, b.data() + o % (n == kSmall ? kSmall : kBig), n);
      if (n == kSmall && o >= 256 * kSmall) break;
    }
  benchmark::DoNotOptimize(s);
  state.SetBytesProcessed((int64_t)(state.iterations() * (n == kSmall ? 257 * kSmall : kBig)));
}

BENCHMARK(BM_sha_update)->Arg(-1)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_openssl_sha1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_update_posix_crc)->Arg(kSmall)->Arg(kBig)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_slice8)->Arg(kSmall)->Arg(kBig)->Unit(benchmark::kMillisecond);

void print_ratios(const llbench::Results &results) {
  std::map<std::string, double> time(results.begin(), results.end());
  auto ratio = [&](const std::string &ours, const std::string &peer, const char *what, double goal) {
    if (time.count(ours) && time.count(peer))
      std::printf("ratio %-28s %.2fx %s (goal >= %.1fx)\n", ours.c_str() + 3, time[peer] / time[ours], what, goal);
  };
  ratio("BM_sha_update/-1", "BM_openssl_sha1", "OpenSSL SHA-1", 0.8);
  ratio("BM_sha_update/0", "BM_openssl_sha1", "OpenSSL SHA-1 (portable path)", 0);
  ratio("BM_sha_update/1", "BM_openssl_sha1", "OpenSSL SHA-1 (SSSE3 schedule)", 0);
  ratio("BM_update_posix_crc/1048576", "BM_slice8/1048576", "slice-by-8, 1 MiB in cache", 3);
  ratio("BM_update_posix_crc/1073741824", "BM_slice8/1073741824", "slice-by-8, 1 GiB", 3);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 3 && std::strcmp(argv[1], "--crc-file") == 0) {
    const int fd = open(argv[2], O_RDONLY);
    uint32_t v, n;
    if (fd < 0 || crc(fd, &v, &n) != 0) return 1;
    std::printf("%u %u %s\n", v, n, argv[2]);
    return 0;
  }
  return llbench::run(argc, argv, print_ratios);
}
