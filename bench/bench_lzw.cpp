// dcmprss against "gzip -dc" on the same compress-tool stream (12-bit codes)
// of the mixed codec corpus. gzip runs as a whole process writing to
// /dev/null (best of 5, CPU time of the process); dcmprss decodes the stream, header removed, into
// memory. Prints the throughput ratio (goal >= 1.5x).
#include "ratio_main.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include <liblocal/codec.h>
#include <liblocal/frame.h>

#include "codec_corpus.h"

namespace {

struct Data {
  std::string corpus, z;  // z: the stream without its header
  double gzip_seconds = 0;
};

Data &data() {
  static Data d = [] {
    Data d;
    d.corpus = corpus::build();
    const std::string dir = std::filesystem::temp_directory_path().string();
    const std::string raw = dir + "/bench_lzw_corpus", packed = raw + ".Z";
    std::ofstream(raw, std::ios::binary) << d.corpus;
    if (std::system(("compress -b12 -c < " + raw + " > " + packed).c_str()) == -1) std::exit(1);
    std::ifstream in(packed, std::ios::binary);
    std::string z((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    d.z = z.substr(3);
    std::string out(d.corpus.size() + 16, '\0');
    if (dcmprss(d.z.data(), (int)d.z.size(), out.data(), (int)out.size()) != (int)d.corpus.size() ||
        out.compare(0, d.corpus.size(), d.corpus) != 0) {
      std::fprintf(stderr, "dcmprss does not reproduce the corpus\n");
      std::exit(1);
    }
    d.gzip_seconds = 1e9;
    // CPU time of the gzip process (user + system): on a shared machine
    // wall time measures the neighbours more than the decoder.
    auto child_cpu = [] {
      rusage u;
      getrusage(RUSAGE_CHILDREN, &u);
      return (double)u.ru_utime.tv_sec + (double)u.ru_stime.tv_sec + 1e-6 * (double)(u.ru_utime.tv_usec + u.ru_stime.tv_usec);
    };
    for (int i = 0; i < 5; ++i) {
      const double t0 = child_cpu();
      if (std::system(("exec gzip -dc < " + packed + " > /dev/null").c_str()) != 0) std::exit(1);
      d.gzip_seconds = std::min(d.gzip_seconds, child_cpu() - t0);
    }
    std::remove(raw.c_str());
    std::remove(packed.c_str());
    std::printf("corpus %zu bytes, .Z %zu bytes; gzip -dc %.1f ms (%.0f MB/s)\n", d.corpus.size(), z.size(),
                d.gzip_seconds * 1e3, (double)d.corpus.size() / d.gzip_seconds / 1e6);
    return d;
  }();
  return d;
}


void BM_dcmprss(benchmark::State &state) {
  Data &d = data();
  std::string out(d.corpus.size() + 16, '\0');
  for (auto _ : state) benchmark::DoNotOptimize(dcmprss(d.z.data(), (int)d.z.size(), out.data(), (int)out.size()));
  state.SetBytesProcessed((int64_t)(state.iterations() * d.corpus.size()));
}
BENCHMARK(BM_dcmprss)->Unit(benchmark::kMillisecond)->MinTime(2);

void print_ratios(const llbench::Results &results) {
  const double ours = results.empty() ? 0 : results.back().second / 1e3;  // ms -> s
  if (ours > 0)
    std::printf("ratio dcmprss %.2fx the throughput of gzip -dc (goal >= 1.5x)\n", data().gzip_seconds / ours);
}

}  // namespace

int main(int argc, char **argv) {
  return llbench::run(argc, argv, print_ratios);
}
