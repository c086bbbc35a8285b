// Fault injection for tests: the Nth operating-system call of a kind can be
// made to fail, so that tests can walk every failure path of a call in turn.
//
// A call site asks LL_FAULT(kind) just before the real call and, when it is
// true, takes the failure branch as if the system had refused: the thread's
// errno (POSIX) or last error (Windows) already holds the kind's error
// (ll::fault::code). Arming is per thread and made through the exported test
// seams (llt_fault_arm and friends, declared only in the tests); when no
// thread is armed the check is one relaxed load.
#pragma once
#include <atomic>

#include <liblocal/export.h>

#include "frame/compiler.h"

namespace ll::fault {

enum class Kind : unsigned {
  alloc = 1u << 0,     // memory allocation: null (ENOMEM)
  open = 1u << 1,      // opening a file, folder or shared-memory object (EMFILE)
  io = 1u << 2,        // reading, writing, sizing or mapping an open one (EIO)
  spawn = 1u << 3,     // creating a process or thread (EAGAIN)
  socket = 1u << 4,    // a socket call (ENOBUFS)
  registry = 1u << 5,  // a registry call (ERROR_ACCESS_DENIED)
};

// The kind's error in the platform's terms (an errno value on POSIX, a
// Win32 error code on Windows), for call sites whose failure is a returned
// code (registry calls) rather than the thread's error.
long code(Kind kind) noexcept;
// Sets the thread's error for an injected failure (back-end).
void set_error(Kind kind) noexcept;

}  // namespace ll::fault

// The two names the checks use have C linkage and are exported, so that
// library sources compiled into a test or fuzz program share the library's
// state instead of needing their own.
extern "C" {
// Number of threads armed now.
LL_API extern std::atomic<int> llt_fault_armed;
// Counts this call (a Kind bit) on the calling thread and answers 1 when it
// is to fail; the kind's error is then set as the thread's error.
LL_API int llt_fault_hit(unsigned kind) noexcept;
}

#define LL_FAULT(kind)                                                      \
  (LL_UNLIKELY(llt_fault_armed.load(std::memory_order_relaxed) != 0) && \
   llt_fault_hit(static_cast<unsigned>(::ll::fault::Kind::kind)) != 0)
