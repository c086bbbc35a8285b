// llocal pack / unpack: a streaming container of the library's compressed
// blocks. The layout is described in docs/llocal.md; in short (all numbers
// little-endian):
//
//   header  "LLPK", version 1, flags 0, 2 bytes 0, block size, CRC of the 12
//           bytes before it                                        (16 bytes)
//   block   stored length (bit 31: raw), original length, CRC of the
//           original bytes; then the stored bytes            (12 + n bytes)
//   end     a zero word, the total original length (64 bits), CRC of the
//           12 bytes before it                                     (16 bytes)
//
// The CRCs are POSIX cksum values.
#include <cstring>
#include <memory>

#include "llocal.h"

namespace llocal {

namespace {

constexpr unsigned char kMagic[4] = {'L', 'L', 'P', 'K'};
constexpr unsigned kVersion = 1;
constexpr uint32_t kRawFlag = 0x80000000u;
constexpr uint32_t kDefaultBlock = 128 * 1024;
constexpr uint32_t kMinBlock = 1024;
constexpr uint32_t kMaxBlock = 64u * 1024 * 1024;
// Room the codec needs past the data: the compressor may overrun its output
// by one group before it notices, the decompressor tests its limit only
// between groups.
constexpr uint32_t kSlack = 288 + 64;

uint32_t crc_of(const void *p, size_t n) {
  uint32_t s;
  init_posix_crc(&s);
  update_posix_crc(&s, p, static_cast<uint32_t>(n));
  final_posix_crc(&s, static_cast<uint32_t>(n), 0);
  return s;
}

const char *shown(const std::string &name) { return name.empty() || name == "-" ? "-" : name.c_str(); }

// Takes the single optional operand.
bool one_input(Options &opts, const Command &cmd, std::string &input, int &status) {
  std::vector<std::string> ops = opts.operands();
  if (ops.size() > 1) {
    status = usage_error(cmd, "%s", msg(10, "at most one input file\n"));
    return false;
  }
  input = ops.empty() ? "-" : ops[0];
  return true;
}

}  // namespace

int cmd_pack(int argc, char **argv) {
  const Command &cmd = *find_command("pack");
  Options opts(argc, argv, "b:o:fh");
  uint32_t block = kDefaultBlock;
  std::string output;
  bool force = false;
  for (int c; (c = opts.next()) != -1;) {
    long long v = 0;
    switch (c) {
      case 'b':
        if (!parse_number(opts.arg(), v) || v < 1 || v > kMaxBlock / 1024)
          return usage_error(cmd, msg(11, "bad block size %s (1 to 65536 KiB)\n"), opts.arg());
        block = static_cast<uint32_t>(v) * 1024;
        break;
      case 'o': output = opts.arg(); break;
      case 'f': force = true; break;
      case 'h': return help(cmd);
      default: return opts.bad_option(cmd);
    }
  }
  std::string input;
  int status = kOk;
  if (!one_input(opts, cmd, input, status)) return status;
  if ((output.empty() || output == "-") && !force && is_terminal(stdout))
    return usage_error(cmd, "%s", msg(12, "refusing to write packed data to a terminal (-f forces it)\n"));

  std::FILE *in = open_input(input);
  if (!in) {
    error("%s: %s\n", shown(input), errno_text());
    return kFailed;
  }
  Output o;
  if (!o.open(output, force)) {
    close_input(in);
    return kFailed;
  }
  unsigned char head[16] = {};
  std::memcpy(head, kMagic, 4);
  head[4] = kVersion;
  put32(head + 8, block);
  put32(head + 12, crc_of(head, 12));
  bool ok = o.write(head, sizeof head);

  std::unique_ptr<unsigned char[]> src(new unsigned char[block]);
  std::unique_ptr<unsigned char[]> dst(new unsigned char[block + kSlack + 12]);
  Progress progress("pack", input_size(in));
  unsigned long long total = 0;
  while (ok) {
    const size_t n = read_full(in, src.get(), block);
    if (n == 0) break;
    const uint32_t n32 = static_cast<uint32_t>(n);
    unsigned char *rec = dst.get();
    const int z = cv_compress(src.get(), rec + 12, n32, block + kSlack);
    const bool raw = z < 0 || static_cast<uint32_t>(z) >= n32;
    const uint32_t stored = raw ? n32 : static_cast<uint32_t>(z);
    put32(rec, stored | (raw ? kRawFlag : 0));
    put32(rec + 4, n32);
    put32(rec + 8, crc_of(src.get(), n));
    if (raw) {
      ok = o.write(rec, 12) && o.write(src.get(), n);
    } else {
      ok = o.write(rec, 12 + stored);
    }
    total += n;
    progress.update(total);
    if (n < block) break;
  }
  progress.finish();
  if (ok && std::ferror(in)) {
    error("%s: %s\n", shown(input), errno_text());
    ok = false;
  }
  close_input(in);
  if (ok) {
    unsigned char end[16] = {};
    put32(end + 4, static_cast<uint32_t>(total));
    put32(end + 8, static_cast<uint32_t>(total >> 32));
    put32(end + 12, crc_of(end, 12));
    ok = o.write(end, sizeof end);
  }
  if (!ok) {
    o.abandon();
    return kFailed;
  }
  return o.commit() ? kOk : kFailed;
}

int cmd_unpack(int argc, char **argv) {
  const Command &cmd = *find_command("unpack");
  Options opts(argc, argv, "o:fh");
  std::string output;
  bool force = false;
  for (int c; (c = opts.next()) != -1;) {
    switch (c) {
      case 'o': output = opts.arg(); break;
      case 'f': force = true; break;
      case 'h': return help(cmd);
      default: return opts.bad_option(cmd);
    }
  }
  std::string input;
  int status = kOk;
  if (!one_input(opts, cmd, input, status)) return status;
  std::FILE *in = open_input(input);
  if (!in) {
    error("%s: %s\n", shown(input), errno_text());
    return kFailed;
  }
  Output o;
  if (!o.open(output, force)) {
    close_input(in);
    return kFailed;
  }

  unsigned long long offset = 0;  // of the record being read
  auto corrupt = [&](const char *why) {
    error(msg(13, "%s: corrupt packed data at byte %llu: %s\n"), shown(input), offset, why);
    return false;
  };
  // Reads exactly n bytes of the record at 'offset'.
  auto take = [&](void *p, size_t n) {
    if (read_full(in, p, n) == n) return true;
    if (std::ferror(in)) {
      error("%s: %s\n", shown(input), errno_text());
      return false;
    }
    return corrupt(msg(14, "the data ends too early"));
  };

  bool ok = false;
  unsigned char head[16];
  std::unique_ptr<unsigned char[]> stored, plain;
  uint32_t block = 0;
  do {
    const size_t got = read_full(in, head, sizeof head);
    if (std::ferror(in)) {
      error("%s: %s\n", shown(input), errno_text());
      break;
    }
    if (got < 4 || std::memcmp(head, kMagic, 4) != 0) {
      error(msg(15, "%s: not a packed container\n"), shown(input));
      break;
    }
    if (got < sizeof head) {
      corrupt(msg(14, "the data ends too early"));
      break;
    }
    if (head[4] != kVersion) {
      error(msg(16, "%s: packed container of unknown version %u\n"), shown(input), head[4]);
      break;
    }
    block = get32(head + 8);
    if (crc_of(head, 12) != get32(head + 12) || head[5] || head[6] || head[7] || block < kMinBlock ||
        block > kMaxBlock) {
      corrupt(msg(17, "bad header"));
      break;
    }
    stored.reset(new unsigned char[block]);
    plain.reset(new unsigned char[block + kSlack]);
    ok = true;
  } while (false);

  Progress progress("unpack", ok ? input_size(in) : -1);
  unsigned long long total = 0;
  offset = 16;
  while (ok) {
    unsigned char rec[16];
    if (!(ok = take(rec, 12))) break;
    const uint32_t word = get32(rec);
    if (word == 0) {
      // The end record: the total length, then nothing more.
      if (!(ok = take(rec + 12, 4))) break;
      const unsigned long long want = get32(rec + 4) | static_cast<unsigned long long>(get32(rec + 8)) << 32;
      if (crc_of(rec, 12) != get32(rec + 12)) {
        ok = corrupt(msg(18, "bad end record"));
      } else if (want != total) {
        ok = corrupt(msg(19, "the total length does not match the blocks"));
      } else if (std::fgetc(in) != EOF) {
        offset += 16;
        ok = corrupt(msg(20, "data after the end record"));
      }
      break;
    }
    const bool raw = (word & kRawFlag) != 0;
    const uint32_t slen = word & ~kRawFlag, n = get32(rec + 4), sum = get32(rec + 8);
    if (n == 0 || n > block || (raw ? slen != n : slen >= n)) {
      ok = corrupt(msg(21, "bad block lengths"));
      break;
    }
    if (!(ok = take(raw ? plain.get() : stored.get(), slen))) break;
    if (!raw) {
      const int r = cv_decompress(stored.get(), slen, plain.get(), n + kSlack);
      if (r < 0 || static_cast<uint32_t>(r) != n) {
        ok = corrupt(msg(22, "a block does not decode"));
        break;
      }
    }
    if (crc_of(plain.get(), n) != sum) {
      ok = corrupt(msg(23, "checksum mismatch"));
      break;
    }
    if (!(ok = o.write(plain.get(), n))) break;
    total += n;
    offset += 12 + slen;
    progress.update(offset);
  }
  progress.finish();
  close_input(in);
  if (!ok) {
    o.abandon();
    return kFailed;
  }
  return o.commit() ? kOk : kFailed;
}

}  // namespace llocal
