// Environment blocks for a child: the given texts first, then the parent's
// variables they do not set, in each of the three forms.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include <liblocal.h>

#include "lltest.h"

namespace {

using List = std::vector<std::string>;

List parse(const void *env, int form, size_t size) {
  List out;
  if (form == QZ_ENV_VECTOR) {
    for (char *const *p = static_cast<char *const *>(env); *p; ++p) out.emplace_back(*p);
    return out;
  }
  if (form == QZ_ENV_BLOCK) {
    const char *b = static_cast<const char *>(env);
    EXPECT_EQ(b[size - 1], 0);
    for (const char *p = b; *p; p += out.back().size() + 1) out.emplace_back(p);
    return out;
  }
  const qzwchar_t *w = static_cast<const qzwchar_t *>(env);
  EXPECT_EQ(w[size / sizeof(qzwchar_t) - 1], 0);
  for (const qzwchar_t *p = w; *p;) {
    char buf[4096];
    utf8_wcstombs(buf, p, sizeof buf - 1);
    out.emplace_back(buf);
    while (*p) ++p;
    ++p;
  }
  return out;
}

size_t count_prefix(const List &l, const std::string &prefix) {
  size_t n = 0;
  for (const std::string &s : l) n += s.compare(0, prefix.size(), prefix) == 0;
  return n;
}

}  // namespace

TEST(Mkenv, GivenFirstThenTheParentsOthersInEveryForm) {
  lltest::ScopedEnv a("LLT_MK_A", "old"), c("llt_mk_c", "lower");
  // A value beyond ASCII: POSIX hands the bytes on as they stand, Windows
  // holds UTF-16 (set through the library, which converts).
  lltest::ScopedEnv b("LLT_MK_B", lltest::kWindows ? nullptr : "kept \xC3\xA9");
  if (lltest::kWindows) {
    ASSERT_EQ(qzputenv("LLT_MK_B=kept \xC3\xA9"), 0);
  }
  const char *set[] = {"LLT_MK_A=new", "LLT_MK_D=\xE2\x82\xAC", "LLT_MK_A=second", "LLT_MK_C=upper", nullptr};
  List first;
  for (int form : {QZ_ENV_VECTOR, QZ_ENV_BLOCK, QZ_ENV_WIDE}) {
    size_t size = 0;
    void *env = mkenv(set, form, &size);
    ASSERT_NE(env, nullptr) << form;
    List l = parse(env, form, size);
    std::free(env);
    ASSERT_GE(l.size(), 4u);
    EXPECT_EQ(l[0], "LLT_MK_A=new");
    EXPECT_EQ(l[1], "LLT_MK_D=\xE2\x82\xAC");
    EXPECT_EQ(l[2], "LLT_MK_C=upper");
    EXPECT_EQ(count_prefix(l, "LLT_MK_A="), 1u);
    EXPECT_EQ(count_prefix(l, "LLT_MK_B=kept \xC3\xA9"), 1u);
    // Names compare as the platform compares them.
    EXPECT_EQ(count_prefix(l, "llt_mk_c="), lltest::kWindows ? 0u : 1u);
    if (first.empty())
      first = l;
    else
      EXPECT_EQ(l, first) << form;
  }
  if (lltest::kWindows) qzputenv("LLT_MK_B=");
}

TEST(Mkenv, NoTextsCopiesTheParentAndBadTextsAreRefused) {
  lltest::ScopedEnv a("LLT_MK_ONLY", "1");
  size_t size = 0;
  void *env = mkenv(nullptr, QZ_ENV_BLOCK, &size);
  ASSERT_NE(env, nullptr);
  EXPECT_EQ(count_prefix(parse(env, QZ_ENV_BLOCK, size), "LLT_MK_ONLY=1"), 1u);
  std::free(env);
  for (const char *bad : {"NOEQUALS", "=value", ""}) {
    const char *set[] = {"GOOD=1", bad, nullptr};
    errno = 0;
    EXPECT_EQ(mkenv(set, QZ_ENV_VECTOR, &size), nullptr) << bad;
    EXPECT_EQ(errno, EINVAL);
  }
  errno = 0;
  EXPECT_EQ(mkenv(nullptr, 3, nullptr), nullptr);
  EXPECT_EQ(errno, EINVAL);
}
