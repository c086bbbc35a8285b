/*
 * liblocal/qzui.h - 20-byte unique identifiers.
 */
#ifndef LIBLOCAL_QZUI_H
#define LIBLOCAL_QZUI_H

#include "export.h"

LL_BEGIN_DECLS

/* Five 32-bit words in network byte order. */
typedef union qzui {
  unsigned char b[20];
  uint32_t w[5];
} qzui;

LL_API extern const qzui Zero_qzui; /* all bytes 0x00 */
LL_API extern const qzui Not_qzui;  /* all bytes 0xFF: "no identifier" */

LL_END_DECLS

#endif
