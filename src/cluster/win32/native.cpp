// The operating system's cluster service through its API, loaded by name on
// first use. Every answer walks the cluster afresh (groups move between
// nodes); buffers, names and counts are bounded so that a misbehaving
// service cannot hold up or exhaust the caller.
#include "frame/win32/win.h"

#include "cluster/win32/clusapi_abi.h"

#include "cluster/native.h"
#include "cluster/state.h"

#include <liblocal/output.h>

#include "frame/areas.h"

#include <cstring>
#include <cwchar>
#include <mutex>

namespace ll::cluster::native {
namespace {

constexpr DWORD kNoMoreItems = 259;   // ERROR_NO_MORE_ITEMS
constexpr DWORD kMoreData = 234;      // ERROR_MORE_DATA
constexpr DWORD kMaxName = 4096;      // characters of one name
constexpr DWORD kMaxControl = 65536;  // bytes of one control answer
constexpr DWORD kMaxItems = 4096;     // groups, or resources of one group

struct Api {
  std::once_flag once;
  std::wstring library = L"CLUSAPI.DLL";
  bool loaded = false;
  llc_OpenCluster OpenCluster;
  llc_CloseCluster CloseCluster;
  llc_ClusterOpenEnum ClusterOpenEnum;
  llc_ClusterEnum ClusterEnum;
  llc_ClusterCloseEnum ClusterCloseEnum;
  llc_OpenClusterGroup OpenClusterGroup;
  llc_CloseClusterGroup CloseClusterGroup;
  llc_GetClusterGroupState GetClusterGroupState;
  llc_ClusterGroupOpenEnum ClusterGroupOpenEnum;
  llc_ClusterGroupEnum ClusterGroupEnum;
  llc_ClusterGroupCloseEnum ClusterGroupCloseEnum;
  llc_OpenClusterResource OpenClusterResource;
  llc_CloseClusterResource CloseClusterResource;
  llc_GetClusterResourceState GetClusterResourceState;
  llc_ClusterResourceControl ClusterResourceControl;
};

Api *api() { return ll::process_area<Api>(); }

template <class F> bool find(HMODULE m, const char *name, F *fn) {
  *fn = reinterpret_cast<F>(reinterpret_cast<void *>(GetProcAddress(m, name)));
  if (!*fn) dprintf(2, "%s not found in the cluster API\n", name);
  return *fn != nullptr;
}

void do_load(Api *a) {
  HMODULE m = LoadLibraryW(a->library.c_str());
  if (!m) {
    dprintf(7, "cluster API %s not loaded (%lu)\n", ll::win::narrow(a->library.c_str()).c_str(), GetLastError());
    return;
  }
  // Every entry point or none: a partial interface counts as no cluster. The
  // library stays loaded for the life of the process.
  bool ok = true;
  ok &= find(m, "OpenCluster", &a->OpenCluster);
  ok &= find(m, "CloseCluster", &a->CloseCluster);
  ok &= find(m, "ClusterOpenEnum", &a->ClusterOpenEnum);
  ok &= find(m, "ClusterEnum", &a->ClusterEnum);
  ok &= find(m, "ClusterCloseEnum", &a->ClusterCloseEnum);
  ok &= find(m, "OpenClusterGroup", &a->OpenClusterGroup);
  ok &= find(m, "CloseClusterGroup", &a->CloseClusterGroup);
  ok &= find(m, "GetClusterGroupState", &a->GetClusterGroupState);
  ok &= find(m, "ClusterGroupOpenEnum", &a->ClusterGroupOpenEnum);
  ok &= find(m, "ClusterGroupEnum", &a->ClusterGroupEnum);
  ok &= find(m, "ClusterGroupCloseEnum", &a->ClusterGroupCloseEnum);
  ok &= find(m, "OpenClusterResource", &a->OpenClusterResource);
  ok &= find(m, "CloseClusterResource", &a->CloseClusterResource);
  ok &= find(m, "GetClusterResourceState", &a->GetClusterResourceState);
  ok &= find(m, "ClusterResourceControl", &a->ClusterResourceControl);
  a->loaded = ok;
}

// The API, or null with the debug line naming the operation.
Api *ready(const char *op) {
  Api *a = api();
  if (!a->loaded) {
    dprintf(2, "Cluster API should be loaded before calling %s\n", op);
    return nullptr;
  }
  return a;
}

const char *resource_state_name(int s) {
  static const char *const names[] = {"ClusterResourceOnline",  "ClusterResourceOffline",
                                      "ClusterResourceFailed",  "ClusterResourcePending",
                                      "ClusterResourceOnlinePending", "ClusterResourceOfflinePending"};
  switch (s) {
    case -1: return "ClusterResourceStateUnknown";
    case 0: return "ClusterResourceInherited";
    case 1: return "ClusterResourceInitializing";
    case 2: case 3: case 4: return names[s - 2];
    case 128: case 129: case 130: return names[s - 125];
    default: return "ClusterResourceStateUnknown";
  }
}

// One enumeration step with a growing name buffer: 1 item, 0 end, -1 failure.
template <class Step> int enum_name(Step step, std::wstring *name) {
  std::wstring buf(256, L'\0');
  for (;;) {
    DWORD cch = static_cast<DWORD>(buf.size());
    DWORD type = 0;
    const DWORD r = step(&type, buf.data(), &cch);
    if (r == kNoMoreItems) return 0;
    if (r == kMoreData && cch < kMaxName && cch >= buf.size()) {
      buf.assign(cch + 1, L'\0');
      continue;
    }
    if (r != 0) return -1;
    buf.resize(wcsnlen(buf.c_str(), buf.size()));
    *name = buf;
    return 1;
  }
}

// The answer of a read control, bounded.
bool control(Api *a, LLC_HRESOURCE r, DWORD code, std::string *out) {
  DWORD size = 1024;
  for (;;) {
    out->assign(size, '\0');
    DWORD got = 0;
    const DWORD e = a->ClusterResourceControl(r, nullptr, code, nullptr, 0, out->data(), size, &got);
    if (e == kMoreData && got > size && got <= kMaxControl) {
      size = got;
      continue;
    }
    if (e != 0 || got > size) return false;
    out->resize(got);
    return true;
  }
}

DWORD word_at(const std::string &b, size_t at) {
  DWORD w;
  std::memcpy(&w, b.data() + at, 4);
  return w;
}

// A wide text of at most n bytes at 'at', cut at its terminator.
std::string text_at(const std::string &b, size_t at, size_t n) {
  std::wstring w(n / 2, L'\0');
  std::memcpy(w.data(), b.data() + at, w.size() * 2);
  w.resize(wcsnlen(w.c_str(), w.size()));
  return ll::win::narrow(w.c_str());
}

// Walks a value list (syntax, length, padded data ... end mark); fn(syntax,
// offset, length) returns false to stop. False when the list is malformed.
template <class Fn> bool walk_values(const std::string &b, size_t *at, Fn fn) {
  while (*at + 4 <= b.size()) {
    const DWORD syntax = word_at(b, *at);
    if (syntax == LLC_SYNTAX_ENDMARK) {
      *at += 4;
      return true;
    }
    if (*at + 8 > b.size()) return false;
    const DWORD len = word_at(b, *at + 4);
    const size_t data = *at + 8;
    if (len > b.size() - data) return false;
    if (!fn(syntax, data, len)) return true;
    *at = data + ((len + 3u) & ~size_t{3});
  }
  return false;
}

// The "Name" value of a network-name resource's private properties.
std::string network_name(Api *a, LLC_HRESOURCE r) {
  std::string b;
  if (!control(a, r, LLC_CTL_GET_PRIVATE_PROPERTIES, &b) || b.size() < 4) return {};
  DWORD count = word_at(b, 0);
  size_t at = 4;
  for (; count && at < b.size(); --count) {
    std::string prop, value;
    bool first = true;
    if (!walk_values(b, &at, [&](DWORD syntax, size_t data, DWORD len) {
          if (first && syntax == LLC_SYNTAX_NAME) prop = text_at(b, data, len);
          else if (!first && syntax == LLC_SYNTAX_LIST_VALUE_SZ && value.empty()) value = text_at(b, data, len);
          first = false;
          return true;
        }))
      return {};
    if (prop == "Name") return value;
  }
  return {};
}

// Volume roots of a disk resource's partitions ("E:" becomes "E:\").
void disk_roots(Api *a, LLC_HRESOURCE r, std::vector<std::string> *out) {
  std::string b;
  if (!control(a, r, LLC_CTL_STORAGE_GET_DISK_INFO, &b)) return;
  size_t at = 0;
  walk_values(b, &at, [&](DWORD syntax, size_t data, DWORD len) {
    if (syntax == LLC_SYNTAX_PARTITION_INFO && len >= LLC_PARTITION_NAME_OFFSET + 2 * 260) {
      std::string dev = text_at(b, data + LLC_PARTITION_NAME_OFFSET, 2 * 260);
      if (!dev.empty()) {
        if (dev.back() != '\\') dev += '\\';
        if (out->size() < kMaxItems) out->push_back(dev);
      }
    }
    return true;
  });
}

std::wstring computer_name() {
  wchar_t buf[MAX_COMPUTERNAME_LENGTH + 1];
  DWORD n = MAX_COMPUTERNAME_LENGTH + 1;
  return GetComputerNameW(buf, &n) ? std::wstring(buf, n) : std::wstring();
}

void read_group(Api *a, LLC_HCLUSTER c, const std::wstring &name, const std::wstring &here, Group *g) {
  g->name = ll::win::narrow(name.c_str());
  LLC_HGROUP hg = a->OpenClusterGroup(c, name.c_str());
  if (!hg) return;
  wchar_t node[kMaxName];
  DWORD cch = kMaxName;
  const int state = a->GetClusterGroupState(hg, node, &cch);
  node[cch < kMaxName ? cch : kMaxName - 1] = 0;
  g->online_here = (state == LLC_GROUP_ONLINE || state == LLC_GROUP_PARTIAL_ONLINE) && !here.empty() &&
                   _wcsicmp(node, here.c_str()) == 0;
  dprintf(7, "group %s: state %d on node %s\n", g->name.c_str(), state, ll::win::narrow(node).c_str());
  if (LLC_HGROUPENUM e = a->ClusterGroupOpenEnum(hg, LLC_GROUP_ENUM_CONTAINS)) {
    std::wstring res;
    for (DWORD i = 0; i < kMaxItems; ++i) {
      const int got = enum_name([&](DWORD *t, LPWSTR b, DWORD *n) { return a->ClusterGroupEnum(e, i, t, b, n); }, &res);
      if (got <= 0) break;
      LLC_HRESOURCE r = a->OpenClusterResource(c, res.c_str());
      if (!r) continue;
      std::string type;
      if (control(a, r, LLC_CTL_GET_RESOURCE_TYPE, &type)) {
        const std::string t = text_at(type, 0, type.size());
        const int rs = a->GetClusterResourceState(r, nullptr, nullptr, nullptr, nullptr);
        dprintf(7, "resource %s (%s): %s\n", ll::win::narrow(res.c_str()).c_str(), t.c_str(), resource_state_name(rs));
        if (t == "Network Name" && g->network_name.empty()) g->network_name = network_name(a, r);
        else if (t == "Physical Disk") disk_roots(a, r, &g->disks);
      }
      a->CloseClusterResource(r);
    }
    a->ClusterGroupCloseEnum(e);
  }
  a->CloseClusterGroup(hg);
}

}  // namespace

void set_library(const char *name) noexcept {
  if (name) api()->library = ll::win::widen(name);
}

bool load() noexcept {
  Api *a = api();
  std::call_once(a->once, do_load, a);
  return a->loaded;
}

bool present() noexcept {
  Api *a = ready("OpenCluster");
  if (!a) return false;
  LLC_HCLUSTER c = a->OpenCluster(nullptr);
  if (!c) {
    dprintf(2, "Running in a non-cluster environment\n");
    return false;
  }
  a->CloseCluster(c);
  return true;
}

std::vector<Group> groups() noexcept {
  std::vector<Group> out;
  Api *a = ready("ClusterOpenEnum");
  if (!a) return out;
  LLC_HCLUSTER c = a->OpenCluster(nullptr);
  if (!c) {
    dprintf(2, "Running in a non-cluster environment\n");
    return out;
  }
  const std::wstring here = computer_name();
  if (LLC_HCLUSENUM e = a->ClusterOpenEnum(c, LLC_ENUM_GROUP)) {
    std::wstring name;
    for (DWORD i = 0; i < kMaxItems; ++i) {
      const int got = enum_name([&](DWORD *t, LPWSTR b, DWORD *n) { return a->ClusterEnum(e, i, t, b, n); }, &name);
      if (got <= 0) break;
      out.emplace_back();
      read_group(a, c, name, here, &out.back());
    }
    a->ClusterCloseEnum(e);
  }
  a->CloseCluster(c);
  return out;
}

bool is_local_virtual_host(const char *name) noexcept {
  if (!name || !*name) return false;
  // A qualified name matches the network name by its first label too.
  const char *dot = std::strchr(name, '.');
  const std::string label(name, dot ? static_cast<size_t>(dot - name) : std::strlen(name));
  for (const Group &g : groups())
    if (g.online_here && !g.network_name.empty() &&
        (names_equal(g.network_name.c_str(), name) || names_equal(g.network_name.c_str(), label.c_str())))
      return true;
  return false;
}

bool disk_owner(const char *path, std::string *owner) noexcept {
  int best = 0;
  for (const Group &g : groups()) {
    if (g.network_name.empty()) continue;
    for (const std::string &d : g.disks) {
      const int len = preflen(path, d.c_str());
      if (len > best) {
        best = len;
        *owner = g.network_name;
      }
    }
  }
  return best > 0;
}

}  // namespace ll::cluster::native
