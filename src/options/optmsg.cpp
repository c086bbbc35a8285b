// The option parser's diagnostics.
#include "options/optmsg.h"

#include <cstdio>

#include <liblocal/catalog.h>
#include <liblocal/frame.h>
#include <liblocal/output.h>

namespace ll::opt {

namespace {

// Room for any translation of these one-line texts.
constexpr size_t kText = 512;

void put(const char *text) noexcept {
  qzfputs(text, stderr);
  std::fflush(stderr);
}

}  // namespace

void message(int number, const char *def) noexcept {
  char text[kText];
  put(qzcatgets_buf(text, sizeof text, Catd, 17, number, def));
}

void message_s(int number, const char *def, const char *s) noexcept {
  char fmt[kText], buf[2048];
  std::snprintf(buf, sizeof buf, qzcatgets_buf(fmt, sizeof fmt, Catd, 17, number, def), s);
  put(buf);
}

void message_sc(int number, const char *def, const char *s, int c) noexcept {
  char fmt[kText], buf[2048];
  std::snprintf(buf, sizeof buf, qzcatgets_buf(fmt, sizeof fmt, Catd, 17, number, def), s, c);
  put(buf);
}

void message_prog(const char *prog, int number, const char *def, int c) noexcept {
  char text[kText], buf[2048];
  std::snprintf(buf, sizeof buf, "%s%s%c\n", prog, qzcatgets_buf(text, sizeof text, Catd, 17, number, def), c);
  put(buf);
}

}  // namespace ll::opt
