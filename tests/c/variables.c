/* The exported variables seen from a plain C program linked against the
 * shared library: initial values, then writes that the library sees. */
#include <liblocal.h>
#include <stdio.h>
#include <string.h>

static int failures;
#define CHECK(c)                                              \
  do {                                                        \
    if (!(c)) {                                               \
      printf("variables: FAIL %s (line %d)\n", #c, __LINE__); \
      ++failures;                                             \
    }                                                         \
  } while (0)

int main(void) {
  int i;
  CHECK(Debug == 0);
  CHECK(Vflag == 0);
  CHECK(Quit == 0);
  CHECK(Catd == -1);
  CHECK(Global_liblocal_p_varp == NULL);
  CHECK(strcmp(DOS_Epoch, " 1-01-80 12:00a") == 0);
  for (i = 0; i < 20; ++i) {
    CHECK(Zero_qzui.b[i] == 0x00);
    CHECK(Not_qzui.b[i] == 0xFF);
  }
  /* Writes by the program are what the library reads. */
  Debug = 4;
  CHECK(liblvars_set_debug(7) == 7 && Debug == 7);
  Vflag = 2;
  Mast_flag = 1;
  Quit = 1;
  CHECK(Vflag == 2 && Mast_flag == 1 && Quit == 1);
  qzinit("variables");
  CHECK(Global_liblocal_p_varp != NULL);
  CHECK(P_GetDataAreaPtr(get_liblocal_p_init()) == Global_liblocal_p_varp);
  if (failures) return 1;
  printf("variables: ok\n");
  return 0;
}
