// cv_compress / cv_decompress against LZ4 on the same 64 KiB blocks of a
// mixed corpus. Blocks cv_compress refuses are kept raw and copied back, as a
// caller stores them. Prints speed ratios to LZ4 (goals: >= 0.35x compress,
// >= 0.40x decompress).
#include "ratio_main.h"
#include <lz4.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <liblocal/codec.h>

#include "codec_corpus.h"

namespace {

struct Data {
  std::string corpus;
  std::vector<std::pair<size_t, size_t>> blocks;  // offset, length
  std::vector<std::string> cv, lz;                // compressed blocks ("" = kept raw)
  size_t cv_bytes = 0, lz_bytes = 0;
};

Data &data() {
  static Data d = [] {
    Data d;
    d.corpus = corpus::build();
    for (size_t o = 0; o < d.corpus.size(); o += corpus::kBlock)
      d.blocks.push_back({o, std::min(corpus::kBlock, d.corpus.size() - o)});
    std::string out(corpus::kBlock + 1024, '\0'), back(corpus::kBlock + 1024, '\0');
    for (auto [o, n] : d.blocks) {
      const char *src = d.corpus.data() + o;
      int z = cv_compress(src, out.data(), (uint32_t)n, (uint32_t)out.size());
      d.cv.push_back(z < 0 ? std::string() : out.substr(0, (size_t)z));
      d.cv_bytes += z < 0 ? n : (size_t)z;
      if (z >= 0 && (cv_decompress(out.data(), (uint32_t)z, back.data(), (uint32_t)back.size()) != (int)n ||
                     std::memcmp(back.data(), src, n) != 0)) {
        std::fprintf(stderr, "cv round trip failed at block %zu\n", o);
        std::exit(1);
      }
      z = LZ4_compress_default(src, out.data(), (int)n, (int)out.size());
      d.lz.push_back(out.substr(0, (size_t)z));
      d.lz_bytes += (size_t)z;
    }
    std::printf("corpus %zu bytes in %zu blocks; cv_compress -> %.1f%%, LZ4 -> %.1f%%\n", d.corpus.size(),
                d.blocks.size(), 100.0 * (double)d.cv_bytes / (double)d.corpus.size(),
                100.0 * (double)d.lz_bytes / (double)d.corpus.size());
    return d;
  }();
  return d;
}

void BM_cv_compress(benchmark::State &state) {
  Data &d = data();
  std::string out(corpus::kBlock + 1024, '\0');
  for (auto _ : state)
    for (auto [o, n] : d.blocks)
      benchmark::DoNotOptimize(cv_compress(d.corpus.data() + o, out.data(), (uint32_t)n, (uint32_t)out.size()));
  state.SetBytesProcessed((int64_t)(state.iterations() * d.corpus.size()));
}

void BM_lz4_compress(benchmark::State &state) {
  Data &d = data();
  std::string out(corpus::kBlock + 1024, '\0');
  for (auto _ : state)
    for (auto [o, n] : d.blocks)
      benchmark::DoNotOptimize(LZ4_compress_default(d.corpus.data() + o, out.data(), (int)n, (int)out.size()));
  state.SetBytesProcessed((int64_t)(state.iterations() * d.corpus.size()));
}

void BM_cv_decompress(benchmark::State &state) {
  Data &d = data();
  std::string out(corpus::kBlock + 1024, '\0');
  for (auto _ : state)
    for (size_t i = 0; i < d.blocks.size(); ++i) {
      if (d.cv[i].empty())
        std::memcpy(out.data(), d.corpus.data() + d.blocks[i].first, d.blocks[i].second);
      else
        benchmark::DoNotOptimize(
            cv_decompress(d.cv[i].data(), (uint32_t)d.cv[i].size(), out.data(), (uint32_t)out.size()));
      benchmark::ClobberMemory();
    }
  state.SetBytesProcessed((int64_t)(state.iterations() * d.corpus.size()));
}

void BM_lz4_decompress(benchmark::State &state) {
  Data &d = data();
  std::string out(corpus::kBlock + 1024, '\0');
  for (auto _ : state)
    for (size_t i = 0; i < d.blocks.size(); ++i) {
      benchmark::DoNotOptimize(
          LZ4_decompress_safe(d.lz[i].data(), out.data(), (int)d.lz[i].size(), (int)out.size()));
      benchmark::ClobberMemory();
    }
  state.SetBytesProcessed((int64_t)(state.iterations() * d.corpus.size()));
}

BENCHMARK(BM_cv_compress)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_lz4_compress)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_cv_decompress)->Unit(benchmark::kMillisecond)->MinTime(2);
BENCHMARK(BM_lz4_decompress)->Unit(benchmark::kMillisecond)->MinTime(2);

void print_ratios(const llbench::Results &results) {
  auto ratio = [&](const char *ours, const char *peer, double goal) {
    const double a = llbench::time_of(results, ours), b = llbench::time_of(results, peer);
    if (a > 0 && b > 0) std::printf("ratio %-18s %.2fx LZ4's speed (goal >= %.2fx)\n", ours + 3, b / a, goal);
  };
  ratio("BM_cv_compress", "BM_lz4_compress", 0.35);
  ratio("BM_cv_decompress", "BM_lz4_decompress", 0.40);
}

}  // namespace

int main(int argc, char **argv) { return llbench::run(argc, argv, print_ratios); }
