// The mixed corpus of the codec benchmarks: text, C headers, executables and
// generated log lines from this machine, about 34 MB, cut into 64 KiB blocks.
#pragma once
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace corpus {

namespace fs = std::filesystem;

inline void add_tree(std::string &out, const char *root, size_t budget, bool (*want)(const fs::path &)) {
  std::vector<fs::path> files;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec), end;
       it != end; it.increment(ec)) {
    if (ec) break;
    if (it->is_regular_file(ec) && !it->is_symlink(ec) && want(it->path())) files.push_back(it->path());
  }
  std::sort(files.begin(), files.end());
  const size_t stop = out.size() + budget;
  for (const auto &f : files) {
    if (out.size() >= stop) break;
    std::ifstream in(f, std::ios::binary);
    std::string s((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    out += s.substr(0, stop - out.size());
  }
}

inline void add_logs(std::string &out, size_t budget) {
  static const char *level[] = {"INFO", "INFO", "INFO", "DEBUG", "WARN", "ERROR"};
  static const char *what[] = {"session started for client", "volume mounted on drive", "backup of file system",
                               "catalog updated, entries", "tape positioned at block", "connection closed by peer",
                               "retrying after timeout of", "restore completed, bytes"};
  uint32_t x = 12345;
  auto rnd = [&] { return x = x * 1103515245u + 12345u, x >> 8; };
  char line[256];
  const size_t stop = out.size() + budget;
  for (uint32_t t = 0; out.size() < stop; ++t) {
    const uint32_t r = rnd();
    const int n = std::snprintf(line, sizeof line, "2024-03-%02u %02u:%02u:%02u.%03u [%5u] %-5s %s %u (host%02u)\n",
                                1 + t / 86400 % 28, t / 3600 % 24, t / 60 % 60, t % 60, r % 1000, 1000 + r % 50,
                                level[r % 6], what[(r >> 4) % 8], rnd() % 100000, (r >> 12) % 40);
    out.append(line, (size_t)n);
  }
  out.resize(stop);
}

inline std::string build() {
  std::string c;
  add_tree(c, "/usr/share/doc", 8u << 20, [](const fs::path &p) {
    const auto e = p.extension();
    return e != ".gz" && e != ".xz" && e != ".bz2" && e != ".png" && e != ".jpg" && e != ".gif";
  });
  add_tree(c, "/usr/include", 10u << 20, [](const fs::path &p) { return p.extension() == ".h"; });
  add_tree(c, "/usr/bin", 8u << 20, [](const fs::path &) { return true; });
  add_logs(c, 8u << 20);
  return c;
}

constexpr size_t kBlock = 64 * 1024;

}  // namespace corpus
