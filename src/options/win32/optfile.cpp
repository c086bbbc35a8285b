// Option files on Windows: the UTF-8 name is opened through its UTF-16 form.
#include "options/optfile.h"

#include "frame/win32/win.h"

namespace ll::opt {
std::FILE *open_file(const char *name_utf8) noexcept {
  try {
    std::wstring w = ll::win::widen(name_utf8);
    return ::_wfopen(w.c_str(), L"r");
  } catch (...) {
    return nullptr;
  }
}
}  // namespace ll::opt
