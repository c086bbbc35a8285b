/*
 * liblocal.h - the whole public interface of liblocal, one header per family.
 */
#ifndef LIBLOCAL_H
#define LIBLOCAL_H

#include "liblocal/export.h"
/* Library frame */
#include "liblocal/frame.h"
#include "liblocal/errrec.h"
#include "liblocal/syserr.h"
#include "liblocal/output.h"
#include "liblocal/memory.h"
#include "liblocal/env.h"
/* Text, encodings and messages */
#include "liblocal/utf8.h"
#include "liblocal/strutil.h"
#include "liblocal/quote.h"
#include "liblocal/catalog.h"
#include "liblocal/msgtag.h"
/* Paths and file system */
#include "liblocal/path.h"
#include "liblocal/appdir.h"
#include "liblocal/wfile.h"
#include "liblocal/fileio.h"
#include "liblocal/fstab.h"
#include "liblocal/dtree.h"
/* Data structures and codecs */
#include "liblocal/qzui.h"
#include "liblocal/list.h"
#include "liblocal/bitmap.h"
#include "liblocal/keyslot.h"
#include "liblocal/codec.h"
#include "liblocal/digest.h"
#include "liblocal/regexp.h"
/* Time and dates */
#include "liblocal/qztime.h"
#include "liblocal/getdate.h"
/* Processes, threads and IPC */
#include "liblocal/thread.h"
#include "liblocal/process.h"
#include "liblocal/shmem.h"
#include "liblocal/service.h"
#include "liblocal/eventlog.h"
/* Network and host identity */
#include "liblocal/socket.h"
#include "liblocal/hostid.h"
/* Cluster awareness */
#include "liblocal/cluster.h"
/* System information */
#include "liblocal/osver.h"
#include "liblocal/sysinfo.h"
#include "liblocal/security.h"
/* Command-line options */
#include "liblocal/options.h"

#endif
