// Time stamps of message lines: the local time as "YYYY-MM-DD HH:MM:SS".
#include "frame/stamp.h"

#include <ctime>

#include "frame/format.h"
#include "frame/output.h"

namespace ll {

size_t output_stamp(char *buf, size_t size) noexcept {
  std::tm t{};
  os::local_now(t);
  size_t n = format(buf, size, "%04d-%02d-%02d %02d:%02d:%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                    t.tm_hour, t.tm_min, t.tm_sec);
  return n < size ? n : (size ? size - 1 : 0);
}

}  // namespace ll
