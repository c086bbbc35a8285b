// qzstrcmp and each of its routines this processor can run, against the rules
// done a byte at a time: random pairs with and without tags, common prefixes
// of every length up to 300, in ordinary memory and ending at the last bytes
// before a page that cannot be read.
#include <gtest/gtest.h>
#include <liblocal/msgtag.h>

#include <climits>
#include <cstring>
#include <iterator>
#include <string>
#ifdef _WIN32
#include <windows.h>
#else
#include <sys/mman.h>
#endif

extern "C" int llt_qzstrcmp_variant(int which, const char *a, const char *b);

namespace {

size_t tag_at(const char *p) {
  if (p[0] != ' ' || p[1] != '[') return 0;
  size_t n = 2;
  while (std::strchr("0123456789ABCDEFGHIJKLMNOPQRSTUVWZ-", p[n]) && p[n]) ++n;
  return p[n] == ']' && n > 2 ? n + 1 : 0;
}

int by_bytes(const char *a, const char *b) {
  for (;; ++a, ++b) {
    while (size_t t = tag_at(a)) a += t;
    while (size_t t = tag_at(b)) b += t;
    if (*a != *b || !*a) return static_cast<unsigned char>(*a) - static_cast<unsigned char>(*b);
  }
}

// A page followed by one that cannot be read; texts are copied to its end.
class GuardedPage {
 public:
#ifdef _WIN32
  GuardedPage() : base_(static_cast<char *>(VirtualAlloc(nullptr, 2 * kPage, MEM_COMMIT, PAGE_READWRITE))) {
    DWORD old;
    if (base_ && !VirtualProtect(base_ + kPage, kPage, PAGE_NOACCESS, &old)) base_ = nullptr;
  }
  ~GuardedPage() { VirtualFree(base_, 0, MEM_RELEASE); }
#else
  GuardedPage() {
    void *p = mmap(nullptr, 2 * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p != MAP_FAILED && mprotect(static_cast<char *>(p) + kPage, kPage, PROT_NONE) == 0)
      base_ = static_cast<char *>(p);
  }
  ~GuardedPage() { munmap(base_, 2 * kPage); }
#endif
  // The text with 'slack' bytes between its terminator and the guard page.
  const char *place(const std::string &s, size_t slack) {
    char *p = base_ + kPage - s.size() - 1 - slack;
    std::memcpy(p, s.c_str(), s.size() + 1);
    return p;
  }

  bool ok() const { return base_ != nullptr; }

 private:
  static constexpr size_t kPage = 4096;
  char *base_ = nullptr;
};

TEST(StrcmpWide, RoutinesAgreeWithTheRules) {
  GuardedPage page_a, page_b;
  ASSERT_TRUE(page_a.ok() && page_b.ok());
  // Bytes that make, break and imitate tags, and bytes above 127.
  const char alphabet[] = {'a', 'b', ' ', '[', ']', '1', 'A', 'Z', '-', '0', 'x', '\x80', '\xff', '~'};
  const char *pieces[] = {" [1A0B]", " [Z]", " []", " [1a]", " [", "[1]", " [-0-] [9]"};
  unsigned seed = 2024;
  auto next = [&seed] { return (seed = seed * 1103515245u + 12345u) >> 16; };
  auto random_text = [&](size_t n) {
    std::string s;
    while (s.size() < n)
      s += next() % 9 ? std::string(1, alphabet[next() % sizeof alphabet]) : pieces[next() % std::size(pieces)];
    return s;
  };
  int routines = 0;
  for (int which = 0; which < 2; ++which) routines += llt_qzstrcmp_variant(which, "a", "a") != INT_MIN;
  EXPECT_GE(routines, 1);
  for (int i = 0; i < 6000; ++i) {
    const size_t common = static_cast<size_t>(i / 20);  // 0 to 299
    std::string prefix;
    for (size_t k = 0; k < common; ++k) prefix += next() % 4 ? static_cast<char>('a' + next() % 26) : ' ';
    if (i % 5 == 0) prefix = random_text(common);
    std::string a = prefix + random_text(next() % 40), b = prefix + random_text(next() % 40);
    if (i % 4 == 0) b = a;
    if (i % 8 == 0) b.insert(next() % (b.size() + 1), pieces[next() % 2]);  // the same text with one more tag
    if (i % 8 == 4 && !b.empty()) b[next() % b.size()] = alphabet[next() % sizeof alphabet];  // one byte changed
    if (i % 8 == 6) b.resize(next() % (b.size() + 1));  // a beginning of the other
    const int want = by_bytes(a.c_str(), b.c_str());
    const char *ga = page_a.place(a, next() % 40), *gb = page_b.place(b, next() % 40);
    ASSERT_EQ(qzstrcmp(a.c_str(), b.c_str()), want) << a << " | " << b;
    ASSERT_EQ(qzstrcmp(ga, gb), want) << a << " | " << b;
    for (int which = 0; which < 2; ++which) {
      if (llt_qzstrcmp_variant(which, "a", "a") == INT_MIN) continue;
      ASSERT_EQ(llt_qzstrcmp_variant(which, a.c_str(), b.c_str()), want) << which << ": " << a << " | " << b;
      ASSERT_EQ(llt_qzstrcmp_variant(which, ga, gb), want) << which << " at page end: " << a << " | " << b;
      ASSERT_EQ(llt_qzstrcmp_variant(which, gb, ga), -want) << which << " at page end: " << b << " | " << a;
    }
  }
}

}  // namespace
