// The map script's output: a bounded line reader and the decoder of its
// "key: value" lines. Both are pure (the decoder asks the resolver and the
// file-system table through MapEnv), so they can be fed any bytes.
#pragma once
#include "cluster/cluster_internal.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace ll::cluster {

// Splits a byte stream into lines (LF or CR LF ends a line; a last line
// without an end counts). A line longer than kMaxLine or holding a NUL byte
// is reported as bad instead, once, however long it is.
class LineReader {
 public:
  static constexpr size_t kMaxLine = 4096;
  struct Sink {
    virtual void line(std::string_view text) = 0;
    virtual void bad_line() = 0;
  };
  explicit LineReader(Sink &sink) : sink_(sink) {}
  void feed(const char *data, size_t n);
  void finish();

 private:
  void end_line();
  Sink &sink_;
  std::string buf_;
  bool bad_ = false;
};

struct MapEnv {
  bool (*resolve_addr4)(const char *dotted, std::string *name);
  FsCheck (*fstab_check)(const char *path);
};

// Builds an HxMap from decoded lines. Once a "clu_type" line names another
// type the map is abandoned: later lines are ignored and it stays inactive.
class MapDecoder final : public LineReader::Sink {
 public:
  static constexpr size_t kMaxHosts = 256;
  static constexpr size_t kMaxPaths = 256;  // per virtual host
  MapDecoder(HxMap &map, const MapEnv &env) : map_(map), env_(env) {}
  void line(std::string_view text) override;
  void bad_line() override;
  bool abandoned() const { return abandoned_; }

 private:
  void host(const std::string &text);
  void owned_paths(std::string_view value);
  void owned_path(std::string path);
  HxMap &map_;
  const MapEnv &env_;
  VirtHost *current_ = nullptr;
  bool abandoned_ = false;
};

}  // namespace ll::cluster
