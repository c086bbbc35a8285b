// Replays committed fuzz inputs without libFuzzer: every file named on the
// command line, and every regular file below every folder named there, is
// handed to the target's LLVMFuzzerTestOneInput once, in name order. Built
// with the ordinary compiler and sanitizers, this turns each corpus into a
// regression run of seconds. A run that finds no input at all fails, so a
// misplaced corpus cannot pass unnoticed.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace fs = std::filesystem;

namespace {
bool collect(const fs::path &p, std::vector<fs::path> &out) {
  std::error_code ec;
  if (fs::is_directory(p, ec)) {
    for (fs::recursive_directory_iterator it(p, ec), end; !ec && it != end; it.increment(ec))
      if (it->is_regular_file(ec)) out.push_back(it->path());
    if (ec) std::fprintf(stderr, "replay: %s: %s\n", p.c_str(), ec.message().c_str());
    return !ec;
  }
  if (fs::is_regular_file(p, ec)) {
    out.push_back(p);
    return true;
  }
  std::fprintf(stderr, "replay: %s: not a file or folder\n", p.c_str());
  return false;
}
}  // namespace

int main(int argc, char **argv) {
  if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
  std::vector<fs::path> inputs;
  bool ok = true;
  for (int i = 1; i < argc; ++i)
    if (argv[i][0] != '-') ok = collect(argv[i], inputs) && ok;  // libFuzzer-style flags are ignored
  std::sort(inputs.begin(), inputs.end());
  for (const fs::path &p : inputs) {
    std::ifstream in(p, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) {
      std::fprintf(stderr, "replay: %s: cannot be read\n", p.c_str());
      ok = false;
      continue;
    }
    // An allocation of exactly the input's size, so that the address
    // sanitizer sees a read one byte past its end.
    std::unique_ptr<uint8_t[]> copy(new uint8_t[bytes.size() ? bytes.size() : 1]);
    if (!bytes.empty()) std::memcpy(copy.get(), bytes.data(), bytes.size());
    LLVMFuzzerTestOneInput(copy.get(), bytes.size());
  }
  std::printf("replay: %zu inputs\n", inputs.size());
  if (inputs.empty()) {
    std::fprintf(stderr, "replay: no inputs\n");
    return 1;
  }
  return ok ? 0 : 1;
}
