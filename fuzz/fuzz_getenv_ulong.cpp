// getenv_ulong on arbitrary tuning strings and settings (the abort on a
// malformed tuning string excluded): never a crash, and the result stays
// within the bounds its tuning string gives.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <liblocal/env.h>

extern "C" unsigned long llt_getenv_ulong(const char *tuning, unsigned long value, int *malformed);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 4) return 0;
  uint32_t value;
  std::memcpy(&value, data, 4);
  std::string rest(reinterpret_cast<const char *>(data) + 4, size - 4);
  // "tuning\nsetting": the setting goes into the variable the tuning names.
  const size_t nl = rest.find('\n');
  std::string tuning = rest.substr(0, nl);
  tuning = tuning.c_str();
  if (nl != std::string::npos) {
    std::string setting = rest.substr(nl + 1);
    setting = setting.c_str();
    const size_t eq = tuning.find('=');
    std::string name = tuning.substr(0, eq == std::string::npos ? 0 : eq);
    if (!name.empty() && name.find_first_of("=") == std::string::npos && name.size() < 128)
      setenv(name.c_str(), setting.c_str(), 1);
  }
  int bad = 0;
  unsigned long r = llt_getenv_ulong(tuning.c_str(), value, &bad);
  if (bad && r != value) abort();
  return 0;
}
