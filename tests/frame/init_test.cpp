// Initialisation: the argument conversion, the one-time work, the developer
// hooks (debug-process wait, debug control file) and the small accessors.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include <liblocal.h>

#include "lltest.h"

extern "C" void llt_set_debug_pending(int v);
extern "C" void llt_init_steps(char *buf, size_t size);

namespace {

// Switches the child to a single-byte ANSI side where byte E9 is e-acute.
void latin1_locale() {
  if (lltest::kWindows)
    std::setlocale(LC_ALL, ".1252");
  else
    std::setlocale(LC_ALL, "en_US.ISO-8859-1");
}

using lltest::hex;

}  // namespace

// The start-up steps in their order; a second call runs only the per-call ones.
LLTEST_CHILD(init_steps) {
  char first[256], second[256];
  llt_init_steps(first, sizeof first);  // whatever ran before _qzinit
  _qzinit("steps", 0, nullptr);
  llt_init_steps(first, sizeof first);
  _qzinit("steps", 0, nullptr);
  llt_init_steps(second, sizeof second);
  std::printf("%s|%s|%d\n", first, second, opterr);
  return 0;
}

LLTEST_CHILD(convert_args) {
  latin1_locale();
  char a0[] = "prog", a1[] = "plain", a2[] = "caf\xe9", *vec[] = {a0, a1, a2, nullptr};
  _qzinit("prog", 3, vec);
  std::printf("%s %s %s %d\n", vec[1] == a1 ? "same" : "new", hex(vec[2]).c_str(), vec[2] == a2 ? "same" : "new",
              Debug);
  // A second call converts again (and does nothing else again).
  char b2[] = "\xe9t\xe9", *vec2[] = {a0, b2, nullptr};
  _qzinit("prog", 2, vec2);
  std::printf("%s\n", hex(vec2[1]).c_str());
  return 0;
}

TEST(Init, ArgumentsAreConvertedToUtf8UnlessNoUtf8) {
  // Initialisation switches to the user's default locale: make that Latin-1.
  // The converted words are never freed (they belong to the vector for the
  // life of the process), so the leak checker is told not to count them.
  for (const char *mast : {"BSW_MAST=", "BSW_MAST=1", "BSW_MAST=no_utf8"}) {
    auto r = lltest::run_child("convert_args", {}, {mast, "LC_ALL=en_US.ISO-8859-1", "ASAN_OPTIONS=detect_leaks=0"});
    EXPECT_EQ(r.out, std::string(mast) == "BSW_MAST=no_utf8" ? "same 636166e9 same 0\ne974e9\n"
                                                             : "same 636166c3a9 new 0\nc3a974c3a9\n")
        << mast << r.err;
  }
}

TEST(Init, StepsRunInOrderAndOnce) {
  lltest::ChildResult c = lltest::run_child("init_steps");
  EXPECT_EQ(c.exit_code, 0) << c.err;
  EXPECT_EQ(c.out, "2 3 4 5 5a 6 6a 7 8 9 10 11 12 14 15|14 15|0\n");
}

TEST(Init, NullAndEmptyArgumentsAreHarmless) {
  _qzinit(nullptr, 0, nullptr);
  _qzinit("", 5, nullptr);
  char a0[] = "x", *vec[] = {a0, nullptr, nullptr};
  _qzinit("x", 3, vec);  // stops at the first null entry
  _qzinit("x", -1, vec);
  qzinit(nullptr);
  EXPECT_NE(Global_liblocal_p_varp, nullptr);
}

LLTEST_CHILD(debug_control) {
  qzinit("dbg");
  const char *name = qz_debug_control_file();
  std::FILE *f = std::fopen(name, "wb");
  if (!f) return 3;
  std::fputs(argv[0], f);
  std::fclose(f);
  int read = qz_read_debug_control();
  std::FILE *again = std::fopen(name, "rb");
  std::printf("%d %d %d %s\n", read, Debug, Vflag, again ? "kept" : "deleted");
  if (again) std::fclose(again);
  return 0;
}

TEST(Init, DebugControlFileAlwaysSetsDebug) {
  lltest::TempDir tmp;
  const std::vector<std::string> env = {"TMPDIR=" + tmp.path(), "TMP=" + tmp.path(), "TEMP=" + tmp.path()};
  struct Case {
    const char *text, *want;
  } cases[] = {
      {"Vflag=3", "1 3 0 deleted\n"},       // the word compares different: Debug gets it
      {"  Debug = -7\n", "1 -7 0 deleted\n"}, {"Debug=x", "1 0 0 deleted\n"},
      {"Debug", "1 0 0 deleted\n"},          // text ends after the word: empty value
      {"=5", "1 0 0 deleted\n"},             // no word: nothing applied
  };
  for (const auto &c : cases) {
    auto r = lltest::run_child("debug_control", {c.text}, env);
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(r.out, c.want) << c.text;
  }
}

namespace {
std::atomic<bool> g_release{false};
int peek_release() { return g_release.load() ? 1 : 0; }
}  // namespace

TEST(Init, DebugCheckWaitsOnlyOncePendingAndForAPrefixMatch) {
  lltest::ScopedEnv procs("BSW_DEBUGPROCS", "saveit,other");
  // Not pending: returns at once even for a matching name.
  auto t0 = std::chrono::steady_clock::now();
  debug_check("save");
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(2));

  // Pending and a name that no item begins with: returns at once.
  llt_set_debug_pending(1);
  debug_check("restore");
  llt_set_debug_pending(0);

  // Pending and "save" (prefix of "saveit"): waits until the flag is cleared.
  Set_Delay_PeekFunc(peek_release);
  g_release = false;
  llt_set_debug_pending(1);
  std::atomic<bool> done{false};
  std::thread th([&] {
    debug_check("save");
    done = true;
    T_threadexit();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_FALSE(done.load());
  llt_set_debug_pending(0);
  g_release = true;
  th.join();
  EXPECT_TRUE(done.load());
  Set_Delay_PeekFunc(nullptr);
}
