// The debug control text on arbitrary bytes: never a crash or an overflow,
// and an accepted text always names a word before its number.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "proc/events.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 1024) size = 1024;  // the handler reads no more
  const std::string text(reinterpret_cast<const char *>(data), size);
  int value = 12345;
  const bool ok = ll::ev::parse_control(text.c_str(), &value);
  if (!ok && value != 12345) abort();
  if (ok) {
    size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    if (i == text.size() || !std::isalpha(static_cast<unsigned char>(text[i]))) abort();
  }
  return 0;
}
