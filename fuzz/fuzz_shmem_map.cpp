// shmem_map on arbitrary names, sizes and lock offsets: an error record or a
// record of the one block that exists, never a crash; a refused kind is
// EINVAL, a name that cannot be mapped EIO or (without a colon) EINVAL.
#include <liblocal/output.h>
#include <liblocal/shmem.h>

#include <cstdarg>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {
constexpr unsigned kKey = 0x7FFF0F00u;
constexpr unsigned kSize = 8192;
shmem_obj *g_block;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  // Every refusal is printed: the library's messages go nowhere here (the
  // sanitizers' and the fuzzer's own reports still reach standard error).
  set_vfprintf([](FILE *, const char *, va_list) { return 0; });
  if (shmem_create(kKey, kSize, 0, SHMEM_NT, &g_block)) std::abort();
  std::atexit([] { g_block->ops->release(&g_block); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 4) return 0;
  const unsigned map_size = (data[0] | data[1] << 8) % (2 * kSize);
  const unsigned offset = (data[2] | data[3] << 8) % (2 * kSize);
  std::string name(reinterpret_cast<const char *>(data + 4), size - 4);
  name = name.c_str();  // up to the first NUL
  shmem_obj *o = reinterpret_cast<shmem_obj *>(1);
  qzerror *e = shmem_map(name.c_str(), map_size, offset, &o);
  if (!e) {
    if (!o || std::strcmp(o->name, name.c_str()) != 0 || o->size != map_size) std::abort();
    const auto at = reinterpret_cast<const char *>(const_cast<int *>(o->lock_word)) - static_cast<char *>(o->base);
    if (at % 16 != 0 || at + 4 > static_cast<long>(map_size)) std::abort();
    o->ops->release(&o);
    if (o) std::abort();
    return 0;
  }
  if (o) std::abort();
  const int n = QZERR_NUMBER(e->code);
  if (n != 5 && n != 22) std::abort();
  return 0;
}
