// Octal escaping, tokenising and joining of command lines, argument vectors.
#include <liblocal/catalog.h>
#include <liblocal/quote.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "text/strutil_internal.h"

namespace {

using ll::text::trace;

constexpr char kDefaultDelims[] = " \t)\n";
constexpr int kFirstCapacity = 100;

// Removes backslash escapes of a POSIX-mode token in place: each backslash is
// dropped and the character after it kept; a final lone backslash is dropped.
void unescape(char *t) noexcept {
  char *out = t;
  for (const char *in = t; *in; ++in) {
    if (*in == '\\') {
      if (!in[1]) break;
      ++in;
    }
    *out++ = *in;
  }
  *out = '\0';
}

bool needs_quotes(const char *w) noexcept { return std::strpbrk(w, " ()\t\r\n\"'\\") != nullptr; }

}  // namespace

extern "C" {

LL_API char *quotegets(char *dst, const char *src, size_t size) noexcept {
  if (!dst || size == 0) return dst;
  size_t n = 0;
  for (const char *p = src ? src : ""; *p; ++p) {
    if (n + 5 > size) break;
    const auto c = static_cast<unsigned char>(*p);
    if (c >= 128) {
      dst[n++] = '\\';
      dst[n++] = static_cast<char>('0' + (c >> 6));
      dst[n++] = static_cast<char>('0' + ((c >> 3) & 7));
      dst[n++] = static_cast<char>('0' + (c & 7));
    } else {
      dst[n++] = static_cast<char>(c);
    }
  }
  dst[n] = '\0';
  return dst;
}

LL_API char *unquotegets(char *dst, const char *src, size_t size) noexcept {
  if (!dst || size == 0) return dst;
  size_t n = 0;
  auto digit = [](char c) { return c >= '0' && c <= '9'; };
  for (const char *p = src ? src : ""; *p && n + 1 < size; ++p) {
    if (p[0] == '\\' && digit(p[1]) && digit(p[2]) && digit(p[3])) {
      dst[n++] = static_cast<char>((64 * (p[1] - '0') + 8 * (p[2] - '0') + (p[3] - '0')) & 0xFF);
      p += 3;
    } else {
      dst[n++] = *p;
    }
  }
  dst[n] = '\0';
  return dst;
}

LL_API qzerror *tokenize(char *str, int *count, char ***vector, const char *delims, int unixmode) noexcept {
  if (count) *count = 0;
  if (vector) *vector = nullptr;
  int capacity = kFirstCapacity;
  auto **vec = static_cast<char **>(ll::text::try_calloc(static_cast<size_t>(capacity), sizeof(char *)));
  if (!vec) return ll::text::record_no_memory(292, "Cannot alloc for tokens\n");
  int n = 0;
  char *p = str ? str : const_cast<char *>("");
  while (*p) {
    if (delims && std::strchr(delims, *p)) {
      *p++ = '\0';
      continue;
    }
    if (*p == ' ' || *p == '\n') {
      ++p;
      continue;
    }
    const char *set;
    switch (*p) {
      case '"':
        ++p;
        set = unixmode ? "\"\\\n" : "\"\n";
        break;
      case '\'':
        if (unixmode) {
          ++p;
          set = "'\\\n";
        } else {
          set = delims ? delims : kDefaultDelims;
        }
        break;
      case '(':
        ++p;
        set = ") \t\n";
        break;
      case '`':
        ++p;
        set = "'\\\n";
        break;
      default:
        set = delims ? delims : kDefaultDelims;
    }
    char *token = p;
    char *d = std::strpbrk(p, set);
    bool escapes = false;
    if (unixmode) {
      while (d && *d == '\\' && d[1]) {
        escapes = true;
        d = std::strpbrk(d + 2, set);
      }
    }
    char *token_end = d;
    if (!unixmode && d && *d == '"') {
      // Backslashes before the closing quote are halved.
      size_t run = 0;
      while (d - run > token && d[-1 - static_cast<ptrdiff_t>(run)] == '\\') ++run;
      token_end = d - (run - run / 2);
    }
    if (d) {
      *d = '\0';
      if (token_end) *token_end = '\0';
      p = d + 1;
    } else {
      p += std::strlen(p);
    }
    if (escapes) unescape(token);
    trace(7, "current token = %s\n", token);
    vec[n++] = token;
    if (n == capacity) {
      auto **bigger = static_cast<char **>(ll::text::try_calloc(static_cast<size_t>(capacity) * 2, sizeof(char *)));
      if (!bigger) {
        std::free(vec);
        if (count) *count = 0;
        return ll::text::record_no_memory(293, "Cannot realloc for tokens\n");
      }
      std::memcpy(bigger, vec, static_cast<size_t>(capacity) * sizeof(char *));
      std::free(vec);
      vec = bigger;
      capacity *= 2;
      trace(3, "tokenize: realloc; numtokens = %d; \t\t\t\t\ttoken_size= %d\n", n, capacity);
    }
  }
  vec[n] = nullptr;
  if (count) *count = n;
  if (vector) *vector = vec;
  else std::free(vec);
  return nullptr;
}

LL_API char *command_string(char **argv, int unixmode, char *buf, size_t size) noexcept {
  if (!argv || !argv[0]) return nullptr;
  char *allocated = nullptr;
  if (!buf) {
    size = 0;
    for (char **w = argv; *w; ++w) {
      const size_t len = std::strlen(*w);
      size += len + 3;
      if (std::strpbrk(*w, "\"\\")) size += len;
    }
    allocated = static_cast<char *>(ll::text::try_alloc(size));
    if (!allocated) return nullptr;
    buf = allocated;
  }
  // 'left' is signed: any step that takes it below zero fails the call.
  long long left = static_cast<long long>(size);
  auto fail = [&]() -> char * {
    std::free(allocated);
    return nullptr;
  };
  char *out = buf;
  for (char **w = argv; *w; ++w) {
    const char *word = *w;
    const size_t len = std::strlen(word);
    if ((left -= static_cast<long long>(len) + 1) < 0) return fail();
    if (w != argv) *out++ = ' ';
    if ((!unixmode && std::strchr(word, '"')) || !needs_quotes(word)) {
      std::memcpy(out, word, len);
      out += len;
      continue;
    }
    if ((left -= 2) < 0) return fail();
    *out++ = '"';
    size_t trailing = 0;  // backslashes at the end of the word
    while (trailing < len && word[len - 1 - trailing] == '\\') ++trailing;
    for (size_t i = 0; i < len; ++i) {
      const char c = word[i];
      const bool escape = c == '"' || (unixmode && c == '\\') || (!unixmode && c == '\\' && i >= len - trailing);
      if (escape) {
        if (--left < 0) return fail();
        *out++ = '\\';
      }
      *out++ = c;
    }
    *out++ = '"';
  }
  *out = '\0';
  return buf;
}

LL_API int qz_add_argv(int *count, char ***vector, char *word) noexcept {
  if (!count || !vector) {
    errno = 22;
    return 0;
  }
  if (*count % 10 == 0) {
    const size_t slots = static_cast<size_t>(*count) + 10;
    void *grown = ll::text::try_alloc(slots * sizeof(char *));
    if (!grown) {
      errno = 12;
      return 0;
    }
    if (*vector && *count) std::memcpy(grown, *vector, static_cast<size_t>(*count) * sizeof(char *));
    std::free(*vector);
    *vector = static_cast<char **>(grown);
  }
  (*vector)[(*count)++] = word;
  return 1;
}

}  // extern "C"
