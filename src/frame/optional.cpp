// The table of optional entry points: module and name per slot, each slot
// looked up once and published atomically.
#include "frame/optional.h"

#include <atomic>

#include "frame/init_steps.h"

namespace ll::optional {

namespace {

struct Slot {
  const char *module;
  const char *name;
};

constexpr Slot kSlots[kCount] = {
    {"Kernel32.DLL", "FindFirstVolumeMountPointW"},
    {"Kernel32.DLL", "FindNextVolumeMountPointW"},
    {"Kernel32.DLL", "FindVolumeMountPointClose"},
    {"Kernel32.DLL", "GetVolumeNameForVolumeMountPointW"},
    {"Kernel32.DLL", "GetDiskFreeSpaceExW"},
    {"Kernel32.DLL", "GetVolumePathNameW"},
    {"NETAPI32.DLL", "NetDfsEnum"},
    {"NETAPI32.DLL", "NetShareGetInfo"},
    {"NETAPI32.DLL", "NetShareEnum"},
    {"NETAPI32.DLL", "NetApiBufferFree"},
    {"NETAPI32.DLL", "DsEnumerateDomainTrustsW"},
    {"IPHLPAPI.DLL", "GetIpAddrTable"},
};

// A slot holds the routine, or the address of 'absent' once a look-up found
// nothing, or null before its look-up.
char absent;
std::atomic<void *> g_table[kCount];

}  // namespace

void *get(Id id) noexcept {
  if (id < 0 || id >= kCount) return nullptr;
  void *p = g_table[id].load(std::memory_order_acquire);
  if (!p) {
    p = lookup(kSlots[id].module, kSlots[id].name);
    if (!p) p = &absent;
    g_table[id].store(p, std::memory_order_release);
  }
  return p == &absent ? nullptr : p;
}

void resolve_all() noexcept {
  for (int i = 0; i < kCount; ++i) (void)get(static_cast<Id>(i));
}

const char *module_of(Id id) noexcept { return id >= 0 && id < kCount ? kSlots[id].module : ""; }
const char *name_of(Id id) noexcept { return id >= 0 && id < kCount ? kSlots[id].name : ""; }

}  // namespace ll::optional

namespace ll::init {
void optional_entry_points() noexcept { ll::optional::resolve_all(); }
}  // namespace ll::init
