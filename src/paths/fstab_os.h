// The file-system table: what the portable code (fstab.cpp, fstab_table.cpp)
// offers the back-ends, and what each back-end (paths/posix/fstab.cpp,
// paths/win32/fstab.cpp) supplies. No platform types.
#pragma once
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ll::fstab {

// One entry while the table is being built. Its texts are views into the
// table's own storage (or static texts). An empty name stands for the mount
// directory itself. ignored: "ignore" goes in front of the options.
struct Mount {
  std::string_view device, dir, type, options, name;
  uint32_t serial = 0;
  bool ignored = false;
};

// True when the comma-separated list holds word exactly.
bool has_word(std::string_view list, std::string_view word) noexcept;
// True when the entry is not to be saved on its own ("ignore").
inline bool is_ignored(const Mount &m) noexcept { return m.ignored || has_word(m.options, "ignore"); }

// The table in order of addition (the list handed out runs backwards), with
// the indexes that keep adding an entry cheap on tables of many mounts. Rows
// never move once added (a deque), so the index of directories can point
// into them.
class Table {
 public:
  std::deque<Mount> rows;

  // True when a row has exactly this mount directory.
  bool has_dir(std::string_view dir) const;
  // Of several mount directories of one serial the shallowest (fewest
  // separators sep), then the shortest, stays active; on a tie the newcomer
  // gets "ignore". Decides for m against the rows and marks the loser.
  void settle(Mount &m, char sep);
  // Appends m (after settle, or for entries outside the rule).
  void push(Mount m);
  void reserve(size_t n);
  // Keeps a text for the life of the table; the view stays valid.
  std::string_view keep(std::string s) {
    texts_.push_back(std::move(s));
    return texts_.back();
  }

 private:
  std::deque<std::string> texts_;
  static constexpr size_t kNone = static_cast<size_t>(-1);
  // Per serial: the newest row, and the newest row still active; the rows
  // active before it are chained through below_.
  struct Group {
    size_t newest = kNone, active = kNone;
  };
  // Rows by mount directory: open addressing, each slot the directory's hash
  // (high half) and its row + 1 (low half), 0 when free.
  std::vector<uint64_t> dirs_;
  size_t dir_count_ = 0;
  void grow_dirs(size_t want);
  void place_dir(size_t row);
  std::unordered_map<uint32_t, Group> groups_;
  std::vector<size_t> below_;
};

// ---- the POSIX mount table (fstab_table.cpp) ----
// One line of /proc/self/mountinfo, texts decoded ("\040" and the like).
struct MountLine {
  uint32_t id = 0, parent = 0;
  uint32_t major = 0, minor = 0;
  std::string root, dir, options, type, source, super_options;
};
// Parses one line (without its newline); false when it is not well formed.
bool parse_mountinfo_line(std::string_view line, MountLine &out);
// Builds the table from the whole text, which must live as long as t: the
// mounts hidden under a later mount on the same directory (or below one) are
// left out; the others go through the duplicate rule with "/" as the
// separator.
void table_from_mountinfo(std::string_view text, Table &t);

// ---- portable (fstab.cpp) ----
// The system-state pseudo entries, pushed unless the table is empty, the
// program has no name or is named "Backup" (any case). major: the system's
// major version (the database and files entries from 5 on).
void add_system_state(Table &t, int major);
// The entry "REPAIRDISK:\" of systems before major version 5.
void add_repair_disk(Table &t);

// The error a test asked the next reading of the system's list to fail
// with, or 0.
int injected_failure() noexcept;

// ---- back-end ----
// Fills t from the system. False, with errno set (0 when the system gave no
// reason), when the list of drives (the mount table) cannot be read; t is
// then left empty.
bool build(Table &t) noexcept;
// File-system types of this platform that are never local save sets, beyond
// the common word table.
bool platform_nonlocal_type(const char *type) noexcept;
// What to ask the volume information of for a path: on Windows the root of
// its volume ("C:\"), on POSIX the path itself (links followed).
std::string volume_of(const char *path);

}  // namespace ll::fstab
