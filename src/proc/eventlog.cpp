// The event log: event sources, categories and formatted events. The
// platform's log sits behind proc/eventlog.h.
#include "proc/eventlog.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "frame/format.h"
#include <liblocal/eventlog.h>
#include <liblocal/osver.h>
#include <liblocal/output.h>

namespace ll::evlog {
namespace {

// Product keys and their event sources; the first row is the product's own
// source, also given for an unknown key.
struct SourceRow {
  const char *key;
  const char *source;
};
constexpr SourceRow kSources[] = {
    {"bsw", "Baystow"},
    {"backup", "Baystow Backup"},
    {"services", "Baystow Backup Services"},
    {"client", "Baystow Client"},
    {"server", "Baystow Server"},
};

// The category table: the product's programs by role. A program's category
// is the number of the first row holding its name; the texts of the numbers
// are in the library's message file (same order).
constexpr int kRowNames = 20;
using Row = const char *const[kRowNames];
constexpr Row kCategories[QZ_EVENT_CATEGORIES] = {
    /*  1 Master server     */ {"masterd", "mastercfg", "masterctl", ""},
    /*  2 Scheduler         */ {"schedd", "schedctl", "schedq", ""},
    /*  3 Job manager       */ {"jobd", "jobmon", "jobctl", ""},
    /*  4 Media server      */ {"mediad", "mediactl", "mediainv", ""},
    /*  5 Tape manager      */ {"taped", "tapectl", "tapeinv", "tapelabel", ""},
    /*  6 Disk storage      */ {"diskd", "diskpool", "diskctl", ""},
    /*  7 Robot control     */ {"robotd", "robotctl", "robotinv", ""},
    /*  8 Device manager    */ {"devd", "devscan", "devctl", ""},
    /*  9 Catalog database  */ {"catdbd", "catdbadm", "catdbchk", ""},
    /* 10 Resource database */ {"rdbd", "rdbadm", "rdbchk", ""},
    /* 11 Backup client     */ {"bkclient", "bkagent", "bkclientd", ""},
    /* 12 Restore client    */ {"rsclient", "rsagent", ""},
    /* 13 Archive           */ {"archd", "archctl", ""},
    /* 14 Database agents   */ {"dbagent", "sqlagent", "dbsnap", ""},
    /* 15 Mail agents       */ {"mailagent", "mailsnap", ""},
    /* 16 Data transfer     */ {"xferd", "xferctl", "xfercopy", ""},
    /* 17 Network service   */ {"netd", "listend", "portmapd", ""},
    /* 18 Remote execution  */ {"rexecd", "rexec", ""},
    /* 19 Authentication    */ {"authd", "authadm", ""},
    /* 20 Security manager  */ {"secd", "keymgr", "certmgr", ""},
    /* 21 Notification      */ {"notifyd", "alertd", "notifyctl", ""},
    /* 22 Reporting         */ {"reportd", "reportgen", ""},
    /* 23 Administration    */ {"adminui", "admincli", "adminsvc", ""},
    /* 24 Configuration     */ {"cfgtool", "cfgwizard", "cfgsync", ""},
    /* 25 Installation      */ {"setup", "install", "uninstall", "upgrade", ""},
    /* 26 Licensing         */ {"licd", "lictool", ""},
    /* 27 Vault manager     */ {"vaultd", "vaultctl", ""},
    /* 28 Replication       */ {"repld", "replctl", ""},
    /* 29 Deduplication     */ {"dedupd", "deduptool", ""},
    /* 30 Cluster support   */ {"clusterd", "clusterctl", ""},
    /* 31 Monitoring        */ {"healthd", "healthchk", "perfd", ""},
    /* 32 Log management    */ {"logd", "logtrim", "logview", ""},
    /* 33 Diagnostics       */ {"diagtool", "tracectl", "dumpinfo", ""},
    /* 34 Command-line tools*/ {"bkcmd", "rscmd", "listcmd", "llocal", ""},
    /* 35 Other programs    */ {"baystow", ""},
};

inline char fold(char c) noexcept { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

// 'name' begins with 'row' (ignoring case) and ends there or goes on with '.'.
bool row_matches(const char *row, const char *name) noexcept {
  size_t i = 0;
  for (; row[i]; ++i)
    if (fold(name[i]) != row[i]) return false;
  return name[i] == '\0' || name[i] == '.';
}

std::atomic<const SourceRow *> g_kept{nullptr};

// One UTF-8 sequence at s (the library's 1-to-6-byte coding is read; values
// beyond U+10FFFF, surrogates and overlong forms are invalid): its length
// and value, or 0 when invalid (one byte is then replaced).
size_t decode(const unsigned char *s, uint32_t *cp) noexcept {
  const unsigned c = s[0];
  if (c < 0x80) {
    *cp = c;
    return 1;
  }
  size_t n;
  uint32_t v, min;
  if ((c & 0xE0) == 0xC0) n = 2, v = c & 0x1F, min = 0x80;
  else if ((c & 0xF0) == 0xE0) n = 3, v = c & 0x0F, min = 0x800;
  else if ((c & 0xF8) == 0xF0) n = 4, v = c & 0x07, min = 0x10000;
  else return 0;
  for (size_t i = 1; i < n; ++i) {
    if ((s[i] & 0xC0) != 0x80) return 0;  // also stops at the terminator
    v = (v << 6) | (s[i] & 0x3F);
  }
  if (v < min || v > 0x10FFFF || (v >= 0xD800 && v <= 0xDFFF)) return 0;
  *cp = v;
  return n;
}

}  // namespace

size_t to_event_wide(const char *utf8, char16_t *out, size_t cap) noexcept {
  size_t n = 0;
  const auto *s = reinterpret_cast<const unsigned char *>(utf8);
  bool after_cr = false;
  while (*s) {
    uint32_t cp;
    size_t len = decode(s, &cp);
    if (!len) cp = 0xFFFD, len = 1;
    if (cp == '\n' && !after_cr) {
      if (n + 2 > cap) break;
      out[n++] = u'\r';
      out[n++] = u'\n';
    } else if (cp >= 0x10000) {
      if (n + 2 > cap) break;
      cp -= 0x10000;
      out[n++] = static_cast<char16_t>(0xD800 + (cp >> 10));
      out[n++] = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
    } else {
      if (n + 1 > cap) break;
      // a CR that ends the room would leave its line feed behind: stop before it
      if (cp == '\r' && s[1] == '\n' && n + 2 > cap) break;
      out[n++] = static_cast<char16_t>(cp);
    }
    after_cr = cp == '\r';
    s += len;
  }
  out[n] = 0;
  return n;
}

size_t to_log_text(const char *utf8, char *out, size_t cap) noexcept {
  static const char kReplacement[] = "\xEF\xBF\xBD";
  size_t n = 0;
  const auto *s = reinterpret_cast<const unsigned char *>(utf8);
  while (*s) {
    uint32_t cp;
    size_t len = decode(s, &cp);
    const char *from = reinterpret_cast<const char *>(s);
    size_t put = len;
    if (!len) from = kReplacement, put = 3, len = 1;
    if (n + put > cap) break;
    std::memcpy(out + n, from, put);
    n += put;
    s += len;
  }
  while (n > 0 && (out[n - 1] == '\n' || out[n - 1] == '\r')) --n;
  out[n] = 0;
  return n;
}

const char *type_name(int type, char *buf) noexcept {
  switch (type) {
    case QZ_EVENT_SUCCESS: return "success";
    case QZ_EVENT_ERROR: return "error";
    case QZ_EVENT_WARNING: return "warning";
    case QZ_EVENT_INFORMATION: return "information";
    case QZ_EVENT_AUDIT_SUCCESS: return "audit success";
    case QZ_EVENT_AUDIT_FAILURE: return "audit failure";
    default: std::snprintf(buf, 16, "type %d", type); return buf;
  }
}

}  // namespace ll::evlog

extern "C" {

LL_API int event_category(const char *name) noexcept {
  if (!name || !*name) return 0;
  const char first = ll::evlog::fold(name[0]);
  for (int r = 0; r < QZ_EVENT_CATEGORIES; ++r)
    for (int i = 0; i < ll::evlog::kRowNames && ll::evlog::kCategories[r][i][0]; ++i) {
      const char *row = ll::evlog::kCategories[r][i];
      if (row[0] == first && ll::evlog::row_matches(row, name)) return r + 1;
    }
  return 0;
}

LL_API const char *event_source_name(const char *key) noexcept {
  using namespace ll::evlog;
  const SourceRow *row = nullptr;
  if (key) {
    row = &kSources[0];
    for (const auto &r : kSources)
      if (std::strcmp(r.key, key) == 0) row = &r;
  }
  const SourceRow *expected = nullptr;
  // the first answer is kept; with no key it is the answer
  if (!g_kept.compare_exchange_strong(expected, row ? row : &kSources[0]) && !row) row = expected;
  return (row ? row : &kSources[0])->source;
}

LL_API int event_source_setup(const char *key) noexcept {
  const char *source = event_source_name(key);
  if (Win32OSVersion() == 4) return 0;
  return ll::evlog::os::setup_source(source);
}

LL_API int veventprintf(int type, int category, const char *fmt, va_list ap) noexcept {
  using namespace ll::evlog;
  if (!fmt) return 0;
  char text[kFormatCap];
  ll::vformat(text, sizeof text, fmt, ap);
  if (Win32OSVersion() == 4) return 0;
  if (category == 0) category = event_category(getMyname());
  if (category < 0 || category > QZ_EVENT_CATEGORIES) category = 0;
  return os::report(event_source_name(nullptr), type, category, QZ_EVENT_ID_MESSAGE, text);
}

LL_API int eventprintf(int type, int category, const char *fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  const int r = veventprintf(type, category, fmt, ap);
  va_end(ap);
  return r;
}

// Test seams: the two conversions, compared with their expected forms.
LL_API size_t llt_eventlog_wide(const char *utf8, char16_t *out, size_t cap) noexcept {
  return ll::evlog::to_event_wide(utf8, out, cap);
}
LL_API size_t llt_eventlog_text(const char *utf8, char *out, size_t cap) noexcept {
  return ll::evlog::to_log_text(utf8, out, cap);
}

}  // extern "C"
