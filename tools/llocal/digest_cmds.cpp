// llocal cksum / sha1: the library's POSIX cksum CRC and SHA-1 over files.
#include <memory>

#include "llocal.h"

namespace llocal {

namespace {

constexpr size_t kChunk = 256 * 1024;

// Reads the whole input in chunks, feeding each to 'take'; false (message
// printed) on a read error.
template <class Take>
bool each_chunk(std::FILE *f, const std::string &label, const char *what, Take take) {
  std::unique_ptr<unsigned char[]> buf(new unsigned char[kChunk]);
  Progress progress(what, input_size(f));
  unsigned long long done = 0;
  for (;;) {
    const size_t n = read_full(f, buf.get(), kChunk);
    if (n) take(buf.get(), n);
    done += n;
    progress.update(done);
    if (n < kChunk) break;
  }
  progress.finish();
  if (std::ferror(f)) {
    error("%s: %s\n", label.empty() ? "-" : label.c_str(), errno_text());
    return false;
  }
  return true;
}

// Runs 'one' over every operand (standard input when there is none).
template <class One>
int each_file(int argc, char **argv, const Command &cmd, One one) {
  Options opts(argc, argv, "h");
  for (int c; (c = opts.next()) != -1;) {
    if (c == 'h') return help(cmd);
    return opts.bad_option(cmd);
  }
  std::vector<std::string> files = opts.operands();
  // Standard input is named only when it was asked for by "-".
  if (files.empty()) files.emplace_back("");
  int status = kOk;
  for (const auto &name : files) {
    std::FILE *f = open_input(name);
    if (!f) {
      error("%s: %s\n", name.empty() ? "-" : name.c_str(), errno_text());
      status = kFailed;
      continue;
    }
    if (!one(f, name)) status = kFailed;
    close_input(f);
  }
  return status;
}

}  // namespace

int cmd_cksum(int argc, char **argv) {
  return each_file(argc, argv, *find_command("cksum"), [](std::FILE *f, const std::string &name) {
    uint32_t state;
    init_posix_crc(&state);
    unsigned long long total = 0;
    if (!each_chunk(f, name, "cksum", [&](const unsigned char *p, size_t n) {
          update_posix_crc(&state, p, static_cast<uint32_t>(n));
          total += n;
        }))
      return false;
    final_posix_crc(&state, static_cast<uint32_t>(total), static_cast<uint32_t>(total >> 32));
    if (name.empty())
      out("%u %llu\n", state, total);
    else
      out("%u %llu %s\n", state, total, name.c_str());
    return true;
  });
}

int cmd_sha1(int argc, char **argv) {
  return each_file(argc, argv, *find_command("sha1"), [](std::FILE *f, const std::string &name) {
    sha_ctx ctx;
    sha_init(&ctx);
    if (!each_chunk(f, name, "sha1", [&](const unsigned char *p, size_t n) { sha_update(&ctx, p, n); }))
      return false;
    unsigned char digest[SHA_DIGEST_SIZE];
    char text[SHA_TEXT_SIZE];
    sha_final(digest, &ctx);
    sha_to_string(digest, text);
    if (name.empty())
      out("%s\n", text);
    else
      out("%s  %s\n", text, name.c_str());
    return true;
  });
}

}  // namespace llocal
