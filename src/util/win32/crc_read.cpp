// Descriptor read for crc(), Windows: the runtime's descriptor read.
#include <io.h>

#include "util/crc_read.h"

namespace ll::digest {
long crc_read(int fd, void *buf, unsigned size) noexcept { return (long)::_read(fd, buf, size); }
}  // namespace ll::digest
