// The common frame of the benchmark programs: Google Benchmark's console
// table, then the ratios each program prints against its peer. Ratios use the
// CPU time per iteration of each run (wall time means little on a shared
// machine), except for benchmarks declared with UseRealTime(), whose work is
// spread over several threads.
#pragma once
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace llbench {

// (benchmark name, time per iteration) of every run, in order.
using Results = std::vector<std::pair<std::string, double>>;
using RatioPrinter = void (*)(const Results &);

// Time per iteration of the first run whose name begins with 'prefix'; 0 when
// there is none.
inline double time_of(const Results &results, const std::string &prefix) {
  for (const auto &r : results)
    if (r.first.rfind(prefix, 0) == 0) return r.second;
  return 0;
}

namespace detail {
class Reporter : public benchmark::ConsoleReporter {
 public:
  explicit Reporter(RatioPrinter print) : print_(print) {}
  void ReportRuns(const std::vector<Run> &runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const auto &r : runs) {
      const std::string name = r.benchmark_name();
      const bool real = name.find("/real_time") != std::string::npos;
      results_.emplace_back(name, real ? r.GetAdjustedRealTime() : r.GetAdjustedCPUTime());
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::fflush(stdout);
    print_(results_);
  }

 private:
  RatioPrinter print_;
  Results results_;
};
}  // namespace detail

// main() of a benchmark program.
inline int run(int argc, char **argv, RatioPrinter print) {
  benchmark::Initialize(&argc, argv);
  detail::Reporter reporter(print);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}

}  // namespace llbench
