// Option parsing with per-thread state and option files.
#include <cstdio>
#include <cstring>

#include <liblocal/frame.h>
#include <liblocal/options.h>

#include "frame/areas.h"
#include "frame/init_steps.h"
#include "options/optfile.h"
#include "options/optmsg.h"

struct qz_optstate {
  int err = 0;
  int ind = 1;
  int opt = 0;
  char *arg = nullptr;
  const char *scan = "";      // position in the current command-line word
  ll::opt::WordReader file;   // the open option file, if any
  char *pending = nullptr;    // an operand met while reading file options
  const char *fscan = "";     // position in the current option-file word

  ~qz_optstate() { file.close(); }
};

namespace ll::opt {

namespace {

bool blank(char c) { return c == ' ' || c == '\t'; }
bool space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

qz_optstate *state() noexcept { return ll::thread_area<qz_optstate>(); }

// Opens the option file 'name' as the thread's current one.
bool open_option_file(qz_optstate *st, const char *name) noexcept {
  st->file.close();
  st->pending = nullptr;
  st->fscan = "";
  if (!*name) {
    if (st->err) message(284, "@file: option file not specified\n");
    return false;
  }
  std::FILE *f = open_file(name);
  if (!f) {
    if (st->err) message_s(22, "%s : open failed\n", name);
    return false;
  }
  st->file.file = f;
  st->file.next = nullptr;
  return true;
}

enum class FileResult { kLetter, kEndOfOptions, kExhausted };

// The next option from the open option file.
FileResult file_option(qz_optstate *st, const char *optstring, int &letter) noexcept {
  while (!*st->fscan) {
    char *w = st->file.word();
    if (!w) return FileResult::kExhausted;
    if (w[0] != '-' || w[1] == '-') {
      st->pending = w;
      return FileResult::kEndOfOptions;
    }
    st->fscan = w + 1;
  }
  int c = static_cast<unsigned char>(*st->fscan++);
  st->opt = c;
  const char *entry = c == ':' ? nullptr : std::strchr(optstring, c);
  if (!entry) {
    st->arg = nullptr;
    if (st->err) message_sc(23, "%s: illegal option -- %c\n", st->fscan, c);
    letter = '?';
    return FileResult::kLetter;
  }
  if (entry[1] == ':') {
    const bool attached = *st->fscan;
    // The word is used up either way; reading on may replace the line.
    char *rest = const_cast<char *>(st->fscan);
    st->fscan = "";
    if (attached) {
      st->arg = rest;
    } else if (char *w = st->file.word()) {
      st->arg = w;
    } else {
      st->arg = nullptr;
      if (st->err)
        message_sc(24, "%s: option requires an argument -- %c\n", "", c);
      return FileResult::kExhausted;
    }
  } else {
    st->arg = nullptr;
  }
  letter = c;
  return FileResult::kLetter;
}

const char *prog(char *const argv[]) { return argv && argv[0] ? argv[0] : ""; }

}  // namespace

char *WordReader::word() noexcept {
  for (;;) {
    if (!file) return nullptr;
    if (next) {
      while (blank(*next)) ++next;
      if (*next) {
        char *w = next;
        while (*next && !blank(*next)) ++next;
        if (*next) *next++ = 0;
        return w;
      }
      next = nullptr;
    }
    if (!std::fgets(line, sizeof line, file)) {
      close();
      return nullptr;
    }
    char *p = line;
    while (space(*p)) ++p;
    if (!*p) continue;
    char *end = p + std::strlen(p);
    while (end > p && space(end[-1])) --end;
    *end = 0;
    last = end - 1;
    next = p;
  }
}

void WordReader::close() noexcept {
  if (file) std::fclose(file);
  file = nullptr;
  next = last = nullptr;
}

}  // namespace ll::opt

namespace ll::init {
void clear_opterr() noexcept { ll::opt::state()->err = 0; }
}  // namespace ll::init

using ll::opt::FileResult;
using ll::opt::state;

extern "C" {

LL_API qz_optstate *getopt_init(void) noexcept {
  qz_optstate *st = state();
  st->file.close();
  st->err = 0;
  st->ind = 1;
  st->opt = 0;
  st->arg = nullptr;
  st->scan = "";
  st->pending = nullptr;
  st->fscan = "";
  return st;
}

LL_API int ll_getopt(int argc, char *const argv[], const char *optstring) noexcept {
  qz_optstate *st = state();
  if (!optstring) optstring = "";
  if (st->pending) return -1;  // the options ended inside an option file
  int letter;
  if (st->file.open()) {
    switch (ll::opt::file_option(st, optstring, letter)) {
      case FileResult::kLetter: return letter;
      case FileResult::kEndOfOptions: return -1;
      case FileResult::kExhausted: break;
    }
  }
  while (!*st->scan) {
    if (!argv || st->ind >= argc || !argv[st->ind]) return -1;
    const char *w = argv[st->ind];
    if (w[0] == '-') {
      if (w[1] == '-') {
        ++st->ind;
        return -1;
      }
      if (!w[1]) return -1;
      st->scan = w + 1;
    } else if (w[0] == '@') {
      ++st->ind;
      if (!ll::opt::open_option_file(st, w + 1)) continue;
      switch (ll::opt::file_option(st, optstring, letter)) {
        case FileResult::kLetter: return letter;
        case FileResult::kEndOfOptions: return -1;
        case FileResult::kExhausted: break;
      }
    } else {
      return -1;
    }
  }
  int c = static_cast<unsigned char>(*st->scan++);
  st->opt = c;
  const char *entry = c == ':' ? nullptr : std::strchr(optstring, c);
  if (!entry) {
    st->arg = nullptr;
    if (!*st->scan) ++st->ind;
    if (st->err) ll::opt::message_prog(ll::opt::prog(argv), 25, ": illegal option -- ", c);
    return '?';
  }
  if (entry[1] != ':') {
    st->arg = nullptr;
    if (!*st->scan) ++st->ind;
    return c;
  }
  if (*st->scan) {
    st->arg = const_cast<char *>(st->scan);
    ++st->ind;
  } else if (++st->ind < argc && argv[st->ind]) {
    st->arg = argv[st->ind];
    ++st->ind;
  } else {
    st->arg = nullptr;
    st->scan = "";
    if (st->err)
      ll::opt::message_prog(ll::opt::prog(argv), 26, ": option requires an argument -- ", c);
    return '?';
  }
  st->scan = "";
  return c;
}

LL_API char *getarg(int argc, char *const argv[]) noexcept {
  qz_optstate *st = state();
  if (st->pending) {
    char *w = st->pending;
    st->pending = nullptr;
    return w;
  }
  if (st->file.open())
    if (char *w = st->file.word()) return w;
  while (argv && st->ind < argc && argv[st->ind]) {
    char *w = argv[st->ind++];
    if (w[0] != '@') return w;
    if (ll::opt::open_option_file(st, w + 1))
      if (char *fw = st->file.word()) return fw;
  }
  return nullptr;
}

LL_API int *_opterr(void) noexcept { return &state()->err; }
LL_API int *_optind(void) noexcept { return &state()->ind; }
LL_API int *_optopt(void) noexcept { return &state()->opt; }
LL_API char **_optarg(void) noexcept { return &state()->arg; }

}  // extern "C"
