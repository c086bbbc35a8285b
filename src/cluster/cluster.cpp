// Cluster type detection, the virtual hosts of this node, and the answers
// kept for the life of the process.
#include "cluster/hxmap.h"
#include "cluster/native.h"
#include "cluster/script.h"
#include "cluster/state.h"

#include <liblocal/appdir.h>
#include <liblocal/fileio.h>
#include <liblocal/memory.h>
#include <liblocal/output.h>

#include "frame/areas.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ll::cluster {
namespace {

thread_local bool t_detecting = false;

// The map script's name in the binary directory.
std::string script_path() {
  const char *bin = qz_get_bindir();
  if (!bin) return {};
  std::string p = bin;
  p += kDirSep;
  p += kScriptName;
  return p;
}

void dump_map(const HxMap &m) {
  for (const VirtHost &h : m.hosts)
    for (size_t i = 0; i < (h.paths.empty() ? 1 : h.paths.size()); ++i) {
      dprintf(7, "\tipaddr=%s\n", h.ipaddr.c_str());
      dprintf(7, "\tvhostname=%s\n", h.name.c_str());
      dprintf(7, "\tfspath=%s\n", h.paths.empty() ? "" : h.paths[i].c_str());
    }
}

bool env_resolve(const char *dotted, std::string *name) { return resolve_addr4(dotted, name); }
FsCheck env_fstab(const char *path) { return fstab_check(path); }

void detect(State *s, clu_hostcmp_fn cmp) {
  s->cmp.store(cmp, std::memory_order_release);
  native::load();
  int found = 0, type = CLU_TYPE_NONE;
  if (hx_build()) {
    ++found;
    type = CLU_TYPE_HX;
  }
  if (native::present()) {
    ++found;
    type = CLU_TYPE_NATIVE;
  }
  if (found == 2) dprintf(7, "Warning: more than one cluster type detected...\n");
  if (found != 1) {
    type = CLU_TYPE_NONE;
    dprintf(7, "Clu_cluster_type = NONE (forced)\n");
  } else {
    dprintf(7, type == CLU_TYPE_HX ? "Clu_cluster_type = HX\n" : "Clu_cluster_type = NATIVE\n");
  }
  s->type.store(type, std::memory_order_release);
  s->ready.store(true, std::memory_order_release);
}

void init_with(clu_hostcmp_fn cmp, bool set_cmp) {
  State *s = state();
  if (s->ready.load(std::memory_order_acquire)) {
    if (set_cmp) s->cmp.store(cmp, std::memory_order_release);
    return;
  }
  if (t_detecting) return;
  std::lock_guard<std::mutex> g(s->init_mu);
  if (s->ready.load(std::memory_order_relaxed)) {
    if (set_cmp) s->cmp.store(cmp, std::memory_order_release);
    return;
  }
  t_detecting = true;
  detect(s, set_cmp ? cmp : nullptr);
  t_detecting = false;
}

}  // namespace

State::~State() {
  std::free(hostname);
  for (PathNode *n = paths; n;) {
    PathNode *next = n->next;
    std::free(n->path);
    std::free(n->host);
    std::free(n);
    n = next;
  }
}

State *state() noexcept { return ll::process_area<State>(); }

void ensure_init() noexcept {
  if (!state()->ready.load(std::memory_order_acquire)) init_with(nullptr, false);
}

int type_now() noexcept { return state()->type.load(std::memory_order_acquire); }

clu_hostcmp_fn default_compare() noexcept { return state()->cmp.load(std::memory_order_acquire); }

const HxMap &hx_map() noexcept { return state()->map; }

// Runs under the detection lock, once.
bool hx_build() noexcept {
  State *s = state();
  if (s->map_built) return s->map.active;
  s->map_built = true;
  const std::string script = script_path();
  if (script.empty() || !script_runnable(script.c_str())) {
    dprintf(7, "No access to file: %s ...\n", script.empty() ? kScriptName : script.c_str());
    return false;
  }
  static const MapEnv env{env_resolve, env_fstab};
  HxMap map;
  MapDecoder decoder(map, env);
  LineReader reader(decoder);
  const ScriptEnd end = run_script(script.c_str(), ScriptLimits{}, reader);
  if (end == ScriptEnd::not_started) {
    dprintf(7, "Error popen'ing buffer %s ...\n", script.c_str());
    return false;
  }
  reader.finish();
  if (end != ScriptEnd::ok) {
    dprintf(7, "%s %s: map not used\n", script.c_str(),
            end == ScriptEnd::timed_out         ? "did not end in time"
            : end == ScriptEnd::too_much_output ? "wrote too much"
                                                : "failed");
    map = HxMap{};
  }
  if (!map.active) {
    dprintf(7, "\nclu_init_hx(): Can't build fspath_vhost_map...\n");
    return false;
  }
  dump_map(map);
  s->map = std::move(map);
  return true;
}

}  // namespace ll::cluster

using namespace ll::cluster;

LL_API int clu_init(clu_hostcmp_fn cmp) noexcept {
  init_with(cmp, true);
  return type_now();
}

LL_API int clu_get_type(void) noexcept {
  ensure_init();
  return type_now();
}

LL_API int clu_dflt_name(void) noexcept {
  ensure_init();
  return 0;
}

LL_API int clu_is_cluster_host(void) noexcept {
  State *s = state();
  if (!s->ready.load(std::memory_order_acquire)) ensure_init();
  const int t = s->type.load(std::memory_order_acquire);
  return t == CLU_TYPE_NATIVE || t == CLU_TYPE_HX;
}

LL_API int clu_is_cluster_mode(const char *name, const char *directory) noexcept {
  State *s = state();
  const int cached = s->mode.load(std::memory_order_acquire);
  if (cached >= 0) return cached;
  if (!clu_is_cluster_host()) {
    s->mode.store(0, std::memory_order_release);
    return 0;
  }
  if (!name || !directory) return 0;
  std::string marker = std::string(directory) + name + "." + "clustersvr";
  struct ll_stat64 st;
  const int answer = qzstat(marker.c_str(), &st) == 0 ? 1 : 0;
  dprintf(7, "cluster server marker %s %s\n", marker.c_str(), answer ? "found" : "not found");
  int expected = -1;
  s->mode.compare_exchange_strong(expected, answer, std::memory_order_acq_rel);
  return s->mode.load(std::memory_order_acquire);
}

LL_API int clu_is_localvirthost(const char *host) noexcept {
  ensure_init();
  switch (type_now()) {
    case CLU_TYPE_NATIVE:
      return native::is_local_virtual_host(host) ? 1 : 0;
    case CLU_TYPE_HX:
      if (!host || !*host) {
        dprintf(7, "clu_is_localvirthost_hx(): NULL hostname\n");
        return 0;
      }
      for (const VirtHost &h : hx_map().hosts)
        if (host_match(host, h.name.c_str(), nullptr)) return 1;
      return 0;
    default:
      dprintf(7, "clu_is_localvirthost(): unknown cluster type\n");
      return 0;
  }
}

LL_API int clu_path_owner_ignore(int verbose) noexcept {
  State *s = state();
  const int cached = s->owner_ignore.load(std::memory_order_acquire);
  if (cached >= 0) return cached;
  std::lock_guard<std::mutex> g(s->mu);
  if (s->owner_ignore.load(std::memory_order_relaxed) >= 0) return s->owner_ignore.load(std::memory_order_relaxed);
  dprintf(5, "Searching for Baystow bin 'pathownerignore' file.\n");
  if (verbose) printerr("Searching for Baystow bin 'pathownerignore' file.\n");
  int answer = 0;
  if (const char *origin = find_origin(nullptr)) {
    const std::string file = std::string(origin) + "pathownerignore";
    struct ll_stat64 st;
    if (qzstat(file.c_str(), &st) == 0) {
      answer = 1;
      dprintf(5, "Detected ownership override file %s.\n", file.c_str());
      if (verbose) printerr("Detected ownership override file %s.\n", file.c_str());
    }
  }
  s->owner_ignore.store(answer, std::memory_order_release);
  return answer;
}

LL_API const char *clus_get_hostname(const char *host, const char *path) noexcept {
  ensure_init();
  State *s = state();
  std::lock_guard<std::mutex> g(s->mu);
  if (!s->hostname) s->hostname = host ? xstrdup(host) : clu_pathl_gethost(path);
  return s->hostname;
}

LL_API char *clus_get_service_hostname(const char *host, const char *path, int mode, clu_hostcmp_fn cmp) noexcept {
  ensure_init();
  if (mode == 1) return xstrdup(local_host());
  if (mode != 2) return nullptr;
  if (!host) {
    const char *h = clus_get_hostname(nullptr, path);
    return h ? xstrdup(h) : nullptr;
  }
  Resolved r;
  if (!resolve_name(host, &r)) return nullptr;
  const char *official = r.official.c_str();
  if (clu_pathl_hostpath_match(official, path, cmp) && clu_is_localvirthost(official)) {
    const char *h = clus_get_hostname(official, path);
    return h ? xstrdup(h) : nullptr;
  }
  return nullptr;
}
