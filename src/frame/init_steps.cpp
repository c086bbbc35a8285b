// Initialisation steps whose family has not taken them over yet.
#include "frame/init_steps.h"

#include <string>

#include "frame/os.h"

namespace ll::init {
void close_inherited() noexcept {}
void find_installdir(const char *) noexcept {}
void find_appdir(const char *) noexcept {}
void locale_and_catalog(const char *) noexcept {}
void time_zone() noexcept {}
void cluster_start(const char *) noexcept {}
void optional_entry_points() noexcept {}
void set_privileges() noexcept {}
void dtree_handlers() noexcept {}
const char *temp_dir() noexcept {
  static const std::string dir = os::temp_dir();
  return dir.c_str();
}
void clear_opterr() noexcept {}
}  // namespace ll::init
