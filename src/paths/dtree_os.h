// The directory-tree walker's view of the system: directories opened
// relative to their parent, listed whole, and entries inspected by name.
#pragma once
#include <liblocal/fileio.h>

#include <string>
#include <vector>

namespace ll::dtree {

struct OsDir;  // an open directory; its identity is in the record it was opened with

struct Item {
  std::string name;        // UTF-8, never "." or ".."
  struct ll_stat64 st {};  // the entry's own record (the link's, not its target's)
  bool have_st = false;    // st filled by the listing itself (Windows)
  unsigned reparse = 0;    // Windows reparse tag, 0 elsewhere
};

// Opens the root directory named by path, following a link there.
OsDir *open_root(const std::string &path, int &err) noexcept;
// Opens directory 'name' of parent ('path' is its whole name, for the back-ends
// that need one). follow: the name may be a link to the directory.
OsDir *open_child(OsDir *parent, const Item &item, const std::string &path, bool follow, int &err) noexcept;
// Lists every entry but "." and "..". False with err when the listing fails.
bool list(OsDir *dir, std::vector<Item> &out, int &err) noexcept;
// Fills item.st unless the listing did; follow: the target's record.
// 0, or the error number.
int inspect(OsDir *dir, Item &item, const std::string &path, bool follow) noexcept;
// The record of the root (following a link there); 0 or the error number.
int stat_root(const std::string &path, struct ll_stat64 &st, unsigned &reparse) noexcept;
// Identity of an open directory, for loop detection.
void identity(OsDir *dir, const struct ll_stat64 &st, uint64_t &dev, uint64_t &ino) noexcept;
void close(OsDir *dir) noexcept;
char separator() noexcept;
// The kind of an entry from its record and reparse tag: a QZ_DTK_* value
// among FILE, DIR, LINK, JUNCTION, SPECIAL.
int kind_of(const struct ll_stat64 &st, unsigned reparse) noexcept;

}  // namespace ll::dtree
