/* A program built against the installed library only. It initialises the
 * library under the name whose catalog is the library's own, and says
 * whether that catalog was found: in the language folder beside the program
 * that <application folder>/gls/GL_LANG names. */
#include <liblocal.h>
#include <stdio.h>

int main(int argc, char **argv) {
  _qzinit("bsw", argc, argv);
  printf("consumer: class %d, %d processors, catalog %s\n", Win32OSVersion(), get_num_processors(),
         Catd >= 0 ? "open" : "none");
  return Global_liblocal_p_varp ? 0 : 1;
}
