// Data-area lookup on the hit path against a plain thread_local read, on one
// thread and on two. Prints "ratio" counters: lookup time / thread_local time.
#include "ratio_main.h"

#include <liblocal/frame.h>

namespace {

thread_local void *tls_value = &tls_value;

void no_free(void *) {}
void *my_init(qz_area_dtor *out) {
  *out = no_free;
  static thread_local int x;
  return &x;
}

// The peer: a thread_local read, inline and behind a function call (every
// exported lookup is a call, so the second is the like-for-like figure).
__attribute__((noinline)) void *tls_accessor() { return tls_value; }

void BM_thread_local_read(benchmark::State &state) {
  for (auto _ : state) {
    void *v = tls_value;
    benchmark::DoNotOptimize(v);
  }
}

void BM_thread_local_call(benchmark::State &state) {
  for (auto _ : state) {
    void *v = tls_accessor();
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
  const qz_area_init init = get_liblocal_p_init();
  P_GetDataAreaPtr(init);
  for (auto _ : state) {
    void *v = P_GetDataAreaPtr(init);
    benchmark::DoNotOptimize(v);
  }
}

BENCHMARK(BM_thread_local_read)->Threads(1)->Threads(2);
BENCHMARK(BM_thread_local_call)->Threads(1)->Threads(2);
BENCHMARK(BM_T_GetDataAreaPtr_hit)->Threads(1)->Threads(2);
BENCHMARK(BM_P_GetDataAreaPtr_hit)->Threads(1)->Threads(2);

// Prints the ratios of the hit paths to the thread_local read.
void print_ratios(const llbench::Results &results_) {
  for (const char *threads : {"threads:1", "threads:2"}) {
    double read = 0, call = 0;
    for (auto &r : results_) {
      if (r.first.find(threads) == std::string::npos) continue;
      if (r.first.find("thread_local_read") != std::string::npos) read = r.second;
      if (r.first.find("thread_local_call") != std::string::npos) call = r.second;
    }
    for (auto &r : results_)
      if (r.first.find("GetDataAreaPtr") != std::string::npos && r.first.find(threads) != std::string::npos &&
          read > 0 && call > 0)
        std::printf("ratio %-36s %5.2fx a thread_local read behind a call (goal <= 3.0x); %5.2fx an inline read\n",
                    r.first.c_str(), r.second / call, r.second / read);
  }
}

}  // namespace

int main(int argc, char **argv) { return llbench::run(argc, argv, print_ratios); }
