// Catalogs on Windows: resource libraries holding a message table, read with
// FormatMessage (identifier = facility (set | 0x800) * 65536 + number).
#include "frame/win32/win.h"

#include <cstdio>
#include <cstring>
#include <cwchar>

#include <liblocal/catalog.h>

#include "text/catalog_backend.h"
#include "frame/fault.h"

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

// A library mapped as a data file is not checked by the loader: a truncated
// or damaged file would be read past its end by the message lookup. Accept
// only a file whose headers and section data all lie inside it.
bool whole_image(const std::wstring &path) {
  HANDLE f = LL_FAULT(open) ? INVALID_HANDLE_VALUE : CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  if (f == INVALID_HANDLE_VALUE) return false;
  LARGE_INTEGER size{};
  std::string head(4096, '\0');
  DWORD got = 0;
  const bool read = GetFileSizeEx(f, &size) && ReadFile(f, head.data(), 4096, &got, nullptr);
  CloseHandle(f);
  if (!read || got < sizeof(IMAGE_DOS_HEADER)) return false;
  head.resize(got);
  const auto *dos = reinterpret_cast<const IMAGE_DOS_HEADER *>(head.data());
  if (dos->e_magic != IMAGE_DOS_SIGNATURE || dos->e_lfanew < 0) return false;
  const size_t nt = static_cast<size_t>(dos->e_lfanew);
  if (nt + sizeof(DWORD) + sizeof(IMAGE_FILE_HEADER) > got) return false;
  DWORD sig;
  std::memcpy(&sig, head.data() + nt, sizeof sig);
  if (sig != IMAGE_NT_SIGNATURE) return false;
  IMAGE_FILE_HEADER fh;
  std::memcpy(&fh, head.data() + nt + sizeof(DWORD), sizeof fh);
  const size_t sections = nt + sizeof(DWORD) + sizeof(IMAGE_FILE_HEADER) + fh.SizeOfOptionalHeader;
  if (fh.NumberOfSections == 0 || sections + fh.NumberOfSections * sizeof(IMAGE_SECTION_HEADER) > got) return false;
  for (WORD i = 0; i < fh.NumberOfSections; ++i) {
    IMAGE_SECTION_HEADER sh;
    std::memcpy(&sh, head.data() + sections + i * sizeof sh, sizeof sh);
    if (static_cast<long long>(sh.PointerToRawData) + sh.SizeOfRawData > size.QuadPart) return false;
  }
  return true;
}

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
      if (GetFileAttributesW(w.c_str()) == INVALID_FILE_ATTRIBUTES || !whole_image(w)) continue;
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

}  // namespace ll::text::catalog_os
