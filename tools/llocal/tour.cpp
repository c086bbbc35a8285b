// llocal tour: a short walk through what the library does, on a sample text
// embedded here.
#include <cerrno>
#include <cstring>
#include <memory>

#include "llocal.h"

namespace llocal {

namespace {

const char kSample[] =
    "Backup journal of the sample host\n"
    "monday:    saving C:\\Users\\admin\\documents, 1204 files, 88 MB, finished\n"
    "tuesday:   saving C:\\Users\\admin\\documents, 1211 files, 89 MB, finished\n"
    "wednesday: saving C:\\Users\\admin\\documents, 1219 files, 89 MB, finished\n"
    "thursday:  saving C:\\Users\\admin\\documents, 1223 files, 90 MB, retrying\n"
    "thursday:  saving C:\\Users\\admin\\documents, 1223 files, 90 MB, finished\n"
    "friday:    saving C:\\Users\\admin\\documents, 1230 files, 90 MB, finished\n"
    "saturday:  saving C:\\Users\\admin\\pictures, 5120 files, 2310 MB, finished\n"
    "sunday:    verifying every volume of the week, 12 volumes, finished\n"
    "monday:    saving C:\\Users\\admin\\documents, 1236 files, 91 MB, finished\n"
    "tuesday:   saving C:\\Users\\admin\\documents, 1240 files, 91 MB, finished\n"
    "wednesday: saving C:\\Users\\admin\\documents, 1241 files, 91 MB, finished\n";

class Tour {
 public:
  void step(const char *title) {
    std::fflush(stdout);
    out("%2d. %s\n", ++number_, title);
  }
  void line(const char *text) { out("      %s\n", text); }
  template <class... A>
  void linef(const char *fmt, A... a) {
    char buf[512];
    std::snprintf(buf, sizeof buf, fmt, a...);
    line(buf);
  }
  void fail() { ++failed_; }
  int summary() {
    out(msg(201, "summary: %d of %d steps done, %d failed\n"), number_ - failed_, number_, failed_);
    return failed_ ? kFailed : kOk;
  }

 private:
  int number_ = 0, failed_ = 0;
};


// The tour's scratch folder, below the system's temporary folder.
std::string scratch_dir() {
  const char *base = qzgetenv("TMPDIR");
  if (!base || !*base) base = qzgetenv("TEMP");
  if (!base || !*base) base = qzgetenv("TMP");
#ifdef _WIN32
  std::string t = std::string(base && *base ? base : ".") + "\\llocal-tour-XXXXXX";
#else
  std::string t = std::string(base && *base ? base : "/tmp") + "/llocal-tour-XXXXXX";
#endif
  return mkdtemp(t.data()) ? t : std::string();
}

std::string slurp(const std::string &path) {
  std::string data;
  if (std::FILE *f = qzfopen(path.c_str(), "rb")) {
    char buf[65536];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) data.append(buf, n);
    qzfclose(f);
  }
  return data;
}

bool spill(const std::string &path, const std::string &data) {
  std::FILE *f = qzfopen(path.c_str(), "wb");
  if (!f) return false;
  bool ok = std::fwrite(data.data(), 1, data.size(), f) == data.size();
  return qzfclose(f) == 0 && ok;
}

// The save round trip: a server child on a free loopback port, a save of a
// small tree read back through a command stream, a restore, a comparison,
// and the server stopped through its kill event.
bool round_trip(Tour &t) {
  std::string dir = scratch_dir();
  if (dir.empty()) return false;
  const char sep = dir.find('\\') != std::string::npos ? '\\' : '/';
  const std::string tree = dir + sep + "sample", store = dir + sep + "store", back = dir + sep + "back",
                    port_file = dir + sep + "port";
  std::string big;
  for (int i = 0; i < 20000; ++i) big += kSample + (i % 40);
  const std::pair<std::string, std::string> files[] = {
      {"journal.txt", kSample}, {"caf\xc3\xa9.txt", "cr\xc3\xa8me\n"}, {"empty", ""}, {"week.log", big}};
  bool ok = qz_mkdirs((tree + sep + "sub").c_str(), 0755) == 0;
  for (const auto &f : files) ok = ok && spill(tree + sep + "sub" + sep + f.first, f.second);
  char *server_argv[] = {const_cast<char *>("llocal"), const_cast<char *>("serve"), const_cast<char *>("--store"),
                         store.data() ? const_cast<char *>(store.c_str()) : nullptr, const_cast<char *>("--listen"),
                         const_cast<char *>("127.0.0.1:0"), const_cast<char *>("--port-file"),
                         const_cast<char *>(port_file.c_str()), nullptr};
#ifdef _WIN32
  std::FILE *null_dev = qzfopen("NUL", "w");
#else
  std::FILE *null_dev = qzfopen("/dev/null", "w");
#endif
  int quiet[3] = {-1, null_dev ? fileno(null_dev) : -1, -1};
  int server = ok ? spawn(0, server_argv, nullptr, quiet, nullptr) : -1;
  if (null_dev) qzfclose(null_dev);
  std::string port;
  for (int i = 0; server > 0 && i < 250 && port.empty(); ++i) {
    port = slurp(port_file);
    if (port.empty()) delay(20);
  }
  while (!port.empty() && (port.back() == '\n' || port.back() == '\r')) port.pop_back();
  ok = ok && server > 0 && !port.empty();
  std::string id;
  if (ok) {
    t.linef(msg(229, "server started, pid %d, port %s"), server, port.c_str());
    std::string command = "llocal save 127.0.0.1:" + port + " \"" + tree + "\"";
    char exe[4096];
    if (const char *self = execpath("llocal", exe, sizeof exe)) command = "\"" + std::string(self) + "\"" + command.substr(6);
    if (std::FILE *p = popen(command.c_str(), "r")) {
      char line[256] = "";
      if (std::fgets(line, sizeof line, p)) id = line;
      ok = pclose(p) == 0;
    } else {
      ok = false;
    }
    while (!id.empty() && (id.back() == '\n' || id.back() == '\r')) id.pop_back();
    ok = ok && !id.empty();
  }
  if (ok) {
    t.linef(msg(230, "saved as %s"), id.c_str());
    const std::string where = "127.0.0.1:" + port;
    char *restore_argv[] = {const_cast<char *>("llocal"), const_cast<char *>("restore"),
                            const_cast<char *>(where.c_str()), const_cast<char *>(id.c_str()),
                            const_cast<char *>(back.c_str()), nullptr};
    ok = spawn(QZ_SPAWN_WAIT, restore_argv, nullptr, nullptr, nullptr) > 0;  // -1: it failed
    int same = 0;
    for (const auto &f : files)
      same += ok && slurp(back + sep + "sample" + sep + "sub" + sep + f.first) == f.second;
    t.linef(msg(231, "restored %d of %d files byte for byte"), same, static_cast<int>(std::size(files)));
    ok = ok && same == static_cast<int>(std::size(files));
  }
  if (server > 0) {
    kill(server, 15);
    int status = -1;
    waitchild(server, &status, 0);
    t.linef(msg(232, "server stopped, exit code %d"), QZ_WEXITCODE(status));
    ok = ok && status == 0;
  }
  qz_rmtree(dir.c_str());
  return ok;
}

}  // namespace

int cmd_tour(int argc, char **argv) {
  const Command &cmd = *find_command("tour");
  Options opts(argc, argv, "h");
  for (int c; (c = opts.next()) != -1;) {
    if (c == 'h') return help(cmd);
    return opts.bad_option(cmd);
  }
  if (!opts.operands().empty()) return usage_error(cmd, "%s", msg(80, "takes no operands\n"));

  Tour t;
  const size_t len = sizeof kSample - 1;
  out("%s\n", msg(202, "liblocal tour"));

  t.step(msg(203, "initialise"));
  t.linef(msg(204, "library ready; messages: %s"),
          Catd >= 0 ? msg(205, "from the catalog of the user's language") : msg(206, "English defaults"));

  {
    t.step(msg(207, "name the program"));
    t.linef(msg(208, "every message line now begins with \"%s: \""), getMyname());
  }

  {
    t.step(msg(209, "operating system"));
    static const char *const kClasses[] = {"?", "NT kind, edition unknown", "server", "workstation",
                                           "Windows 9x kind"};
    const int cls = Win32OSVersion();
    t.linef(msg(210, "class %d (%s), version %d.%d, platform %d"), cls, cls >= 0 && cls <= 4 ? kClasses[cls] : "?",
            Win32OSMajorVersionNumber(), Win32OSMinorVersionNumber(), Win32OSPlatformId());
    t.linef(msg(211, "host description \"%s\", %d processors"), qz_host_os_name(), get_num_processors());
  }

  {
    t.step(msg(212, "compress the sample and back"));
    std::unique_ptr<unsigned char[]> packed(new unsigned char[len + 512]);
    std::unique_ptr<unsigned char[]> back(new unsigned char[len + 512]);
    const int z = cv_compress(kSample, packed.get(), static_cast<uint32_t>(len), static_cast<uint32_t>(len + 512));
    const int n = z < 0 ? -1 : cv_decompress(packed.get(), static_cast<uint32_t>(z), back.get(),
                                             static_cast<uint32_t>(len + 512));
    if (z > 0 && n == static_cast<int>(len) && std::memcmp(back.get(), kSample, len) == 0) {
      t.linef(msg(213, "%zu bytes -> %d bytes (%.1f%% of the original), restored intact"), len, z,
              100.0 * z / static_cast<double>(len));
    } else {
      t.linef(msg(214, "round trip failed (compressed %d, restored %d)"), z, n);
      t.fail();
    }
  }

  {
    t.step(msg(215, "checksums of the sample"));
    uint32_t crc;
    init_posix_crc(&crc);
    update_posix_crc(&crc, kSample, static_cast<uint32_t>(len));
    final_posix_crc(&crc, static_cast<uint32_t>(len), 0);
    sha_ctx ctx;
    sha_init(&ctx);
    sha_update(&ctx, kSample, len);
    unsigned char digest[SHA_DIGEST_SIZE];
    char text[SHA_TEXT_SIZE];
    sha_final(digest, &ctx);
    t.linef(msg(216, "cksum %u %zu"), crc, len);
    t.linef(msg(217, "SHA-1 %s"), sha_to_string(digest, text));
  }

  {
    t.step(msg(218, "canonicalise a path"));
    const char *path = "c:\\Users\\.\\guest\\..\\admin\\\\documents\\";
    char buf[256];
    canon(path, buf);
    t.linef("%s -> %s", path, buf);
  }

  {
    t.step(msg(219, "match a regular expression"));
    const char *pattern = "^\\([a-z]*\\): *saving.*\\(retry[a-z]*\\)$";
    qzregex *re = regex_cmp(pattern);
    const char *hit = nullptr;
    std::string l;
    for (const char *p = kSample; *p && !hit;) {
      const char *e = std::strchr(p, '\n');
      l.assign(p, e ? static_cast<size_t>(e - p) : std::strlen(p));
      if (re && regex_exec(re, l.c_str())) hit = l.c_str();
      p = e ? e + 1 : p + l.size();
    }
    if (hit) {
      const std::string day(re->group_start[0], re->group_end[0]), what(re->group_start[1], re->group_end[1]);
      t.linef(msg(220, "%s matches the line of %s (group 2: \"%s\")"), pattern, day.c_str(), what.c_str());
    } else {
      t.linef(msg(221, "%s matched nothing"), pattern);
      t.fail();
    }
    regex_done(re);
  }

  {
    t.step(msg(222, "an error record"));
    // The record keeps the text pointer, and catalog texts live in a ring of
    // buffers that the first error record of a process cycles through: copy.
    const std::string text = msg(223, "the sample's last save was retried");
    qzerror *e = err_setall(8, QZERR_WARNING, 7, text.c_str());
    t.linef(msg(224, "code %d: type %d, severity %d, number %d; printed on standard error:"), e->code,
            QZERR_TYPE(e->code), QZERR_SEVERITY(e->code), QZERR_NUMBER(e->code));
    std::fflush(stdout);
    err_print(e);
    t.linef(msg(225, "errno %d reads \"%s\""), ENOENT, qzmo_strerror(ENOENT));
  }

  {
    t.step(msg(226, "the time, localised"));
    char buf[QZ_TIMETEXT_SIZE];
    t.linef(msg(227, "now: %s"), i18n_long_time(qz_time(nullptr), buf));
  }

  {
    t.step(msg(228, "a save round trip over loopback"));
    if (!round_trip(t)) t.fail();
  }

  return t.summary();
}

}  // namespace llocal
