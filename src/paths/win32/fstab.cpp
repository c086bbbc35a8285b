// The file-system table on Windows: the logical drives with the volume mount
// points below them, the pseudo entries for system state, and the volumes
// that have neither a drive letter nor a mount point.
#include <liblocal/fileio.h>
#include <liblocal/osver.h>
#include <liblocal/path.h>
#include <liblocal/utf8.h>
#include <liblocal/wfile.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "paths/fstab_os.h"
#include "paths/win32/wpaths.h"

using namespace ll::paths::win;
using ll::paths::kPathBuf;

namespace ll::fstab {

namespace {

constexpr int kNotReady = 21 | 0x10000000;  // ERROR_NOT_READY, marked
constexpr UINT kQuietErrors = 0x8001;        // SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX

// ---- what Wine cannot produce, set by the tests ----
struct FakeVolume {
  bool has_volname = false;
  std::string volname;
  int drive_type = 0;
  uint32_t serial = 0;
  bool ready = false;
  std::string fsname;
  bool has_dosdev = false;
  std::string dosdev;
};
struct World {
  int mode = 0;   // 0 the system only, 1 fakes beside the real drives, 2 fakes instead of them
  int major = 0;  // pretended major version; 0 the system's
  std::map<std::string, FakeVolume> dirs;                  // by mount directory
  std::vector<std::string> roots;                          // fake drive roots, in order
  std::vector<FakeVolume> lone;                            // volumes with no path
  std::map<std::string, std::vector<std::string>> mntpts;  // mount points under a directory
};
std::mutex g_fake_lock;
World g_fake;

bool is_drive_root(const std::string &s) {
  return s.size() == 3 && s[1] == ':' && s[2] == '\\' && ((s[0] | 32) >= 'a' && (s[0] | 32) <= 'z');
}

// The volume-enumeration operations, found at run time.
struct VolumeEnum {
  HANDLE(WINAPI *first)(LPWSTR, DWORD) = nullptr;
  BOOL(WINAPI *next)(HANDLE, LPWSTR, DWORD) = nullptr;
  BOOL(WINAPI *close)(HANDLE) = nullptr;
  BOOL(WINAPI *paths)(LPCWSTR, LPWCH, DWORD, PDWORD) = nullptr;
  VolumeEnum() {
    HMODULE k = GetModuleHandleW(L"kernel32.dll");
    if (!k) return;
    auto get = [k](auto &fn, const char *name) {
      fn = reinterpret_cast<std::remove_reference_t<decltype(fn)>>(reinterpret_cast<void *>(GetProcAddress(k, name)));
    };
    get(first, "FindFirstVolumeW");
    get(next, "FindNextVolumeW");
    get(close, "FindVolumeClose");
    get(paths, "GetVolumePathNamesForVolumeNameW");
  }
  bool usable() const { return first && next && close && paths; }
};

// The questions the add step asks, answered by the system or by the fakes
// of this build (a copy taken when the build starts).
class Source {
 public:
  explicit Source(World w) : w_(std::move(w)) {
    for (auto &[dir, v] : w_.dirs) by_volume_[v.has_volname ? v.volname : dir] = &v;
    for (auto &v : w_.lone) by_volume_[v.volname] = &v;
  }
  const World &world() const { return w_; }

  bool drives(std::vector<std::string> &out) {
    if (w_.mode != 2) {
      if (ansi()) {
        char buf[kPathBuf + 2] = {};
        const DWORD n = GetLogicalDriveStringsA(kPathBuf, buf);
        if (n == 0 || n > kPathBuf) return fail_last();
        for (const char *p = buf; *p; p += std::strlen(p) + 1) out.push_back(ansi_to_utf8(p));
      } else {
        wchar_t buf[kPathBuf + 2] = {};
        const DWORD n = GetLogicalDriveStringsW(kPathBuf, buf);
        if (n == 0 || n > kPathBuf) return fail_last();
        for (const wchar_t *p = buf; *p; p += std::wcslen(p) + 1) out.push_back(to_utf8(p));
      }
    }
    for (const std::string &r : w_.roots) out.push_back(r);
    return true;
  }

  bool volume_name(const std::string &dir, std::string &out) {
    auto f = w_.dirs.find(dir);
    if (f != w_.dirs.end()) {
      if (!f->second.has_volname) return false;
      out = f->second.volname;
      return true;
    }
    char buf[kPathBuf];
    if (!utf8_getmntptvname(dir.c_str(), buf, kPathBuf - 1)) return false;
    out = buf;
    return true;
  }

  // errno is the marked platform code on failure.
  bool volume_info(const std::string &volume, uint32_t &serial, std::string &fsname) {
    if (const FakeVolume *v = fake(volume)) {
      if (!v->ready) {
        errno = kNotReady;
        return false;
      }
      serial = v->serial;
      fsname = v->fsname;
      return true;
    }
    char fs[32] = {};
    uint32_t ser = 0;
    if (!utf8_getvolumeinfo(volume.c_str(), nullptr, 0, &ser, nullptr, nullptr, fs, sizeof fs)) return false;
    serial = ser;
    fsname = fs;
    return true;
  }

  UINT drive_type(const std::string &volume) {
    if (const FakeVolume *v = fake(volume)) return static_cast<UINT>(v->drive_type);
    if (ansi()) {
      AnsiName a(volume.c_str());
      return a.ok ? GetDriveTypeA(a.a) : DRIVE_UNKNOWN;
    }
    WideName n(volume.c_str());
    return n.ok ? GetDriveTypeW(n.w) : DRIVE_UNKNOWN;
  }

  // The device behind "C:" (the mount directory without its backslash).
  bool dos_device(const std::string &dir, const std::string &copy, std::string &out) {
    auto f = w_.dirs.find(dir);
    if (f != w_.dirs.end() && f->second.has_dosdev) {
      out = f->second.dosdev;
      return true;
    }
    if (ansi()) {
      AnsiName a(copy.c_str());
      char buf[1024];
      if (!a.ok || !QueryDosDeviceA(a.a, buf, sizeof buf)) return false;
      out = ansi_to_utf8(buf);
      return true;
    }
    WideName n(copy.c_str());
    wchar_t buf[1024];
    if (!n.ok || !QueryDosDeviceW(n.w, buf, 1024)) return false;
    out = to_utf8(buf);
    return true;
  }

  // The volume mount points under dir, as names relative to it.
  std::vector<std::string> mount_points(const std::string &dir) {
    auto f = w_.mntpts.find(dir);
    if (f != w_.mntpts.end()) return f->second;
    std::vector<std::string> out;
    char name[kPathBuf];
    const intptr_t h = utf8_findfirstvolmntpt(dir.c_str(), name, sizeof name);
    if (h == -1 || h == 0) return out;
    do out.push_back(name);
    while (utf8_findnextvolmntpt(h, name, sizeof name));
    utf8_findvolmntptclose(h);
    return out;
  }

  // Volumes that have neither a drive letter nor a mount point.
  std::vector<std::string> lone_volumes() {
    std::vector<std::string> out;
    if (w_.mode != 2) {
      static const VolumeEnum ops;
      if (ops.usable()) {
        wchar_t vol[kPathBuf];
        HANDLE h = ops.first(vol, kPathBuf);
        if (h != INVALID_HANDLE_VALUE) {
          do {
            wchar_t paths[kPathBuf];
            DWORD len = 0;
            // A volume with no path answers an empty list; one whose list is
            // too long for the buffer has paths.
            if (ops.paths(vol, paths, kPathBuf, &len) && paths[0] == 0) out.push_back(to_utf8(vol));
          } while (ops.next(h, vol, kPathBuf));
          ops.close(h);
        }
      }
    }
    for (const FakeVolume &v : w_.lone) out.push_back(v.volname);
    return out;
  }

 private:
  static bool fail_last() {
    set_raw();
    return false;
  }
  const FakeVolume *fake(const std::string &volume) const {
    auto f = by_volume_.find(volume);
    return f == by_volume_.end() ? nullptr : f->second;
  }
  World w_;
  std::map<std::string, const FakeVolume *> by_volume_;
};

bool starts_with(const std::string &s, const char *prefix) { return s.compare(0, std::strlen(prefix), prefix) == 0; }

void cut_backslash(std::string &s) {
  if (!s.empty() && s.back() == '\\') s.pop_back();
}

// Adds one mount directory (with its trailing backslash): volume name known
// or not, and the serials of the volumes above it when it was reached
// through a mount point.
void add(Source &src, Table &t, const std::string &dir, const std::string *volname,
         const std::vector<uint32_t> *parents) {
  std::string volume;
  if (volname)
    volume = *volname;
  else if (!src.volume_name(dir, volume))
    volume = dir;
  uint32_t serial = 0;
  std::string fsname;
  if (!src.volume_info(volume, serial, fsname)) {
    if (errno != kNotReady) return;
    fsname = "ignore";
    serial = 0;
  }
  Mount m;
  m.device = t.keep(volume);
  m.dir = t.keep(dir);
  m.serial = serial;
  std::string copy = dir, kind;
  cut_backslash(copy);
  bool network = false;
  // Some systems do not answer for a volume name: then the mount directory
  // tells.
  UINT type = src.drive_type(volume);
  if ((type == DRIVE_UNKNOWN || type == DRIVE_NO_ROOT_DIR) && volume != dir) type = src.drive_type(dir);
  switch (type) {
    case DRIVE_REMOVABLE:
      kind = "removable";
      break;
    case DRIVE_FIXED: {
      std::string dev;
      if (!src.dos_device(dir, copy, dev)) break;
      if (starts_with(dev, "\\DosDevices\\")) {
        kind = "remote";
        break;
      }
      const char *target = dev.c_str();
      if (starts_with(dev, "\\??\\")) target += 4;
      const bool letter = ((target[0] | 32) >= 'a' && (target[0] | 32) <= 'z') && target[1] == ':';
      if (letter && (target[0] | 32) != (dir[0] | 32)) {  // a substituted drive
        m.ignored = true;
        if (!volname) m.device = t.keep(target);
      }
      break;
    }
    case DRIVE_REMOTE: {
      kind = "remote";
      char net[kPathBuf - 1];
      if (!fullpath2(dir.c_str(), net, sizeof net, QZ_FULLPATH_NETWORK) || !is_unc_path(net)) return;
      m.dir = m.device = t.keep(net);
      copy = net;
      cut_backslash(copy);
      network = true;
      break;
    }
    case DRIVE_CDROM:
      kind = "cdrom";
      break;
    case DRIVE_RAMDISK:
      kind = "ramdisk";
      break;
    default:
      return;
  }
  if (t.has_dir(m.dir)) return;
  t.settle(m, '\\');
  bool loop = false;
  if (parents) {
    for (uint32_t p : *parents) loop = loop || p == serial;
    m.type = loop ? "loop" : "mntpt";
  } else {
    m.type = t.keep(kind.empty() ? fsname : kind);
  }
  m.name = t.keep(copy);
  const std::string here(m.dir);
  t.push(m);
  if (network || serial == 0 || loop) return;

  std::vector<uint32_t> below = parents ? *parents : std::vector<uint32_t>{};
  below.push_back(serial);
  for (const std::string &name : src.mount_points(here)) {
    std::string full(name.size() + here.size() + 16, '\0');
    fullcanon(name.c_str(), full.data(), here.c_str());
    full.resize(std::strlen(full.c_str()));
    full += '\\';
    std::string child;
    if (src.volume_name(full, child)) add(src, t, full, &child, &below);
  }
}

}  // namespace

bool build(Table &t) noexcept {
  World w;
  {
    std::lock_guard<std::mutex> g(g_fake_lock);
    w = g_fake;
  }
  Source src(std::move(w));
  const UINT old_mode = SetErrorMode(kQuietErrors);
  std::vector<std::string> roots;
  if (const int e = injected_failure()) {
    SetErrorMode(old_mode);
    errno = e;
    return false;
  }
  if (!src.drives(roots)) {
    // Unlike the lock, which the caller releases, the error mode is the
    // program's: it is given back on this path too.
    const int e = errno;
    SetErrorMode(old_mode);
    errno = e;
    return false;
  }
  for (const std::string &r : roots) add(src, t, r, nullptr, nullptr);
  SetErrorMode(old_mode);

  if (Win32OSVersion() == 4) return true;
  const int major = src.world().major ? src.world().major : Win32OSMajorVersionNumber();
  add_system_state(t, major);
  const UINT again = SetErrorMode(kQuietErrors);
  for (const std::string &v : src.lone_volumes()) add(src, t, v, &v, nullptr);
  SetErrorMode(again);
  if (major < 5) add_repair_disk(t);
  return true;
}

bool platform_nonlocal_type(const char *) noexcept { return false; }

std::string volume_of(const char *path) {
  char root[kPathBuf];
  return utf8_getvolumepathname(path, root, sizeof root) == 0 ? std::string(root) : std::string(path);
}

}  // namespace ll::fstab

using namespace ll::fstab;

extern "C" {

// Test seams for what Wine cannot produce. Mode 0 forgets every fake and
// reads the system only; 1 lists the fakes beside the real drives; 2 instead
// of them (and of the real volumes).
LL_API void llt_fstab_fake_mode(int mode) noexcept {
  std::lock_guard<std::mutex> g(g_fake_lock);
  if (mode == 0) g_fake = World{};
  g_fake.mode = mode;
}

// A fake mount directory ("Q:\" is listed as a drive; any other is reached
// through llt_fstab_fake_mntpt), or with dir null a volume with no path.
// volname null: the volume name cannot be found. fsname null: not ready.
// dosdev null: the system's answer.
LL_API void llt_fstab_fake(const char *dir, const char *volname, int drivetype, uint32_t serial, const char *fsname,
                           const char *dosdev) noexcept {
  FakeVolume v;
  v.has_volname = volname != nullptr;
  v.volname = volname ? volname : "";
  v.drive_type = drivetype;
  v.serial = serial;
  v.ready = fsname != nullptr;
  v.fsname = fsname ? fsname : "";
  v.has_dosdev = dosdev != nullptr;
  v.dosdev = dosdev ? dosdev : "";
  std::lock_guard<std::mutex> g(g_fake_lock);
  if (!dir) {
    if (volname) g_fake.lone.push_back(v);
    return;
  }
  if (is_drive_root(dir) && !g_fake.dirs.count(dir)) g_fake.roots.push_back(dir);
  g_fake.dirs[dir] = v;
}

LL_API void llt_fstab_fake_mntpt(const char *dir, const char *relname) noexcept {
  if (!dir || !relname) return;
  std::lock_guard<std::mutex> g(g_fake_lock);
  g_fake.mntpts[dir].push_back(relname);
}

// The major version the table is built for (0: the system's).
LL_API void llt_fstab_os_major(int major) noexcept {
  std::lock_guard<std::mutex> g(g_fake_lock);
  g_fake.major = major;
}

}  // extern "C"
