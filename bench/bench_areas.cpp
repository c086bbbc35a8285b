// Data-area lookup on the hit path against a plain thread_local read, on one
// thread and on two. Prints "ratio" counters: lookup time / thread_local time.
#include <benchmark/benchmark.h>

#include <liblocal/frame.h>

namespace {

thread_local void *tls_value = &tls_value;

void *my_init(qz_area_dtor *out) {
  *out = nullptr;
  static thread_local int x;
  return &x;
}

void BM_thread_local_read(benchmark::State &state) {
  for (auto _ : state) {
    void *v = tls_value;
    benchmark::DoNotOptimize(v);
  }
}

void BM_T_GetDataAreaPtr_hit(benchmark::State &state) {
  qzinit("bench");
  T_GetDataAreaPtr(my_init);
  for (auto _ : state) {
    void *v = T_GetDataAreaPtr(my_init);
    benchmark::DoNotOptimize(v);
  }
  if (state.thread_index() != 0) T_threadexit();
}

void BM_P_GetDataAreaPtr_hit(benchmark::State &state) {
  qzinit("bench");
  P_GetDataAreaPtr(get_liblocal_p_init());
  for (auto _ : state) {
    void *v = P_GetDataAreaPtr(get_liblocal_p_init());
    benchmark::DoNotOptimize(v);
  }
}

BENCHMARK(BM_thread_local_read)->Threads(1)->Threads(2);
BENCHMARK(BM_T_GetDataAreaPtr_hit)->Threads(1)->Threads(2);
BENCHMARK(BM_P_GetDataAreaPtr_hit)->Threads(1)->Threads(2);

// Prints the ratios of the hit paths to the thread_local read.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const auto &r : runs) results_.push_back({r.benchmark_name(), r.GetAdjustedRealTime()});
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    for (const char *threads : {"threads:1", "threads:2"}) {
      double base = 0;
      for (auto &r : results_)
        if (r.first.find("thread_local") != std::string::npos && r.first.find(threads) != std::string::npos)
          base = r.second;
      for (auto &r : results_)
        if (r.first.find("GetDataAreaPtr") != std::string::npos && r.first.find(threads) != std::string::npos &&
            base > 0)
          std::printf("ratio %-40s %.2fx thread_local (%s; goal <= 3.0x)\n", r.first.c_str(), r.second / base,
                      threads);
    }
  }

 private:
  std::vector<std::pair<std::string, double>> results_;
};

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
