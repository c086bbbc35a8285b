// Application and installation directories, the well-known subdirectories,
// and the executable names next to the running program.
#include <liblocal/appdir.h>
#include <liblocal/output.h>
#include <liblocal/path.h>
#include <liblocal/wfile.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "frame/areas.h"
#include "frame/init_steps.h"
#include "frame/os.h"
#include "paths/paths.h"

namespace {

using namespace ll::paths;

enum Sub { kApplogs, kBin, kCores, kDebug, kEtc, kGls, kIndex, kLib, kLogs, kMm, kMod, kRap, kRes, kTmp, kSec, kSubs };
const char *const kSubNames[kSubs] = {"applogs", "bin", "cores", "debug", "etc", "gls", "index", "lib",
                                      "logs",    "mm",  "mod",   "rap",   "res", "tmp", "sec"};

// Everything this family remembers for the process. Strings are handed out
// and never replaced once set (but argv0); all access is under the lock.
struct AppState {
  std::recursive_mutex lock;
  char *argv0 = nullptr;
  char *installdir = nullptr;
  char *subdir[kSubs] = {};
  std::string appname;
  char *appdir = nullptr;
  bool searched = false;
  char *found = nullptr;  // result of the program-location search
  char *default_dir = nullptr;
  char *drive = nullptr;
  // Test overrides: executable name, separator, system drive.
  bool forced = false;
  std::string forced_exe;
  char forced_sep = '\\';
  ~AppState() {
    char *owned[] = {argv0, installdir, appdir, found, default_dir, drive};
    for (char *p : owned) std::free(p);
    for (char *p : subdir) std::free(p);
  }
};

AppState *st() { return ll::process_area<AppState>(); }

char sep_of(AppState *s) { return s->forced ? s->forced_sep : native_sep(); }
std::string exe_of(AppState *s) { return s->forced ? s->forced_exe : exe_path(); }

char *dup(const std::string &s) {
  char *p = static_cast<char *>(std::malloc(s.size() + 1));
  if (p) std::memcpy(p, s.c_str(), s.size() + 1);
  return p;
}

// The directory the program runs from, with a trailing separator; empty when unknown.
std::string origin(AppState *s) {
  if (!s->forced) {
    const char *o = find_origin(s->argv0 ? s->argv0 : "");
    return o ? o : "";
  }
  std::string exe = exe_of(s);
  size_t cut = exe.rfind(sep_of(s));
  if (cut == std::string::npos) return {};
  return exe.substr(0, cut + 1);
}

// Parent of a directory given with or without one trailing separator.
std::string parent_of(std::string dir, char sep) {
  if (!dir.empty() && dir.back() == sep) dir.pop_back();
  size_t cut = dir.rfind(sep);
  if (cut == std::string::npos) return {};
  if (cut == 0) return std::string(1, sep);
  return dir.substr(0, cut);
}

const char *subdir(Sub which) {
  AppState *s = st();
  std::lock_guard<std::recursive_mutex> g(s->lock);
  if (s->subdir[which]) return s->subdir[which];
  const char *parent;
  if (which == kBin)
    parent = s->installdir;
  else if (which == kSec)
    parent = subdir(kTmp);
  else
    parent = find_appdir(nullptr);
  if (!parent) return nullptr;
  s->subdir[which] = path_concat_dirsep(parent, kSubNames[which], sep_of(s));
  return s->subdir[which];
}

}  // namespace

namespace ll::init {
void find_installdir(const char *argv0) noexcept { qz_find_installdir(argv0); }
void find_appdir(const char *name) noexcept { ::find_appdir(name); }
// The debug control file lives in the application's temporary directory when
// the installation has one, else in the system's temporary directory.
const char *temp_dir() noexcept {
  const char *tmp = qz_get_tmpdir();
  if (tmp) {
    uint32_t a = utf8_getfileattributes(tmp);
    if (a != QZ_INVALID_FILE_ATTRIBUTES && (a & QZ_FILE_ATTRIBUTE_DIRECTORY)) return tmp;
  }
  struct SysTemp {
    std::string dir = ll::os::temp_dir();
  };
  return ll::process_area<SysTemp>()->dir.c_str();
}
}  // namespace ll::init

extern "C" {

LL_API const char *default_drive_win32(void) noexcept {
  AppState *s = st();
  std::lock_guard<std::recursive_mutex> g(s->lock);
  if (s->drive) return s->drive;
  std::string d;
  if (sep_of(s) == '\\') {
    char *e = get_an_expanded_string_win32("%SystemDrive%");
    if (e && std::strcmp(e, "%SystemDrive%") != 0) {
      d = e;
      if (!d.empty() && d.back() == '\\') d.pop_back();
      if (!d.empty() && d.back() == ':') d.pop_back();
    } else {
      d = "C";
    }
    std::free(e);
  }
  s->drive = dup(d);
  return s->drive;
}

LL_API const char *default_appdir_win32(const char *appname) noexcept {
  AppState *s = st();
  std::lock_guard<std::recursive_mutex> g(s->lock);
  if (!appname) appname = s->appname.c_str();
  if (s->default_dir) return s->default_dir;
  const char sep = sep_of(s);
  while (*appname == sep) ++appname;
  std::string d = sep == '\\' ? std::string(default_drive_win32()) + ":\\" : std::string("/opt/");
  s->default_dir = dup(d + appname);
  return s->default_dir;
}

LL_API const char *find_appdir_no_default_win32(const char *appname) noexcept {
  AppState *s = st();
  std::lock_guard<std::recursive_mutex> g(s->lock);
  if (s->searched) return s->found;
  if (!appname) appname = s->appname.c_str();
  const char sep = sep_of(s);
  std::string exe = exe_of(s);
  if (!s->forced && !exe.empty()) {
    char full[kPathBuf];
    if (fullpath2(exe.c_str(), full, sizeof full, 0)) exe = full;
  }
  s->searched = true;
  size_t cut = exe.rfind(sep);
  if (cut == std::string::npos) return nullptr;
  std::string dir = exe.substr(0, cut);  // the executable's directory
  cut = dir.rfind(sep);
  if (cut == std::string::npos) return nullptr;
  const std::string last = dir.substr(cut + 1);
  dir.resize(cut);
  if (equal_nocase(last.c_str(), "bin")) {
    s->found = dup(dir.empty() ? std::string(1, sep) : dir);
    return s->found;
  }
  // Walk upwards; the executable's own directory was cut above and is never compared.
  for (;;) {
    cut = dir.rfind(sep);
    if (cut == std::string::npos) return nullptr;
    if (equal_nocase(dir.c_str() + cut + 1, appname)) {
      s->found = dup(dir);
      return s->found;
    }
    dir.resize(cut);
  }
}

LL_API const char *find_appdir(const char *appname) noexcept {
  AppState *s = st();
  std::lock_guard<std::recursive_mutex> g(s->lock);
  if (s->appdir) return s->appdir;
  if (appname && s->appname.empty()) s->appname = appname;
  if (s->appname.empty()) return nullptr;
  const char *d = find_appdir_no_default_win32(s->appname.c_str());
  if (!d) d = default_appdir_win32(s->appname.c_str());
  s->appdir = d ? dup(d) : nullptr;
  return s->appdir;
}

LL_API void qz_set_argv0(const char *name) noexcept {
  if (!name) return;
  AppState *s = st();
  std::lock_guard<std::recursive_mutex> g(s->lock);
  char *old = s->argv0;
  s->argv0 = dup(name);
  std::free(old);
}

LL_API const char *qz_get_argv0(void) noexcept {
  AppState *s = st();
  std::lock_guard<std::recursive_mutex> g(s->lock);
  return s->argv0;
}

LL_API const char *qz_find_installdir(const char *argv0) noexcept {
  if (!argv0) return nullptr;
  qz_set_argv0(argv0);
  AppState *s = st();
  std::lock_guard<std::recursive_mutex> g(s->lock);
  if (!s->installdir) {
    std::string p = parent_of(origin(s), sep_of(s));
    if (!p.empty()) s->installdir = dup(p);
  }
  return s->installdir;
}

LL_API const char *qz_get_installdir(void) noexcept {
  AppState *s = st();
  std::lock_guard<std::recursive_mutex> g(s->lock);
  return s->installdir;
}

LL_API const char *qz_get_applogsdir(void) noexcept { return subdir(kApplogs); }
LL_API const char *qz_get_bindir(void) noexcept { return subdir(kBin); }
LL_API const char *qz_get_coresdir(void) noexcept { return subdir(kCores); }
LL_API const char *qz_get_debugdir(void) noexcept { return subdir(kDebug); }
LL_API const char *qz_get_etcdir(void) noexcept { return subdir(kEtc); }
LL_API const char *qz_get_glsdir(void) noexcept { return subdir(kGls); }
LL_API const char *qz_get_indexdir(void) noexcept { return subdir(kIndex); }
LL_API const char *qz_get_libdir(void) noexcept { return subdir(kLib); }
LL_API const char *qz_get_logsdir(void) noexcept { return subdir(kLogs); }
LL_API const char *qz_get_mmdir(void) noexcept { return subdir(kMm); }
LL_API const char *qz_get_moddir(void) noexcept { return subdir(kMod); }
LL_API const char *qz_get_rapdir(void) noexcept { return subdir(kRap); }
LL_API const char *qz_get_resdir(void) noexcept { return subdir(kRes); }
LL_API const char *qz_get_tmpdir(void) noexcept { return subdir(kTmp); }
LL_API const char *qz_get_securedir(void) noexcept { return subdir(kSec); }

LL_API const char *execpath(const char *name, char *buf, unsigned int size) noexcept {
  if (!name) return name;
  AppState *s = st();
  const char sep = sep_of(s);
  const std::string org = origin(s);
  if (org.empty() || !buf) {
    dprintf(1, "Origin not set, using `%s' for execpath\n", name);
    return name;
  }
  const size_t nl = std::strlen(name);
  if (org.size() + nl + 2 > size) {
    dprintf(1, "`%s%s' exceeds %u bytes for execpath\n", org.c_str(), name, size);
    return name;
  }
  const bool absolute = sep == '\\' ? (name[0] == '\\' || (nl >= 2 && name[1] == ':')) : name[0] == '/';
  if (absolute) {
    std::memcpy(buf, name, nl + 1);
  } else {
    std::string dir = org;
    if (!dir.empty() && dir.back() == sep) dir.pop_back();
    std::snprintf(buf, size, "%s%c%s", dir.c_str(), sep, name);
  }
  canon_dirsep(buf, buf, sep);
  if (sep == '\\') {
    const size_t bl = std::strlen(buf);
    const char *tail = bl < 5 ? buf : buf + bl - 4;
    if (!equal_nocase(tail, ".exe")) {
      const uint32_t a = utf8_getfileattributes(buf);
      if ((a == QZ_INVALID_FILE_ATTRIBUTES || (a & QZ_FILE_ATTRIBUTE_DIRECTORY)) && bl + 5 <= size)
        std::memcpy(buf + bl, ".exe", 5);
    }
  }
  if (utf8_access(buf) == 0) {
    dprintf(3, "using `%s' as execpath for `%s'\n", buf, name);
    return buf;
  }
  dprintf(2, "`%s' not accessable,\n", buf);
  dprintf(2, "using `%s' for execpath,\n", name);
  std::memmove(buf, name, nl + 1);
  return name;
}

// Test seam: pretends the running executable is 'exe' with separator 'sep'
// and forgets everything found so far (null exe: back to the real one).
LL_API void llt_appdir_reset(const char *exe, int sep) noexcept {
  AppState *s = st();
  std::lock_guard<std::recursive_mutex> g(s->lock);
  char *owned[] = {s->installdir, s->appdir, s->found, s->default_dir, s->drive};
  for (char *p : owned) std::free(p);
  for (char *&p : s->subdir) {
    std::free(p);
    p = nullptr;
  }
  s->installdir = s->appdir = s->found = s->default_dir = s->drive = nullptr;
  s->searched = false;
  s->appname.clear();
  s->forced = exe != nullptr;
  s->forced_exe = exe ? exe : "";
  s->forced_sep = static_cast<char>(sep);
}

}  // extern "C"
