// The option parser's diagnostics, written to standard error. Each names its
// catalog message (set 17) and the English default; the text is copied into
// a buffer of the call, so other threads' lookups cannot change it.
#pragma once

namespace ll::opt {
void message(int number, const char *def) noexcept;
// A catalog format with one string argument.
void message_s(int number, const char *def, const char *s) noexcept;
// A catalog format with a string and a letter.
void message_sc(int number, const char *def, const char *s, int c) noexcept;
// "%s%s%c\n": the program, the catalog text and the letter.
void message_prog(const char *prog, int number, const char *def, int c) noexcept;
}  // namespace ll::opt
