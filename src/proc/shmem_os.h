// The operating-system objects behind shared-memory blocks of the "nt" kind,
// one implementation per back-end (proc/posix/shmem.cpp, proc/win32/shmem.cpp).
// Failures return false with the library's errno value in errno (a marked
// platform code on Windows, the POSIX number on POSIX).
#pragma once
#include <cstdint>

namespace ll::shm_os {

// This process's id, without a system call on the common path (a forked
// child gets its own).
uint32_t process() noexcept;

// "Global\\" where the system has that name space, else "".
const char *name_prefix() noexcept;

struct Mapping {
  void *handle = nullptr;  // the record's 'mapping'
  void *base = nullptr;
};

// Creates the object named 'name' (a mapping name) of 'size' bytes for the
// calling user alone, or opens it when it exists, belongs to the calling user
// and nobody else may write to it (then 'existed' is true); maps all of it
// read-write. A fresh object reads as zeros.
bool create(const char *name, uint32_t size, Mapping &m, bool &existed) noexcept;

// Opens the existing object for writing and maps its first 'size' bytes.
bool open(const char *name, uint32_t size, Mapping &m) noexcept;

// Unmaps the view and closes the object. 'remove_name': the creator gives
// the name up (POSIX; Windows objects end with their last handle).
void close(const char *name, uint32_t size, Mapping &m, bool remove_name) noexcept;

// Grants the identifier 'sid' (liblocal/security.h) 'mask' on the object.
bool grant(void *handle, const char *name, uint32_t mask, const void *sid) noexcept;

}  // namespace ll::shm_os
