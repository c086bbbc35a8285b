// Cluster answers against their peers measured in the same run: the owner of
// a path in a list of 1000 against a plain loop of preflen over the same
// paths, and the kept answers (cluster host, cluster mode) against an
// uncontended lock and unlock of a mutex.
#include "ratio_main.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include <liblocal/cluster.h>
#include <liblocal/frame.h>
#include <liblocal/output.h>

extern "C" {
void llt_clu_force_type(int type) noexcept;
void llt_clu_pathl_own(const char *path, const char *host) noexcept;
}

namespace {

#ifdef _WIN32
const char *kRoot = "C:\\srv\\vol";
const char kSep = '\\';
#else
const char *kRoot = "/srv/vol";
const char kSep = '/';
#endif

std::vector<std::string> &paths() {
  static std::vector<std::string> v = [] {
    std::vector<std::string> r;
    char buf[64];
    for (int i = 0; i < 1000; ++i) {
      std::snprintf(buf, sizeof buf, "%s%04d", kRoot, i);
      r.push_back(buf);
    }
    return r;
  }();
  return v;
}

std::string query() { return paths()[617] + kSep + "data" + kSep + "file.dat"; }

void BM_preflen_loop(benchmark::State &state) {
  const std::string q = query();
  for (auto _ : state) {
    int best = 0;
    const std::string *owner = nullptr;
    for (const std::string &p : paths()) {
      const int len = preflen(q.c_str(), p.c_str());
      if (len > best) {
        best = len;
        owner = &p;
      }
    }
    benchmark::DoNotOptimize(owner);
  }
}

void BM_clu_pathl_gethost(benchmark::State &state) {
  const std::string q = query();
  for (auto _ : state) {
    char *h = clu_pathl_gethost(q.c_str());
    benchmark::DoNotOptimize(h);
    std::free(h);
  }
}

void BM_mutex(benchmark::State &state) {
  std::mutex m;
  for (auto _ : state) {
    m.lock();
    m.unlock();
    benchmark::ClobberMemory();
  }
}

void BM_clu_is_cluster_host(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(clu_is_cluster_host());
}

void BM_clu_is_cluster_mode(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(clu_is_cluster_mode("bench", "/nonexistent/"));
}

BENCHMARK(BM_preflen_loop);
BENCHMARK(BM_clu_pathl_gethost);
BENCHMARK(BM_mutex);
BENCHMARK(BM_clu_is_cluster_host);
BENCHMARK(BM_clu_is_cluster_mode);

void print_ratios(const llbench::Results &times) {
  const double g = llbench::time_of(times, "BM_clu_pathl_gethost") / llbench::time_of(times, "BM_preflen_loop");
  const double mtx = llbench::time_of(times, "BM_mutex");
  const double h = llbench::time_of(times, "BM_clu_is_cluster_host") / mtx;
  const double m = llbench::time_of(times, "BM_clu_is_cluster_mode") / mtx;
  std::printf("ratio clu_pathl_gethost (1000 paths) %.2fx the time of a preflen loop (goal <= 1.5x)\n", g);
  std::printf("ratio clu_is_cluster_host           %.2fx the time of a mutex lock+unlock (goal <= 2x)\n", h);
  std::printf("ratio clu_is_cluster_mode           %.2fx the time of a mutex lock+unlock (goal <= 2x)\n", m);
}

}  // namespace

int main(int argc, char **argv) {
  // A native cluster's list: 1000 volumes, each owned by a virtual host.
  llt_clu_force_type(CLU_TYPE_NATIVE);
  char host[32];
  for (size_t i = 0; i < paths().size(); ++i) {
    std::snprintf(host, sizeof host, "vhost%zu", i);
    llt_clu_pathl_own(paths()[i].c_str(), host);
  }
  return llbench::run(argc, argv, print_ratios);
}
