// The DOS epoch as a directory-listing date.
#include <liblocal/qztime.h>

extern "C" {
LL_API extern const char DOS_Epoch[];
const char DOS_Epoch[] = " 1-01-80 12:00a";
}
