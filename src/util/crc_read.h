// The descriptor read behind crc(): the platform's plain read of a file
// descriptor. Returns the number of bytes read, 0 at the end, negative on
// failure.
#pragma once

namespace ll::digest {
long crc_read(int fd, void *buf, unsigned size) noexcept;
}
