// Test seams of the cluster layer (declared only in the tests).
#include "cluster/hxmap.h"
#include "cluster/native.h"
#include "cluster/script.h"
#include "cluster/state.h"

#include <liblocal/memory.h>

#include <algorithm>
#include <string>

using namespace ll::cluster;

namespace {
bool seam_resolve(const char *dotted, std::string *name) { return resolve_addr4(dotted, name); }
FsCheck seam_fstab(const char *path) { return fstab_check(path); }

std::string dump(const HxMap &m, bool abandoned) {
  std::string out = std::string("active=") + (m.active ? "1" : "0") + (abandoned ? " abandoned" : "") + "\n";
  out += "node=" + m.nodename + "\n";
  for (const VirtHost &h : m.hosts) {
    out += "host=" + h.name + (h.ipaddr.empty() ? "" : " ip=" + h.ipaddr) + "\n";
    for (const std::string &p : h.paths) out += " path=" + p + "\n";
  }
  return out;
}
}  // namespace

extern "C" {

// Decodes map-script output fed in pieces of 'chunk' bytes (0: at once) and
// returns a text form of the map (free it).
LL_API char *llt_clu_decode_map(const char *bytes, size_t n, size_t chunk) noexcept {
  static const MapEnv env{seam_resolve, seam_fstab};
  HxMap map;
  MapDecoder decoder(map, env);
  LineReader reader(decoder);
  if (!chunk) chunk = n ? n : 1;
  for (size_t at = 0; at < n; at += chunk) reader.feed(bytes + at, std::min(chunk, n - at));
  reader.finish();
  return xstrdup(dump(map, decoder.abandoned()).c_str());
}

// Runs a script under the given limits; returns how it ended (0 ok, 1 failed,
// 2 not started, 3 timed out, 4 too much output) and the number of lines read.
LL_API int llt_clu_run_script(const char *path, unsigned timeout_ms, size_t max_output, int *lines) noexcept {
  struct Count final : LineReader::Sink {
    int n = 0;
    void line(std::string_view) override { ++n; }
    void bad_line() override { ++n; }
  } count;
  LineReader reader(count);
  ScriptLimits lim;
  lim.timeout_ms = timeout_ms;
  lim.max_output = max_output;
  const ScriptEnd end = run_script(path, lim, reader);
  reader.finish();
  if (lines) *lines = count.n;
  return static_cast<int>(end);
}

// Sets the cluster type as if detection had found it (no detection runs).
LL_API void llt_clu_force_type(int type) noexcept {
  State *s = state();
  s->type.store(type);
  s->ready.store(true);
}

// Adds a path with its owner to the path list, as the native cluster's disks
// are added.
LL_API void llt_clu_pathl_own(const char *path, const char *host) noexcept {
  State *s = state();
  auto *n = static_cast<PathNode *>(xmalloc(sizeof(PathNode)));
  n->path = xstrdup(path);
  n->host = host ? xstrdup(host) : nullptr;
  n->next = s->paths;
  s->paths = n;
}

// Loads this library as the native cluster API instead of the system's.
LL_API void llt_clu_set_api_library(const char *name) noexcept { ll::cluster::native::set_library(name); }

}  // extern "C"
