// Time stamps of message lines: the local time in its localised long form.
#include "frame/stamp.h"

#include <ctime>

#include "frame/format.h"
#include "frame/output.h"
#include <liblocal/qztime.h>

namespace ll {

size_t output_stamp(char *buf, size_t size) noexcept {
  char text[QZ_TIMETEXT_SIZE];
  i18n_long_time(qz_time(nullptr), text);
  size_t n = format(buf, size, "%s", text);
  return n < size ? n : (size ? size - 1 : 0);
}

}  // namespace ll
