// Option files of arbitrary bytes: getopt and getarg always end, and every
// word handed out is a non-empty run without blanks or tabs that fits a line.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <liblocal/memory.h>

#include <unistd.h>

#include <liblocal/options.h>

// The parser is compiled into this target (for coverage); its data areas
// come from the library's allocator.
namespace ll {
void *area_alloc(size_t size) noexcept { return xmalloc(size); }
}  // namespace ll

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const std::string path = "/tmp/fuzz_optfile." + std::to_string(getpid());
  static const char *const optstrings[] = {"ab:c", "o:v", "x", ""};
  if (size == 0) return 0;
  const char *os = optstrings[data[0] % 4];
  FILE *f = std::fopen(path.c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data + 1, 1, size - 1, f);
  std::fclose(f);

  std::string at = "@" + path, tail = "tail";
  char *argv[] = {const_cast<char *>("prog"), at.data(), at.data(), tail.data(), nullptr};
  getopt_init();
  int steps = 0;
  for (int c; (c = getopt(4, argv, os)) != -1;) {
    if (++steps > 100000) abort();
    if (optarg && (!*optarg || std::strlen(optarg) > 254 || std::strpbrk(optarg, " \t"))) abort();
  }
  bool saw_tail = false;
  while (char *w = getarg(4, argv)) {
    if (++steps > 200000) abort();
    size_t n = std::strlen(w);
    if (w == tail.data()) saw_tail = true;
    else if (n == 0 || n > 254 || std::strpbrk(w, " \t")) abort();
  }
  if (!saw_tail) abort();  // the command line's own operand always comes last
  return 0;
}
