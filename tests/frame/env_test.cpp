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
  auto r = lltest::run_child("non_ascii_env");
  ASSERT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out, "caf\xC3\xA9|1");  // each such call gives a fresh buffer
}

unsigned long tune(const char *tuning, unsigned long value) {
  int bad = -1;
  const unsigned long r = llt_getenv_ulong(tuning, value, &bad);
  EXPECT_EQ(bad, 0) << tuning;
  return r;
}

TEST(Env, TunedNumbers) {
  lltest::ScopedEnv unset("TUNE_BUFS", nullptr);
  EXPECT_EQ(getenv_ulong("TUNE_BUFS=D,4:64", 100), 64u);
  EXPECT_EQ(getenv_ulong("TUNE_BUFS=D,4:64", 2), 4u);
  EXPECT_EQ(getenv_ulong("TUNE_BUFS=D,*:*", 12345), 12345u);
  EXPECT_EQ(getenv_ulong("TUNE_BUFS=D", 7), 7u);
  EXPECT_EQ(getenv_ulong("TUNE_BUFS=30", 7), 30u);
  EXPECT_EQ(getenv_ulong("TUNE_BUFS=30,40", 7), 40u);   // MIN without MAX
  EXPECT_EQ(getenv_ulong("TUNE_BUFS=50,60:20", 7), 60u);  // raised to MIN, MAX not applied
  EXPECT_EQ(getenv_ulong("TUNE_BUFS=90,60:20", 7), 20u);
  {
    lltest::ScopedEnv set("TUNE_BUFS", "%50");
    EXPECT_EQ(getenv_ulong("TUNE_BUFS=D,4:64", 100), 50u);
  }
  struct Case {
    const char *setting;
    unsigned long value, want;
  } cases[] = {{"<10", 25, 10}, {"<10", 5, 5},  {">10", 5, 10}, {">10", 25, 25},
               {"=17", 5, 17},  {"D", 99, 99}, {"abc", 5, 0},  {"%200", 3, 6}};
  for (const Case &c : cases) {
    lltest::ScopedEnv set("TUNE_X", c.setting);
    EXPECT_EQ(tune("TUNE_X=D", c.value), c.want) << c.setting;
  }
  // Unsigned 32-bit arithmetic.
  lltest::ScopedEnv set("TUNE_X", "%200");
  EXPECT_EQ(tune("TUNE_X=D", 3000000000UL), static_cast<unsigned long>(static_cast<uint32_t>(3000000000u * 200u) / 100u));
}

TEST(Env, MalformedSpecificationsAreFlagged) {
  for (const char *tuning : {"NOEQUALS", "=5", "NAME=", "NAME=,1:2", ""}) {
    int bad = 0;
    llt_getenv_ulong(tuning, 1, &bad);
    EXPECT_EQ(bad, 1) << tuning;
  }
  int bad = 0;
  llt_getenv_ulong(nullptr, 1, &bad);
  EXPECT_EQ(bad, 1);
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
