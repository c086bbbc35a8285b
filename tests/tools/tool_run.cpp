#include "tool_run.h"

#include <filesystem>

#include "lltest.h"

namespace fs = std::filesystem;

namespace tooltest {

static fs::path u8(const std::string &s) { return fs::path(std::u8string(s.begin(), s.end())); }

std::string tool_path() {
  fs::path p = u8(lltest::self_path()).parent_path() / (lltest::kWindows ? "llocal.exe" : "llocal");
  auto s = p.u8string();
  return std::string(s.begin(), s.end());
}

bool file_exists(const std::string &path) {
  std::error_code ec;
  return fs::exists(u8(path), ec);
}

std::vector<std::string> list_dir(const std::string &dir) {
  std::vector<std::string> names;
  for (const auto &e : fs::directory_iterator(u8(dir))) {
    auto s = e.path().filename().u8string();
    names.emplace_back(s.begin(), s.end());
  }
  return names;
}

std::string lcg_bytes(size_t n, unsigned seed) {
  std::string s(n, '\0');
  uint32_t x = seed;
  for (auto &c : s) {
    x = x * 1103515245u + 12345u;
    c = static_cast<char>(x >> 24);
  }
  return s;
}

std::string data_file(const std::string &name) { return std::string(LL_TOOLS_DATA) + "/" + name; }

Result run(const std::vector<std::string> &args, const std::string &input, const std::string &cwd) {
  lltest::RunOptions opts;
  opts.input = input;
  opts.cwd = cwd;
  return lltest::run_program(tool_path(), args, opts);
}

}  // namespace tooltest
