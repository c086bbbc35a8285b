// Catalog lookups on a hit (goal: <= 1 us) and qzstrcmp against strcmp on
// texts without tags (goal: <= 2x). Prints the figures (CPU time) after the run.
#include "ratio_main.h"

#include <liblocal/catalog.h>
#include <liblocal/frame.h>
#include <liblocal/msgtag.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

extern "C" void llt_catalog_set_appdir(const char *dir) noexcept;
extern "C" void llt_catalog_setup(const char *name) noexcept;

namespace {

namespace fs = std::filesystem;

// The English catalog of the build (bin/en_US) through a locale file in a
// temporary application directory.
int open_english_catalog() {
  static int handle = [] {
    const fs::path app = fs::temp_directory_path() / ("ll-bench-text-" + std::to_string(std::random_device{}()));
    fs::create_directories(app / "gls");
    std::ofstream(app / "gls" / "GL_LANG") << "en_US.UTF-8\n";
    llt_catalog_set_appdir(app.string().c_str());
    llt_catalog_setup("bsw");
    fs::remove_all(app);
    return Catd;
  }();
  return handle;
}

void BM_qzcatgets_hit(benchmark::State &state) {
  const int h = open_english_catalog();
  if (h < 0) {
    state.SkipWithError("English catalog not found next to the benchmark");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(qzcatgets(h, 17, 292, "Cannot alloc for tokens\n"));
}

void BM_qzcatgets_no_catalog(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(qzcatgets(-1, 17, 292, "Cannot alloc for tokens\n"));
}

// Pairs of message-like texts: equal, differing at the end, differing early.
const std::vector<std::pair<std::string, std::string>> &pairs() {
  static const std::vector<std::pair<std::string, std::string>> p = {
      {"Connection reset by peer", "Connection reset by peer"},
      {"Message catalog \"ja_JP\\baystowr.dll\" found.\n", "Message catalog \"ja_JP\\baystowr.dll\" found!\n"},
      {"unable to get volume information about file system C:", "unable to get volume information about file system D:"},
      {"failed to create shmem object data: access denied", "failed to map shmem object data: access denied"},
      {std::string(200, 'x'), std::string(200, 'x')},
  };
  return p;
}

void BM_strcmp(benchmark::State &state) {
  const auto &p = pairs();
  for (auto _ : state)
    for (const auto &x : p) benchmark::DoNotOptimize(std::strcmp(x.first.c_str(), x.second.c_str()));
}

void BM_qzstrcmp(benchmark::State &state) {
  const auto &p = pairs();
  for (auto _ : state)
    for (const auto &x : p) benchmark::DoNotOptimize(qzstrcmp(x.first.c_str(), x.second.c_str()));
}

BENCHMARK(BM_qzcatgets_hit);
BENCHMARK(BM_qzcatgets_no_catalog);
BENCHMARK(BM_strcmp);
BENCHMARK(BM_qzstrcmp);

void print_ratios(const llbench::Results &results) {
  std::map<std::string, double> ns(results.begin(), results.end());
  if (ns.count("BM_qzcatgets_hit")) std::printf("figure qzcatgets hit: %.1f ns (goal <= 1000 ns)\n", ns["BM_qzcatgets_hit"]);
  if (ns.count("BM_strcmp") && ns["BM_strcmp"] > 0)
    std::printf("ratio  qzstrcmp / strcmp: %.2fx (goal <= 2.0x)\n", ns["BM_qzstrcmp"] / ns["BM_strcmp"]);
}

}  // namespace

int main(int argc, char **argv) {
  return llbench::run(argc, argv, print_ratios);
}
