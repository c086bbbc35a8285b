// The save server's store: one folder per save, named by its identifier in
// hex. A save being received lives in ".partial-<hex>" and becomes
// "<hex>" by one rename once its last frame has been checked and written, so
// a save cut off half-way never looks finished. Each save holds:
//   data  the checked entry, block and file-end frames as they arrived
//   info  "files N", "bytes N", "time T" lines
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <liblocal.h>

namespace llocal::store {

std::string hex_of(const qzui &id);
bool id_of_hex(const std::string &hex, qzui &id);

struct Info {
  qzui id{};
  int64_t time = 0;
  uint64_t files = 0, bytes = 0;
};

// Removes saves left half-way by an earlier server (".partial-*").
void sweep(const std::string &dir);
// Every finished save, oldest first.
std::vector<Info> list(const std::string &dir);
// The finished save's data file, opened for reading; null when there is none.
std::FILE *open_data(const std::string &dir, const qzui &id);

// A save being received.
class Writer {
 public:
  explicit Writer(const std::string &dir) : dir_(dir) {}
  ~Writer();  // discards an unfinished save
  bool begin(std::string &why);
  bool write(const void *p, size_t n, std::string &why);
  // Writes the info file and renames the save into place.
  bool finish(uint64_t files, uint64_t bytes, std::string &why);
  void discard();
  const qzui &id() const { return id_; }

 private:
  std::string dir_, partial_;
  qzui id_{};
  std::FILE *data_ = nullptr;
  bool done_ = false;
};

}  // namespace llocal::store
