// Message catalogs: the locale file, opening and checking catalogs, lookups
// into the process-wide result ring, the answer letters and message ids.
#include <liblocal/appdir.h>
#include <liblocal/catalog.h>
#include <liblocal/fileio.h>
#include <liblocal/frame.h>
#include <liblocal/quote.h>

#include <atomic>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "frame/init_steps.h"
#include "text/catalog_backend.h"
#include "text/strutil_internal.h"
#include "frame/fault.h"

namespace ll::text::catalog_os {

// The locale file is read through the file layer (UTF-8 name, binary on
// Windows; a carriage return before the line end is dropped).
bool read_first_line(const std::string &path, size_t max, std::string &line) noexcept {
  FILE *f = qzfopen(path.c_str(), "r");
  if (!f) return false;
  line.clear();
  try {
    for (int c; (c = std::fgetc(f)) != EOF && c != '\n';)
      if (line.size() < max) line += static_cast<char>(c);
  } catch (...) {
  }
  qzfclose(f);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return true;
}

}  // namespace ll::text::catalog_os

namespace os = ll::text::catalog_os;
using ll::text::trace;

namespace {

constexpr int kRing = 20;
constexpr size_t kText = 6144;
constexpr size_t kLocaleLine = 100;
constexpr int kOwnSet = 17;
constexpr int kVersionMessage = 264;

// One open catalog and the texts already read from it (unescaped; a missing
// message is remembered as such).
struct Catalog {
  void *handle = nullptr;
  struct Entry {
    bool found;
    std::string text;
  };
  std::unordered_map<unsigned int, Entry> texts;
};

// Process-wide catalog state: the result ring, the open catalogs (a handle is
// an index into 'open'; indexes are not reused) and the locale strings.
struct State {
  std::mutex lock;
  int next = 0;
  char ring[kRing][kText];
  std::vector<std::unique_ptr<Catalog>> open;
  char *lang_subdir = nullptr;
  char *rap_locale = nullptr;
  char *user_locale = nullptr;
  std::string appdir_override;
  bool has_appdir_override = false;
};
State &g = *new State;  // never destroyed: lookups may run during exit

// Lookups of other sets wait for the end of initialisation (set by the
// locale step).

char *copy_text(char *buf, const char *text) noexcept {
  if (!text) text = "";
  size_t n = std::strlen(text);
  if (n > kText - 1) n = kText - 1;
  std::memcpy(buf, text, n);
  buf[n] = '\0';
  return buf;
}

char *dup_or_null(const char *s) noexcept {
  if (!s) return nullptr;
  const size_t n = std::strlen(s) + 1;
  auto *p = LL_FAULT(alloc) ? nullptr : static_cast<char *>(std::malloc(n));
  if (p) std::memcpy(p, s, n);
  return p;
}

// The text of (set, number) in catalog 'c', read once and then served from
// its cache. Called under the lock.
const Catalog::Entry *find_text(Catalog &c, int set, int number) noexcept {
  const unsigned int id = mc_message_id(set, number);
  auto it = c.texts.find(id);
  if (it != c.texts.end()) return &it->second;
  try {
    Catalog::Entry e{false, {}};
    std::string raw;
    if (os::lookup(c.handle, set, number, raw)) {
      e.found = true;
      e.text.resize(raw.size() + 1);
      unquotegets(e.text.data(), raw.c_str(), e.text.size() > kText ? kText : e.text.size());
      e.text.resize(std::strlen(e.text.c_str()));
    }
    return &c.texts.emplace(id, std::move(e)).first->second;
  } catch (...) {
    return nullptr;
  }
}

Catalog *catalog_at(int handle) noexcept {
  if (handle < 0 || static_cast<size_t>(handle) >= g.open.size()) return nullptr;
  return g.open[static_cast<size_t>(handle)].get();
}

// The application directory the locale file hangs under.
std::string application_dir() {
  {
    std::lock_guard<std::mutex> l(g.lock);
    if (g.has_appdir_override) return g.appdir_override;
  }
  const char *dir = find_appdir(nullptr);
  return dir ? dir : "";
}

bool equal_nocase(const char *a, const char *b) {
  for (; *a && *b; ++a, ++b) {
    char x = *a, y = *b;
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return *a == *b;
}

void replace(char *&slot, const char *value) {
  std::free(slot);
  slot = dup_or_null(value);
}

// Locale set-up: the locale file, the language subdirectory, the protocol
// and user locales, and the library's catalog.
void setup_locale(const char *name) noexcept {
  const char sep = os::separator();
  std::string path;
  bool have_dir = false;
  try {
    const std::string appdir = application_dir();
    have_dir = !appdir.empty();
    path = appdir + sep + "gls" + sep + "GL_LANG";
  } catch (...) {
    return;
  }
  std::string line;
  // Without an application directory there is no locale file to read.
  const bool have_file = have_dir && os::read_first_line(path, kLocaleLine, line);
  if (!have_file) trace(1, "Cannot open file \"%s\".\n", path.c_str());
  trace(1, "Locale \"%s\" found.\n", line.empty() ? "not" : line.c_str());
  const size_t dot = line.find('.');
  if (dot != std::string::npos) line.resize(dot);
  const bool have_subdir = have_file && !line.empty();
  {
    std::lock_guard<std::mutex> l(g.lock);
    replace(g.lang_subdir, have_subdir ? line.c_str() : nullptr);
  }
  trace(1, "Lang Subdir is \"%s\".\n", have_subdir ? line.c_str() : "unknown");

  const char *c_name = std::setlocale(LC_ALL, "C");
  std::string rap = c_name ? c_name : "C";
  if (have_subdir) {
    const char *user = std::setlocale(LC_ALL, "");
    {
      std::lock_guard<std::mutex> l(g.lock);
      replace(g.rap_locale, rap.c_str());
      replace(g.user_locale, user ? user : rap.c_str());
    }
    if (Catd >= 0) qzcatclose(Catd);
    Catd = qzcatopen(name);
  } else {
    {
      std::lock_guard<std::mutex> l(g.lock);
      replace(g.rap_locale, rap.c_str());
      replace(g.user_locale, rap.c_str());
    }
    const char *user = std::setlocale(LC_ALL, "");
    if (user && equal_nocase(user, "English_United States.1252")) ++Mast_flag;
  }
}

// Answers: the letter texts of a kind are messages lower and lower + 1.
int matches_letter(const char *answer, int number, const char *english) noexcept {
  char letter[64];
  qzcatgets_buf(letter, sizeof letter, Catd, kOwnSet, number, english);
  const size_t n = std::strlen(letter);
  return n && std::strncmp(answer, letter, n) == 0;
}

int is_kind(const char *answer, int lower, const char *lower_en, const char *upper_en) noexcept {
  if (!answer) return 0;
  return matches_letter(answer, lower, lower_en) || matches_letter(answer, lower + 1, upper_en);
}

int letter_of(int number, const char *english) noexcept {
  char letter[64];
  return static_cast<unsigned char>(qzcatgets_buf(letter, sizeof letter, Catd, kOwnSet, number, english)[0]);
}

}  // namespace

namespace ll::init {
void locale_and_catalog(const char *name) noexcept { setup_locale(name); }
}  // namespace ll::init

extern "C" {

LL_API int mc_facility_id(int set) noexcept { return set | 0x800; }

LL_API unsigned int mc_message_id(int set, int number) noexcept {
  return static_cast<unsigned int>(mc_facility_id(set)) * 65536u + static_cast<unsigned int>(number);
}

LL_API int qzcatopen(const char *name) noexcept {
  std::string path;
  try {
    std::string subdir;
    {
      std::lock_guard<std::mutex> l(g.lock);
      if (!g.lang_subdir) return -1;
      subdir = g.lang_subdir;
    }
    std::string file;
    if (!name || std::strcmp(name, "bsw") == 0) file = std::string("baystowr") + os::suffix();
    else if (std::strchr(name, '.')) file = name;
    else file = std::string(name) + os::suffix();
    path = subdir + os::separator() + file;
  } catch (...) {
    return -1;
  }
  void *h = os::open(path);
  if (!h) {
    trace(1, "Message catalog \"%s\" NOT found.\n", path.c_str());
    return -1;
  }
  // Traces go out after the lock is released: the output layer may look up
  // catalog texts itself.
  int handle = -1;
  bool incompatible = false;
  {
    std::lock_guard<std::mutex> l(g.lock);
    try {
      auto c = std::make_unique<Catalog>();
      c->handle = h;
      const Catalog::Entry *mark = find_text(*c, kOwnSet, kVersionMessage);
      if (mark && mark->found && !mark->text.empty() && mark->text != "#1") {
        incompatible = true;
      } else {
        g.open.push_back(std::move(c));
        handle = static_cast<int>(g.open.size() - 1);
      }
    } catch (...) {
    }
  }
  if (handle < 0) {
    os::close(h);
    if (incompatible) trace(1, "Message catalog \"%s\" incompatible version.\n", path.c_str());
    return -1;
  }
  trace(1, "Message catalog \"%s\" found.\n", path.c_str());
  return handle;
}

LL_API char *qzcatgets(int handle, int set, int number, const char *def) noexcept {
  std::lock_guard<std::mutex> l(g.lock);
  char *buf = g.ring[g.next];
  g.next = (g.next + 1) % kRing;
  if (!ll::init::completed() && set != kOwnSet && number != kVersionMessage)
    return const_cast<char *>(def);
  if (Catalog *c = catalog_at(handle)) {
    const Catalog::Entry *e = find_text(*c, set, number);
    if (e && e->found) return copy_text(buf, e->text.c_str());
  }
  return copy_text(buf, def);
}

LL_API char *qzcatgets_buf(char *buf, size_t size, int handle, int set, int number, const char *def) noexcept {
  if (!buf || size == 0) return nullptr;
  std::lock_guard<std::mutex> l(g.lock);
  const char *text = def ? def : "";
  if (ll::init::completed() || set == kOwnSet || number == kVersionMessage)
    if (Catalog *c = catalog_at(handle)) {
      const Catalog::Entry *e = find_text(*c, set, number);
      if (e && e->found) text = e->text.c_str();
    }
  size_t n = std::strlen(text);
  if (n > size - 1) n = size - 1;
  std::memcpy(buf, text, n);
  buf[n] = '\0';
  return buf;
}

LL_API int qzcatclose(int handle) noexcept {
  if (handle < 0) return 0;
  std::unique_ptr<Catalog> c;
  {
    std::lock_guard<std::mutex> l(g.lock);
    if (!catalog_at(handle)) return -1;
    c = std::move(g.open[static_cast<size_t>(handle)]);
  }
  return os::close(c->handle) ? 0 : -1;
}

LL_API const char *get_lang_subdir(void) noexcept { return g.lang_subdir; }
LL_API const char *get_rap_locale(void) noexcept { return g.rap_locale; }
LL_API const char *get_user_locale(void) noexcept { return g.user_locale; }

LL_API int equal_locales(const char *a, const char *b) noexcept {
  if (!a || !b) return a == b;
  return std::strcmp(a, b) == 0;
}

LL_API int is_no(const char *answer) noexcept { return is_kind(answer, 10, "n", "N"); }
LL_API int is_quit(const char *answer) noexcept { return is_kind(answer, 12, "q", "Q"); }
LL_API int is_rename(const char *answer) noexcept { return is_kind(answer, 14, "r", "R"); }
LL_API int is_yes(const char *answer) noexcept { return is_kind(answer, 16, "y", "Y"); }
LL_API int i18n_char_no(void) noexcept { return letter_of(11, "N"); }
LL_API int i18n_char_rename(void) noexcept { return letter_of(15, "R"); }
LL_API int i18n_char_yes(void) noexcept { return letter_of(17, "Y"); }

LL_API char *i18n_3(const char *a, const char *b, const char *c) noexcept {
  std::lock_guard<std::mutex> l(g.lock);
  char *buf = g.ring[g.next];
  g.next = (g.next + 1) % kRing;
  std::snprintf(buf, kText, "%s%s%s", a ? a : "", b ? b : "", c ? c : "");
  return buf;
}

// Test seams: the application directory the locale file is read from (null:
// the normal one), and the locale step run again.
LL_API void llt_catalog_set_appdir(const char *dir) noexcept {
  std::lock_guard<std::mutex> l(g.lock);
  g.has_appdir_override = dir != nullptr;
  g.appdir_override = dir ? dir : "";
}
LL_API void llt_catalog_setup(const char *name) noexcept { ll::init::locale_and_catalog(name); }

}  // extern "C"
