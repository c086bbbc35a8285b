// get_user_sid of a known user against getpwnam_r of the same user, measured
// in the same run: separately, and taken in turns within each iteration (the
// ratio the goal of at most 1.2x is read from), so that a change in the
// machine's speed between runs cannot tilt it.
#include "ratio_main.h"

#include <pwd.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

#include <liblocal.h>

namespace {

const char *const kUser = "nobody";
double g_turns = 0;

void BM_getpwnam_r(benchmark::State &state) {
  char buf[1024];
  for (auto _ : state) {
    passwd pw, *res = nullptr;
    getpwnam_r(kUser, &pw, buf, sizeof buf, &res);
    benchmark::DoNotOptimize(res);
  }
}

void BM_get_user_sid(benchmark::State &state) {
  unsigned char sid[QZ_SID_MAX];
  for (auto _ : state) benchmark::DoNotOptimize(get_user_sid(kUser, nullptr, sid, sizeof sid));
}

void BM_in_turns(benchmark::State &state) {
  using clock = std::chrono::steady_clock;
  clock::duration peer{}, ours{};
  char buf[1024];
  unsigned char sid[QZ_SID_MAX];
  for (auto _ : state) {
    auto t0 = clock::now();
    for (int i = 0; i < 16; ++i) {
      passwd pw, *res = nullptr;
      getpwnam_r(kUser, &pw, buf, sizeof buf, &res);
      benchmark::DoNotOptimize(res);
    }
    auto t1 = clock::now();
    for (int i = 0; i < 16; ++i) benchmark::DoNotOptimize(get_user_sid(kUser, nullptr, sid, sizeof sid));
    auto t2 = clock::now();
    peer += t1 - t0;
    ours += t2 - t1;
  }
  if (peer.count()) g_turns = static_cast<double>(ours.count()) / static_cast<double>(peer.count());
}

BENCHMARK(BM_getpwnam_r);
BENCHMARK(BM_get_user_sid);
BENCHMARK(BM_in_turns);

void print_ratios(const llbench::Results &times) {
  const double sep = llbench::time_of(times, "BM_get_user_sid") / llbench::time_of(times, "BM_getpwnam_r");
  std::printf("ratio get_user_sid / getpwnam_r (\"%s\"), separate runs: %.2fx\n", kUser, sep);
  std::printf("ratio get_user_sid / getpwnam_r, taken in turns in every iteration: %.2fx (goal <= 1.2x)\n", g_turns);
}

}  // namespace

int main(int argc, char **argv) {
  qzinit("bench_security");
  return llbench::run(argc, argv, print_ratios);
}
