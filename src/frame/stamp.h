// The time stamp of message lines.
#pragma once
#include <cstddef>

namespace ll {
// Writes the current local time into buf (terminated); returns its length.
size_t output_stamp(char *buf, size_t size) noexcept;
}  // namespace ll
