// Identifier texts, descriptor records and the tolerant display conversion on
// arbitrary bytes: never a crash, nothing written past a buffer, and every
// identifier that parses comes back the same through its text.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <liblocal/security.h>
#include <liblocal/utf8.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const unsigned sel = data[0];
  std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
  text = text.c_str();

  unsigned char sid[QZ_SID_MAX + 8];
  std::memset(sid, 0xEE, sizeof sid);
  const size_t room = sel % (QZ_SID_MAX + 1);
  int n = qz_sid_from_text(text.c_str(), sid, room);
  for (size_t i = room; i < sizeof sid; ++i)
    if (sid[i] != 0xEE) abort();
  if (n > 0) {
    char back[256];
    if (qz_sid_to_text(sid, back, sizeof back) <= 0) abort();
    unsigned char again[QZ_SID_MAX];
    if (qz_sid_from_text(back, again, sizeof again) != n || std::memcmp(sid, again, static_cast<size_t>(n)) != 0)
      abort();
  }

  // The bytes as a descriptor and as an identifier.
  unsigned char sd[QZ_SD_SIZE];
  const size_t len = size - 1 < sizeof sd ? size - 1 : sizeof sd;
  std::memset(sd, 0, sizeof sd);
  std::memcpy(sd, data + 1, len);
  unsigned char who[QZ_SID_MAX];
  std::memset(who, 0, sizeof who);
  std::memcpy(who, data + 1, len < sizeof who ? len : sizeof who);
  uint32_t access;
  qz_sd_access(sd, who, &access);
  insert_sid_to_sd(sd, len, who, sel << 24);

  char out[64];
  std::memset(out, 0x55, sizeof out);
  const size_t limit = sel % 48;
  size_t produced = ansi_mbs_tolerance(out, text.c_str(), limit);
  if (limit && produced >= limit) abort();
  for (size_t i = limit; i < sizeof out; ++i)
    if (static_cast<unsigned char>(out[i]) != 0x55) abort();
  return 0;
}
