// Environment: UTF-8 values and tuned numbers.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <string>

#include <liblocal.h>

#include "lltest.h"

extern "C" unsigned long llt_getenv_ulong(const char *tuning, unsigned long value, int *malformed);

namespace {

TEST(Env, GetAndPut) {
  EXPECT_EQ(qzputenv("LLT_ENV_A=plain"), 0);
  EXPECT_STREQ(qzgetenv("LLT_ENV_A"), "plain");
  EXPECT_EQ(qzputenv("LLT_ENV_A="), 0);  // removes it
  EXPECT_EQ(qzgetenv("LLT_ENV_A"), nullptr);
  EXPECT_EQ(qzputenv(nullptr), 0);
  EXPECT_EQ(qzgetenv("LLT_ENV_SURELY_UNSET"), nullptr);
}

LLTEST_CHILD(non_ascii_env) {
  // A single-byte ANSI side where e-acute exists.
  if (lltest::kWindows)
    std::setlocale(LC_ALL, ".1252");
  else if (!std::setlocale(LC_ALL, "C.UTF-8"))
    return 7;
  if (qzputenv("LLT_ENV_B=caf\xC3\xA9") != 0) return 3;
  char *v = qzgetenv("LLT_ENV_B");
  if (!v) return 4;
  char *w = qzgetenv("LLT_ENV_B");
  std::printf("%s|%d", v, v != w);
  std::free(v);  // fresh buffers: the caller's to keep (or free)
  std::free(w);
  return 0;
}

TEST(Env, NonAsciiValuesComeBackAsUtf8) {
  EXPECT_EQ(lltest::run_child("non_ascii_env").out, "caf\xC3\xA9|1");  // each call gives a fresh buffer
}

TEST(Env, TunedNumbers) {
  struct Case {
    const char *tuning, *setting;  // the variable TUNE_X, unset when null
    unsigned long value, want;
  } cases[] = {
      {"TUNE_X=D,4:64", nullptr, 100, 64},  {"TUNE_X=D,4:64", nullptr, 2, 4},   {"TUNE_X=D,*:*", nullptr, 12345, 12345},
      {"TUNE_X=D", nullptr, 7, 7},          {"TUNE_X=30", nullptr, 7, 30},      {"TUNE_X=30,40", nullptr, 7, 40},
      {"TUNE_X=50,60:20", nullptr, 7, 60},  // raised to MIN, MAX not applied
      {"TUNE_X=90,60:20", nullptr, 7, 20},  {"TUNE_X=D,4:64", "%50", 100, 50},  {"TUNE_X=D", "<10", 25, 10},
      {"TUNE_X=D", "<10", 5, 5},            {"TUNE_X=D", ">10", 5, 10},         {"TUNE_X=D", ">10", 25, 25},
      {"TUNE_X=D", "=17", 5, 17},           {"TUNE_X=D", "D", 99, 99},          {"TUNE_X=D", "abc", 5, 0},
      {"TUNE_X=D", "%200", 3, 6},
      {"TUNE_X=D", "%200", 3000000000UL, 29995458},  // unsigned 32-bit: (3e9 * 200) mod 2^32 / 100
  };
  for (const Case &c : cases) {
    lltest::ScopedEnv set("TUNE_X", c.setting);
    int bad = -1;
    EXPECT_EQ(llt_getenv_ulong(c.tuning, c.value, &bad), c.want) << c.tuning << " " << (c.setting ? c.setting : "");
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(getenv_ulong(c.tuning, c.value), c.want);
  }
}

TEST(Env, MalformedSpecificationsAreFlagged) {
  for (const char *tuning : {"NOEQUALS", "=5", "NAME=", "NAME=,1:2", "", static_cast<const char *>(nullptr)}) {
    int bad = 0;
    llt_getenv_ulong(tuning, 1, &bad);
    EXPECT_EQ(bad, 1) << (tuning ? tuning : "(null)");
  }
}

LLTEST_CHILD(getenv_abort) {
  setMyname("tuner");
  getenv_ulong("NOEQUALS", 1);
  return 0;
}

LLTEST_CHILD(getenv_trace) {
  setMyname("tuner");
  Debug = 2;
  getenv_ulong("TUNE_Y=>8,1:100", 5);
  return 0;
}

TEST(Env, AbortAndTrace) {
  auto r = lltest::run_child("getenv_abort");
  EXPECT_NE(r.exit_code, 0);
  EXPECT_EQ(r.err.substr(0, 64), "tuner: getenv_ulong: improperly formated string 'NOEQUALS'\n");
  r = lltest::run_child("getenv_trace", {}, {"TUNE_Y="});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.err, "tuner: getenv_ulong(TUNE_Y=>8,1:100, 5) returning 8\n");
}

}  // namespace
