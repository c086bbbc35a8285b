// The library's stat record from the system's (POSIX back-end of the paths family).
#pragma once
#include <liblocal/fileio.h>
#include <sys/stat.h>

#include <cstring>

namespace ll::paths {

inline void fill(const struct stat &s, struct ll_stat64 *st) {
  std::memset(st, 0, sizeof *st);
  st->st_dev = static_cast<uint64_t>(s.st_dev);
  st->st_ino = static_cast<uint64_t>(s.st_ino);
  st->st_mode = static_cast<uint32_t>(s.st_mode);
  st->st_nlink = static_cast<uint32_t>(s.st_nlink);
  st->st_uid = static_cast<uint32_t>(s.st_uid);
  st->st_gid = static_cast<uint32_t>(s.st_gid);
  st->st_rdev = static_cast<uint64_t>(s.st_rdev);
  st->st_size = static_cast<int64_t>(s.st_size);
  st->st_blksize = static_cast<int64_t>(s.st_blksize);
  st->st_blocks = static_cast<int64_t>(s.st_blocks);
  st->st_atim = {s.st_atim.tv_sec, s.st_atim.tv_nsec};
  st->st_mtim = {s.st_mtim.tv_sec, s.st_mtim.tv_nsec};
  st->st_ctim = {s.st_ctim.tv_sec, s.st_ctim.tv_nsec};
}

}  // namespace ll::paths
