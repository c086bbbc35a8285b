// Injected failures on POSIX: the errno a refusing system would leave.
#include <cerrno>

#include "frame/fault.h"

namespace ll::fault {

long code(Kind kind) noexcept {
  switch (kind) {
    case Kind::alloc: return ENOMEM;
    case Kind::open: return EMFILE;
    case Kind::io: return EIO;
    case Kind::spawn: return EAGAIN;
    case Kind::socket: return ENOBUFS;
    case Kind::registry: return EACCES;
  }
  return EIO;
}

void set_error(Kind kind) noexcept { errno = static_cast<int>(code(kind)); }

}  // namespace ll::fault
