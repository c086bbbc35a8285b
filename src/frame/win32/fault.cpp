// Injected failures on Windows: the last error a refusing system would leave
// (errno too, for the runtime's own calls).
#include <cerrno>

#include "frame/fault.h"
#include "frame/win32/win.h"

namespace ll::fault {

long code(Kind kind) noexcept {
  switch (kind) {
    case Kind::alloc: return ERROR_NOT_ENOUGH_MEMORY;
    case Kind::open: return ERROR_TOO_MANY_OPEN_FILES;
    case Kind::io: return ERROR_WRITE_FAULT;
    case Kind::spawn: return ERROR_NOT_ENOUGH_MEMORY;
    case Kind::socket: return WSAENOBUFS;
    case Kind::registry: return ERROR_ACCESS_DENIED;
  }
  return ERROR_GEN_FAILURE;
}

void set_error(Kind kind) noexcept {
  static constexpr int kErrno[] = {ENOMEM, EMFILE, EIO, EAGAIN, ENOBUFS, EACCES};
  unsigned i = 0;
  while ((1u << i) != static_cast<unsigned>(kind) && i < 5) ++i;
  errno = kErrno[i];
  SetLastError(static_cast<DWORD>(code(kind)));
}

}  // namespace ll::fault
