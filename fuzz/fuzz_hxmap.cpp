// The map script's line reader and decoder on arbitrary output, fed in
// pieces whose size the first byte chooses. Every line handed on is bounded
// and free of NUL and line ends; the map stays within its bounds and holds
// only absolute owned paths without trailing separators.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cluster/hxmap.h"

using namespace ll::cluster;

namespace {

bool resolve(const char *dotted, std::string *name) {
  if (dotted[0] == '1') return false;
  *name = std::string("host-") + dotted;
  return true;
}

FsCheck fstab(const char *path) {
  switch (std::strlen(path) % 4) {
    case 0: return FsCheck::mount_dir;
    case 1: return FsCheck::raw_device;
    case 2: return FsCheck::neither;
    default: return FsCheck::table_failed;
  }
}

struct Checked final : LineReader::Sink {
  MapDecoder &inner;
  explicit Checked(MapDecoder &d) : inner(d) {}
  void line(std::string_view t) override {
    if (t.size() > LineReader::kMaxLine || t.find('\0') != t.npos || t.find('\n') != t.npos) std::abort();
    inner.line(t);
  }
  void bad_line() override { inner.bad_line(); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const size_t chunk = data[0] ? data[0] : 4096;
  static const MapEnv env{resolve, fstab};
  HxMap map;
  MapDecoder decoder(map, env);
  Checked checked(decoder);
  LineReader reader(checked);
  const char *p = reinterpret_cast<const char *>(data + 1);
  for (size_t left = size - 1; left;) {
    const size_t n = left < chunk ? left : chunk;
    reader.feed(p, n);
    p += n;
    left -= n;
  }
  reader.finish();
  if (map.hosts.size() > MapDecoder::kMaxHosts) std::abort();
  if (decoder.abandoned() && (map.active || !map.hosts.empty())) std::abort();
  for (const VirtHost &h : map.hosts) {
    if (h.name.empty() || h.paths.size() > MapDecoder::kMaxPaths) std::abort();
    for (const std::string &path : h.paths) {
      if (path.empty() || (path[0] != '/' && path[0] != '\\' && path[1] != ':')) std::abort();
      const char last = path.back();
      const size_t floor = path.size() > 1 && path[1] == ':' ? 3 : 1;
      if (path.size() > floor && (last == '/' || last == '\\')) std::abort();
    }
  }
  return 0;
}
