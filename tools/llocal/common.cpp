// llocal - messages, option scanning, files and the progress line.
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
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

namespace fs = std::filesystem;

namespace llocal {

const char *msg(int number, const char *def) { return qzcatgets(Catd, kSet, number, def); }

void error(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
#if LLOCAL_HAVE_OUTPUT
  vprinterr(fmt, ap);
#else
  std::fputs("llocal: ", stderr);
  std::vfprintf(stderr, fmt, ap);
#endif
  va_end(ap);
}

void out(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
#if LLOCAL_HAVE_OUTPUT
  qzvprintf(fmt, ap);
#else
  std::vprintf(fmt, ap);
#endif
  va_end(ap);
}

int unavailable(const char *what) {
  error(msg(1, "%s: not available: the library of this build does not provide it yet\n"), what);
  return kFailed;
}

// ---- options ----

Options::Options(int argc, char **argv, const char *optstring)
    : argc_(argc), argv_(argv), optstring_(optstring) {
#if LLOCAL_HAVE_OPTIONS
  getopt_init();  // also turns the library's own diagnostics off
#endif
}

#if LLOCAL_HAVE_OPTIONS
int Options::next() {
  const int c = getopt(argc_, argv_, optstring_);
  arg_ = optarg;
  opt_ = optopt;
  return c;
}

std::vector<std::string> Options::operands() {
  std::vector<std::string> v;
  while (const char *a = getarg(argc_, argv_)) v.emplace_back(a);
  return v;
}
#else
// The classic single-letter grammar, without option files.
int Options::next() {
  arg_ = nullptr;
  if (pos_ == 0) {
    if (ind_ >= argc_) return -1;
    const char *w = argv_[ind_];
    if (w[0] != '-' || w[1] == '\0') return -1;
    if (w[1] == '-' && w[2] == '\0') {
      ++ind_;
      return -1;
    }
    pos_ = 1;
  }
  const char *w = argv_[ind_];
  const char c = w[pos_++];
  opt_ = static_cast<unsigned char>(c);
  const char *p = c == ':' ? nullptr : std::strchr(optstring_, c);
  const bool word_done = w[pos_] == '\0';
  if (!p) {
    if (word_done) ++ind_, pos_ = 0;
    return '?';
  }
  if (p[1] != ':') {
    if (word_done) ++ind_, pos_ = 0;
    return c;
  }
  if (!word_done) {
    arg_ = w + pos_;
    ++ind_, pos_ = 0;
    return c;
  }
  ++ind_, pos_ = 0;
  if (ind_ >= argc_) return '?';
  arg_ = argv_[ind_++];
  return c;
}

std::vector<std::string> Options::operands() {
  std::vector<std::string> v;
  while (ind_ < argc_) v.emplace_back(argv_[ind_++]);
  return v;
}
#endif

int Options::bad_option(const Command &cmd) const {
  const char *p = opt_ && opt_ != ':' ? std::strchr(optstring_, opt_) : nullptr;
  if (p && p[1] == ':') return usage_error(cmd, msg(2, "option -%c needs an argument\n"), opt_);
  return usage_error(cmd, msg(3, "unknown option -%c\n"), opt_);
}

bool parse_number(const char *s, long long &value) {
  if (!s || !*s) return false;
  errno = 0;
  char *end = nullptr;
  const long long v = std::strtoll(s, &end, 0);
  if (errno != 0 || *end != '\0') return false;
  value = v;
  return true;
}

// ---- files ----

static fs::path u8path(const std::string &name) {
  return fs::path(std::u8string(name.begin(), name.end()));
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
#ifdef _WIN32
  std::FILE *f = _wfopen(u8path(name).c_str(), L"rb");
#else
  std::FILE *f = std::fopen(name.c_str(), "rb");
#endif
  if (f) {
    // A directory opens on some systems; reading it then fails obscurely.
    std::error_code ec;
    if (fs::is_directory(u8path(name), ec)) {
      std::fclose(f);
      errno = EISDIR;
      return nullptr;
    }
  }
  return f;
}

void close_input(std::FILE *f) {
  if (f && f != stdin) std::fclose(f);
}

long long input_size(std::FILE *f) {
#ifdef _WIN32
  struct _stati64 st;
  if (_fstati64(_fileno(f), &st) != 0 || (st.st_mode & _S_IFMT) != _S_IFREG) return -1;
#else
  struct stat st;
  if (fstat(fileno(f), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
#endif
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
  return _isatty(_fileno(f)) != 0;
#else
  return isatty(fileno(f)) != 0;
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
  std::error_code ec;
  const fs::path target = u8path(name);
  if (!overwrite && fs::exists(target, ec)) {
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
#ifdef _WIN32
  f_ = _wfopen(u8path(temp_).c_str(), L"wb");
#else
  f_ = std::fopen(temp_.c_str(), "wb");
#endif
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
  std::fclose(f_);
  f_ = nullptr;
  if (!flushed || failed_) {
    std::error_code ec;
    fs::remove(u8path(temp_), ec);
    return false;
  }
  std::error_code ec;
  fs::rename(u8path(temp_), u8path(name_), ec);
  if (ec) {
    error("%s: %s\n", name_.c_str(), ec.message().c_str());
    fs::remove(u8path(temp_), ec);
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
  if (f_) std::fclose(f_);
  f_ = nullptr;
  std::error_code ec;
  if (!temp_.empty()) fs::remove(u8path(temp_), ec);
}

// ---- progress ----

static constexpr long long kProgressThreshold = 64LL << 20;

static const char *progname() {
#if LLOCAL_HAVE_OUTPUT
  return getMyname();
#else
  return "llocal";
#endif
}

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
    std::fprintf(stderr, "\r%s: %s: %llu MiB of %lld MiB (%d%%) ", progname(), what_.c_str(), done >> 20,
                 total_ >> 20, static_cast<int>(done * 100 / static_cast<unsigned long long>(total_)));
  else
    std::fprintf(stderr, "\r%s: %s: %llu MiB ", progname(), what_.c_str(), done >> 20);
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
