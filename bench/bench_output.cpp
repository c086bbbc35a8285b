// Output layer costs: a disabled trace (goal <= 5 ns per call) and the
// library formatter against the runtime's snprintf on plain ASCII %s/%d
// formats (goal >= 0.5x the runtime's speed, i.e. time ratio <= 2.0).
// Ratios use CPU time: the build machine is shared.
#include "ratio_main.h"

#include <cstdio>
#include <string>
#include <vector>

#include <liblocal.h>

namespace {

void BM_dprintf_disabled(benchmark::State &state) {
  Debug = 0;
  int i = 0;
  for (auto _ : state) {
    dprintf(3, "%s: value %d of %s\n", "name", ++i, "thing");
    benchmark::ClobberMemory();
  }
}

// The exported entry point itself, without the header's inline check.
void BM_ll_dprintf_call_disabled(benchmark::State &state) {
  Debug = 0;
  int i = 0;
  for (auto _ : state) {
    ll_dprintf(3, "%s: value %d of %s\n", "name", ++i, "thing");
    benchmark::ClobberMemory();
  }
}

const char *kFmt = "file %s is %d bytes long, %s (%d of %d)\n";

void BM_snprintf_ascii(benchmark::State &state) {
  char buf[256];
  int i = 0;
  for (auto _ : state) {
    int n = std::snprintf(buf, sizeof buf, kFmt, "C:\\data\\archive.dat", 123456 + i, "unchanged", i, 4096);
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(buf);
    ++i;
  }
}

void BM_qzsnprintf_ascii(benchmark::State &state) {
  char buf[256];
  int i = 0;
  for (auto _ : state) {
    int n = qzsnprintf(buf, sizeof buf, kFmt, "C:\\data\\archive.dat", 123456 + i, "unchanged", i, 4096);
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(buf);
    ++i;
  }
}

const char *kWideFmt = "%-20s|%8d|%-12s|%5d\n";

void BM_snprintf_widths(benchmark::State &state) {
  char buf[256];
  int i = 0;
  for (auto _ : state) {
    int n = std::snprintf(buf, sizeof buf, kWideFmt, "archive.dat", i, "ok", -i);
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(buf);
    ++i;
  }
}

void BM_qzsnprintf_widths(benchmark::State &state) {
  char buf[256];
  int i = 0;
  for (auto _ : state) {
    int n = qzsnprintf(buf, sizeof buf, kWideFmt, "archive.dat", i, "ok", -i);
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(buf);
    ++i;
  }
}

BENCHMARK(BM_dprintf_disabled);
BENCHMARK(BM_ll_dprintf_call_disabled);
BENCHMARK(BM_snprintf_ascii);
BENCHMARK(BM_qzsnprintf_ascii);
BENCHMARK(BM_snprintf_widths);
BENCHMARK(BM_qzsnprintf_widths);

void print_ratios(const llbench::Results &results_) {
  auto t = [&](const char *name) {
    for (auto &r : results_)
      if (r.first == name) return r.second;
    return 0.0;
  };
  std::printf("disabled dprintf: %.2f ns per call through the header, %.2f ns for the bare call (goal <= 5 ns)\n",
              t("BM_dprintf_disabled"), t("BM_ll_dprintf_call_disabled"));
  for (const char *kind : {"ascii", "widths"}) {
    const double rt = t((std::string("BM_snprintf_") + kind).c_str());
    const double lib = t((std::string("BM_qzsnprintf_") + kind).c_str());
    if (rt > 0 && lib > 0)
      std::printf("ratio qzsnprintf/%-7s %.2fx the speed of snprintf (goal >= 0.5x)\n", kind, rt / lib);
  }
}

}  // namespace

int main(int argc, char **argv) { return llbench::run(argc, argv, print_ratios); }
