// The calls this layer makes into host identity and the file-system table.
#include "cluster/cluster_internal.h"

namespace ll::cluster {

clu_hostcmp_fn startup_compare() noexcept { return nullptr; }

const char *local_host() noexcept { return "localhost"; }

bool resolve_name(const char *, Resolved *) noexcept { return false; }

bool resolve_addr4(const char *, std::string *) noexcept { return false; }

FsCheck fstab_check(const char *) noexcept { return FsCheck::table_failed; }

}  // namespace ll::cluster
