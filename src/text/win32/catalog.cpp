// Catalogs on Windows: resource libraries holding a message table, read with
// FormatMessage (identifier = facility (set | 0x800) * 65536 + number).
#include "frame/win32/win.h"

#include <cstdio>
#include <cwchar>

#include <liblocal/catalog.h>

#include "text/catalog_backend.h"

namespace ll::text::catalog_os {

const char *suffix() noexcept { return ".dll"; }
char separator() noexcept { return '\\'; }

std::string program_dir() noexcept {
  try {
    std::wstring buf(32768, L'\0');
    const DWORD n = GetModuleFileNameW(nullptr, buf.data(), static_cast<DWORD>(buf.size()));
    buf.resize(n);
    const size_t slash = buf.find_last_of(L"\\/");
    if (slash == std::wstring::npos) return ".";
    return ll::win::narrow(buf.substr(0, slash).c_str());
  } catch (...) {
    return ".";
  }
}

namespace {
bool absolute(const std::string &p) {
  return (p.size() > 1 && p[1] == ':') || (!p.empty() && (p[0] == '\\' || p[0] == '/'));
}
}  // namespace

void *open(const std::string &path) noexcept {
  try {
    std::string candidates[2];
    int n = 0;
    if (absolute(path)) {
      candidates[n++] = path;
    } else {
      candidates[n++] = program_dir() + "\\" + path;
      candidates[n++] = path;
    }
    for (int i = 0; i < n; ++i) {
      const std::wstring w = ll::win::widen(candidates[i].c_str());
      if (GetFileAttributesW(w.c_str()) == INVALID_FILE_ATTRIBUTES) continue;
      HMODULE m = LoadLibraryExW(w.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
      if (m) return m;
    }
  } catch (...) {
  }
  return nullptr;
}

bool lookup(void *catalog, int set, int number, std::string &out) noexcept {
  wchar_t text[6144];
  const DWORD n = FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_IGNORE_INSERTS,
                                 static_cast<HMODULE>(catalog), mc_message_id(set, number),
                                 MAKELANGID(LANG_NEUTRAL, SUBLANG_NEUTRAL), text, 6144, nullptr);
  if (n == 0) return false;
  try {
    std::wstring w(text, n);
    // The message compiler ends every text with a line break.
    if (w.size() >= 2 && w.compare(w.size() - 2, 2, L"\r\n") == 0) w.resize(w.size() - 2);
    out = ll::win::narrow(w.c_str());
  } catch (...) {
    return false;
  }
  return true;
}

bool close(void *catalog) noexcept { return FreeLibrary(static_cast<HMODULE>(catalog)) != 0; }

bool read_first_line(const std::string &path, size_t max, std::string &line) noexcept {
  FILE *f = nullptr;
  try {
    f = _wfopen(ll::win::widen(path.c_str()).c_str(), L"rb");
  } catch (...) {
    return false;
  }
  if (!f) return false;
  line.clear();
  try {
    for (int c; (c = std::fgetc(f)) != EOF && c != '\n';)
      if (line.size() < max) line += static_cast<char>(c);
  } catch (...) {
  }
  std::fclose(f);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return true;
}

}  // namespace ll::text::catalog_os
