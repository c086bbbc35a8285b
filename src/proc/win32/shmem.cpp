// Shared-memory objects on Windows: file mappings backed by the paging file.
// On the NT kind a new object gets an explicit DACL (the calling user and the
// system, nobody else); an existing object is
// used only when its owner is the calling user (or the token's default owner,
// which is what the system gives objects an administrator creates).
#include "proc/shmem_os.h"

#include <aclapi.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "frame/syserr.h"
#include "frame/win32/win.h"
#include <liblocal/osver.h>
#include <liblocal/security.h>
#include "frame/fault.h"

namespace ll::shm_os {
namespace {

bool nt_class() noexcept { return Win32OSVersion() != 4; }

bool fail(DWORD code) noexcept {
  SetLastError(code);
  ll::set_errno_from_os();
  return false;
}

// A token information block (TOKEN_OWNER) of this process, in malloc
// memory; null on failure.
void *token_info(TOKEN_INFORMATION_CLASS cls) noexcept {
  HANDLE tok = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &tok)) return nullptr;
  DWORD len = 0;
  GetTokenInformation(tok, cls, nullptr, 0, &len);
  void *p = len && !LL_FAULT(alloc) ? std::malloc(len) : nullptr;
  if (p && !GetTokenInformation(tok, cls, p, len, &len)) {
    std::free(p);
    p = nullptr;
  }
  CloseHandle(tok);
  return p;
}

// The descriptor of a new object: full access to the section for the caller
// and the system, nothing for anyone else.
struct OwnerOnly {
  unsigned char me[QZ_SID_MAX];
  unsigned char system[QZ_SID_MAX];
  alignas(8) unsigned char sd[QZ_SD_SIZE];
  SECURITY_ATTRIBUTES sa;

  // false with errno set
  bool build() noexcept {
    if (get_my_sid(me, sizeof me) < 0 || qz_sid_from_text("S-1-5-18", system, sizeof system) < 0 ||
        qz_sd_init(sd, sizeof sd) < 0 || insert_sid_to_sd(sd, sizeof sd, me, SECTION_ALL_ACCESS) < 0 ||
        insert_sid_to_sd(sd, sizeof sd, system, SECTION_ALL_ACCESS) < 0)
      return false;
    sa.nLength = sizeof sa;
    sa.lpSecurityDescriptor = sd;
    sa.bInheritHandle = FALSE;
    return true;
  }
};

// Whether the object's owner is the calling user or the token's default owner.
bool owned_by_caller(HANDLE h, PSID me) noexcept {
  PSID owner = nullptr;
  PSECURITY_DESCRIPTOR psd = nullptr;
  if (GetSecurityInfo(h, SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr, nullptr,
                      &psd) != ERROR_SUCCESS)
    return false;
  bool ok = owner && EqualSid(owner, me);
  if (!ok && owner) {
    if (void *def = token_info(TokenOwner)) {
      ok = EqualSid(owner, static_cast<TOKEN_OWNER *>(def)->Owner) != 0;
      std::free(def);
    }
  }
  LocalFree(psd);
  return ok;
}

// Maps the whole of the mapping h into m; h is closed on failure.
bool map_view(HANDLE h, uint32_t size, Mapping &m) noexcept {
  void *p = LL_FAULT(io) ? nullptr : MapViewOfFile(h, FILE_MAP_ALL_ACCESS, 0, 0, size);
  if (!p) {
    const DWORD e = GetLastError();
    CloseHandle(h);
    return fail(e);
  }
  m.handle = h;
  m.base = p;
  return true;
}

}  // namespace

uint32_t process() noexcept { return GetCurrentProcessId(); }

const char *name_prefix() noexcept { return Win32OSMajorVersionNumber() >= 5 ? "Global\\" : ""; }

bool create(const char *name, uint32_t size, Mapping &m, bool &existed) noexcept {
  HANDLE h;
  OwnerOnly desc;
  if (LL_FAULT(open)) {
    h = nullptr;
  } else if (nt_class()) {
    if (!desc.build()) return false;
    h = CreateFileMappingW(INVALID_HANDLE_VALUE, &desc.sa, PAGE_READWRITE, 0, size, win::widen(name).c_str());
  } else {
    h = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, size, name);
  }
  if (!h) return fail(GetLastError());
  existed = GetLastError() == ERROR_ALREADY_EXISTS;
  if (existed && nt_class() && !owned_by_caller(h, desc.me)) {
    CloseHandle(h);
    return fail(ERROR_ACCESS_DENIED);
  }
  return map_view(h, size, m);
}

bool open(const char *name, uint32_t size, Mapping &m) noexcept {
  HANDLE h = LL_FAULT(open)   ? nullptr
             : nt_class() ? OpenFileMappingW(FILE_MAP_WRITE, FALSE, win::widen(name).c_str())
                          : OpenFileMappingA(FILE_MAP_WRITE, FALSE, name);
  if (!h) return fail(GetLastError());
  return map_view(h, size, m);
}

void close(const char *, uint32_t, Mapping &m, bool) noexcept {
  const int e = errno;
  if (m.base) UnmapViewOfFile(m.base);
  if (m.handle) CloseHandle(m.handle);
  m = Mapping{};
  errno = e;
}

bool grant(void *, const char *name, uint32_t mask, const void *sid) noexcept {
  if (!nt_class()) return true;  // objects there have no security
  return change_object_dacl(name, sid, mask) == 0;
}

}  // namespace ll::shm_os
