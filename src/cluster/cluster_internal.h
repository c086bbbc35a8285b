// Cluster layer, shared between its files: the detected type, the host
// comparison given to clu_init, the map script's view of this node, and the
// calls this layer makes into host identity and the file-system table.
#pragma once
#include <liblocal/cluster.h>

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

namespace ll::cluster {

// ---- state of the type detection ----

// Determines the type once per process (a no-op on the thread that is
// determining it, so that detection may use any part of the library).
void ensure_init() noexcept;
// The type as known now: CLU_TYPE_UNKNOWN until detection has finished.
int type_now() noexcept;
// The comparison function given to clu_init, or null.
clu_hostcmp_fn default_compare() noexcept;

// ---- the map script's description of this node ----

struct VirtHost {
  std::string ipaddr;               // dotted address when the map named one
  std::string name;                 // virtual host name
  std::vector<std::string> paths;   // owned paths, accepted against the fstab
};

struct HxMap {
  bool active = false;
  std::string nodename;
  std::vector<VirtHost> hosts;
};

// The map of this process (empty and inactive when there is none).
const HxMap &hx_map() noexcept;
// Builds the map from the script once; true when it marks the cluster active.
bool hx_build() noexcept;

// ---- host matching ----

// The cluster's host-matching rule (exact ignoring case, cmp or the default,
// then official names and aliases from the resolver).
bool host_match(const char *a, const char *b, clu_hostcmp_fn cmp) noexcept;

// ---- other families ----

// This machine's name (getlocalhost), never null.
const char *local_host() noexcept;
// Official name and aliases of a name, through the library's resolver.
struct Resolved {
  std::string official;
  std::vector<std::string> aliases;
};
bool resolve_name(const char *name, Resolved *out) noexcept;
// The official name and aliases of a resolver answer (a struct hostent).
bool host_names(const void *answer, Resolved *out) noexcept;
// host_names for the back-ends, on either system's struct hostent.
template <class H> bool names_of(const H *h, Resolved *out) noexcept {
  if (!h || !h->h_name) return false;
  out->official = h->h_name;
  out->aliases.clear();
  for (char **a = h->h_aliases; a && *a && out->aliases.size() < 256; ++a) out->aliases.emplace_back(*a);
  return true;
}
// Official name of a dotted IPv4 address.
bool resolve_addr4(const char *dotted, std::string *name) noexcept;
// How a path stands in the file-system table.
enum class FsCheck { mount_dir, raw_device, neither, table_failed };
FsCheck fstab_check(const char *path) noexcept;

// The comparison start-up gives to clu_init.
clu_hostcmp_fn startup_compare() noexcept;

// File names compare without regard to case on this platform.
extern const bool kFoldNames;
// Separator of the platform's paths.
extern const char kDirSep;
// The map script's file name in the binary directory.
extern const char kScriptName[];

}  // namespace ll::cluster
