// Mount-table text of arbitrary bytes: the line reader and the table builder
// always end, every mount directory is listed once, and of the mounts of one
// device at most one stays active.
#include <cstdint>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "paths/fstab_os.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string_view text(reinterpret_cast<const char *>(data), size);
  ll::fstab::MountLine line;
  if (ll::fstab::parse_mountinfo_line(text.substr(0, text.find('\n')), line)) {
    if (line.dir.size() > size || line.source.size() > size || line.type.empty()) abort();
  }
  ll::fstab::Table t;
  ll::fstab::table_from_mountinfo(text, t);
  std::set<std::string_view> dirs;
  std::map<uint32_t, int> active;
  for (const ll::fstab::Mount &m : t.rows) {
    if (!dirs.insert(m.dir).second) abort();
    if (!ll::fstab::is_ignored(m) && ++active[m.serial] > 1) abort();
    if (!m.name.empty() && m.name.size() + 1 != m.dir.size()) abort();
  }
  return 0;
}
