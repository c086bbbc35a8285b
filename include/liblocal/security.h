/*
 * liblocal/security.h - accounts, security identifiers and descriptors, privileges.
 *
 * Identifiers. A security identifier (SID) is a byte record of at most
 * QZ_SID_MAX bytes in the binary SID form: revision 1, a count of
 * sub-authorities, a 6-byte authority and the sub-authorities (32-bit,
 * little-endian). On Windows it is the system's own SID. On POSIX the
 * library uses the Unix-account form: S-1-22-1-<uid> for a user,
 * S-1-22-2-<gid> for a group; S-1-1-0 (everyone) is understood as "others".
 *
 * Descriptors. A security descriptor is a byte record the caller keeps in a
 * buffer of its own (QZ_SD_SIZE bytes are always enough for the library's
 * own descriptors). On Windows it is a self-relative SECURITY_DESCRIPTOR and
 * may be handed to the system as it is (SECURITY_ATTRIBUTES); a descriptor in
 * absolute form is refused. On POSIX it is the library's own record of an
 * owner, a group and the mode bits granted to each and to others; a DACL
 * there is the set of mode bits, so one user, one group and everyone can be
 * granted access - a second user cannot be expressed (EPERM).
 *
 * Access. The generic rights QZ_ACCESS_* have the same values as the Windows
 * generic rights. Windows takes any access mask (FILE_MAP_ALL_ACCESS, ...);
 * POSIX reads only the generic rights (read r, write w, execute x, all rwx)
 * and refuses a mask without any of them (EINVAL).
 *
 * Names. A user name may be "user", "DOMAIN\user" or "user@realm"; it is
 * UTF-8, 1 to 256 bytes, without control characters (otherwise EINVAL, or
 * ENAMETOOLONG for a longer name). On POSIX the name is asked of the name
 * service as given; "HOST\user" and ".\user" with this host's name (any
 * case) also find the local "user".
 *
 * Failures: -1 with errno. Windows failures carry the system's code marked
 * with bit 28 (see syserr.h); POSIX failures the system's errno value; an
 * unknown account is ENOENT on POSIX and the marked code of "none mapped"
 * (1332) on Windows. A buffer too small gives ERANGE and is not written.
 */
#ifndef LIBLOCAL_SECURITY_H
#define LIBLOCAL_SECURITY_H

#include "export.h"

#define QZ_SID_MAX 68
#define QZ_SD_SIZE 1024
#define QZ_ACCOUNT_NAME_MAX 256

#define QZ_ACCESS_READ 0x80000000u
#define QZ_ACCESS_WRITE 0x40000000u
#define QZ_ACCESS_EXECUTE 0x20000000u
#define QZ_ACCESS_ALL 0x10000000u

LL_BEGIN_DECLS

/* ---- identifiers ---- */

/* The identifier of the user the process runs as (Windows: the process
 * token's user; POSIX: the effective user id). Stores it in sid (size bytes)
 * and returns its length. */
LL_API int get_my_sid(void *sid, size_t size) LL_NOEXCEPT;
/* The identifier of a named account (users first; a group name finds the
 * group). 'system' names the machine that resolves the name (Windows); null,
 * "" or "." is this machine, and POSIX accepts no other. Returns the length. */
LL_API int get_user_sid(const char *user, const char *system, void *sid, size_t size) LL_NOEXCEPT;
/* Length of a well-formed identifier, or -1 (EINVAL) for null or a malformed
 * one. */
LL_API int qz_sid_length(const void *sid) LL_NOEXCEPT;
/* 1 when both are well formed and equal, else 0. */
LL_API int qz_sid_equal(const void *a, const void *b) LL_NOEXCEPT;
/* Text form "S-1-5-32-544" into out (size bytes); returns its length. */
LL_API int qz_sid_to_text(const void *sid, char *out, size_t size) LL_NOEXCEPT;
/* The identifier of a text form (at most 15 sub-authorities); returns its
 * length; EINVAL for a malformed text. */
LL_API int qz_sid_from_text(const char *text, void *sid, size_t size) LL_NOEXCEPT;

/* ---- descriptors ---- */

/* An empty descriptor in sd: no owner, no group, no DACL (Windows: everyone
 * may do anything), no SACL. Returns its length. */
LL_API int qz_sd_init(void *sd, size_t size) LL_NOEXCEPT;
/* Grants sid 'access' in the descriptor sd (held in a buffer of size bytes):
 * an allowing entry is added to its DACL, which is created when there is
 * none (so from then on only what the DACL grants is allowed). The owner,
 * group and other entries are kept. Returns the descriptor's new length;
 * ERANGE when it would not fit (sd unchanged), EINVAL for a null, malformed
 * or absolute descriptor, EPERM on POSIX for a second user. */
LL_API int insert_sid_to_sd(void *sd, size_t size, const void *sid, uint32_t access) LL_NOEXCEPT;
/* The access the DACL of sd grants sid by entries naming it (the union of
 * its allowing entries; denying entries are not subtracted), stored in
 * *access. Returns 1 when sd has a DACL, 0 when it has none (*access is then
 * all rights), -1 for bad arguments. */
LL_API int qz_sd_access(const void *sd, const void *sid, uint32_t *access) LL_NOEXCEPT;
/* Applies the owner, group and DACL of sd (whichever it has) to a file or
 * directory (UTF-8 name, symbolic links not followed on POSIX). 0 or -1. */
LL_API int qz_set_file_sd(const char *path, const void *sd) LL_NOEXCEPT;
/* The owner, group and DACL of a file into sd; returns the length. */
LL_API int qz_get_file_sd(const char *path, void *sd, size_t size) LL_NOEXCEPT;

/* Grants sid 'access' on an existing named kernel object, keeping what its
 * DACL already grants. Windows: a file mapping, event, mutex or semaphore
 * of that name ("Global\name" included). POSIX: a shared-memory object as
 * shm_open names it; a user who is not the owner becomes the owner (which
 * needs the right to change owners, EPERM otherwise), a group becomes the
 * group, everyone is "others". 0 or -1. */
LL_API int change_object_dacl(const char *object, const void *sid, uint32_t access) LL_NOEXCEPT;
/* The same on an open object: a HANDLE on Windows (opened with WRITE_DAC
 * and READ_CONTROL), a file descriptor on POSIX. */
LL_API int qz_change_handle_dacl(intptr_t object, const void *sid, uint32_t access) LL_NOEXCEPT;

/* ---- accounts ---- */

/* The name of the user the process runs as. Returns its length. */
LL_API int qz_get_username(char *out, size_t size) LL_NOEXCEPT;
/* The administrators' account name: on Windows the built-in Administrators
 * group (S-1-5-32-544) in the system's language; on POSIX the name of user
 * id 0. Returns its length. */
LL_API int qz_get_adminname(char *out, size_t size) LL_NOEXCEPT;
/* 1 when the process runs with administrator rights (Windows: its token is a
 * member of Administrators and the membership is enabled; POSIX: effective
 * user id 0), else 0. */
LL_API int qz_is_admin(void) LL_NOEXCEPT;
/* The domain controller of 'domain' (null: this machine's domain) as
 * "\\name" in out. Returns 1 when one was found, 0 when there is none (POSIX,
 * a machine outside a domain, or no answer from the network: out is then
 * ""), -1 for bad arguments or a buffer too small. */
LL_API int qz_get_dcname(const char *domain, char *out, size_t size) LL_NOEXCEPT;

/* ---- privileges ---- */

/* The privileges a backup and restore program uses. POSIX answers with the
 * first four only, as capabilities: backup = CAP_DAC_READ_SEARCH,
 * restore = CAP_DAC_OVERRIDE, security = CAP_FOWNER, take ownership =
 * CAP_CHOWN (an effective user id 0 without capability support holds all
 * four). */
#define QZ_PRIV_BACKUP 0x001u         /* SeBackupPrivilege */
#define QZ_PRIV_RESTORE 0x002u        /* SeRestorePrivilege */
#define QZ_PRIV_SECURITY 0x004u       /* SeSecurityPrivilege */
#define QZ_PRIV_TAKE_OWNERSHIP 0x008u /* SeTakeOwnershipPrivilege */
#define QZ_PRIV_CHANGE_NOTIFY 0x010u  /* SeChangeNotifyPrivilege */
#define QZ_PRIV_SYMLINK 0x020u        /* SeCreateSymbolicLinkPrivilege */
#define QZ_PRIV_MANAGE_VOLUME 0x040u  /* SeManageVolumePrivilege */
#define QZ_PRIV_QUOTA 0x080u          /* SeIncreaseQuotaPrivilege */
#define QZ_PRIV_PRIMARY_TOKEN 0x100u  /* SeAssignPrimaryTokenPrivilege */
#define QZ_PRIV_IMPERSONATE 0x200u    /* SeImpersonatePrivilege */
#define QZ_PRIV_SHUTDOWN 0x400u       /* SeShutdownPrivilege */
#define QZ_PRIV_ALL 0x7FFu

/* Enables every privilege of the list the process holds and returns the set
 * now enabled; one not held is left out of the result and noted at debug
 * level 3 ("privilege %s not held"), which is not a failure. POSIX changes
 * nothing and reports what the process has. Returns -1 only when the
 * process's rights cannot be read. */
LL_API int SetPrivileges(void) LL_NOEXCEPT;
/* The name of one QZ_PRIV_ bit ("SeBackupPrivilege", ...), null for others. */
LL_API const char *qz_privilege_name(unsigned int priv) LL_NOEXCEPT;

LL_END_DECLS

#endif
