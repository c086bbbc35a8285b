// 64-bit times as the library passes them: a low and a high 32-bit word.
#pragma once
#include <cstdint>

#include <liblocal.h>

inline qz_time64_t T(long long v) {
  const auto u = static_cast<unsigned long long>(v);
  return qz_time64_t{static_cast<uint32_t>(u), static_cast<int32_t>(u >> 32)};
}
inline long long V(qz_time64_t t) {
  return static_cast<long long>((static_cast<unsigned long long>(static_cast<uint32_t>(t.high)) << 32) | t.low);
}
