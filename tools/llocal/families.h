// Which library families this build of the tool calls. The families are
// landing one by one; a command whose family is not in the library yet
// reports so and exits 1, and the tour skips its step. Flip a switch to 1
// once the family's functions are exported.
#pragma once

#define LLOCAL_HAVE_OUTPUT 0   // setMyname, printerr, qzprintf, qzfputs
#define LLOCAL_HAVE_ERRREC 0   // err_setall, err_print
#define LLOCAL_HAVE_DIGEST 0   // posix crc, sha_*
#define LLOCAL_HAVE_DCMPRSS 0  // dcmprss
#define LLOCAL_HAVE_MSGTAG 0   // append_msg_suffix, strip_msg_ids, extract_msg_suffix
#define LLOCAL_HAVE_QUOTE 0    // tokenize, command_string
#define LLOCAL_HAVE_OPTIONS 0  // getopt_init, getopt, getarg
