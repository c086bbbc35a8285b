// string_to_qzui on arbitrary texts: it reads nothing past the terminator,
// leaves the identifier alone when it fails, and whatever it accepts prints
// back to a text that reads as the same identifier.
#include <liblocal/qzui.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<char> text(data, data + size);
  text.push_back('\0');
  qzui id = Not_qzui;
  char *end = nullptr;
  int type = string_to_qzui(text.data(), &id, &end);
  if (!end || end < text.data() || end > text.data() + std::strlen(text.data())) std::abort();
  if (type == -1 && (std::memcmp(&id, &Not_qzui, sizeof id) != 0 && qzui_get_idtype(&id) != 0xFFFFFFFFu)) std::abort();
  if (type == -1) return 0;
  char out[QZUI_TEXT_SIZE];
  qzui_to_string(&id, out, 1);
  if (std::strlen(out) >= QZUI_TEXT_SIZE) std::abort();
  qzui back;
  int again = string_to_qzui(out, &back, nullptr);
  uint32_t t = qzui_get_idtype(&id);
  if (t == 0 || t == 1 || t == 0xFFFFFFFFu) {
    // Short form: the private value survives as a plain number.
    if (again != 1 || qzui_get_private(&back) != qzui_get_private(&id)) std::abort();
  } else if (std::memcmp(&back, &id, sizeof id) != 0 || again != type) {
    std::abort();
  }
  return 0;
}
