// llocal - the library's own command-line tool.
#include <cstdio>
#include <cstring>

#include <liblocal.h>

static int tour() {
  std::printf("liblocal tour\n");
  std::printf("  operating-system class : %d\n", Win32OSVersion());
  std::printf("  system version         : %d.%d (platform %d)\n", Win32OSMajorVersionNumber(),
              Win32OSMinorVersionNumber(), Win32OSPlatformId());
  std::printf("  host description       : %s (%s)\n", qz_host_os_name(),
              is_server_OS(qz_host_os_name()) ? "server system" : "not a server system");
  std::printf("  processors             : %d\n", get_num_processors());
  std::printf("  ANSI code set          : %s\n", get_ansi_codeset());
  std::printf("summary: tour finished\n");
  return 0;
}

int main(int argc, char **argv) {
  _qzinit(argv[0], argc, argv);
  if (argc < 2 || std::strcmp(argv[1], "tour") == 0) return tour();
  std::fprintf(stderr, "usage: llocal tour\n");
  return 2;
}
