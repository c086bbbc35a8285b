// The directory-tree walker against nftw(FTW_PHYS) over the same tree of
// 100 000 files with their stat records, page cache warm (both walk it once
// before timing). Prints the ratio with its goal.
#include "ratio_main.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <liblocal/dtree.h>

namespace {

std::string g_root;
long g_sink;

// 100 directories of 1000 files, made once per run.
void make_tree() {
  char templ[] = "/tmp/llbench-dtree-XXXXXX";
  if (!mkdtemp(templ)) std::abort();
  g_root = templ;
  for (int d = 0; d < 100; ++d) {
    std::string dir = g_root + "/d" + std::to_string(d);
    mkdir(dir.c_str(), 0755);
    for (int f = 0; f < 1000; ++f) {
      std::string file = dir + "/file" + std::to_string(f);
      int fd = open(file.c_str(), O_CREAT | O_WRONLY, 0644);
      if (fd >= 0) close(fd);
    }
  }
}

void remove_tree() {
  std::string cmd = "rm -rf '" + g_root + "'";
  if (std::system(cmd.c_str()) != 0) std::fprintf(stderr, "cannot remove %s\n", g_root.c_str());
}

int on_nftw(const char *, const struct stat *st, int, struct FTW *) {
  g_sink += st->st_size + 1;
  return 0;
}

int on_walk(const qz_dtree_entry *e, void *) {
  if (e->st) g_sink += e->st->st_size + 1;
  return 0;
}

void BM_nftw_phys(benchmark::State &state) {
  for (auto _ : state) nftw(g_root.c_str(), on_nftw, 64, FTW_PHYS);
  benchmark::DoNotOptimize(g_sink);
}

void BM_qz_dtree_walk(benchmark::State &state) {
  for (auto _ : state) qz_dtree_walk(g_root.c_str(), 0, on_walk, nullptr);
  benchmark::DoNotOptimize(g_sink);
}

void BM_qz_dtree_walk_dirorder(benchmark::State &state) {
  for (auto _ : state) qz_dtree_walk(g_root.c_str(), QZ_DTW_DIRORDER, on_walk, nullptr);
  benchmark::DoNotOptimize(g_sink);
}

BENCHMARK(BM_nftw_phys)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_qz_dtree_walk)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_qz_dtree_walk_dirorder)->Unit(benchmark::kMillisecond)->MinTime(2.0);

void print_ratios(const llbench::Results &times) {
  double peer = llbench::time_of(times, "BM_nftw_phys");
  double sorted = llbench::time_of(times, "BM_qz_dtree_walk/") ? llbench::time_of(times, "BM_qz_dtree_walk/")
                                                                 : llbench::time_of(times, "BM_qz_dtree_walk");
  double order = llbench::time_of(times, "BM_qz_dtree_walk_dirorder");
  if (peer <= 0) return;
  std::printf("ratio qz_dtree_walk (sorted)    %.2fx the time of nftw FTW_PHYS (goal <= 1.2x)\n", sorted / peer);
  std::printf("ratio qz_dtree_walk (dir order) %.2fx the time of nftw FTW_PHYS\n", order / peer);
}

}  // namespace

int main(int argc, char **argv) {
  make_tree();
  nftw(g_root.c_str(), on_nftw, 64, FTW_PHYS);  // warm the cache
  qz_dtree_walk(g_root.c_str(), 0, on_walk, nullptr);
  int rc = llbench::run(argc, argv, print_ratios);
  remove_tree();
  return rc;
}
