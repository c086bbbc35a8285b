// The file-system table against its peers measured in the same run:
// - the first getfstab (read and build the table) against reading the same
//   mount table line by line with getmntent_r, on this machine's
//   /proc/self/mountinfo and on a table of 10 000 mounts (given as text to
//   both), taken in turns in every iteration; goal <= 2x;
// - a later getfstab against an uncontended mutex lock and unlock; goal <= 2x;
// - is_local_saveset over the whole table, per entry; goal <= 1 us.
#include "ratio_main.h"

#include <chrono>
#include <cstdio>
#include <string>

#include <liblocal/fstab.h>

#ifndef _WIN32
#include <mntent.h>
#include <pthread.h>
#include <stdio.h>

extern "C" void llt_fstab_mountinfo(const char *text);

namespace {

using Clock = std::chrono::steady_clock;

const std::string &big_table() {
  static const std::string text = [] {
    std::string t = "1 0 8:1 / / rw,relatime - ext4 /dev/sda1 rw\n";
    for (int i = 0; i < 10000; ++i)
      t += std::to_string(i + 2) + " 1 0:" + std::to_string(100 + i % 300) + " / /srv/mounts/volume" +
           std::to_string(i) + " rw,nosuid,nodev,relatime shared:" + std::to_string(i) + " - " +
           (i % 3 ? "xfs" : "nfs4") + " /dev/mapper/vg-lv" + std::to_string(i) + " rw,attr2,inode64\n";
    return t;
  }();
  return text;
}

// The peer: every line through getmntent_r (fields split, escapes decoded).
int read_with_getmntent(FILE *f) {
  if (!f) return 0;
  struct mntent e;
  char buf[8192];
  int n = 0;
  while (getmntent_r(f, &e, buf, sizeof buf)) ++n;
  return n;
}
int peer_real() {
  FILE *f = setmntent("/proc/self/mountinfo", "r");
  const int n = read_with_getmntent(f);
  if (f) endmntent(f);
  return n;
}
int peer_text(const std::string &text) {
  FILE *f = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
  const int n = read_with_getmntent(f);
  if (f) std::fclose(f);
  return n;
}
int first_getfstab() {
  donefstab();
  int n = 0;
  for (qz_fstab_t *p = getfstab(nullptr); p; p = p->next) ++n;
  return n;
}

double g_real = 0, g_big = 0;

void in_turns(benchmark::State &state, int (*peer)(), double *ratio) {
  Clock::duration ours{}, theirs{};
  for (auto _ : state) {
    const auto t0 = Clock::now();
    benchmark::DoNotOptimize(peer());
    const auto t1 = Clock::now();
    benchmark::DoNotOptimize(first_getfstab());
    const auto t2 = Clock::now();
    theirs += t1 - t0;
    ours += t2 - t1;
  }
  *ratio = std::chrono::duration<double>(ours) / std::chrono::duration<double>(theirs);
  state.counters["getfstab/getmntent_r"] = *ratio;
  const double iters = static_cast<double>(state.iterations());
  state.counters["getfstab_us"] = std::chrono::duration<double, std::micro>(ours).count() / iters;
  state.counters["getmntent_us"] = std::chrono::duration<double, std::micro>(theirs).count() / iters;
}

void BM_first_getfstab_host(benchmark::State &state) {
  llt_fstab_mountinfo(nullptr);
  in_turns(state, peer_real, &g_real);
}

void BM_first_getfstab_10000(benchmark::State &state) {
  llt_fstab_mountinfo(big_table().c_str());
  in_turns(state, [] { return peer_text(big_table()); }, &g_big);
  llt_fstab_mountinfo(nullptr);
  donefstab();
}

void BM_mutex_lock_unlock(benchmark::State &state) {
  pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
  for (auto _ : state) {
    pthread_mutex_lock(&m);
    pthread_mutex_unlock(&m);
    benchmark::ClobberMemory();
  }
}

void BM_later_getfstab(benchmark::State &state) {
  donefstab();
  getfstab(nullptr);
  int rc;
  for (auto _ : state) {
    benchmark::DoNotOptimize(getfstab(&rc));
    benchmark::ClobberMemory();
  }
}

double g_per_entry = 0;
void BM_is_local_saveset_10000(benchmark::State &state) {
  llt_fstab_mountinfo(big_table().c_str());
  donefstab();
  qz_fstab_t *head = getfstab(nullptr);
  size_t entries = 0;
  for (auto _ : state) {
    int local = 0;
    entries = 0;
    for (qz_fstab_t *p = head; p; p = p->next, ++entries) local += is_local_saveset(p);
    benchmark::DoNotOptimize(local);
  }
  state.counters["entries"] = static_cast<double>(entries);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * entries));
  g_per_entry = entries ? 1.0 / static_cast<double>(entries) : 0;
  llt_fstab_mountinfo(nullptr);
  donefstab();
}

BENCHMARK(BM_first_getfstab_host)->MinTime(1.0);
BENCHMARK(BM_first_getfstab_10000)->MinTime(2.0);
BENCHMARK(BM_mutex_lock_unlock);
BENCHMARK(BM_later_getfstab);
BENCHMARK(BM_is_local_saveset_10000);

void print_ratios(const llbench::Results &results) {
  std::printf("ratio first getfstab / getmntent_r, this host's mount table, in turns: %.2fx (goal <= 2.0x)\n", g_real);
  std::printf("ratio first getfstab / getmntent_r, 10000 mounts, in turns: %.2fx (goal <= 2.0x)\n", g_big);
  const double lock = llbench::time_of(results, "BM_mutex_lock_unlock");
  const double later = llbench::time_of(results, "BM_later_getfstab");
  if (lock > 0) std::printf("ratio later getfstab / mutex lock+unlock: %.2fx (goal <= 2.0x)\n", later / lock);
  const double all = llbench::time_of(results, "BM_is_local_saveset_10000");
  std::printf("is_local_saveset: %.1f ns per entry (goal <= 1000 ns)\n", all * g_per_entry);
}

}  // namespace

int main(int argc, char **argv) { return llbench::run(argc, argv, print_ratios); }

#else

int main() {
  std::puts("bench_fstab: the peer (getmntent_r) exists on POSIX only");
  return 0;
}

#endif
