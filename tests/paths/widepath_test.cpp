// Path-aware wide conversion and the tolerant display conversion.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <liblocal.h>

#include "lltest.h"

#ifdef _WIN32
#include "frame/win32/win.h"
#endif

namespace {
std::string narrow(const qzwchar_t *w) {
  char buf[8192];
  utf8_wcstombs(buf, w, sizeof buf - 1);
  return buf;
}
}  // namespace

TEST(WidePath, PrefixesAndLimits) {
  qzwchar_t w[4200];
#ifdef _WIN32
  char cwd[4096];
  ASSERT_NE(GetCurrentDirectoryA(sizeof cwd, cwd), 0u);
  std::string here(cwd);
  if (here.back() != '\\') here += '\\';
  struct {
    const char *in, *out;
  } cases[] = {{"C:\\dir\\f", "\\\\?\\C:\\dir\\f"},
               {"C:\\dir\\..\\f", "\\\\?\\C:\\f"},
               {"\\\\host\\share\\a\\..\\b", "\\\\?\\UNC\\host\\share\\b"},
               {"\\\\.\\pipe\\x", "\\\\.\\pipe\\x"},
               {"\\\\?\\C:\\x\\..", "\\\\?\\C:\\x\\.."},
               {"\\\\?\\UNC\\h\\s\\f", "\\\\?\\UNC\\h\\s\\f"}};
  for (const auto &c : cases) {
    int n = utf8towidepath(c.in, w, sizeof w / sizeof w[0]);
    EXPECT_EQ(narrow(w), c.out) << c.in;
    EXPECT_EQ(n, static_cast<int>(std::strlen(c.out))) << c.in;
  }
  ASSERT_GT(utf8towidepath("rel\\f", w, sizeof w / sizeof w[0]), 0);
  EXPECT_EQ(narrow(w), "\\\\?\\" + here + "rel\\f");
  // The result works with the wide file calls, a name beyond the classic limit included.
  lltest::TempDir dir;
  std::string deep = dir.path();
  for (int i = 0; i < 30; ++i) {
    deep += "\\" + std::string(10, static_cast<char>('a' + i % 26));
    ASSERT_GT(utf8towidepath(deep.c_str(), w, sizeof w / sizeof w[0]), 0);
    ASSERT_TRUE(CreateDirectoryW(reinterpret_cast<wchar_t *>(w), nullptr)) << deep;
  }
  EXPECT_GT(deep.size(), 300u);
  ASSERT_GT(utf8towidepath((deep + "\\f\xC3\xA9").c_str(), w, sizeof w / sizeof w[0]), 0);
  HANDLE h = CreateFileW(reinterpret_cast<wchar_t *>(w), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  CloseHandle(h);
#else
  ASSERT_EQ(utf8towidepath("/tmp/caf\xC3\xA9", w, sizeof w / sizeof w[0]), 9);
  EXPECT_EQ(w[8], 0xE9);
  EXPECT_EQ(narrow(w), "/tmp/caf\xC3\xA9");
#endif
  // Does not fit: the full count of characters plus the terminator is needed.
  errno = 0;
  qzwchar_t small[4];
  EXPECT_EQ(utf8towidepath("abcdef", small, 4), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  for (const char *bad : {static_cast<const char *>(nullptr), "", "a\xC0\x80"}) {
    errno = 0;
    EXPECT_EQ(utf8towidepath(bad, w, 10), -1);
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_EQ(utf8towidepath("a", w, 0), -1);
}

TEST(AnsiTolerance, KeepsBytesThatAreNotUtf8AndNeverPassesTheLimit) {
  char out[32];
  EXPECT_EQ(ansi_mbs_tolerance(out, "plain", sizeof out), 5u);
  EXPECT_STREQ(out, "plain");
  // A lone code-page byte is kept; ansi_mbs would turn it into '|'.
  EXPECT_EQ(ansi_mbs_tolerance(out, "caf\xE9!", sizeof out), 5u);
  EXPECT_STREQ(out, "caf\xE9!");
  // Beyond 16 bits there is no ANSI form.
  EXPECT_EQ(ansi_mbs_tolerance(out, "a\xF0\x9F\x98\x80z", sizeof out), 3u);
  EXPECT_STREQ(out, "a|z");
  std::memset(out, 'X', sizeof out);
  EXPECT_EQ(ansi_mbs_tolerance(out, "abcdef", 4), 3u);
  EXPECT_STREQ(out, "abc");
  EXPECT_EQ(out[4], 'X');
  EXPECT_EQ(ansi_mbs_tolerance(nullptr, "abcdef", 0), 6u);
  EXPECT_EQ(ansi_mbs_tolerance(out, nullptr, sizeof out), 0u);
  EXPECT_STREQ(out, "");
}
