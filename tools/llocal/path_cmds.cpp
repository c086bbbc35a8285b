// llocal canon, fullcanon and pathinfo: the library's path syntax.
#include <cstdlib>
#include <cstring>

#include "llocal.h"

namespace llocal {

namespace {

#ifdef _WIN32
constexpr int kNativeSep = '\\';
#else
constexpr int kNativeSep = '/';
#endif

// "/" or "\" (also spelt "slash" and "backslash").
bool parse_sep(const char *s, int &sep) {
  if (!std::strcmp(s, "/") || !std::strcmp(s, "slash")) {
    sep = '/';
  } else if (!std::strcmp(s, "\\") || !std::strcmp(s, "backslash")) {
    sep = '\\';
  } else {
    return false;
  }
  return true;
}

// canon and fullcanon do not check sizes: room for the name, a current
// directory and the terminator.
std::string canonical(const std::string &name, int sep) {
  std::string buf(name.size() + 4100, '\0');
  canon_dirsep(name.c_str(), buf.data(), sep);
  return buf.c_str();
}

std::string current_dir() {
  std::string buf(4096, '\0');
  return qzmo_getcwd(buf.data(), static_cast<int>(buf.size())) ? std::string(buf.c_str()) : std::string();
}

const char *unc_name(int type) {
  switch (type) {
    case QZ_UNC_SHARE: return "share";
    case QZ_UNC_PIPE: return "pipe";
    case QZ_UNC_DRIVE: return "drive";
    case QZ_UNC_TAPE: return "tape";
    default: return "none";
  }
}

}  // namespace

int cmd_canon(int argc, char **argv) {
  const Command &cmd = *find_command("canon");
  Options opts(argc, argv, "s:h");
  int sep = kNativeSep;
  for (int c; (c = opts.next()) != -1;) {
    switch (c) {
      case 's':
        if (!parse_sep(opts.arg(), sep)) return usage_error(cmd, msg(60, "bad separator %s (/ or \\)\n"), opts.arg());
        break;
      case 'h': return help(cmd);
      default: return opts.bad_option(cmd);
    }
  }
  std::vector<std::string> ops = opts.operands();
  if (ops.empty()) return usage_error(cmd, "%s", msg(61, "no path\n"));
  for (const auto &p : ops) out("%s\n", canonical(p, sep).c_str());
  return kOk;
}

int cmd_fullcanon(int argc, char **argv) {
  const Command &cmd = *find_command("fullcanon");
  Options opts(argc, argv, "s:d:h");
  int sep = kNativeSep;
  std::string dir;
  bool have_dir = false;
  for (int c; (c = opts.next()) != -1;) {
    switch (c) {
      case 's':
        if (!parse_sep(opts.arg(), sep)) return usage_error(cmd, msg(60, "bad separator %s (/ or \\)\n"), opts.arg());
        break;
      case 'd': dir = opts.arg(), have_dir = true; break;
      case 'h': return help(cmd);
      default: return opts.bad_option(cmd);
    }
  }
  std::vector<std::string> ops = opts.operands();
  if (ops.empty()) return usage_error(cmd, "%s", msg(61, "no path\n"));
  // With the slash the library needs the directory spelt out; with the
  // backslash it finds the current directory of the named drive itself.
  if (!have_dir && sep == '/') {
    dir = current_dir();
    if (dir.empty()) {
      error(msg(62, "cannot read the current directory: %s\n"), errno_text());
      return kFailed;
    }
    have_dir = true;
  }
  for (const auto &p : ops) {
    std::string buf(p.size() + dir.size() + 4100, '\0');
    fullcanon_dirsep(p.c_str(), buf.data(), have_dir ? dir.c_str() : nullptr, sep);
    out("%s\n", buf.c_str());
  }
  return kOk;
}

int cmd_pathinfo(int argc, char **argv) {
  const Command &cmd = *find_command("pathinfo");
  Options opts(argc, argv, "s:h");
  int sep = kNativeSep;
  for (int c; (c = opts.next()) != -1;) {
    switch (c) {
      case 's':
        if (!parse_sep(opts.arg(), sep)) return usage_error(cmd, msg(60, "bad separator %s (/ or \\)\n"), opts.arg());
        break;
      case 'h': return help(cmd);
      default: return opts.bad_option(cmd);
    }
  }
  std::vector<std::string> ops = opts.operands();
  if (ops.size() != 1) return usage_error(cmd, "%s", msg(63, "needs one PATH\n"));
  const char *p = ops[0].c_str();
  char *child = getpathchild_dirsep(p, nullptr, 0, sep);
  char *parent = getpathparent_dirsep(p, nullptr, 0, sep);
  out("%s %s\n", msg(64, "path:     "), p);
  out("%s %s\n", msg(65, "canonical:"), canonical(ops[0], sep).c_str());
  out("%s %s\n", msg(66, "child:    "), child ? child : "");
  out("%s %s\n", msg(67, "parent:   "), parent ? parent : msg(68, "(none)"));
  out("%s %u\n", msg(69, "depth:    "), getpathdepth_dirsep(p, sep));
  out("%s %s\n", msg(70, "relative: "), ispathrelative(p, sep) ? msg(71, "yes") : msg(72, "no"));
  out("%s %s\n", msg(73, "unc:      "), unc_name(get_unc_obj_type(p)));
  std::free(child);
  std::free(parent);
  return kOk;
}

}  // namespace llocal
