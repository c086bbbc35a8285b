// llocal uncompress: files of the classic compress tool, decoded by the
// library's LZW decoder (12-bit codes, block mode).
#include <climits>
#include <cstring>

#include "llocal.h"

namespace llocal {

namespace {

// Reads the whole input; false (message printed) on a read error or when it
// is larger than the decoder takes.
bool slurp(std::FILE *f, const std::string &label, std::vector<unsigned char> &data) {
  const long long size = input_size(f);
  if (size > 0) data.reserve(static_cast<size_t>(size));
  unsigned char buf[65536];
  for (;;) {
    const size_t n = read_full(f, buf, sizeof buf);
    data.insert(data.end(), buf, buf + n);
    if (data.size() > static_cast<size_t>(INT_MAX)) {
      error(msg(30, "%s: too large for the decoder (2 GiB at most)\n"), label.c_str());
      return false;
    }
    if (n < sizeof buf) break;
  }
  if (std::ferror(f)) {
    error("%s: %s\n", label.c_str(), errno_text());
    return false;
  }
  return true;
}

// Checks the three-byte header and decodes the rest into 'plain'.
bool decode(const std::vector<unsigned char> &z, const std::string &label, std::vector<unsigned char> &plain) {
  if (z.size() < 3 || z[0] != 0x1F || z[1] != 0x9D) {
    error(msg(31, "%s: not in compressed format\n"), label.c_str());
    return false;
  }
  const int bits = z[2] & 0x1F;
  if (bits != 12) {
    error(msg(32, "%s: compressed with %d-bit codes; only 12-bit codes can be read (compress -b12)\n"),
          label.c_str(), bits);
    return false;
  }
  if (!(z[2] & 0x80) || (z[2] & 0x60)) {
    error(msg(34, "%s: unsupported compressed format (header byte 0x%02x)\n"), label.c_str(), z[2]);
    return false;
  }
  const int zlen = static_cast<int>(z.size() - 3);
  // A result above the buffer size means the output was cut: grow and redo.
  size_t cap = z.size() * 4 + 4096;
  for (;;) {
    if (cap > static_cast<size_t>(INT_MAX)) cap = INT_MAX;
    plain.resize(cap);
    const int n = dcmprss(z.data() + 3, zlen, plain.data(), static_cast<int>(cap));
    if (n >= 0 && static_cast<size_t>(n) <= cap) {
      plain.resize(static_cast<size_t>(n));
      return true;
    }
    if (n < 0 || cap == static_cast<size_t>(INT_MAX)) break;
    cap *= 4;
  }
  error(msg(30, "%s: too large for the decoder (2 GiB at most)\n"), label.c_str());
  return false;
}

}  // namespace

int cmd_uncompress(int argc, char **argv) {
  const Command &cmd = *find_command("uncompress");
  Options opts(argc, argv, "cfo:h");
  bool to_stdout = false, force = false;
  std::string output;
  for (int c; (c = opts.next()) != -1;) {
    switch (c) {
      case 'c': to_stdout = true; break;
      case 'f': force = true; break;
      case 'o': output = opts.arg(); break;
      case 'h': return help(cmd);
      default: return opts.bad_option(cmd);
    }
  }
  std::vector<std::string> files = opts.operands();
  if (!output.empty() && (files.size() > 1 || to_stdout))
    return usage_error(cmd, "%s", msg(35, "-o takes one input and no -c\n"));
  if (files.empty()) {
    files.emplace_back("-");
    if (output.empty()) to_stdout = true;
  }
  // Check every name before anything is written.
  std::vector<std::string> targets;
  for (const auto &name : files) {
    if (to_stdout || name == "-") {
      targets.emplace_back(output.empty() ? "-" : output);
    } else if (!output.empty()) {
      targets.push_back(output);
    } else if (name.size() > 2 && name.compare(name.size() - 2, 2, ".Z") == 0) {
      targets.push_back(name.substr(0, name.size() - 2));
    } else {
      return usage_error(cmd, msg(36, "%s: no .Z suffix (use -c or -o)\n"), name.c_str());
    }
  }

  int status = kOk;
  for (size_t i = 0; i < files.size(); ++i) {
    const std::string &name = files[i];
    std::FILE *f = open_input(name);
    if (!f) {
      error("%s: %s\n", name.c_str(), errno_text());
      status = kFailed;
      continue;
    }
    std::vector<unsigned char> z, plain;
    const bool read = slurp(f, name, z);
    close_input(f);
    if (!read || !decode(z, name, plain)) {
      status = kFailed;
      continue;
    }
    Output o;
    if (!o.open(targets[i], force) || !o.write(plain.data(), plain.size()) || !o.commit()) {
      o.abandon();
      status = kFailed;
    }
  }
  return status;
}

}  // namespace llocal
