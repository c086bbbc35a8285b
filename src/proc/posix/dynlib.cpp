// Libraries loaded by name on POSIX: dlopen and dlsym.
#include <dlfcn.h>
#include <sys/stat.h>

#include "proc/dynlib.h"

namespace ll::dynlib::os {

bool exists(const char *file) noexcept {
  struct stat st;
  return ::stat(file, &st) == 0 && !S_ISDIR(st.st_mode);
}

void *load(const char *file) noexcept { return ::dlopen(file, RTLD_NOW | RTLD_LOCAL); }

void *symbol(void *module, const char *routine) noexcept { return ::dlsym(module, routine); }

void unload(void *module) noexcept { ::dlclose(module); }

}  // namespace ll::dynlib::os
