// Option files: opening by UTF-8 name and reading them word by word.
#pragma once
#include <cstdio>

namespace ll::opt {

// Opens a file for reading text; null when it cannot be opened.
std::FILE *open_file(const char *name_utf8) noexcept;

// The words of an open option file: lines of at most 254 characters (a
// longer line is read in pieces of 254), leading and trailing blanks, tabs,
// line feeds and carriage returns removed, split at blanks and tabs. A NUL
// byte ends the text of its line.
struct WordReader {
  std::FILE *file = nullptr;
  char line[255] = {};
  char *next = nullptr;  // the rest of the current line, null when used up
  char *last = nullptr;  // the line's last character

  bool open() const noexcept { return file != nullptr; }
  // The next word, or null at the end of the file (which is then closed).
  char *word() noexcept;
  void close() noexcept;
};

}  // namespace ll::opt
