/* A cluster API for the tests: the calls the library makes, answering from a
 * description in the environment variable LLCLU_TEST, so that the native
 * kind can be tested where no cluster service exists.
 *
 *   LLCLU_TEST=group=NAME,STATE,NODE,NETNAME,DISK+DISK;group=...
 *     STATE  online | partial | offline | failed | pending
 *     NODE   the owner node; "here" is this computer's name
 *   LLCLU_TEST=absent       no cluster (OpenCluster fails)
 *
 * Built with LLCLU_PARTIAL, ClusterResourceControl is missing. */
#include <windows.h>

#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include "cluster/win32/clusapi_abi.h"

#define API __declspec(dllexport)
#define MAXG 16
#define MAXD 4

struct group {
  wchar_t name[64], node[64], netname[64], disks[MAXD][8];
  int state, ndisks;
};
static struct group groups[MAXG];
static int ngroups;
static int cluster_token;

static int load_config(void) {
  char cfg[2048];
  DWORD n = GetEnvironmentVariableA("LLCLU_TEST", cfg, sizeof cfg);
  ngroups = 0;
  if (!n || n >= sizeof cfg || strcmp(cfg, "absent") == 0) return 0;
  for (char *item = strtok(cfg, ";"); item && ngroups < MAXG; item = strtok(NULL, ";")) {
    if (strncmp(item, "group=", 6) != 0) continue;
    struct group *g = &groups[ngroups++];
    memset(g, 0, sizeof *g);
    char *f[5] = {0};
    char *p = item + 6;
    for (int i = 0; i < 5; ++i) {
      f[i] = p;
      p = p ? strchr(p, ',') : NULL;
      if (p) *p++ = 0;
    }
    MultiByteToWideChar(CP_UTF8, 0, f[0] ? f[0] : "", -1, g->name, 64);
    const char *st = f[1] ? f[1] : "";
    g->state = !strcmp(st, "online")    ? LLC_GROUP_ONLINE
               : !strcmp(st, "partial") ? LLC_GROUP_PARTIAL_ONLINE
               : !strcmp(st, "offline") ? LLC_GROUP_OFFLINE
               : !strcmp(st, "failed")  ? LLC_GROUP_FAILED
                                        : LLC_GROUP_PENDING;
    if (f[2] && !strcmp(f[2], "here")) {
      DWORD len = 64;
      GetComputerNameW(g->node, &len);
    } else {
      MultiByteToWideChar(CP_UTF8, 0, f[2] ? f[2] : "", -1, g->node, 64);
    }
    MultiByteToWideChar(CP_UTF8, 0, f[3] ? f[3] : "", -1, g->netname, 64);
    for (char *d = f[4]; d && *d && g->ndisks < MAXD;) {
      char *next = strchr(d, '+');
      if (next) *next++ = 0;
      MultiByteToWideChar(CP_UTF8, 0, d, -1, g->disks[g->ndisks++], 8);
      d = next;
    }
  }
  return 1;
}

static DWORD put_name(const wchar_t *s, LPWSTR out, LPDWORD cch) {
  DWORD len = (DWORD)wcslen(s);
  if (*cch <= len) {
    *cch = len;
    return ERROR_MORE_DATA;
  }
  wcscpy(out, s);
  *cch = len;
  return 0;
}

static int find_group(LPCWSTR name) {
  for (int i = 0; i < ngroups; ++i)
    if (!wcscmp(groups[i].name, name)) return i;
  return -1;
}

/* A resource handle: group index, and -1 for the network name or a disk. */
struct res {
  int group, disk;
};

API LLC_HCLUSTER WINAPI OpenCluster(LPCWSTR name) {
  (void)name;
  return load_config() ? (LLC_HCLUSTER)&cluster_token : NULL;
}
API BOOL WINAPI CloseCluster(LLC_HCLUSTER c) { return c == &cluster_token; }
API LLC_HCLUSENUM WINAPI ClusterOpenEnum(LLC_HCLUSTER c, DWORD type) {
  return type == LLC_ENUM_GROUP ? (LLC_HCLUSENUM)c : NULL;
}
API DWORD WINAPI ClusterEnum(LLC_HCLUSENUM e, DWORD i, LPDWORD type, LPWSTR name, LPDWORD cch) {
  (void)e;
  if (i >= (DWORD)ngroups) return ERROR_NO_MORE_ITEMS;
  *type = LLC_ENUM_GROUP;
  return put_name(groups[i].name, name, cch);
}
API DWORD WINAPI ClusterCloseEnum(LLC_HCLUSENUM e) { return e ? 0 : ERROR_INVALID_HANDLE; }
API LLC_HGROUP WINAPI OpenClusterGroup(LLC_HCLUSTER c, LPCWSTR name) {
  (void)c;
  int g = find_group(name);
  return g < 0 ? NULL : (LLC_HGROUP)(INT_PTR)(g + 1);
}
API BOOL WINAPI CloseClusterGroup(LLC_HGROUP g) { return g != NULL; }
API int WINAPI GetClusterGroupState(LLC_HGROUP hg, LPWSTR node, LPDWORD cch) {
  const struct group *g = &groups[(INT_PTR)hg - 1];
  if (node && cch) put_name(g->node, node, cch);
  return g->state;
}
API LLC_HGROUPENUM WINAPI ClusterGroupOpenEnum(LLC_HGROUP g, DWORD type) {
  return type == LLC_GROUP_ENUM_CONTAINS ? (LLC_HGROUPENUM)g : NULL;
}
API DWORD WINAPI ClusterGroupEnum(LLC_HGROUPENUM e, DWORD i, LPDWORD type, LPWSTR name, LPDWORD cch) {
  const int gi = (int)(INT_PTR)e - 1;
  const struct group *g = &groups[gi];
  wchar_t buf[96];
  if (i == 0)
    swprintf(buf, 96, L"%ls name", g->name);
  else if (i <= (DWORD)g->ndisks)
    swprintf(buf, 96, L"%ls disk %u", g->name, (unsigned)i);
  else
    return ERROR_NO_MORE_ITEMS;
  *type = LLC_GROUP_ENUM_CONTAINS;
  return put_name(buf, name, cch);
}
API DWORD WINAPI ClusterGroupCloseEnum(LLC_HGROUPENUM e) { return e ? 0 : ERROR_INVALID_HANDLE; }
API LLC_HRESOURCE WINAPI OpenClusterResource(LLC_HCLUSTER c, LPCWSTR name) {
  (void)c;
  for (int gi = 0; gi < ngroups; ++gi) {
    size_t n = wcslen(groups[gi].name);
    if (wcsncmp(name, groups[gi].name, n) != 0) continue;
    struct res *r = (struct res *)malloc(sizeof *r);
    r->group = gi;
    r->disk = wcscmp(name + n, L" name") == 0 ? -1 : (int)wcstoul(name + n + 6, NULL, 10) - 1;
    return r;
  }
  return NULL;
}
API BOOL WINAPI CloseClusterResource(LLC_HRESOURCE r) {
  free(r);
  return TRUE;
}
API int WINAPI GetClusterResourceState(LLC_HRESOURCE r, LPWSTR a, LPDWORD b, LPWSTR c, LPDWORD d) {
  (void)a, (void)b, (void)c, (void)d;
  const struct group *g = &groups[((struct res *)r)->group];
  return g->state == LLC_GROUP_ONLINE ? 2 : 3; /* online, offline */
}

#ifndef LLCLU_PARTIAL
static BYTE *put_value(BYTE *p, DWORD syntax, const void *data, DWORD len) {
  memcpy(p, &syntax, 4);
  memcpy(p + 4, &len, 4);
  memcpy(p + 8, data, len);
  DWORD padded = (len + 3) & ~3u;
  memset(p + 8 + len, 0, padded - len);
  return p + 8 + padded;
}

API DWORD WINAPI ClusterResourceControl(LLC_HRESOURCE hr, LLC_HNODE node, DWORD code, LPVOID in, DWORD in_size,
                                        LPVOID out, DWORD out_size, LPDWORD returned) {
  (void)node, (void)in, (void)in_size;
  const struct res *r = (const struct res *)hr;
  const struct group *g = &groups[r->group];
  BYTE buf[4096], *p = buf;
  const DWORD end = LLC_SYNTAX_ENDMARK;
  if (code == LLC_CTL_GET_RESOURCE_TYPE) {
    const wchar_t *t = r->disk < 0 ? L"Network Name" : L"Physical Disk";
    DWORD len = (DWORD)(wcslen(t) + 1) * 2;
    memcpy(p, t, len);
    p += len;
  } else if (code == LLC_CTL_GET_PRIVATE_PROPERTIES && r->disk < 0) {
    const DWORD count = 1;
    memcpy(p, &count, 4);
    p = put_value(p + 4, LLC_SYNTAX_NAME, L"Name", 10);
    p = put_value(p, LLC_SYNTAX_LIST_VALUE_SZ, g->netname, (DWORD)(wcslen(g->netname) + 1) * 2);
    memcpy(p, &end, 4);
    p += 4;
  } else if (code == LLC_CTL_STORAGE_GET_DISK_INFO && r->disk >= 0) {
    BYTE part[LLC_PARTITION_INFO_SIZE] = {0};
    memcpy(part + LLC_PARTITION_NAME_OFFSET, g->disks[r->disk], (wcslen(g->disks[r->disk]) + 1) * 2);
    p = put_value(p, LLC_SYNTAX_PARTITION_INFO, part, sizeof part);
    memcpy(p, &end, 4);
    p += 4;
  } else {
    return ERROR_INVALID_FUNCTION;
  }
  *returned = (DWORD)(p - buf);
  if (*returned > out_size) return ERROR_MORE_DATA;
  memcpy(out, buf, *returned);
  return 0;
}
#endif
