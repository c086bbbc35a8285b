// llocal - the library's command-line tool: shared pieces of the commands.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <liblocal.h>

namespace llocal {

// Exit statuses.
constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

// Catalog set of the tool's own texts (the library's are in set 17). Numbers:
// 1-99 messages, 100-199 command help texts, 200-299 tour lines.
constexpr int kSet = 40;

#if defined(__GNUC__)
#define LLOCAL_FMT_ARG(n) __attribute__((format_arg(n)))
#define LLOCAL_FMT(f, a) __attribute__((format(printf, f, a)))
#else
#define LLOCAL_FMT_ARG(n)
#define LLOCAL_FMT(f, a)
#endif

// The tool's text number 'number' from the catalog, or its English default.
const char *msg(int number, const char *def) LLOCAL_FMT_ARG(2);

// Messages on standard error, prefixed with the program name.
void error(const char *fmt, ...) LLOCAL_FMT(1, 2);
// Formatted user output on standard output (UTF-8, converted for a console).
void out(const char *fmt, ...) LLOCAL_FMT(1, 2);

// A subcommand.
struct Command {
  const char *name;
  int (*run)(int argc, char **argv);  // argv[0] is the command name
  int help_number;                    // catalog number of the help text
  const char *help;                   // first line: the synopsis
};
const Command *find_command(const char *name);
const std::vector<Command> &commands();

// Prints the command's help on standard output; returns kOk.
int help(const Command &cmd);
// Prints a usage error and the command's synopsis on standard error;
// returns kUsage.
int usage_error(const Command &cmd, const char *fmt, ...) LLOCAL_FMT(2, 3);

// Option scanning through the library's getopt (so "@file" option files
// work): next() gives the next option letter, -1 at the end, '?' for an
// unknown letter or a missing argument (then bad_option() says which).
class Options {
 public:
  Options(int argc, char **argv, const char *optstring);
  int next();
  const char *arg() const { return arg_; }
  // The operands after the options, option files expanded.
  std::vector<std::string> operands();
  // The usage message for the last '?' (one line ending in "\n").
  std::string problem() const;
  // Prints the usage error for the last '?' and returns kUsage.
  int bad_option(const Command &cmd) const;

 private:
  int argc_;
  char **argv_;
  const char *optstring_;
  const char *arg_ = nullptr;
  int opt_ = 0;
};

// Parses a decimal or 0x-prefixed number (a leading zero is not octal, no
// blanks); false when it is not one.
bool parse_number(const char *s, long long &value);

// ---- files ----

// Opens a file for reading in binary mode; "-" (or an empty name) is
// standard input. Null with errno set on failure.
std::FILE *open_input(const std::string &name);
void close_input(std::FILE *f);
// Size of the input when it is a regular file, else -1.
long long input_size(std::FILE *f);
// Reads up to n bytes, repeating short reads; returns the count (less than n
// only at the end or on an error, which ferror tells).
size_t read_full(std::FILE *f, void *buf, size_t n);
// Text of the current errno.
const char *errno_text();
// Is the stream a terminal?
bool is_terminal(std::FILE *f);

// An output: standard output, or a named file written under a temporary
// name and renamed into place only by commit(), so a failed run leaves no
// output file behind.
class Output {
 public:
  Output() = default;
  ~Output();
  Output(const Output &) = delete;
  Output &operator=(const Output &) = delete;
  // Empty name or "-": standard output. Fails (message printed) when the
  // file exists and overwrite is false, or cannot be created.
  bool open(const std::string &name, bool overwrite);
  bool write(const void *data, size_t n);  // message printed on failure
  bool commit();                           // message printed on failure
  void abandon();                          // removes the temporary file
  bool to_stdout() const { return name_.empty(); }
  std::FILE *stream() const { return f_; }

 private:
  std::string name_, temp_;
  std::FILE *f_ = nullptr;
  bool failed_ = false;
};

// A progress line on standard error for inputs over 64 MiB, drawn only when
// standard error is a terminal.
class Progress {
 public:
  Progress(const char *what, long long total);
  ~Progress();
  void update(unsigned long long done);
  void finish();

 private:
  std::string what_;
  long long total_;
  bool active_;
  bool drawn_ = false;
  long long last_ms_ = 0;
};

// Little-endian fields of the pack container.
inline void put32(unsigned char *p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}
inline uint32_t get32(const unsigned char *p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// The commands.
int cmd_cksum(int argc, char **argv);
int cmd_sha1(int argc, char **argv);
int cmd_pack(int argc, char **argv);
int cmd_unpack(int argc, char **argv);
int cmd_uncompress(int argc, char **argv);
int cmd_grep(int argc, char **argv);
int cmd_canon(int argc, char **argv);
int cmd_fullcanon(int argc, char **argv);
int cmd_pathinfo(int argc, char **argv);
int cmd_strerror(int argc, char **argv);
int cmd_tag(int argc, char **argv);
int cmd_untag(int argc, char **argv);
int cmd_split(int argc, char **argv);
int cmd_join(int argc, char **argv);
int cmd_tour(int argc, char **argv);
int cmd_serve(int argc, char **argv);
int cmd_save(int argc, char **argv);
int cmd_restore(int argc, char **argv);
int cmd_list(int argc, char **argv);
int cmd_stop(int argc, char **argv);

}  // namespace llocal
