// The save protocol of `llocal serve` / `save` / `restore` / `list`: frames,
// their fields, and the checks every reader applies. Documented in
// docs/llocal.md. All numbers are little-endian.
//
//   frame   type (1 byte), 3 bytes 0, payload length (4 bytes), payload
//
// Every length read from the network is bounded before anything is
// allocated or read: a payload is at most kMaxPayload bytes, a name at most
// kMaxName bytes, a block at most kMaxBlock bytes before and after
// compression.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace llocal::proto {

constexpr uint32_t kVersion = 1;
constexpr uint32_t kMaxBlock = 256 * 1024;             // original bytes of one block
constexpr uint32_t kMaxPayload = kMaxBlock + 1024;     // a stored block and its fields
constexpr uint32_t kMaxName = 4096;                    // bytes of a relative name
constexpr size_t kHeader = 8;
// Room a block's decoder needs: the original bytes and the codec's slack.
constexpr uint32_t kBlockRoom = kMaxBlock + 288 + 64;

enum Type : uint8_t {
  kHello = 1,    // client: "LLSV", version, operation [, save id]
  kOk = 2,       // server: version
  kError = 3,    // either side: code, text
  kEntry = 4,    // kind, mode, mtime, size, name
  kBlock = 5,    // original length, cksum of the original, stored flag, data
  kFileEnd = 6,  // SHA-1 of the file's bytes
  kEnd = 7,      // end of a save, a restore or a listing
  kSaved = 8,    // server: id, files, bytes
  kListed = 9,   // server: id, time, files, bytes
};

enum Op : uint8_t { kOpSave = 1, kOpRestore = 2, kOpList = 3 };
enum Kind : uint8_t { kFile = 0, kDir = 1 };

// Error codes of kError frames.
enum Code : uint32_t {
  kErrProtocol = 1,  // a frame that breaks the rules
  kErrVersion = 2,   // unsupported version
  kErrUnknownId = 3, // no such save
  kErrStore = 4,     // the store could not write or read
  kErrBusy = 5,      // the server is stopping
};

struct Frame {
  uint8_t type = 0;
  std::vector<unsigned char> payload;
};

// Builds a frame (header and payload) in out.
void build(uint8_t type, const void *payload, size_t len, std::vector<unsigned char> &out);

// Reads fields from a payload; every get fails (false) once the payload is
// exhausted, and stays failed.
class Reader {
 public:
  Reader(const unsigned char *p, size_t n) : p_(p), n_(n) {}
  bool u8(uint8_t &v);
  bool u32(uint32_t &v);
  bool u64(uint64_t &v);
  bool bytes(void *out, size_t n);
  // The rest of the payload.
  const unsigned char *rest(size_t &n);
  bool done() const { return ok_ && n_ == 0; }
  bool ok() const { return ok_; }

 private:
  const unsigned char *p_;
  size_t n_;
  bool ok_ = true;
};

class Writer {
 public:
  void u8(uint8_t v) { b.push_back(v); }
  void u32(uint32_t v);
  void u64(uint64_t v);
  void bytes(const void *p, size_t n);
  std::vector<unsigned char> b;
};

// A frame header's checks: known type, zero padding, bounded length.
// False for anything else.
bool parse_header(const unsigned char h[kHeader], uint8_t &type, uint32_t &len);

// The fields of an entry frame.
struct Entry {
  uint8_t kind = kFile;
  uint32_t mode = 0;
  int64_t mtime = 0;
  uint64_t size = 0;
  std::string name;  // relative, "/" between components
};
void put_entry(const Entry &e, Writer &w);
bool get_entry(const unsigned char *p, size_t n, Entry &e);

// A name a save may carry: not empty, relative, components separated by
// single "/", none of them "." or "..", no backslash, colon or control
// character, valid UTF-8, at most kMaxName bytes.
bool valid_name(const std::string &name);

// The fields of a block frame; data points into the payload.
struct Block {
  uint32_t length = 0;  // original bytes
  uint32_t crc = 0;     // cksum of the original bytes
  bool stored = false;  // data is the original bytes, not compressed
  const unsigned char *data = nullptr;
  size_t data_len = 0;
};
bool get_block(const unsigned char *p, size_t n, Block &b);
// Restores a block's original bytes into out (kBlockRoom bytes) and
// checks its CRC. False for a block that does not decode or check.
bool open_block(const Block &b, unsigned char *out);
// Compresses n (<= kMaxBlock) bytes into a block frame's payload.
void make_block(const unsigned char *data, uint32_t n, Writer &w);

uint32_t cksum_of(const void *p, size_t n);

}  // namespace llocal::proto
