// Compiling and running arbitrary patterns on arbitrary subjects: never a
// crash, a read outside the subject or program, or a runaway stack; a match
// always lies inside the subject, an anchored one at its start, and the
// search's shortcuts find the same start as running at every position.
// Input: one flag byte (bit 0: ignore case), then pattern NUL subject.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <liblocal/regexp.h>

// The library's plain search (the program run at every position), which the
// shortcuts of regex_exec must agree with.
extern "C" char *llt_regex_exec_plain(qzregex *re, const char *subject);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const bool icase = data[0] & 1;
  std::string rest(reinterpret_cast<const char *>(data + 1), size - 1);
  const size_t cut = rest.find('\0');
  std::string pattern = rest.substr(0, cut);
  std::string subject = cut == std::string::npos ? std::string("abcabc") : rest.substr(cut + 1);
  subject = subject.c_str();  // up to its first NUL, as callers pass it
  // Back-references make some runs polynomial of high degree in the
  // subject length: keep subjects short enough for a fuzzing pace.
  if (pattern.size() > 256 || subject.size() > 24) return 0;

  qzregex *re = icase ? regex_icmp(pattern.c_str()) : regex_cmp(pattern.c_str());
  if (!re) return 0;
  if (re->capacity < 768 || re->capacity < 3 * pattern.size()) abort();
  // Exact-size copy so that ASan sees any read past the subject.
  char *s = static_cast<char *>(std::malloc(subject.size() + 1));
  std::memcpy(s, subject.c_str(), subject.size() + 1);
  const char *plain = llt_regex_exec_plain(re, s);
  const char *m = regex_exec(re, s);
  if (m != plain) abort();
  if (m && (m < s || m > s + subject.size())) abort();
  if (m && re->anchored && m != s) abort();
  for (int g = 0; g < QZREGEX_NGROUPS; ++g) {
    for (const char *p : {re->group_start[g], re->group_end[g]})
      if (p && (p < s || p > s + subject.size())) abort();
  }
  std::free(s);
  regex_done(re);
  return 0;
}
