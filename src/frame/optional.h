// Optional system entry points: the one table every family finds its
// optional routines in. Each slot is looked up once — by start-up step 9, or
// on its first use when the program has not initialised the library — and
// stays null when the system lacks it, which leaves the feature that needs it
// unavailable. The slots are the back-end's own (frame/posix/optional.cpp,
// frame/win32/optional.cpp); their identifiers are shared.
#pragma once

namespace ll::optional {

enum Id : int {
  // kernel32
  kFindFirstVolumeMountPointW,
  kFindNextVolumeMountPointW,
  kFindVolumeMountPointClose,
  kGetVolumeNameForVolumeMountPointW,
  kGetDiskFreeSpaceExW,
  kGetVolumePathNameW,
  // netapi32
  kNetDfsEnum,
  kNetShareGetInfo,
  kNetShareEnum,
  kNetApiBufferFree,
  kDsEnumerateDomainTrustsW,
  // iphlpapi
  kGetIpAddrTable,
  kCount
};

// The routine, or null when the system has none. Cast to its type by the caller.
void *get(Id id) noexcept;
// Looks every slot up now (start-up step 9). Idempotent.
void resolve_all() noexcept;
// Module and routine names of a slot (for traces and tests).
const char *module_of(Id id) noexcept;
const char *name_of(Id id) noexcept;

// The back-end's look-up of one routine by module and name; null when absent.
void *lookup(const char *module, const char *name) noexcept;

}  // namespace ll::optional
