// Diagnostic and user output: the program name, prefixed messages, the debug
// file, the treatment of descriptors (converted for people, raw for
// programs), and the formatted and line output built on the library
// formatter.
#include "frame/output.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "frame/areas.h"
#include "frame/format.h"
#include "frame/os.h"
#include "frame/stamp.h"
#include <liblocal/output.h>
#include <liblocal/utf8.h>

namespace ll {
namespace {

constexpr int kMaxMarks = 10;
constexpr size_t kPiece = 12287;     // line output is written in pieces of this size
constexpr size_t kServiceBuf = 12316;
constexpr size_t kNameMax = 29;
constexpr size_t kNameLimit = 1560;

int plain_writer(FILE *stream, const char *fmt, va_list ap);

// Process-wide state of the output layer.
struct OutState {
  int stamps = 0;
  int use_write = 0;
  int service = -1;                 // -1: not looked at yet
  FILE *debug_file = nullptr;
  qz_vfprintf_fn writer = nullptr;  // replacement writer
  std::mutex marks_lock;
  int marks[kMaxMarks] = {};
  int nmarks = 0;
  std::once_flag origin_once;
  char origin[4096] = {};
};

OutState *out() noexcept { return process_area<OutState>(); }

bool is_ascii(const char *s) {
  for (; *s; ++s)
    if (static_cast<unsigned char>(*s) & 0x80) return false;
  return true;
}

bool listed(OutState *o, int fd) {
  std::lock_guard<std::mutex> g(o->marks_lock);
  for (int i = 0; i < o->nmarks; ++i)
    if (o->marks[i] == fd) return true;
  return false;
}

void mark(int fd, bool add) {
  OutState *o = out();
  std::lock_guard<std::mutex> g(o->marks_lock);
  int i = 0;
  while (i < o->nmarks && o->marks[i] != fd) ++i;
  if (add) {
    if (i == o->nmarks && o->nmarks < kMaxMarks) o->marks[o->nmarks++] = fd;
  } else if (i < o->nmarks) {
    std::memmove(o->marks + i, o->marks + i + 1, static_cast<size_t>(o->nmarks - i - 1) * sizeof(int));
    --o->nmarks;
  }
}

// Converted: UTF-8 is turned into the console code page on the way out.
bool converted_fd(int fd) {
  if (fd >= 0 && os::is_console(fd)) return true;
  const bool marked = fd >= 0 && listed(out(), fd);
  return Mast_flag == 0 ? !marked : marked;
}

bool converted(FILE *stream) { return converted_fd(os::stream_fd(stream)); }

bool service() {
  OutState *o = out();
  if (o->service < 0) o->service = os::run_by_service() ? 1 : 0;
  return o->service == 1;
}

int write_fmt(FILE *stream, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  qz_vfprintf_fn w = out()->writer;
  const int r = w ? w(stream, fmt, ap) : plain_writer(stream, fmt, ap);
  va_end(ap);
  return r;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
// The plain writer: the runtime's streams, or for a process without usable
// streams (a service, or UseWrite) the system's write call on standard
// output and error.
int plain_writer(FILE *stream, const char *fmt, va_list ap) {
  if (!stream || !fmt) return -1;
  if ((out()->use_write || service()) && (stream == stdout || stream == stderr)) {
    // (on the heap: the process-event thread runs on a small stack)
    auto *buf = static_cast<char *>(std::malloc(kServiceBuf));
    if (!buf) return -1;
    const size_t n = vformat(buf, kServiceBuf, fmt, ap);
    std::fflush(stream);
    const int r = os::write_std(stream == stderr ? 2 : 1, buf, n < kServiceBuf ? n : kServiceBuf - 1);
    std::free(buf);
    return r;
  }
  return std::vfprintf(stream, fmt, ap);
}
#pragma GCC diagnostic pop

// Prefix of a message line: [time stamp and a blank], the program name and
// ": ", and "Diagnostic: " for traces of level 0.
size_t build_prefix(char *buf, size_t cap, bool diagnostic) {
  size_t n = 0;
  if (out()->stamps) {
    n = output_stamp(buf, cap - 1);
    buf[n++] = ' ';
    buf[n] = 0;
  }
  n += std::min(format(buf + n, cap - n, "%s: %s", proc()->myname, diagnostic ? "Diagnostic: " : ""),
                cap - n - 1);
  return n;
}

// Formats a whole message (prefix and text) into one allocated buffer.
char *build_message(bool diagnostic, const char *fmt, va_list ap) {
  if (!fmt) return nullptr;
  char prefix[192];
  const size_t pl = build_prefix(prefix, sizeof prefix, diagnostic);
  const size_t cap = pl + std::strlen(fmt) + kFormatSlack;
  auto *buf = static_cast<char *>(std::malloc(cap));
  if (!buf) return nullptr;
  std::memcpy(buf, prefix, pl);
  vformat(buf + pl, cap - pl, fmt, ap);
  return buf;
}

int vmessage(FILE *stream, bool diagnostic, const char *fmt, va_list ap) {
  char *msg = build_message(diagnostic, fmt, ap);
  if (!msg) return 0;  // nothing is printed without a buffer
  const int r = write_text(stream, msg);
  std::free(msg);
  return r;
}

// Reads a line of at most n - 1 bytes in the console code page (or the ANSI
// one) and stores its UTF-8 form in buf (at most n bytes); what does not fit
// is pushed back for the next read.
char *read_converted(char *buf, int n, FILE *stream, bool oem) {
  if (!buf || n <= 0 || !stream) return nullptr;
  auto *line = static_cast<char *>(std::malloc(static_cast<size_t>(n) + 1));
  if (!line) return nullptr;
  if (!std::fgets(line, n, stream)) {
    std::free(line);
    return nullptr;
  }
  const size_t len = std::strlen(line);
  size_t used = 0, out_len = 0;
  buf[0] = 0;
  while (used < len) {
    const size_t cl = os::oem_char_len(line + used, len - used);
    char one[8], conv[32];
    std::memcpy(one, line + used, cl);
    one[cl] = 0;
    size_t m = oem ? static_cast<size_t>(std::max(0, oem_to_utf8(one, conv, sizeof conv)))
                   : utf8_mbs(conv, one, sizeof conv);
    if (m == 0 && cl) conv[0] = '|', m = 1;
    if (out_len + m + 1 > static_cast<size_t>(n)) break;
    std::memcpy(buf + out_len, conv, m);
    out_len += m;
    used += cl;
  }
  buf[out_len] = 0;
  for (size_t i = len; i > used; --i) std::ungetc(static_cast<unsigned char>(line[i - 1]), stream);
  std::free(line);
  return buf;
}

}  // namespace

void forget_fd_mark(int fd) noexcept { mark(fd, false); }

int write_text(FILE *stream, const char *text) noexcept {
  if (!stream || !text) return -1;
  if (!is_ascii(text) && converted(stream)) {
    const size_t size = std::strlen(text) * 2 + 16;
    if (auto *conv = static_cast<char *>(std::malloc(size))) {
      const int r = utf8_to_oem(text, conv, size) >= 0 ? write_fmt(stream, "%s", conv) : write_fmt(stream, "%s", text);
      std::free(conv);
      return r;
    }
  }
  return write_fmt(stream, "%s", text);
}

}  // namespace ll

using ll::OutState;

extern "C" {

// ---- program name and origin ----

LL_API void setMyname(const char *name) noexcept {
  if (name && std::strlen(name) >= ll::kNameLimit) std::exit(111);
  char *my = ll::proc()->myname;
  if (!name || !*name) {
    // The process id goes in first and the empty name over it.
    ll::format(my, ll::kNameMax + 2, "(pid %u)", ll::os::process_id());
    my[0] = 0;
  } else {
    const char *base = name;
    for (const char *p = name; *p; ++p)
      if (*p == '\\' || *p == '/') base = p + 1;
    size_t n = std::strlen(base);
    if (n > ll::kNameMax) {
      n = ll::kNameMax;
      // never keep the first bytes of a character only
      size_t i = n;
      while (i > 0 && (static_cast<unsigned char>(base[i]) & 0xC0) == 0x80) --i;
      n = i;
    }
    std::memcpy(my, base, n);
    my[n] = 0;
    bool lower = false;
    for (char *p = my; *p; ++p) lower = lower || (*p >= 'a' && *p <= 'z');
    if (!lower)
      for (char *p = my; *p; ++p)
        if (*p >= 'A' && *p <= 'Z') *p = static_cast<char>(*p - 'A' + 'a');
    for (char *p = my; *p; ++p)
      if (p[0] == '.' && (p[1] | 0x20) == 'e' && (p[2] | 0x20) == 'x' && (p[3] | 0x20) == 'e') {
        *p = 0;
        break;
      }
  }
  debug_check(my);
}

LL_API char *getMyname(void) noexcept { return ll::proc()->myname; }

LL_API char *find_origin(const char *name) noexcept {
  OutState *o = ll::out();
  std::call_once(o->origin_once, [o] {
    if (!ll::os::executable_dir(o->origin, sizeof o->origin)) o->origin[0] = 0;
  });
  if (const char *v = ll::os::get_env_ptr("BSW_PRINT_ORIGIN")) {
    dprintf(0, "origin for `%s' is `%s'\n", name ? name : "", o->origin);
    if (v[0] == 'q' || v[0] == 'Q') std::exit(0);
  }
  return o->origin;
}

LL_API int preflen(const char *path, const char *prefix) noexcept {
  if (!path || !prefix) return 0;
  const size_t n = std::strlen(prefix);
  for (size_t i = 0; i < n; ++i) {
    if (!path[i]) return 0;
    if (std::tolower(static_cast<unsigned char>(path[i])) != std::tolower(static_cast<unsigned char>(prefix[i])))
      return 0;
  }
  auto sep = [](char c) { return c == '\\' || c == '/'; };
  const int len = n > INT_MAX ? INT_MAX : static_cast<int>(n);
  if (n == 1 && sep(path[0])) return len;
  if (n == 2 && prefix[1] == ':') return len;
  if (n == 3 && prefix[1] == ':' && sep(path[2])) return len;
  if (n > 0 && (sep(path[n]) || path[n] == 0)) return len;
  return 0;
}

// ---- prefixed messages ----

LL_API int vprinterr(const char *fmt, va_list ap) noexcept { return ll::vmessage(stderr, false, fmt, ap); }

LL_API int printerr(const char *fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  const int r = vprinterr(fmt, ap);
  va_end(ap);
  return r;
}

LL_API int vprintinfo(const char *fmt, va_list ap) noexcept { return ll::vmessage(stdout, false, fmt, ap); }

LL_API int printinfo(const char *fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  const int r = vprintinfo(fmt, ap);
  va_end(ap);
  return r;
}

LL_API int ll_vdprintf(int level, const char *fmt, va_list ap) noexcept {
  if (Debug < level) return 0;
  return ll::vmessage(stderr, level == 0, fmt, ap);
}

LL_API int ll_dprintf(int level, const char *fmt, ...) noexcept {
  if (Debug < level) return 0;
  va_list ap;
  va_start(ap, fmt);
  const int r = ll::vmessage(stderr, level == 0, fmt, ap);
  va_end(ap);
  return r;
}

LL_API int vdfprintf(int level, const char *fmt, va_list ap) noexcept {
  if (Debug < level) return 0;
  char *msg = ll::build_message(false, fmt, ap);
  if (!msg) return 0;
  if (FILE *f = ll::out()->debug_file) {
    ll::write_text(f, msg);
    std::fflush(f);
  }
  const int r = ll::write_text(stderr, msg);
  std::free(msg);
  return r;
}

LL_API int dfprintf(int level, const char *fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  const int r = vdfprintf(level, fmt, ap);
  va_end(ap);
  return r;
}

// ---- debug file ----

LL_API int dfopen(const char *path) noexcept {
  if (!path || !*path) {
    dprintf(2, "dfopen: filename is null ... \n");
    return -1;
  }
  FILE *f = ll::os::fopen_utf8(path, "a");
  if (!f) {
    dprintf(2, "dfopen: Unable to open file %s for writing ...\n", path);
    return -1;
  }
  OutState *o = ll::out();
  if (o->debug_file) std::fclose(o->debug_file);
  o->debug_file = f;
  return 0;
}

LL_API int dfclose(void) noexcept {
  OutState *o = ll::out();
  FILE *f = o->debug_file;
  o->debug_file = nullptr;
  if (!f) return 0;
  if (std::fclose(f) != 0) {
    dprintf(2, "dfclose: File stream close failed.\n");
    return -1;
  }
  return 0;
}

LL_API void print_timestamps(int flag) noexcept { ll::out()->stamps = flag; }

// ---- stream treatment ----

LL_API void utf8_fd(int fd) noexcept { ll::mark(fd, Mast_flag == 0); }
LL_API void user_fd(int fd) noexcept { ll::mark(fd, Mast_flag != 0); }
LL_API void utf8_fp(FILE *stream) noexcept {
  if (stream) utf8_fd(ll::os::stream_fd(stream));
}
LL_API void user_fp(FILE *stream) noexcept {
  if (stream) user_fd(ll::os::stream_fd(stream));
}

LL_API char *printby_utf8(void) noexcept {
  const char *v = ll::os::get_env_ptr("BSW_CATCH_CHILD_STDOUT");
  if (v)
    ++Mast_flag;
  else
    Mast_flag = 0;
  return const_cast<char *>(v);
}

// ---- formatted output ----

LL_API int qzvfprintf(FILE *stream, const char *fmt, va_list ap) noexcept {
  if (!stream || !fmt) return -1;
  char *text = ll::vformat_alloc(fmt, ap);
  if (!text) return -1;
  const int r = ll::write_text(stream, text);
  std::free(text);
  return r;
}

LL_API int qzfprintf(FILE *stream, const char *fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  const int r = qzvfprintf(stream, fmt, ap);
  va_end(ap);
  return r;
}

LL_API int qzvprintf(const char *fmt, va_list ap) noexcept { return qzvfprintf(stdout, fmt, ap); }

LL_API int qzprintf(const char *fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  const int r = qzvfprintf(stdout, fmt, ap);
  va_end(ap);
  return r;
}

LL_API int qzvsnprintf(char *buf, size_t size, const char *fmt, va_list ap) noexcept {
  if (!fmt) {
    if (buf && size) *buf = 0;
    return -1;
  }
  const size_t n = ll::vformat(buf, size, fmt, ap);
  if (n > INT_MAX) {
    errno = EOVERFLOW;
    return -1;
  }
  return static_cast<int>(n);
}

LL_API int qzsnprintf(char *buf, size_t size, const char *fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  const int r = qzvsnprintf(buf, size, fmt, ap);
  va_end(ap);
  return r;
}

LL_API int qzvsprintf(char *buf, const char *fmt, va_list ap) noexcept {
  if (!buf) return -1;
  return qzvsnprintf(buf, SIZE_MAX, fmt, ap);
}

LL_API int qzsprintf(char *buf, const char *fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  const int r = qzvsprintf(buf, fmt, ap);
  va_end(ap);
  return r;
}

LL_API char *qzvasprintf(const char *fmt, va_list ap) noexcept { return ll::vformat_alloc(fmt, ap); }

LL_API char *qzasprintf(const char *fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  char *r = ll::vformat_alloc(fmt, ap);
  va_end(ap);
  return r;
}

// ---- line output and input ----

LL_API int qzputs(const char *s) noexcept {
  if (!s) return -1;
  if (!ll::converted(stdout)) return std::puts(s);
  const size_t len = std::strlen(s);
  int total = 0;
  auto *piece = static_cast<char *>(std::malloc(ll::kPiece + 1));
  if (!piece) return -1;
  for (size_t at = 0; at < len;) {
    size_t n = std::min(ll::kPiece, len - at);
    // pieces end between characters
    if (at + n < len)
      while (n > 1 && (static_cast<unsigned char>(s[at + n]) & 0xC0) == 0x80) --n;
    std::memcpy(piece, s + at, n);
    piece[n] = 0;
    const int r = ll::os::put_wide(piece, stdout);
    if (r < 0) {
      std::free(piece);
      return -1;
    }
    total += r;
    at += n;
  }
  std::free(piece);
  const int r = ll::os::put_wide("\n", stdout);
  if (r < 0) return -1;
  return total + r;
}

LL_API int qzfputs(const char *s, FILE *stream) noexcept {
  if (!s || !stream) return -1;
  if (!ll::converted(stream)) return std::fputs(s, stream);
  if (!*s) return 0;
  const size_t len = std::strlen(s);
  const size_t conv_size = ll::kPiece * 2 + 16;
  auto *piece = static_cast<char *>(std::malloc(ll::kPiece + 1 + conv_size));
  if (!piece) return -1;
  char *conv = piece + ll::kPiece + 1;
  int r = 0;
  for (size_t at = 0; at < len;) {
    size_t n = std::min(ll::kPiece, len - at);
    if (at + n < len)
      while (n > 1 && (static_cast<unsigned char>(s[at + n]) & 0xC0) == 0x80) --n;
    std::memcpy(piece, s + at, n);
    piece[n] = 0;
    ansi_mbs(conv, piece, conv_size);
    r = std::fputs(conv, stream);
    if (r < 0) break;
    at += n;
  }
  std::free(piece);
  return r < 0 ? -1 : r;
}

LL_API char *qzfgets(char *buf, int n, FILE *stream) noexcept {
  if (!buf || n <= 0 || !stream) return nullptr;
  const int fd = ll::os::stream_fd(stream);
  const bool console = fd >= 0 && ll::os::is_console(fd);
  if (!console && !ll::converted_fd(fd)) return std::fgets(buf, n, stream);
  return ll::read_converted(buf, n, stream, true);
}

LL_API char *qzfgets_utf8(char *buf, int n, FILE *stream) noexcept {
  if (!buf || n <= 0 || !stream) return nullptr;
  const int fd = ll::os::stream_fd(stream);
  const bool console = fd >= 0 && ll::os::is_console(fd);
  if (!console && !ll::converted_fd(fd)) return ll::read_converted(buf, n, stream, false);
  return ll::read_converted(buf, n, stream, true);
}

LL_API char *qzgets(char *buf) noexcept {
  if (!buf) return nullptr;
  if (ll::converted(stdin)) return ll::os::read_user_line(buf, 12288);
  if (!std::fgets(buf, 512, stdin)) return nullptr;
  const size_t n = std::strlen(buf);
  if (n && buf[n - 1] == '\n') buf[n - 1] = 0;
  return buf;
}

// ---- the writer ----

LL_API qz_vfprintf_fn set_vfprintf(qz_vfprintf_fn fn) noexcept {
  OutState *o = ll::out();
  qz_vfprintf_fn prev = o->writer ? o->writer : ll::plain_writer;
  o->writer = (fn == ll::plain_writer) ? nullptr : fn;
  return prev;
}

LL_API void unset_vfprintf(void) noexcept { ll::out()->writer = nullptr; }

LL_API int UseWrite(int flag) noexcept {
  OutState *o = ll::out();
  const int prev = o->use_write;
  o->use_write = flag;
  return prev;
}

LL_API int utf8_ttystrlen(const char *s) noexcept {
  if (!s) return 0;
  const auto *p = reinterpret_cast<const unsigned char *>(s);
  long cols = 0;
  while (*p) {
    size_t n;
    cols += ll::sequence_columns(p, 6, &n);
    p += n;
  }
  return cols > INT_MAX ? INT_MAX : static_cast<int>(cols);
}

}  // extern "C"
