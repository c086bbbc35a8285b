/* The cluster API's calls and data as the library uses them (the platform's
 * published interface of clusapi). Plain C: the test cluster library of the
 * test suite implements the same calls. Include after <windows.h>. */
#ifndef LL_CLUSAPI_ABI_H
#define LL_CLUSAPI_ABI_H

typedef void *LLC_HCLUSTER, *LLC_HCLUSENUM, *LLC_HGROUP, *LLC_HGROUPENUM, *LLC_HRESOURCE, *LLC_HNODE;

#define LLC_ENUM_GROUP 0x00000008u           /* ClusterOpenEnum: groups */
#define LLC_GROUP_ENUM_CONTAINS 0x00000001u  /* ClusterGroupOpenEnum: resources */

/* Group states. */
#define LLC_GROUP_STATE_UNKNOWN (-1)
#define LLC_GROUP_ONLINE 0
#define LLC_GROUP_OFFLINE 1
#define LLC_GROUP_FAILED 2
#define LLC_GROUP_PARTIAL_ONLINE 3
#define LLC_GROUP_PENDING 4

/* Resource control codes (object resource, read access). */
#define LLC_CTL_GET_RESOURCE_TYPE 0x0100002Du
#define LLC_CTL_GET_PRIVATE_PROPERTIES 0x01000081u
#define LLC_CTL_STORAGE_GET_DISK_INFO 0x01000191u

/* Value syntaxes of property and value lists: a DWORD syntax, a DWORD
 * length, the data padded to a multiple of 4 bytes. */
#define LLC_SYNTAX_ENDMARK 0x00000000u
#define LLC_SYNTAX_NAME 0x00040003u
#define LLC_SYNTAX_LIST_VALUE_SZ 0x00010003u
#define LLC_SYNTAX_PARTITION_INFO 0x00080001u

/* The partition data of a disk: the device name ("E:") comes first after
 * the flags. */
#define LLC_PARTITION_NAME_OFFSET 4
#define LLC_PARTITION_INFO_SIZE (4 + 2 * 260 * 2 + 4 * 4 + 32 * 2)

typedef LLC_HCLUSTER(WINAPI *llc_OpenCluster)(LPCWSTR);
typedef BOOL(WINAPI *llc_CloseCluster)(LLC_HCLUSTER);
typedef LLC_HCLUSENUM(WINAPI *llc_ClusterOpenEnum)(LLC_HCLUSTER, DWORD);
typedef DWORD(WINAPI *llc_ClusterEnum)(LLC_HCLUSENUM, DWORD, LPDWORD, LPWSTR, LPDWORD);
typedef DWORD(WINAPI *llc_ClusterCloseEnum)(LLC_HCLUSENUM);
typedef LLC_HGROUP(WINAPI *llc_OpenClusterGroup)(LLC_HCLUSTER, LPCWSTR);
typedef BOOL(WINAPI *llc_CloseClusterGroup)(LLC_HGROUP);
typedef int(WINAPI *llc_GetClusterGroupState)(LLC_HGROUP, LPWSTR, LPDWORD);
typedef LLC_HGROUPENUM(WINAPI *llc_ClusterGroupOpenEnum)(LLC_HGROUP, DWORD);
typedef DWORD(WINAPI *llc_ClusterGroupEnum)(LLC_HGROUPENUM, DWORD, LPDWORD, LPWSTR, LPDWORD);
typedef DWORD(WINAPI *llc_ClusterGroupCloseEnum)(LLC_HGROUPENUM);
typedef LLC_HRESOURCE(WINAPI *llc_OpenClusterResource)(LLC_HCLUSTER, LPCWSTR);
typedef BOOL(WINAPI *llc_CloseClusterResource)(LLC_HRESOURCE);
typedef int(WINAPI *llc_GetClusterResourceState)(LLC_HRESOURCE, LPWSTR, LPDWORD, LPWSTR, LPDWORD);
typedef DWORD(WINAPI *llc_ClusterResourceControl)(LLC_HRESOURCE, LLC_HNODE, DWORD, LPVOID, DWORD, LPVOID, DWORD,
                                                  LPDWORD);

#endif
