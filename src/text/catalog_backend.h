// The catalog container and the files around it, one implementation per
// platform (text/posix/catalog.cpp: X/Open message catalogs; text/win32/
// catalog.cpp: resource libraries with a message table).
#pragma once
#include <string>

namespace ll::text::catalog_os {

// File suffix of a catalog (".dll" or ".cat") and the separator used to build
// the locale file's and the catalog's paths.
const char *suffix() noexcept;
char separator() noexcept;

// Opens the catalog at 'path' (a path relative to the program's directory,
// else to the current directory, or an absolute path); null on failure.
void *open(const std::string &path) noexcept;
// The stored text of message (set, number) as the container holds it (still
// escaped); false when the catalog has none.
bool lookup(void *catalog, int set, int number, std::string &out) noexcept;
bool close(void *catalog) noexcept;

// At most 'max' bytes of the first line of a file (without its line end);
// false when the file cannot be opened.
bool read_first_line(const std::string &path, size_t max, std::string &line) noexcept;

// The directory of the running program, without a trailing separator.
std::string program_dir() noexcept;

}  // namespace ll::text::catalog_os
