/* A program built against the installed library only. */
#include <liblocal.h>
#include <stdio.h>

int main(int argc, char **argv) {
  _qzinit(argv[0], argc, argv);
  printf("consumer: class %d, %d processors\n", Win32OSVersion(), get_num_processors());
  return Global_liblocal_p_varp ? 0 : 1;
}
