// Processor features the checksum and digest code chooses its paths by.
// Detected once per process; the answer never changes, so every thread may
// share it.
#pragma once

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace ll::digest {

struct CpuFeatures {
  bool ssse3 = false;
  bool sse41 = false;
  bool pclmul = false;
  bool sha = false;
};

inline CpuFeatures detect_cpu() noexcept {
  CpuFeatures f;
#if defined(__x86_64__) || defined(__i386__)
  unsigned a, b, c, d;
  if (__get_cpuid(1, &a, &b, &c, &d)) {
    f.pclmul = (c >> 1) & 1;
    f.ssse3 = (c >> 9) & 1;
    f.sse41 = (c >> 19) & 1;
  }
  if (__get_cpuid_max(0, nullptr) >= 7) {
    __cpuid_count(7, 0, a, b, c, d);
    f.sha = (b >> 29) & 1;
  }
#endif
  return f;
}

inline const CpuFeatures &cpu() noexcept {
  static const CpuFeatures f = detect_cpu();
  return f;
}

}  // namespace ll::digest
