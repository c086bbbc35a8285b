// The file-system table: what the portable code (fstab.cpp, fstab_table.cpp)
// offers the back-ends, and what each back-end (paths/posix/fstab.cpp,
// paths/win32/fstab.cpp) supplies. No platform types.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace ll::fstab {

// One entry while the table is being built.
struct Mount {
  std::string device, dir, type, options, name;
  uint32_t serial = 0;
};

// True when the comma-separated list holds word exactly.
bool has_word(std::string_view list, std::string_view word) noexcept;
// Puts "ignore" in front of the options (once).
void mark_ignore(std::string &options);

// The table in order of addition (the list handed out runs backwards), with
// the indexes that keep adding an entry cheap on tables of many mounts.
class Table {
 public:
  std::vector<Mount> rows;

  // True when a row has exactly this mount directory.
  bool has_dir(const std::string &dir) const { return dirs_.count(dir) != 0; }
  // Of several mount directories of one serial the shallowest (fewest
  // separators sep), then the shortest, stays active; on a tie the newcomer
  // gets "ignore". Decides for m against the rows and marks the loser.
  void settle(Mount &m, char sep);
  // Appends m (after settle, or for entries outside the rule).
  void push(Mount m);

 private:
  std::unordered_set<std::string> dirs_;
  // Per serial: the rows still active (newest last) and the newest row.
  std::unordered_map<uint32_t, std::vector<size_t>> active_;
  std::unordered_map<uint32_t, size_t> newest_;
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
// Builds the table from the whole text: the mounts hidden under a later
// mount on the same directory (or below one) are left out; the others go
// through the duplicate rule with "/" as the separator.
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
