/*
 * liblocal/syserr.h - the error-number space and its texts.
 *
 * errno holds three kinds of code side by side:
 *   1 .. 134      the runtime library's own error numbers;
 *   135 .. 171    socket and network errors in the library's numbering
 *                 (a Winsock code minus 9900: 10035 becomes 135);
 *   bit 28 set    an operating-system error code (the platform's last error
 *                 with 0x10000000 added); 0 when the platform reports none.
 */
#ifndef LIBLOCAL_SYSERR_H
#define LIBLOCAL_SYSERR_H

#include "export.h"

LL_BEGIN_DECLS

/* The flag that marks an operating-system code in errno. */
#define QZ_SYSERR_FLAG 0x10000000
#define QZ_IS_SYSERR(code) (((code) & QZ_SYSERR_FLAG) != 0)
#define QZ_MARK_SYSERR(code) ((code) ? ((code) | QZ_SYSERR_FLAG) : 0)
#define QZ_UNMARK_SYSERR(code) ((code) & ~QZ_SYSERR_FLAG)

/* The library's own socket error numbers. */
#define QZ_ESOCK_FIRST 135
#define QZ_ESOCK_LAST 171
#define QZ_EWOULDBLOCK 135
#define QZ_EINPROGRESS 136
#define QZ_EALREADY 137
#define QZ_ENOTSOCK 138
#define QZ_EDESTADDRREQ 139
#define QZ_EMSGSIZE 140
#define QZ_EPROTOTYPE 141
#define QZ_ENOPROTOOPT 142
#define QZ_EPROTONOSUPPORT 143
#define QZ_ESOCKTNOSUPPORT 144
#define QZ_EOPNOTSUPP 145
#define QZ_EPFNOSUPPORT 146
#define QZ_EAFNOSUPPORT 147
#define QZ_EADDRINUSE 148
#define QZ_EADDRNOTAVAIL 149
#define QZ_ENETDOWN 150
#define QZ_ENETUNREACH 151
#define QZ_ENETRESET 152
#define QZ_ECONNABORTED 153
#define QZ_ECONNRESET 154
#define QZ_ENOBUFS 155
#define QZ_EISCONN 156
#define QZ_ENOTCONN 157
#define QZ_ESHUTDOWN 158
#define QZ_ETOOMANYREFS 159
#define QZ_ETIMEDOUT 160
#define QZ_ECONNREFUSED 161
#define QZ_ELOOP 162
#define QZ_ENAMETOOLONG 163
#define QZ_EHOSTDOWN 164
#define QZ_EHOSTUNREACH 165
#define QZ_ENOTEMPTY 166
#define QZ_EPROCLIM 167
#define QZ_EUSERS 168
#define QZ_EDQUOT 169
#define QZ_ESTALE 170
#define QZ_EREMOTE 171

/* UTF-8 text of any errno value; never null. Built texts live in the calling
 * thread's 1024-byte buffer until its next built text. */
LL_API char *qzmo_strerror(int code) LL_NOEXCEPT;
/* The operating-system message of 'code' (without the flag bit) as one UTF-8
 * line in the calling thread's buffer, or "unknown error %d (0x%x)". */
LL_API char *nt_syserror(int code) LL_NOEXCEPT;
/* The common error number of a marked operating-system code where one
 * corresponds; any other value comes back unchanged. */
LL_API int nt_to_posix_errno(int code) LL_NOEXCEPT;
/* Prints "<prefix>: <text of errno>\n" on standard error. */
LL_API int qzperror(const char *prefix) LL_NOEXCEPT;

LL_END_DECLS

#endif
