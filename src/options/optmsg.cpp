// The option parser's diagnostics.
#include "options/optmsg.h"

#include <cstdio>

#include <liblocal/output.h>

namespace ll::opt {

void message(const char *text) noexcept {
  qzfputs(text, stderr);
  std::fflush(stderr);
}

void message_s(const char *fmt, const char *s) noexcept {
  char buf[2048];
  std::snprintf(buf, sizeof buf, fmt, s);
  message(buf);
}

void message_sc(const char *fmt, const char *s, int c) noexcept {
  char buf[2048];
  std::snprintf(buf, sizeof buf, fmt, s, c);
  message(buf);
}

void message_prog(const char *prog, const char *text, int c) noexcept {
  char buf[2048];
  std::snprintf(buf, sizeof buf, "%s%s%c\n", prog, text, c);
  message(buf);
}

}  // namespace ll::opt
