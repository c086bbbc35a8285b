// The cluster layer's per-process area.
#pragma once
#include "cluster/cluster_internal.h"

#include <mutex>

namespace ll::cluster {

struct PathNode {
  PathNode *next;
  char *path;
  char *host;  // null until an owner is given
};

struct State {
  std::mutex init_mu;                       // type detection
  std::atomic<bool> ready{false};
  std::atomic<int> type{CLU_TYPE_UNKNOWN};
  std::atomic<clu_hostcmp_fn> cmp{nullptr};

  HxMap map;                                // written once, under init_mu
  bool map_built = false;

  std::mutex mu;                            // the answers below
  std::atomic<int> mode{-1};                // clu_is_cluster_mode, -1: not yet
  std::atomic<int> owner_ignore{-1};        // clu_path_owner_ignore
  char *hostname = nullptr;                 // clus_get_hostname

  PathNode *paths = nullptr;                // not locked (see the header)

  ~State();
};

State *state() noexcept;
bool names_equal(const char *a, const char *b) noexcept;  // ASCII, ignoring case

}  // namespace ll::cluster
