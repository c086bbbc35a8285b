// The operating system's cluster service, one implementation per back-end
// (cluster/win32/native.cpp through the cluster API loaded by name;
// cluster/posix/native.cpp, where there is none).
#pragma once
#include <string>
#include <vector>

namespace ll::cluster::native {

// A resource group of the cluster as this node sees it.
struct Group {
  std::string name;
  std::string network_name;        // the virtual host (its network-name resource)
  bool online_here = false;        // online (or partly online) on this node
  std::vector<std::string> disks;  // volume roots of its disk resources ("E:\")
};

// Tests: the library to load instead of the system's (before the first load).
void set_library(const char *name) noexcept;
// Loads the cluster API once; true when every entry point was found.
bool load() noexcept;
// True when the API is loaded and a cluster answers on the local machine.
bool present() noexcept;
// The cluster's groups (empty without a cluster).
std::vector<Group> groups() noexcept;
// True when name is the network name of a group online on this node.
bool is_local_virtual_host(const char *name) noexcept;
// The network name of the group that owns the disk holding path.
bool disk_owner(const char *path, std::string *owner) noexcept;

}  // namespace ll::cluster::native
