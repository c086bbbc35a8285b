// Descriptor read for crc(), POSIX: read(2), resumed after a signal.
#include <cerrno>
#include <unistd.h>

#include "util/crc_read.h"

namespace ll::digest {
long crc_read(int fd, void *buf, unsigned size) noexcept {
  ssize_t n;
  do {
    n = ::read(fd, buf, size);
  } while (n < 0 && errno == EINTR);
  return (long)n;
}
}  // namespace ll::digest
