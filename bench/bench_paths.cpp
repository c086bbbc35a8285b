// canon and fullcanon over a corpus of realistic paths (deep trees, UNC
// names, drive-relative names, mixed separators), one pass over the corpus
// per iteration, against memcpy of the same bytes measured in the same run.
// Prints calls per second and the canon/memcpy ratio: from separate runs, and
// (the one the goal of at most 8x is read from) from one run that takes the
// two in turns, so that a change in the machine's speed between runs cannot
// tilt it.
#include "ratio_main.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <liblocal/path.h>

namespace {

struct Corpus {
  std::vector<std::string> paths;
  size_t bytes = 0;
  size_t longest = 0;
  Corpus() {
    const char *tops[] = {"C:\\Users\\alice\\Documents", "d:/Projects/liblocal/src", "\\\\fileserver\\backup\\daily",
                          "E:\\data\\..\\archive\\2023", "relative\\dir", "C:dir\\sub", "/home/bob/src/tree",
                          "\\\\?\\UNC\\nas\\vol1\\home", "C:\\Program Files (x86)\\Vendor\\App\\bin"};
    const char *leaves[] = {"report.docx", "main.cpp", ".\\notes.txt", "..\\sibling\\file.bin", "a//b\\\\c.txt",
                            "photo\xc3\xa9t\xc3\xa9.jpg", "x.tar.gz"};
    unsigned seed = 7;
    for (int i = 0; i < 2000; ++i) {
      std::string p = tops[i % (sizeof tops / sizeof *tops)];
      seed = seed * 1103515245 + 12345;
      const int depth = 2 + static_cast<int>((seed >> 16) % 12);
      for (int d = 0; d < depth; ++d) {
        p += (d % 3 == 2) ? "/" : "\\";
        p += "dir" + std::to_string((seed >> (d % 16)) % 97);
      }
      p += "\\";
      p += leaves[(seed >> 8) % (sizeof leaves / sizeof *leaves)];
      bytes += p.size() + 1;
      if (p.size() > longest) longest = p.size();
      paths.push_back(std::move(p));
    }
  }
};

const Corpus &corpus() {
  static const Corpus c;
  return c;
}

void BM_memcpy(benchmark::State &state) {
  const Corpus &c = corpus();
  std::vector<char> buf(c.longest + 4096);
  for (auto _ : state) {
    for (const auto &p : c.paths) {
      std::memcpy(buf.data(), p.c_str(), p.size() + 1);
      benchmark::DoNotOptimize(buf.data());
      benchmark::ClobberMemory();
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * c.bytes));
  state.counters["calls/s"] = benchmark::Counter(static_cast<double>(state.iterations() * c.paths.size()),
                                                 benchmark::Counter::kIsRate);
}

void BM_canon(benchmark::State &state) {
  const Corpus &c = corpus();
  std::vector<char> buf(c.longest + 4096);
  for (auto _ : state) {
    for (const auto &p : c.paths) {
      canon(p.c_str(), buf.data());
      benchmark::DoNotOptimize(buf.data());
      benchmark::ClobberMemory();
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * c.bytes));
  state.counters["calls/s"] = benchmark::Counter(static_cast<double>(state.iterations() * c.paths.size()),
                                                 benchmark::Counter::kIsRate);
}

void BM_fullcanon(benchmark::State &state) {
  const Corpus &c = corpus();
  std::vector<char> buf(c.longest + 4096);
  for (auto _ : state) {
    for (const auto &p : c.paths) {
      fullcanon(p.c_str(), buf.data(), "C:\\work\\current\\dir");
      benchmark::DoNotOptimize(buf.data());
      benchmark::ClobberMemory();
    }
  }
  state.counters["calls/s"] = benchmark::Counter(static_cast<double>(state.iterations() * c.paths.size()),
                                                 benchmark::Counter::kIsRate);
}

// canon and memcpy over the corpus in turns within every iteration, so that
// whatever else the machine is doing falls on both alike: the ratio this
// program stands by.
double g_interleaved = 0;
void BM_canon_interleaved(benchmark::State &state) {
  const Corpus &c = corpus();
  std::vector<char> buf(c.longest + 4096);
  using Clock = std::chrono::steady_clock;
  Clock::duration copying{}, canonical{};
  for (auto _ : state) {
    const auto t0 = Clock::now();
    for (const auto &p : c.paths) {
      std::memcpy(buf.data(), p.c_str(), p.size() + 1);
      benchmark::DoNotOptimize(buf.data());
      benchmark::ClobberMemory();
    }
    const auto t1 = Clock::now();
    for (const auto &p : c.paths) {
      canon(p.c_str(), buf.data());
      benchmark::DoNotOptimize(buf.data());
      benchmark::ClobberMemory();
    }
    const auto t2 = Clock::now();
    copying += t1 - t0;
    canonical += t2 - t1;
  }
  g_interleaved = std::chrono::duration<double>(canonical) / std::chrono::duration<double>(copying);
  state.counters["canon/memcpy"] = g_interleaved;
}

BENCHMARK(BM_memcpy);
BENCHMARK(BM_canon);
BENCHMARK(BM_fullcanon);
BENCHMARK(BM_canon_interleaved)->MinTime(2.0);

void print_ratios(const llbench::Results &results_) {
  double base = 0;
  for (auto &r : results_)
    if (r.first == "BM_memcpy") base = r.second;
  const double n = static_cast<double>(corpus().paths.size());
  for (auto &r : results_) {
    if (r.first == "BM_memcpy" || base <= 0) continue;
    if (r.first.rfind("BM_canon_interleaved", 0) == 0) continue;
    std::printf("ratio %-14s %.2fx memcpy (separate runs), %.0f calls per second\n", r.first.c_str(),
                r.second / base, n / (r.second * 1e-9));
  }
  if (g_interleaved > 0)
    std::printf("ratio canon / memcpy, taken in turns in every iteration: %.2fx (goal <= 8.0x)\n", g_interleaved);
}

}  // namespace

int main(int argc, char **argv) { return llbench::run(argc, argv, print_ratios); }
