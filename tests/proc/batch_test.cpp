// Batch files run through the command interpreter, every argument as data.
#include <gtest/gtest.h>

#ifdef _WIN32
#  include <cerrno>
#  include <string>
#  include <vector>

#  include "lltest.h"
#  include "proc_test_util.h"
#  include <liblocal/process.h>

namespace {

bool exists(const std::string &p) {
  std::FILE *f = std::fopen(p.c_str(), "rb");
  if (f) std::fclose(f);
  return f != nullptr;
}

// Runs the script with one argument; its exit code, -1 when refused.
int run_script(const std::string &script, const std::string &arg) {
  proctest::Argv a;
  a.words = {script, arg};
  const int pid = spawn(0, a.argv(), nullptr, nullptr, nullptr);
  if (pid < 0) return -1;
  int status = -1;
  EXPECT_EQ(waitchild(pid, &status, 0), pid);
  return QZ_WEXITCODE(status);
}

}  // namespace

TEST(Batch, ArgumentsNeverRunAsCommands) {
  lltest::TempDir d;
  // The script records its first argument and ends with 7.
  d.write("s.bat", "@setlocal disabledelayedexpansion\r\n@set \"arg=%~1\"\r\n@exit /b 7\r\n");
  const std::string marker = d.file("pwned.txt");
  const std::string payload = "echo x>" + marker;
  const std::vector<std::string> attacks = {
      "&" + payload,       "\"&" + payload,           "a\"b&" + payload,  "|" + payload,
      "\\\"&" + payload,   "x^&" + payload,           "%PATH%&" + payload, "!x!&" + payload,
      "trailing\\",        "(" + payload + ")",       "<nul " + payload, "^",
      "%%cd:~,%&" + payload, "\"\"&" + payload + "&\"",
  };
  for (const std::string &arg : attacks) {
    EXPECT_EQ(run_script(d.file("s.bat"), arg), 7) << arg;
    EXPECT_FALSE(exists(marker)) << arg;
  }
  // Names Windows resolves to a batch file are batch files too.
  for (const char *name : {"s.BAT", "s.bat.", "s.bat "}) {
    EXPECT_EQ(run_script(d.file(name), "&" + payload), 7) << name;
    EXPECT_FALSE(exists(marker)) << name;
  }
}

TEST(Batch, UnsafeArgumentsAndNamesAreRefused) {
  lltest::TempDir d;
  d.write("s.cmd", "@exit /b 7\r\n");
  for (const char *arg : {"line\nbreak", "carriage\rreturn"}) {
    errno = 0;
    EXPECT_EQ(run_script(d.file("s.cmd"), arg), -1) << arg;
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_EQ(run_script(d.file("s.cmd"), "plain"), 7);
}

#endif
