// Library initialisation, the global flags and the developer hooks.
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "frame/areas.h"
#include "frame/debugctl.h"
#include "frame/init_steps.h"
#include "frame/os.h"
#include <liblocal/memory.h>
#include <liblocal/osver.h>
#include <liblocal/utf8.h>

extern "C" {
LL_API int Debug = 0;
LL_API int Vflag = 0;
LL_API int Mast_flag = 0;
LL_API int Quit = 0;
LL_API int Catd = -1;
}

namespace ll {
// Debug-level trace used before the output family is present; the output
// family replaces the body of this function with its own dprintf.
void frame_trace(int level, const char *text) noexcept;
}

namespace {

std::atomic<int> g_initialised{0};  // the first-time work is done
std::atomic<int> g_completed{0};    // a whole _qzinit has run
std::mutex g_init_lock;
std::atomic<int> g_threads_in_use{0};
int g_print_uids = 0;
std::string g_debug_file;

long g_ruid, g_euid, g_rgid, g_egid;
std::once_flag g_ids_once;
void capture_ids() {
  std::call_once(g_ids_once, [] { ll::os::ids(g_ruid, g_euid, g_rgid, g_egid); });
}

bool is_ascii(const char *s) {
  for (; *s; ++s)
    if (static_cast<unsigned char>(*s) & 0x80) return false;
  return true;
}

bool equal_nocase(const char *a, const char *b) {
  for (; *a && *b; ++a, ++b)
    if (std::tolower(static_cast<unsigned char>(*a)) != std::tolower(static_cast<unsigned char>(*b))) return false;
  return *a == *b;
}

void convert_arguments(int argc, char **argv) {
  if (!argv) return;
  const char *mast = ll::os::get_env_ptr("BSW_MAST");
  if (mast && equal_nocase(mast, "NO_UTF8")) return;
  for (int i = 0; i < argc && argv[i]; ++i) {
    if (is_ascii(argv[i])) continue;
    auto *buf = static_cast<char *>(std::calloc(1, 12288));
    if (!buf) {
      errno = 12;
      return;
    }
    utf8_mbs(buf, argv[i], 12287);
    argv[i] = buf;  // deliberately never freed: the caller's vector keeps it
  }
}

}  // namespace

// Developer switches, set from a debugger (or another thread): plain words
// that the library reads and writes atomically.
extern "C" {
volatile int qz_debug_wait_requested = 0;
volatile int qz_debug_wait_pending = 0;
}

namespace {
int flag_get(volatile int &f) { return __atomic_load_n(&f, __ATOMIC_RELAXED); }
void flag_set(volatile int &f, int v) { __atomic_store_n(&f, v, __ATOMIC_RELAXED); }
}  // namespace

namespace ll {

bool init::completed() noexcept { return g_completed.load(std::memory_order_acquire) != 0; }


}  // namespace ll

namespace {
// The identifiers of the start-up steps in the order they ran, for the tests.
std::mutex g_steps_lock;
std::string g_steps;
void note_step(const char *id) {
  std::lock_guard<std::mutex> g(g_steps_lock);
  if (g_steps.size() < 1024) g_steps.append(g_steps.empty() ? "" : " ").append(id);
}
}  // namespace

extern "C" {

LL_API void _qzinit(const char *name, int argc, char **argv) noexcept {
  if (!name) name = "";
  if (!g_initialised.load(std::memory_order_acquire)) {
    std::lock_guard<std::mutex> g(g_init_lock);
    if (!g_initialised.load(std::memory_order_relaxed)) {
      note_step("2");
      ll::init::close_inherited();
      note_step("3");
      if (argv && argc > 0 && argv[0]) ll::init::find_installdir(argv[0]);
      note_step("4");
      ll::init::find_appdir(name);
      note_step("5");
      ll::init::locale_and_catalog(name);
      note_step("5a");
      ll::init::event_source();
      note_step("6");
      ll::frame_attach();
      (void)ll::proc();
      note_step("6a");
      ll::init::process_events();
      note_step("7");
      ll::init::time_zone();
      note_step("8");
      ll::init::cluster_start(name);
      if (Win32OSVersion() != 4) {
        note_step("9");
        ll::init::optional_entry_points();
      }
      note_step("10");
      ll::init::set_privileges();
      note_step("11");
      ll::init::dtree_handlers();
      note_step("12");
      capture_ids();
      g_print_uids = ll::os::get_env_ptr("BSW_PRINT_UIDS") != nullptr;
      std::srand(ll::os::process_id());
      g_debug_file = std::string(ll::init::temp_dir()) + ll::os::dir_sep() + "qzdbg.tmp";
      g_initialised.store(1, std::memory_order_release);
    }
  }
  note_step("14");
  ll::init::clear_opterr();
  note_step("15");
  convert_arguments(argc, argv);
  g_completed.store(1, std::memory_order_release);
}

LL_API void qzinit(const char *name) noexcept { _qzinit(name, 0, nullptr); }

LL_API int liblvars_set_debug(int level) noexcept { return Debug = level; }

LL_API int qz_thr_init(void) noexcept {
  g_threads_in_use = 1;
  return 1;
}

LL_API int qzpurify_is_running(void) noexcept {
  if (!ll::os::get_env_ptr("PURIFY_IS_RUNNING")) return 0;
  ll::frame_trace(3, "Purify is running\n");
  return 1;
}

LL_API const char **GetOemStringArray(void) noexcept {
  static const char *ids[] = {"Baystow Systems", "Baystow Backup", "1.0.0", "liblocal build " __DATE__,
                               "Baystow", "Baystow Backup Services", nullptr};
  return ids;
}

LL_API long *get_saved_uids(long *real, long *effective) noexcept {
  capture_ids();
  if (real) *real = g_ruid;
  if (effective) *effective = g_euid;
  return effective;
}

LL_API long *get_saved_gids(long *real, long *effective) noexcept {
  capture_ids();
  if (real) *real = g_rgid;
  if (effective) *effective = g_egid;
  return effective;
}

LL_API void debug_check(const char *name) noexcept {
  if (flag_get(qz_debug_wait_requested)) {
    flag_set(qz_debug_wait_requested, 0);
    flag_set(qz_debug_wait_pending, 1);
  } else {
    if (!flag_get(qz_debug_wait_pending)) return;
    const char *list = ll::os::get_env_ptr("BSW_DEBUGPROCS");
    if (!list || !name) return;
    const size_t n = std::strlen(name);
    bool match = false;
    std::string items(list);
    size_t pos = 0;
    while (!match && pos <= items.size()) {
      size_t comma = items.find(',', pos);
      std::string item = items.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
      // The first strlen(name) characters are compared, so an item that only
      // begins with the program's name matches too.
      if (item.size() >= n) {
        match = true;
        for (size_t i = 0; i < n; ++i)
          if (std::tolower(static_cast<unsigned char>(name[i])) != std::tolower(static_cast<unsigned char>(item[i]))) {
            match = false;
            break;
          }
      }
      if (comma == std::string::npos) break;
      pos = comma + 1;
    }
    if (!match) return;
  }
  while (flag_get(qz_debug_wait_pending)) {
    char line[64];
    std::snprintf(line, sizeof line, "%d waiting to be debugged\n", static_cast<int>(ll::os::process_id()));
    ll::frame_trace(0, line);
    delay(10000);
  }
}

LL_API const char *qz_debug_control_file(void) noexcept { return g_debug_file.c_str(); }

LL_API int qz_read_debug_control(void) noexcept {
  if (g_debug_file.empty()) return 0;
  std::string text;
  if (!ll::os::read_and_delete(g_debug_file.c_str(), text, 1024)) return 0;
  int value;
  if (ll::parse_debug_control(text.c_str(), &value)) Debug = value;
  return 1;
}

// Test seams.
LL_API void llt_set_debug_pending(int v) noexcept { flag_set(qz_debug_wait_pending, v); }
LL_API int llt_registry_count(void) noexcept { return ll::registry_count(); }
// Copies the start-up steps run so far ("2 3 4 ..."), then forgets them.
LL_API void llt_init_steps(char *buf, size_t size) noexcept {
  std::lock_guard<std::mutex> g(g_steps_lock);
  if (size == 0) return;
  size_t n = g_steps.size() < size - 1 ? g_steps.size() : size - 1;
  std::memcpy(buf, g_steps.data(), n);
  buf[n] = '\0';
  g_steps.clear();
}

}  // extern "C"
