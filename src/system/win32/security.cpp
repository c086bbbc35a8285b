// Accounts and security on Windows: the system's own SIDs and self-relative
// security descriptors, through advapi32.
#include "system/security.h"

#include "frame/win32/win.h"

#include <aclapi.h>
#include <dsgetdc.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <liblocal/security.h>

#include "frame/syserr.h"

namespace ll::sec {
namespace {

int fail(int e) {
  errno = e;
  return -1;
}
int fail_os() {
  ll::set_errno_from_os();
  return -1;
}
int fail_code(DWORD code) {
  errno = code ? static_cast<int>(code | static_cast<DWORD>(ll::kSysErrFlag)) : 0;
  return -1;
}

constexpr uint32_t kAllRights = QZ_ACCESS_READ | QZ_ACCESS_WRITE | QZ_ACCESS_EXECUTE | QZ_ACCESS_ALL;

// The process token's user, in a buffer of the caller's.
bool token_user(std::vector<unsigned char> &buf) {
  HANDLE token;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return false;
  DWORD need = 0;
  GetTokenInformation(token, TokenUser, nullptr, 0, &need);
  buf.resize(need ? need : 1);
  BOOL ok = GetTokenInformation(token, TokenUser, buf.data(), need, &need);
  DWORD e = GetLastError();
  CloseHandle(token);
  SetLastError(e);
  return ok != FALSE;
}

PSID admins_sid(unsigned char (&buf)[SECURITY_MAX_SID_SIZE]) {
  DWORD size = sizeof buf;
  return CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, buf, &size) ? static_cast<PSID>(buf) : nullptr;
}

int account_of_sid(PSID sid, char *out, size_t size) {
  wchar_t name[QZ_ACCOUNT_NAME_MAX + 1], domain[QZ_ACCOUNT_NAME_MAX + 1];
  DWORD nl = QZ_ACCOUNT_NAME_MAX + 1, dl = QZ_ACCOUNT_NAME_MAX + 1;
  SID_NAME_USE use;
  if (!LookupAccountSidW(nullptr, sid, name, &nl, domain, &dl, &use)) return fail_os();
  std::string s = ll::win::narrow(name);
  return copy_text(out, size, s.data(), s.size());
}

// A self-relative descriptor whose parts lie inside its first 'size' bytes
// (size 0: as long as it says); null for anything else.
PSECURITY_DESCRIPTOR checked(const void *p, size_t size) {
  const auto *b = static_cast<const unsigned char *>(p);
  if (size && size < 20) return nullptr;
  if (b[0] != SECURITY_DESCRIPTOR_REVISION) return nullptr;
  const WORD control = static_cast<WORD>(b[2] | b[3] << 8);
  if (!(control & SE_SELF_RELATIVE)) return nullptr;
  size_t end = 20;
  for (int i = 0; i < 4; ++i) {
    DWORD off;
    std::memcpy(&off, b + 4 + 4 * i, 4);
    if (!off) continue;
    if (off < 20 || off > 0x10000) return nullptr;
    size_t part;
    if (i < 2) {  // owner, group: a SID
      if (size && off + 8 > size) return nullptr;
      if (b[off] != 1 || b[off + 1] > 15) return nullptr;
      part = 8 + 4u * b[off + 1];
    } else {  // SACL, DACL: an ACL with its own size
      if (size && off + 8 > size) return nullptr;
      part = static_cast<size_t>(b[off + 2] | b[off + 3] << 8);
      if (part < 8) return nullptr;
    }
    if (off + part > end) end = off + part;
  }
  if (size && end > size) return nullptr;
  PSECURITY_DESCRIPTOR sd = const_cast<void *>(p);
  return IsValidSecurityDescriptor(sd) ? sd : nullptr;
}

// Copies an absolute descriptor into p (size bytes) in self-relative form.
int make_relative(PSECURITY_DESCRIPTOR abs, void *p, size_t size) {
  DWORD len = 0;
  MakeSelfRelativeSD(abs, nullptr, &len);
  if (!len) return fail_os();
  std::vector<unsigned char> tmp(len);
  if (!MakeSelfRelativeSD(abs, tmp.data(), &len)) return fail_os();
  return copy_out(p, size, tmp.data(), len);
}

EXPLICIT_ACCESS_W grant_of(const void *sid, uint32_t access) {
  EXPLICIT_ACCESS_W ea;
  ZeroMemory(&ea, sizeof ea);
  ea.grfAccessPermissions = access;
  ea.grfAccessMode = GRANT_ACCESS;
  ea.grfInheritance = NO_INHERITANCE;
  ea.Trustee.TrusteeForm = TRUSTEE_IS_SID;
  ea.Trustee.TrusteeType = TRUSTEE_IS_UNKNOWN;
  ea.Trustee.ptstrName = static_cast<LPWSTR>(const_cast<void *>(sid));
  return ea;
}

// Opens a named kernel object for changing its DACL, trying each kind that
// carries a name.
HANDLE open_named(const std::wstring &name) {
  const DWORD rights = READ_CONTROL | WRITE_DAC;
  DWORD first_error = 0;
  HANDLE h;
  auto keep = [&first_error] {
    DWORD e = GetLastError();
    if (e != ERROR_FILE_NOT_FOUND && !first_error) first_error = e;
  };
  if ((h = OpenFileMappingW(rights, FALSE, name.c_str()))) return h;
  keep();
  if ((h = OpenEventW(rights, FALSE, name.c_str()))) return h;
  keep();
  if ((h = OpenMutexW(rights, FALSE, name.c_str()))) return h;
  keep();
  if ((h = OpenSemaphoreW(rights, FALSE, name.c_str()))) return h;
  keep();
  SetLastError(first_error == ERROR_INVALID_HANDLE || !first_error ? ERROR_FILE_NOT_FOUND : first_error);
  return nullptr;
}

}  // namespace

int my_sid(void *sid, size_t size) noexcept {
  std::vector<unsigned char> buf;
  if (!token_user(buf)) return fail_os();
  PSID s = reinterpret_cast<TOKEN_USER *>(buf.data())->User.Sid;
  return copy_out(sid, size, s, GetLengthSid(s));
}

int user_sid(const char *user, const char *system, void *sid, size_t size) noexcept {
  std::wstring name = ll::win::widen(user);
  if (name.empty()) return fail(EINVAL);
  if (name.size() > 2 && name[0] == L'.' && name[1] == L'\\') {
    wchar_t host[MAX_COMPUTERNAME_LENGTH + 1];
    DWORD n = MAX_COMPUTERNAME_LENGTH + 1;
    if (GetComputerNameW(host, &n)) name = std::wstring(host) + name.substr(1);
  }
  std::wstring sys;
  if (system && std::strcmp(system, ".") != 0) {
    sys = ll::win::widen(system);
    if (sys.empty()) return fail(EINVAL);
  }
  unsigned char buf[SECURITY_MAX_SID_SIZE];
  wchar_t domain[QZ_ACCOUNT_NAME_MAX + 1];
  DWORD sl = sizeof buf, dl = QZ_ACCOUNT_NAME_MAX + 1;
  SID_NAME_USE use;
  if (!LookupAccountNameW(sys.empty() ? nullptr : sys.c_str(), name.c_str(), buf, &sl, domain, &dl, &use))
    return fail_os();
  return copy_out(sid, size, buf, GetLengthSid(buf));
}

int sd_init(void *sd, size_t size) noexcept {
  SECURITY_DESCRIPTOR abs;
  if (!InitializeSecurityDescriptor(&abs, SECURITY_DESCRIPTOR_REVISION)) return fail_os();
  return make_relative(&abs, sd, size);
}

int sd_insert(void *p, size_t size, const void *sid, uint32_t access) noexcept {
  PSECURITY_DESCRIPTOR sd = checked(p, size);
  if (!sd) return fail(EINVAL);
  BOOL present = FALSE, defaulted = FALSE;
  PACL dacl = nullptr, sacl = nullptr;
  PSID owner = nullptr, group = nullptr;
  BOOL sacl_present = FALSE, owner_def = FALSE, group_def = FALSE, sacl_def = FALSE;
  if (!GetSecurityDescriptorDacl(sd, &present, &dacl, &defaulted) ||
      !GetSecurityDescriptorSacl(sd, &sacl_present, &sacl, &sacl_def) ||
      !GetSecurityDescriptorOwner(sd, &owner, &owner_def) || !GetSecurityDescriptorGroup(sd, &group, &group_def))
    return fail_os();
  EXPLICIT_ACCESS_W ea = grant_of(sid, access);
  PACL grown = nullptr;
  DWORD rc = SetEntriesInAclW(1, &ea, present ? dacl : nullptr, &grown);
  if (rc != ERROR_SUCCESS) return fail_code(rc);
  SECURITY_DESCRIPTOR abs;
  int result;
  if (!InitializeSecurityDescriptor(&abs, SECURITY_DESCRIPTOR_REVISION) ||
      (owner && !SetSecurityDescriptorOwner(&abs, owner, owner_def)) ||
      (group && !SetSecurityDescriptorGroup(&abs, group, group_def)) ||
      (sacl_present && !SetSecurityDescriptorSacl(&abs, TRUE, sacl, sacl_def)) ||
      !SetSecurityDescriptorDacl(&abs, TRUE, grown, FALSE))
    result = fail_os();
  else
    result = make_relative(&abs, p, size);
  int e = errno;
  LocalFree(grown);
  errno = e;
  return result;
}

int sd_access(const void *p, const void *sid, uint32_t *access) noexcept {
  PSECURITY_DESCRIPTOR sd = checked(p, 0);
  if (!sd) return fail(EINVAL);
  BOOL present = FALSE, defaulted = FALSE;
  PACL dacl = nullptr;
  if (!GetSecurityDescriptorDacl(sd, &present, &dacl, &defaulted)) return fail_os();
  if (!present || !dacl) {
    *access = kAllRights;
    return 0;
  }
  uint32_t granted = 0;
  for (DWORD i = 0; i < dacl->AceCount; ++i) {
    void *ace = nullptr;
    if (!GetAce(dacl, i, &ace)) break;
    auto *allowed = static_cast<ACCESS_ALLOWED_ACE *>(ace);
    if (allowed->Header.AceType == ACCESS_ALLOWED_ACE_TYPE &&
        EqualSid(reinterpret_cast<PSID>(&allowed->SidStart), const_cast<void *>(sid)))
      granted |= allowed->Mask;
  }
  *access = granted;
  return 1;
}

int set_file_sd(const char *path, const void *p) noexcept {
  PSECURITY_DESCRIPTOR sd = checked(p, 0);
  if (!sd) return fail(EINVAL);
  std::wstring w = ll::win::widen(path);
  if (w.empty()) return fail(EINVAL);
  SECURITY_INFORMATION what = 0;
  BOOL present = FALSE, def = FALSE;
  PSID who = nullptr;
  PACL dacl = nullptr;
  if (GetSecurityDescriptorOwner(sd, &who, &def) && who) what |= OWNER_SECURITY_INFORMATION;
  if (GetSecurityDescriptorGroup(sd, &who, &def) && who) what |= GROUP_SECURITY_INFORMATION;
  if (GetSecurityDescriptorDacl(sd, &present, &dacl, &def) && present) what |= DACL_SECURITY_INFORMATION;
  if (!what) return 0;
  if (!SetFileSecurityW(w.c_str(), what, sd)) return fail_os();
  return 0;
}

int get_file_sd(const char *path, void *p, size_t size) noexcept {
  std::wstring w = ll::win::widen(path);
  if (w.empty()) return fail(EINVAL);
  const SECURITY_INFORMATION what = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                                    DACL_SECURITY_INFORMATION;
  DWORD need = 0;
  GetFileSecurityW(w.c_str(), what, nullptr, 0, &need);
  if (!need) return fail_os();
  std::vector<unsigned char> buf(need);
  if (!GetFileSecurityW(w.c_str(), what, buf.data(), need, &need)) return fail_os();
  return copy_out(p, size, buf.data(), GetSecurityDescriptorLength(buf.data()));
}

int object_dacl(const char *object, const void *sid, uint32_t access) noexcept {
  std::wstring w = ll::win::widen(object);
  if (w.empty()) return fail(EINVAL);
  HANDLE h = open_named(w);
  if (!h) return fail_os();
  int rc = handle_dacl(reinterpret_cast<intptr_t>(h), sid, access);
  int e = errno;
  CloseHandle(h);
  errno = e;
  return rc;
}

int handle_dacl(intptr_t object, const void *sid, uint32_t access) noexcept {
  HANDLE h = reinterpret_cast<HANDLE>(object);
  PACL dacl = nullptr;
  PSECURITY_DESCRIPTOR held = nullptr;
  DWORD rc = GetSecurityInfo(h, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl, nullptr, &held);
  if (rc != ERROR_SUCCESS) return fail_code(rc);
  EXPLICIT_ACCESS_W ea = grant_of(sid, access);
  PACL grown = nullptr;
  rc = SetEntriesInAclW(1, &ea, dacl, &grown);
  if (rc == ERROR_SUCCESS)
    rc = SetSecurityInfo(h, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, grown, nullptr);
  if (grown) LocalFree(grown);
  LocalFree(held);
  return rc == ERROR_SUCCESS ? 0 : fail_code(rc);
}

int user_name(char *out, size_t size) noexcept {
  std::vector<unsigned char> buf;
  if (token_user(buf)) {
    int e = errno;
    int n = account_of_sid(reinterpret_cast<TOKEN_USER *>(buf.data())->User.Sid, out, size);
    if (n >= 0 || errno == ERANGE) return n;
    errno = e;
  }
  wchar_t name[QZ_ACCOUNT_NAME_MAX + 1];
  DWORD n = QZ_ACCOUNT_NAME_MAX + 1;
  if (!GetUserNameW(name, &n)) return fail_os();
  std::string s = ll::win::narrow(name);
  return copy_text(out, size, s.data(), s.size());
}

int admin_name(char *out, size_t size) noexcept {
  unsigned char buf[SECURITY_MAX_SID_SIZE];
  PSID sid = admins_sid(buf);
  if (!sid) return fail_os();
  return account_of_sid(sid, out, size);
}

bool is_admin() noexcept {
  unsigned char buf[SECURITY_MAX_SID_SIZE];
  PSID sid = admins_sid(buf);
  BOOL member = FALSE;
  return sid && CheckTokenMembership(nullptr, sid, &member) && member;
}

int dc_name(const char *domain, char *out, size_t size) noexcept {
  using DsGetDcNameFn = DWORD(WINAPI *)(LPCWSTR, LPCWSTR, GUID *, LPCWSTR, ULONG, PDOMAIN_CONTROLLER_INFOW *);
  using FreeFn = DWORD(WINAPI *)(LPVOID);
  static HMODULE netapi = LoadLibraryW(L"netapi32.dll");
  if (!netapi) return 0;
  auto get = reinterpret_cast<DsGetDcNameFn>(reinterpret_cast<void (*)()>(GetProcAddress(netapi, "DsGetDcNameW")));
  auto release = reinterpret_cast<FreeFn>(reinterpret_cast<void (*)()>(GetProcAddress(netapi, "NetApiBufferFree")));
  if (!get || !release) return 0;
  std::wstring dom = domain ? ll::win::widen(domain) : std::wstring();
  if (domain && dom.empty()) return fail(EINVAL);
  PDOMAIN_CONTROLLER_INFOW info = nullptr;
  if (get(nullptr, domain ? dom.c_str() : nullptr, nullptr, nullptr, 0, &info) != ERROR_SUCCESS || !info) return 0;
  std::string name = info->DomainControllerName ? ll::win::narrow(info->DomainControllerName) : std::string();
  release(info);
  if (name.empty()) return 0;
  return copy_text(out, size, name.data(), name.size()) < 0 ? -1 : 1;
}

}  // namespace ll::sec
