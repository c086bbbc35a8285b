// Resolver calls and this machine's addresses on Windows: the socket layer's
// resolver (its answers are copied to the calling thread's storage at once),
// the IP helper's address table, and the TCP/IP registry values of the bound
// devices when the IP helper is missing.
#include "frame/optional.h"
#include "frame/win32/win.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include "frame/areas.h"
#include "frame/fault.h"
#include "frame/syserr.h"
#include "net/hostent_copy.h"
#include "net/hostid_os.h"
#include <liblocal/hostid.h>
#include <liblocal/socket.h>

namespace ll::net {
namespace {

struct Resolved {
  HostCopy<hostent> copy;
};

Resolved &area() { return *ll::thread_area<Resolved>(); }

hostent *keep(hostent *h) noexcept {
  if (!h) {
    errno = socket_errno(WSAGetLastError());
    return nullptr;
  }
  return area().copy.keep(h);
}

// A test seam's answer: none is "host not found".
hostent *seam_answer(void *h) noexcept {
  if (!h) WSASetLastError(WSAHOST_NOT_FOUND);
  return keep(static_cast<hostent *>(h));
}

bool g_no_iphelper = false;  // test seam: act as if the IP helper were missing

// The IP helper's table: MIB_IPADDRTABLE, read through its documented layout.
int from_iphelper(std::vector<uint32_t> &out) {
  if (g_no_iphelper) return 0;
  using Fn = DWORD(WINAPI *)(void *, ULONG *, BOOL);
  auto fn = reinterpret_cast<Fn>(ll::optional::get(ll::optional::kGetIpAddrTable));
  if (!fn) return 0;
  ULONG size = 0;
  if (fn(nullptr, &size, FALSE) != ERROR_INSUFFICIENT_BUFFER || size == 0) return 0;
  std::vector<unsigned char> buf(size);
  if (fn(buf.data(), &size, FALSE) != NO_ERROR) return 0;
  DWORD rows;
  std::memcpy(&rows, buf.data(), 4);
  // Each row: address, index, mask, broadcast, reassembly size, two 16-bit fields.
  const size_t kRow = 24;
  for (DWORD i = 0; i < rows && 4 + (i + 1) * kRow <= buf.size(); ++i) {
    uint32_t a;
    std::memcpy(&a, buf.data() + 4 + i * kRow, 4);
    out.push_back(a);
  }
  return static_cast<int>(out.size());
}

std::vector<std::wstring> multi_string(HKEY key, const wchar_t *value, DWORD max_bytes) {
  std::vector<std::wstring> list;
  std::vector<wchar_t> buf(max_bytes / sizeof(wchar_t) + 2, 0);
  DWORD type = 0, size = max_bytes;
  if (LL_FAULT(registry) ||
      RegQueryValueExW(key, value, nullptr, &type, reinterpret_cast<BYTE *>(buf.data()), &size) != ERROR_SUCCESS)
    return list;
  if (type != REG_MULTI_SZ && type != REG_SZ) return list;
  for (const wchar_t *p = buf.data(); *p; p += wcslen(p) + 1) list.emplace_back(p);
  return list;
}

uint32_t dotted(const std::wstring &w) {
  std::string s = win::narrow(w.c_str());
  unsigned b[4];
  char tail;
  if (std::sscanf(s.c_str(), "%u.%u.%u.%u%c", &b[0], &b[1], &b[2], &b[3], &tail) != 4) return 0;
  for (unsigned v : b)
    if (v > 255) return 0;
  unsigned char bytes[4] = {static_cast<unsigned char>(b[0]), static_cast<unsigned char>(b[1]),
                            static_cast<unsigned char>(b[2]), static_cast<unsigned char>(b[3])};
  uint32_t a;
  std::memcpy(&a, bytes, 4);
  return a;
}

// The bound devices' TCP/IP values in the registry.
int from_registry(std::vector<uint32_t> &out) {
  HKEY link;
  if (LL_FAULT(registry) ||
      RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Linkage", 0, KEY_READ, &link) !=
          ERROR_SUCCESS)
    return 0;
  std::vector<std::wstring> bind = multi_string(link, L"Bind", 300);
  RegCloseKey(link);
  for (const std::wstring &dev : bind) {
    size_t slash = dev.rfind(L'\\');
    std::wstring part = slash == std::wstring::npos ? L"\\" + dev : dev.substr(slash);
    std::wstring path = L"SYSTEM\\CurrentControlSet\\Services" + part + L"\\Parameters\\Tcpip";
    HKEY k;
    if (LL_FAULT(registry) || RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &k) != ERROR_SUCCESS) continue;
    uint32_t last = 0;
    for (const std::wstring &ip : multi_string(k, L"IPAddress", 512)) {
      last = dotted(ip);
      if (last) out.push_back(last);
    }
    if (!last)  // a DHCP-configured device shows 0.0.0.0
      for (const std::wstring &ip : multi_string(k, L"DHCPIPAddress", 512))
        if (uint32_t a = dotted(ip)) out.push_back(a);
    RegCloseKey(k);
  }
  return static_cast<int>(out.size());
}

}  // namespace

namespace os {

bool to_answer(const hostent *h, Answer &out) { return plain_answer(h, out); }

int own_addrs(std::vector<uint32_t> &out) noexcept {
  try {
    if (from_iphelper(out) > 0) return static_cast<int>(out.size());
    out.clear();
    return from_registry(out);
  } catch (...) {
    return -1;
  }
}

hostent *by_name(const char *name) noexcept {
  Tcp_Is_Loaded();
  if (g_seam_byname) return seam_answer(g_seam_byname(name));
  return keep(::gethostbyname(name));
}

hostent *by_addr(const char *addr, int len, int type) noexcept {
  Tcp_Is_Loaded();
  if (g_seam_byaddr) return seam_answer(g_seam_byaddr(addr, len, type));
  return keep(::gethostbyaddr(addr, len, type));
}

}  // namespace os
}  // namespace ll::net

extern "C" {

LL_API void llt_hostid_no_iphelper(int on) noexcept { ll::net::g_no_iphelper = on != 0; }

}  // extern "C"
