// The option parser's diagnostics, written to standard error.
#pragma once

namespace ll::opt {
void message(const char *text) noexcept;
// A catalog format with one string argument.
void message_s(const char *fmt, const char *s) noexcept;
// A catalog format with a string and a letter.
void message_sc(const char *fmt, const char *s, int c) noexcept;
// "%s%s%c\n": the program, the catalog text and the letter.
void message_prog(const char *prog, const char *text, int c) noexcept;
}  // namespace ll::opt
