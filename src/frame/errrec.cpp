// Error records: the per-process table of error types, the per-thread current
// and saved records, and their printed form.
#include <cstdlib>
#include <cstring>
#include <string>
#include <mutex>

#include "frame/areas.h"
#include "frame/format.h"
#include <liblocal/catalog.h>
#include <liblocal/errrec.h>
#include <liblocal/output.h>
#include <liblocal/syserr.h>
#include "frame/fault.h"

extern "C" {
LL_API char *rpc_errlist[28];
}

namespace ll {
namespace {

constexpr size_t kFormatBuffer = 2048;

struct ErrType {
  int count;
  char name[128];
  char **texts;
  int *severities;
};

// Per process: the type table and the texts of the built-in types.
struct ErrTypes {
  ErrType slot[QZERR_MAXTYPE + 1];
  char *unknown[2] = {};         // the unknown-error text (types 4 to 7 use both entries)
  int system_sev[2] = {5, 1};
  char *rap[33] = {};
  int print_mode = 0;       // suffix when Debug is 0: 0 none, 1 the code, 2 the fields
  ~ErrTypes() {
    std::free(unknown[0]);
    for (char *t : rap) std::free(t);
  }
};

// Per thread: the current record, the saved record, the format buffer.
struct ErrThread {
  qzerror cur{};
  qzerror saved{};
  char *fmt = nullptr;
  std::string first_text;  // the caller's text of the error that built the type table
  ~ErrThread() {
    std::free(saved.text);
    std::free(fmt);
  }
};

const char *const kRpcTexts[28] = {
    "Success", "RPC cannot encode arguments", "Can't decode result", "Unable to send", "Unable to receive",
    "Timed out", "Incompatible versions of RPC", "Authentication error", "Program unavailable",
    "RPC program or version mismatch", "RPC server is unavailable", "Server can't decode arguments",
    "Remote system error", "Unknown host", "Port mapper failure", "Program not registered",
    "Failed (unspecified error)", "Unknown protocol", "Call interrupted", "Remote address unknown", "TLI error",
    "Broadcasting not supported", "Name to address translation failed", "Recv got uderr indication",
    "Async rpc in progress", "Stale remote asynchronous handle", "Invalid handle", "Cancelled"};

int kRpcSeverities[28] = {1, 5, 5, 4, 4, 3, 4, 4, 4, 5, 5, 5, 4, 5, 4, 4, 5, 5, 1, 5, 5, 5, 5, 5, 5, 5, 5, 5};

const char *const kRapTexts[33] = {"",
                                   "Operation not supported",
                                   "Bad getids arguments",
                                   "Bad create arguments",
                                   "Bad delete arguments",
                                   "Bad update arguments",
                                   "Bad retrieve arguments",
                                   "Bad or missing hostname",
                                   "Bad or missing version number",
                                   "Bad or missing program number",
                                   "Bad or missing attribute name",
                                   "No such type",
                                   "Resource does not exist",
                                   "Permission denied",
                                   "Create permission denied",
                                   "Unknown area",
                                   "Unknown master",
                                   "system error",
                                   "sequence number mismatch",
                                   "Resource already exists",
                                   "Resource database failure",
                                   "Resource parse error",
                                   "Illegal values selection",
                                   "Illegal numeric value",
                                   "Too many values",
                                   "Read-only attribute",
                                   "No such attribute in this type",
                                   "No type attribute specified",
                                   "No such host",
                                   "No such netgroup",
                                   "No such attribute",
                                   "Bad resource database pointer",
                                   "Resource database busy"};

int kRapSeverities[33] = {1, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5,
                          5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5};

char *catalog_copy(int number, const char *english) {
  char t[6144];
  return strdup(qzcatgets_buf(t, sizeof t, Catd, 17, number, english));
}

ErrTypes *types() noexcept { return process_area<ErrTypes>(); }
ErrThread *errthr() noexcept { return thread_area<ErrThread>(); }

void set_slot(ErrTypes *t, int type, int count, const char *name, char **texts, int *sevs) {
  ErrType &s = t->slot[type];
  s.count = count;
  std::strncpy(s.name, name ? name : "", sizeof s.name - 1);
  s.name[sizeof s.name - 1] = 0;
  s.texts = texts;
  s.severities = sevs;
}

// The built-in types, on the first error set in the process.
void builtins(ErrTypes *t) {
  t->unknown[0] = t->unknown[1] = catalog_copy(252, "Unknown error");
  init_rpc_errlist();
  for (int i = 0; i < 33; ++i) t->rap[i] = catalog_copy(191 + i, kRapTexts[i]);
  set_slot(t, 1, 1, "SYSTEM", t->unknown, t->system_sev);
  set_slot(t, 2, 27, "RPC", rpc_errlist, kRpcSeverities);
  set_slot(t, 3, 32, "RAP", t->rap, kRapSeverities);
  static const char *const kNames[] = {"Master", "Baystow", "Jukebox", "File index"};
  for (int type = 4; type <= 7; ++type)
    if (!t->slot[type].count) set_slot(t, type, 1, kNames[type - 4], t->unknown, t->system_sev);
}

int system_severity(int number) {
  if (number == 0) return 1;
  if (number == 4 || number == 150 || number == 152 || number == 154 || number == 160) return 3;
  return 5;
}

qzerror *vsetstr(int type, int value, const char *fmt, va_list ap) {
  if (!fmt) return nullptr;
  ErrThread *e = errthr();
  if (!e->fmt) {
    e->fmt = LL_FAULT(alloc) ? nullptr : static_cast<char *>(std::malloc(kFormatBuffer));
    if (!e->fmt) return nullptr;
  }
  // The format (or an argument) may be the buffer's own text: format into a
  // fresh buffer and swap.
  char tmp[kFormatBuffer];
  vformat(tmp, sizeof tmp, fmt, ap);
  std::memcpy(e->fmt, tmp, sizeof tmp);
  return err_setall(type, (value / 1000) % 10, value % 1000, e->fmt);
}

qzerror *setstr(int type, int value, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  qzerror *r = vsetstr(type, value, fmt, ap);
  va_end(ap);
  return r;
}

}  // namespace
}  // namespace ll

using ll::ErrThread;
using ll::ErrTypes;

extern "C" {

LL_API void init_rpc_errlist(void) noexcept {
  static std::once_flag once;
  std::call_once(once, [] {
    for (int i = 0; i < 28; ++i) rpc_errlist[i] = ll::catalog_copy(224 + i, ll::kRpcTexts[i]);
  });
}

LL_API void err_settype(int type, int count, const char *name, char **texts, int *severities) noexcept {
  if (type < 0 || type > QZERR_MAXTYPE) return;
  ll::set_slot(ll::types(), type, count, name, texts, severities);
}

LL_API qzerror *err_setall(int type, int severity, int number, const char *text) noexcept {
  ErrTypes *t = ll::types();
  ErrThread *e = ll::errthr();
  if (!t->slot[1].count) {
    // Building the table runs dozens of catalog lookups, which cycle the
    // catalog's ring of result buffers: a caller's text that came from the
    // ring would be overwritten before the record points at it. Keep a copy.
    if (text) e->first_text = text;
    ll::builtins(t);
    if (text) text = e->first_text.c_str();
  }
  const char *chosen = t->unknown[0];
  int sev = 0;
  if (type >= 1 && type <= QZERR_MAXTYPE && t->slot[type].count) {
    const ll::ErrType &s = t->slot[type];
    if (type == 1) {
      chosen = qzmo_strerror(number);
      sev = ll::system_severity(number);
    } else if (number >= 1 && number <= s.count) {
      if (s.texts && s.texts[number]) chosen = s.texts[number];
      if (s.severities) sev = s.severities[number];
    }
  }
  e->cur.text = const_cast<char *>(text ? text : chosen);
  e->cur.code = number + 1000 * (severity ? severity : sev) + 10000 * type;
  return &e->cur;
}

LL_API qzerror *err_set(int type, int value) noexcept {
  return err_setall(type, (value / 1000) % 10, value % 1000, nullptr);
}

LL_API qzerror *err_setstr(int type, int value, const char *fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  qzerror *r = ll::vsetstr(type, value, fmt, ap);
  va_end(ap);
  return r;
}

LL_API qzerror *err_dup(const qzerror *rec) noexcept {
  if (!rec) return nullptr;
  // The text is the format, with no arguments (a per-cent sign in it is
  // interpreted, as it always was).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  return ll::setstr(rec->code / 10000, rec->code, rec->text);
#pragma GCC diagnostic pop
}

LL_API void err_dup2(const qzerror *src, qzerror *dst) noexcept {
  if (!dst) return;
  if (!src) {
    dst->code = 0;
    dst->text = nullptr;
    return;
  }
  dst->text = src->text && !LL_FAULT(alloc) ? strdup(src->text) : nullptr;
  dst->code = src->code;
}

LL_API void err_free(qzerror *rec) noexcept {
  if (!rec) return;
  std::free(rec->text);
  rec->text = nullptr;
}

LL_API qzerror *err_save(const qzerror *rec) noexcept {
  ErrThread *e = ll::errthr();
  if (e->saved.text) {
    dprintf(1, "err_save: overwriting old tmperr <%s>\n", e->saved.text);
    std::free(e->saved.text);
    e->saved.text = nullptr;
  }
  err_dup2(rec, &e->saved);
  return &e->saved;
}

LL_API qzerror *err_restore(qzerror *saved) noexcept {
  if (!saved || !saved->text) return nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  qzerror *r = ll::setstr(saved->code / 10000, saved->code, saved->text);
#pragma GCC diagnostic pop
  std::free(saved->text);
  saved->text = nullptr;
  return r;
}

LL_API void err_print(const qzerror *rec) noexcept {
  if (!rec) return;
  ErrTypes *t = ll::types();
  const int code = rec->code;
  const int type = code / 10000;
  const int sev = (code / 1000) % 10;
  const int number = code % 1000;
  const char *name = (type >= 1 && type <= 9 && t->slot[type].count) ? t->slot[type].name : nullptr;
  const int mode = Debug ? 2 : t->print_mode;
  char suffix[256];
  suffix[0] = 0;
  if (code != 0 && mode != 0) {
    if (mode == 1)
      ll::format(suffix, sizeof suffix, " (%u)", static_cast<unsigned>(code));
    else if (name)
      ll::format(suffix, sizeof suffix, " (severity %u, number %u)", static_cast<unsigned>(sev),
                 static_cast<unsigned>(number));
    else if (code >= 0)
      ll::format(suffix, sizeof suffix, " (type %u, severity %u, number %u)", static_cast<unsigned>(type),
                 static_cast<unsigned>(sev), static_cast<unsigned>(number));
    else
      ll::format(suffix, sizeof suffix, " (number %d)", code);
  }
  char word[64], fmt[512];
  const char *w = sev == 1   ? ll::catalog_format(276, "notice", fmt, sizeof fmt)
                  : sev == 2 ? ll::catalog_format(277, "warning", fmt, sizeof fmt)
                             : ll::catalog_format(278, "error", fmt, sizeof fmt);
  std::strncpy(word, w, sizeof word - 1);
  word[sizeof word - 1] = 0;
  const char *text = rec->text ? rec->text : "";
  if (name)
    printerr(ll::catalog_format(280, "%s %s: %s%s\n", fmt, sizeof fmt), name, word, text, suffix);
  else
    printerr(ll::catalog_format(279, "%s, %s%s\n", fmt, sizeof fmt), word, text, suffix);
}

}  // extern "C"
