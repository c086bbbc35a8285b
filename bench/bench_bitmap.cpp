// Searching a sparse 16-Mbit bitmap: qzbitmap_next_set / qzbitmap_next_clr
// (a word at a time) against a bit-by-bit loop over the same words. Prints
// "ratio" lines: bit-by-bit time / library time (goal >= 20x), in CPU time
// (the benchmark is single-threaded; CPU time is steadier on a shared host).
#include "ratio_main.h"

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include <liblocal/bitmap.h>

namespace {

constexpr uint32_t kBits = 16u << 20;

// One bit in about 4096 set (or, for the clear search, cleared).
qzbitmap *sparse(bool inverted) {
  static qzbitmap *maps[2];
  if (!maps[inverted]) {
    qzbitmap *m = qzbitmap_new(kBits, nullptr, inverted ? 255 : 0, nullptr, 0);
    std::mt19937 rng(5);
    for (int i = 0; i < 4096; ++i) {
      uint32_t b = rng() % kBits;
      if (inverted)
        qzbitmap_clr(m, b);
      else
        qzbitmap_set(m, b);
    }
    maps[inverted] = m;
  }
  return maps[inverted];
}

// The peer: test one bit after another.
uint32_t bitwise_next(const qzbitmap *m, uint32_t i, bool want) {
  for (; i < m->size; ++i)
    if (((m->bits[i >> 5] >> (i & 31)) & 1u) == static_cast<uint32_t>(want)) return i;
  return QZBITMAP_NONE;
}

void BM_next_set_library(benchmark::State &state) {
  const qzbitmap *m = sparse(false);
  for (auto _ : state) {
    uint32_t n = 0;
    for (uint32_t i = qzbitmap_next_set(m, 0); i < m->size; i = qzbitmap_next_set(m, i + 1)) ++n;
    benchmark::DoNotOptimize(n);
  }
}
void BM_next_set_bitwise(benchmark::State &state) {
  const qzbitmap *m = sparse(false);
  for (auto _ : state) {
    uint32_t n = 0;
    for (uint32_t i = bitwise_next(m, 0, true); i < m->size; i = bitwise_next(m, i + 1, true)) ++n;
    benchmark::DoNotOptimize(n);
  }
}
void BM_next_clr_library(benchmark::State &state) {
  const qzbitmap *m = sparse(true);
  for (auto _ : state) {
    uint32_t n = 0;
    for (uint32_t i = qzbitmap_next_clr(m, 0); i < m->size; i = qzbitmap_next_clr(m, i + 1)) ++n;
    benchmark::DoNotOptimize(n);
  }
}
void BM_next_clr_bitwise(benchmark::State &state) {
  const qzbitmap *m = sparse(true);
  for (auto _ : state) {
    uint32_t n = 0;
    for (uint32_t i = bitwise_next(m, 0, false); i < m->size; i = bitwise_next(m, i + 1, false)) ++n;
    benchmark::DoNotOptimize(n);
  }
}

BENCHMARK(BM_next_set_library)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_next_set_bitwise)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_next_clr_library)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_next_clr_bitwise)->Unit(benchmark::kMillisecond);

void print_ratios(const llbench::Results &times_) {
  for (const char *op : {"next_set", "next_clr"}) {
    double lib = 0, peer = 0;
    for (auto &t : times_) {
      if (t.first.find(op) == std::string::npos) continue;
      (t.first.find("library") != std::string::npos ? lib : peer) = t.second;
    }
    if (lib > 0)
      std::printf("ratio qzbitmap_%s %.1fx the bit-by-bit loop (16-Mbit map, 1 bit in 4096; goal >= 20x)\n", op,
                  peer / lib);
  }
}

}  // namespace

int main(int argc, char **argv) { return llbench::run(argc, argv, print_ratios); }
