// llocal - messages, option scanning, files and the progress line.
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>
#else
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "llocal.h"

namespace llocal {

void error(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vprinterr(fmt, ap);
  va_end(ap);
}

void out(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  qzvprintf(fmt, ap);
  va_end(ap);
}

// ---- options ----

int Options::bad_option(const Command &cmd) const { return usage_error(cmd, "%s", problem().c_str()); }

// ---- files ----

static int fd_of(std::FILE *f) {
#ifdef _WIN32
  return _fileno(f);
#else
  return fileno(f);
#endif
}

// The file-type bits of a name, 0 when it does not exist.
static unsigned file_type(const std::string &name) {
  struct stat64 st;
  return qzstat(name.c_str(), &st) == 0 ? (st.st_mode & 0170000) : 0;
}

static void binary_mode(std::FILE *f) {
#ifdef _WIN32
  _setmode(_fileno(f), _O_BINARY);
#else
  (void)f;
#endif
}

std::FILE *open_input(const std::string &name) {
  if (name.empty() || name == "-") {
    binary_mode(stdin);
    return stdin;
  }
  std::FILE *f = qzfopen(name.c_str(), "rb");
  if (f) {
    // A directory opens on some systems; reading it then fails obscurely.
    struct stat64 st;
    if (fstat64(fd_of(f), &st) == 0 && (st.st_mode & 0170000) == 0040000) {
      qzfclose(f);
      errno = EISDIR;
      return nullptr;
    }
  }
  return f;
}

void close_input(std::FILE *f) {
  if (f && f != stdin) qzfclose(f);
}

long long input_size(std::FILE *f) {
  struct stat64 st;
  if (fstat64(fd_of(f), &st) != 0 || (st.st_mode & 0170000) != 0100000) return -1;
  return static_cast<long long>(st.st_size);
}

size_t read_full(std::FILE *f, void *buf, size_t n) {
  size_t got = 0;
  while (got < n) {
    const size_t r = std::fread(static_cast<char *>(buf) + got, 1, n - got, f);
    if (r == 0) break;
    got += r;
  }
  return got;
}

const char *errno_text() { return qzmo_strerror(errno); }

bool is_terminal(std::FILE *f) {
#ifdef _WIN32
  return _isatty(fd_of(f)) != 0;
#else
  return isatty(fd_of(f)) != 0;
#endif
}

Output::~Output() {
  if (f_) abandon();
}

bool Output::open(const std::string &name, bool overwrite) {
  if (name.empty() || name == "-") {
    name_.clear();
    binary_mode(stdout);
    f_ = stdout;
    return true;
  }
  name_ = name;
  const unsigned type = file_type(name);
  if (type == 0040000) {
    errno = EISDIR;
    error("%s: %s\n", name.c_str(), errno_text());
    return false;
  }
  if (type != 0 && type != 0100000) {
    // A device or a pipe has nothing to replace: write to it directly.
    f_ = qzfopen(name.c_str(), "wb");
    if (!f_) error("%s: %s\n", name.c_str(), errno_text());
    return f_ != nullptr;
  }
  if (!overwrite && type != 0) {
    error(msg(4, "%s: already exists (-f overwrites it)\n"), name.c_str());
    return false;
  }
  // The temporary file sits next to the target so that the rename stays on
  // one file system.
#ifdef _WIN32
  const int pid = _getpid();
#else
  const int pid = static_cast<int>(getpid());
#endif
  temp_ = name + ".llocal-" + std::to_string(pid) + ".tmp";
  f_ = qzfopen(temp_.c_str(), "wb");
  if (!f_) {
    error("%s: %s\n", name.c_str(), errno_text());
    temp_.clear();
    return false;
  }
  return true;
}

bool Output::write(const void *data, size_t n) {
  if (n == 0) return true;
  if (std::fwrite(data, 1, n, f_) != n) {
    if (!failed_) error("%s: %s\n", to_stdout() ? "-" : name_.c_str(), errno_text());
    failed_ = true;
    return false;
  }
  return true;
}

bool Output::commit() {
  if (to_stdout()) {
    f_ = nullptr;
    if (std::fflush(stdout) != 0) {
      error("-: %s\n", errno_text());
      return false;
    }
    return !failed_;
  }
  const bool flushed = std::fflush(f_) == 0 && !std::ferror(f_);
  if (!flushed) error("%s: %s\n", name_.c_str(), errno_text());
  qzfclose(f_);
  f_ = nullptr;
  if (temp_.empty()) return flushed && !failed_;
  if (!flushed || failed_) {
    utf8_unlink(temp_.c_str());
    return false;
  }
  if (qzrename(temp_.c_str(), name_.c_str()) != 0) {
    error("%s: %s\n", name_.c_str(), errno_text());
    utf8_unlink(temp_.c_str());
    return false;
  }
  return true;
}

void Output::abandon() {
  if (to_stdout()) {
    std::fflush(stdout);
    f_ = nullptr;
    return;
  }
  if (f_) qzfclose(f_);
  f_ = nullptr;
  if (!temp_.empty()) utf8_unlink(temp_.c_str());
}

// ---- progress ----

static constexpr long long kProgressThreshold = 64LL << 20;



static long long now_ms() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

Progress::Progress(const char *what, long long total)
    : what_(what), total_(total), active_(is_terminal(stderr)) {}

Progress::~Progress() { finish(); }

void Progress::update(unsigned long long done) {
  if (!active_) return;
  // Unknown sizes (pipes) show up once they pass the threshold too.
  if (total_ >= 0 ? total_ <= kProgressThreshold : done <= static_cast<unsigned long long>(kProgressThreshold))
    return;
  const long long t = now_ms();
  if (drawn_ && t - last_ms_ < 250) return;
  last_ms_ = t;
  drawn_ = true;
  if (total_ > 0)
    std::fprintf(stderr, "\r%s: %s: %llu MiB of %lld MiB (%d%%) ", getMyname(), what_.c_str(), done >> 20,
                 total_ >> 20, static_cast<int>(done * 100 / static_cast<unsigned long long>(total_)));
  else
    std::fprintf(stderr, "\r%s: %s: %llu MiB ", getMyname(), what_.c_str(), done >> 20);
  std::fflush(stderr);
}

void Progress::finish() {
  if (drawn_) {
    // Wipe the line so that the next message starts clean.
    std::fprintf(stderr, "\r%*s\r", 70, "");
    std::fflush(stderr);
  }
  drawn_ = false;
  active_ = false;
}

}  // namespace llocal
