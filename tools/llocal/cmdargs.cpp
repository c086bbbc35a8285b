// llocal - option scanning, numbers, and the words of the server and client
// commands read into checked values.
#include "cmdargs.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "llocal.h"
#include "store.h"

namespace llocal {

// The tool's texts are copied into a small ring of the calling thread's own
// (a text stays valid for the next three lookups of that thread): the
// catalog's shared ring may be overwritten by another thread's lookups.
const char *msg(int number, const char *def) {
  thread_local char texts[4][2048];
  thread_local unsigned next = 0;
  char *out = texts[next++ % 4];
  return qzcatgets_buf(out, sizeof texts[0], Catd, kSet, number, def) ? out : def;
}

// ---- options ----

Options::Options(int argc, char **argv, const char *optstring)
    : argc_(argc), argv_(argv), optstring_(optstring) {
  getopt_init();  // also leaves the library's own diagnostics off
}

int Options::next() {
  const int c = getopt(argc_, argv_, optstring_);
  arg_ = optarg;
  opt_ = optopt;
  return c;
}

std::vector<std::string> Options::operands() {
  std::vector<std::string> v;
  while (const char *a = getarg(argc_, argv_)) v.emplace_back(a);
  return v;
}

std::string Options::problem() const {
  const char *p = opt_ && opt_ != ':' ? std::strchr(optstring_, opt_) : nullptr;
  char line[256];
  if (p && p[1] == ':')
    std::snprintf(line, sizeof line, msg(2, "option -%c needs an argument\n"), opt_);
  else
    std::snprintf(line, sizeof line, msg(3, "unknown option -%c\n"), opt_);
  return line;
}

// Decimal, or hexadecimal after "0x": a leading zero is not octal, since a
// port or a process id written "010" means ten. No blanks around it.
bool parse_number(const char *s, long long &value) {
  if (!s) return false;
  const char *digits = s + (*s == '-' || *s == '+');
  const bool hex = digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X');
  const char first = hex ? digits[2] : digits[0];
  const bool digit = hex ? std::isxdigit(static_cast<unsigned char>(first)) != 0 : first >= '0' && first <= '9';
  if (!digit) return false;
  errno = 0;
  char *end = nullptr;
  const long long v = std::strtoll(s, &end, hex ? 16 : 10);
  if (errno != 0 || *end != '\0') return false;
  value = v;
  return true;
}

// ---- the commands' words ----

namespace {

Verdict bad(std::string why) { return {Verdict::kBad, std::move(why)}; }

Verdict only_help(Options &opts) {
  for (int c; (c = opts.next()) != -1;) {
    if (c == 'h') return {Verdict::kHelp, {}};
    return bad(opts.problem());
  }
  return {};
}

Verdict address(const std::string &text, ClientArgs &a) {
  a.where = text;
  std::string why;
  if (!net::parse_address(text, a.address, why)) return bad(why + "\n");
  return {};
}

// Long option words of serve, turned into the letters getopt reads.
void short_options(int argc, char **argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--") == 0) break;
    static const char *const longs[][2] = {{"--store", "-s"},   {"--listen", "-l"},  {"--port-file", "-p"},
                                           {"--threads", "-T"}, {"--service", "-R"}, {"--name", "-n"}};
    for (const auto &l : longs)
      if (std::strcmp(argv[i], l[0]) == 0) argv[i] = const_cast<char *>(l[1]);
  }
}

}  // namespace

Verdict parse_serve(int argc, char **argv, ServeOptions &o) {
  short_options(argc, argv);
  Options opts(argc, argv, "s:l:p:n:CRTh");
  for (int c; (c = opts.next()) != -1;) {
    const char *arg = opts.arg() ? opts.arg() : "";
    switch (c) {
      case 's': o.store = arg; break;
      case 'l': o.listen = arg; break;
      case 'p': o.port_file = arg; break;
      case 'n': o.name = arg; break;
      case 'C': o.child = true; break;
      case 'T': o.threads = true; break;
      case 'R': o.service = true; break;
      case 'h': return {Verdict::kHelp, {}};
      default: return bad(opts.problem());
    }
  }
  if (!opts.operands().empty()) return bad(msg(94, "unexpected operand\n"));
  if (o.store.empty()) return bad(msg(95, "the store folder is required (--store DIR)\n"));
  // The address is checked before anything is made, whether or not it is
  // used (a connection's child serves its standard input).
  std::string why;
  if (!net::parse_address(o.listen, o.address, why)) return bad(why + "\n");
  return {};
}

bool is_service_install(int argc, char **argv) {
  return argc >= 2 && (qzstricmp(argv[1], "-ADD") == 0 || qzstricmp(argv[1], "-REM") == 0);
}

ServiceInstall service_words(int argc, char **argv, const std::string &self, const std::string &cwd) {
  ServiceInstall s;
  s.words = {self, argv[1], "serve", "--service"};
  for (int i = 2; i < argc; ++i) {
    s.words.emplace_back(argv[i]);
    if ((std::strcmp(argv[i], "--name") == 0 || std::strcmp(argv[i], "-n") == 0) && i + 1 < argc) s.name = argv[i + 1];
    // A service starts in the manager's folder, not the installer's: the
    // store and the port file are installed as absolute names.
    static const char *const folders[] = {"--store", "-s", "--port-file", "-p"};
    bool folder = false;
    for (const char *f : folders) folder = folder || std::strcmp(argv[i], f) == 0;
    if (folder && i + 1 < argc) s.words.push_back(absolute_against(argv[++i], cwd));
  }
  return s;
}

std::string absolute_against(const char *name, const std::string &cwd) {
  if (cwd.empty()) return name;
  // The canonical form never needs more than the name, the folder and two bytes.
  std::string buf(std::strlen(name) + cwd.size() + 4, '\0');
#ifdef _WIN32
  fullcanon_dirsep(name, buf.data(), cwd.c_str(), '\\');
#else
  fullcanon_dirsep(name, buf.data(), cwd.c_str(), '/');
#endif
  return buf.c_str();
}

bool parse_save_id(const std::string &text, qzui &id) {
  if (store::id_of_hex(text, id)) return true;
  char *end = nullptr;
  return string_to_qzui(text.c_str(), &id, &end) >= 0 && end && *end == '\0';
}

Verdict parse_save(int argc, char **argv, ClientArgs &a) {
  Options opts(argc, argv, "h");
  Verdict v = only_help(opts);
  if (v.what != Verdict::kRun) return v;
  std::vector<std::string> ops = opts.operands();
  if (ops.size() < 2) return bad(msg(84, "an address and at least one path are required\n"));
  a.paths.assign(ops.begin() + 1, ops.end());
  return address(ops[0], a);
}

Verdict parse_restore(int argc, char **argv, ClientArgs &a) {
  Options opts(argc, argv, "h");
  Verdict v = only_help(opts);
  if (v.what != Verdict::kRun) return v;
  std::vector<std::string> ops = opts.operands();
  if (ops.size() != 3) return bad(msg(87, "an address, a save identifier and a folder are required\n"));
  if (!parse_save_id(ops[1], a.id)) {
    std::string line(ops[1].size() + 256, '\0');
    std::snprintf(line.data(), line.size(), msg(88, "not a save identifier: %s\n"), ops[1].c_str());
    return bad(line.c_str());
  }
  a.paths = {ops[2]};
  return address(ops[0], a);
}

Verdict parse_list(int argc, char **argv, ClientArgs &a) {
  Options opts(argc, argv, "h");
  Verdict v = only_help(opts);
  if (v.what != Verdict::kRun) return v;
  std::vector<std::string> ops = opts.operands();
  if (ops.size() != 1) return bad(msg(83, "one address is required\n"));
  return address(ops[0], a);
}

Verdict parse_stop(int argc, char **argv, int &pid) {
  Options opts(argc, argv, "h");
  Verdict v = only_help(opts);
  if (v.what != Verdict::kRun) return v;
  std::vector<std::string> ops = opts.operands();
  long long n = 0;
  if (ops.size() != 1 || !parse_number(ops[0].c_str(), n) || n <= 0 || n > INT_MAX)
    return bad(msg(96, "one process id is required\n"));
  pid = static_cast<int>(n);
  return {};
}

}  // namespace llocal
