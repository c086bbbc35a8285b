// Shared by the process family's portable files: the spawn steps, the
// calling thread's table and its lookups.
#pragma once
#include <cstdint>

#include "proc/process_os.h"

namespace ll::process {

int spawn_impl(int flags, char **argv, qz_fd_set *inherit, int *stdfds, char **env, void *token) noexcept;
// The newest node with that id in the table, or null.
Child *find(ChildTable &t, uint32_t id) noexcept;
// Adds a node; false with ENOMEM.
bool push(ChildTable &t, const Child &c) noexcept;
// The node ended: its object is closed at once, its exit code kept.
void mark_reaped(ChildTable &t, Child &c) noexcept;

}  // namespace ll::process
