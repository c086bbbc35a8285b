// Shared test helpers: running this test binary again as a child process
// (for behaviour that needs a fresh process), temporary folders, and the
// platform name for expectations that differ by design.
#pragma once
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace lltest {

using ChildFn = int (*)(int argc, char **argv);

struct ChildRegistration {
  ChildRegistration(const char *name, ChildFn fn);
};

// Defines a child entry point: LLTEST_CHILD(name) { ...; return exit_code; }
// argc/argv are the words after the child's name.
#define LLTEST_CHILD(name)                                                           \
  static int lltest_child_##name(int argc, char **argv);                             \
  static ::lltest::ChildRegistration lltest_reg_##name(#name, lltest_child_##name); \
  static int lltest_child_##name([[maybe_unused]] int argc, [[maybe_unused]] char **argv)

struct ChildResult {
  int exit_code = -1;
  std::string out;      // standard output, CR removed
  std::string err;      // standard error, CR removed
  std::string out_raw;  // standard output as written
};

struct RunOptions {
  std::string input;             // file for standard input; the null device when empty
  std::string cwd;               // working directory; this process's when empty
  std::vector<std::string> env;  // NAME=VALUE to set, "NAME=" to remove
  int timeout_ms = 120000;       // then the program is killed
};

// Runs a program with arguments (words, quoted for the C runtime on Windows)
// and waits for it; its output is captured through files.
ChildResult run_program(const std::string &path, const std::vector<std::string> &args, const RunOptions &opts = {});

// Runs this binary as "<self> --lltest-child <name> args..." with the given
// extra environment (NAME=VALUE; "NAME=" removes NAME), and waits for it.
ChildResult run_child(const std::string &name, const std::vector<std::string> &args = {},
                      const std::vector<std::string> &env = {}, int timeout_ms = 60000);

// Path of the running test binary.
std::string self_path();

// Open descriptors (POSIX) or handles (Windows) of this process.
int open_handles();

// The bytes of a file (a UTF-8 path); empty when it cannot be read.
std::string read_file(const std::string &path);

// Bytes as lower-case hexadecimal, two digits each.
std::string hex(const std::string &bytes);

// A fresh temporary folder, removed with everything in it on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  const std::string &path() const { return path_; }
  std::string file(const std::string &name) const;  // path + separator + name
  void write(const std::string &name, const std::string &content) const;
  std::string read(const std::string &name) const;

 private:
  std::string path_;
};

constexpr bool kWindows =
#ifdef _WIN32
    true;
#else
    false;
#endif

// Sets (or with null, removes) an environment variable in this process and
// restores it when it goes out of scope.
class ScopedEnv {
 public:
  ScopedEnv(const char *name, const char *value);
  ~ScopedEnv();

 private:
  std::string name_;
  bool had_;
  std::string old_;
};

}  // namespace lltest
