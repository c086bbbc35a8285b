// Unique identifiers against the C library doing the same work in the same
// run: text form out and back against formatting and parsing the same 20
// bytes as hexadecimal with snprintf/sscanf, and qzui_create against qz_time.
#include "ratio_main.h"

#include <netdb.h>

#include <cstdio>
#include <cstring>

#include <liblocal/memory.h>
#include <liblocal/qztime.h>
#include <liblocal/qzui.h>

namespace {

void BM_snprintf_sscanf_hex(benchmark::State &state) {
  unsigned char bytes[20];
  for (int i = 0; i < 20; ++i) bytes[i] = static_cast<unsigned char>(i * 37 + 1);
  char text[64];
  for (auto _ : state) {
    int n = 0;
    for (int i = 0; i < 20; ++i) n += std::snprintf(text + n, sizeof text - static_cast<size_t>(n), "%02x", bytes[i]);
    for (int i = 0; i < 20; ++i) {
      unsigned v;
      std::sscanf(text + 2 * i, "%2x", &v);
      bytes[i] = static_cast<unsigned char>(v);
    }
    benchmark::DoNotOptimize(bytes);
  }
}

void BM_qzui_text_round_trip(benchmark::State &state) {
  qzui id;
  qzui_create_old(&id, 4, 12345, 0x00010002, 0x5F000000);
  char text[QZUI_TEXT_SIZE];
  for (auto _ : state) {
    qzui_to_string(&id, text, 1);
    string_to_qzui(text, &id, nullptr);
    benchmark::DoNotOptimize(id);
  }
}

void BM_qz_time(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(qz_time(nullptr));
}

// This host may resolve its name to the loopback address only, in which case
// every identifier asks again; the benchmark measures the cached case, with a
// resolver that gives a routable address.
extern "C" void llt_hostid_resolver(void *(*byname)(const char *), void *(*byaddr)(const char *, int, int));
void *routable(const char *) {
  static char addr[4] = {10, 1, 2, 3};
  static char *addrs[] = {addr, nullptr};
  static char *aliases[] = {nullptr};
  static hostent h = {const_cast<char *>("bench.example"), aliases, 2, 4, addrs};
  return &h;
}

void BM_qzui_create(benchmark::State &state) {
  qzui id;
  llt_hostid_resolver(routable, nullptr);
  qzui_create(&id, 4, 1);  // fills the host address cache
  llt_hostid_resolver(nullptr, nullptr);
  // A process makes at most 65 536 identifiers a second and the next one
  // waits for the next second: the cost of making one is measured below that
  // cap (a fixed count of calls), and should a run reach it, the wait for a
  // fresh second is left out of the timing.
  static int made = 0;
  for (auto _ : state) {
    if (++made == 60000) {
      state.PauseTiming();
      const uint32_t now = qz_time(nullptr).low;
      while (qz_time(nullptr).low == now) delay(1);
      made = 0;
      state.ResumeTiming();
    }
    qzui_create(&id, 4, 1);
    benchmark::DoNotOptimize(id);
  }
}

BENCHMARK(BM_snprintf_sscanf_hex);
BENCHMARK(BM_qzui_text_round_trip);
BENCHMARK(BM_qz_time);
BENCHMARK(BM_qzui_create)->Iterations(50000);

void print_ratios(const llbench::Results &t) {
  using llbench::time_of;
  double a = time_of(t, "BM_qzui_text_round_trip"), b = time_of(t, "BM_snprintf_sscanf_hex");
  double c = time_of(t, "BM_qzui_create"), d = time_of(t, "BM_qz_time");
  std::printf("ratio qzui_to_string+string_to_qzui %.3fx the time of snprintf+sscanf hex (goal <= 2x)\n", a / b);
  std::printf("ratio qzui_create                   %.3fx the time of qz_time (goal <= 3x)\n", c / d);
}

}  // namespace

int main(int argc, char **argv) { return llbench::run(argc, argv, print_ratios); }
