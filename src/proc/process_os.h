// Processes, children and pipes on the operating system, one implementation
// per back-end (proc/posix/*.cpp, proc/win32/*.cpp). The portable code
// (spawn.cpp, wait.cpp, kill.cpp, popen.cpp) keeps the
// child tables, the order of the steps and the results; the back-ends create,
// wait and signal. No platform types here.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <liblocal/socket.h>
#include <liblocal/thread.h>

namespace ll::process {

// One node of a thread's child table.
struct Child {
  intptr_t obj = -1;        // what a wait waits on: POSIX a process descriptor or, for a
                            // thread, an event descriptor; Windows a process handle or an event
  uint32_t id = 0;          // process or thread id
  bool is_thread = false;
  bool reaped = false;      // a wait has seen it end; removed at the next waitchild
  int code = 0;             // exit code, once it ended
  bool lost = false;        // it ended, but the system reaped it (SIGCHLD ignored)
  qz_thr_t *thr = nullptr;  // thread nodes: the thread record
  intptr_t aux = 0;         // the back-end's own (a registered wait)
};

// The calling thread's children, oldest first (the newest is searched first).
struct ChildTable {
  std::vector<Child> nodes;
  intptr_t waitset = -1;    // the back-end's object that waits for many nodes at once
  int reaped = 0;           // nodes marked reaped, not yet removed
  ChildTable() = default;
  ChildTable(const ChildTable &) = delete;
  ChildTable &operator=(const ChildTable &) = delete;
  ~ChildTable();
};
ChildTable &table() noexcept;

// What a spawn asks of the system.
struct SpawnReq {
  int flags = 0;
  const char *path = nullptr;         // the resolved program, UTF-8
  char **argv = nullptr;              // the caller's words (argv[0] as given)
  const qz_fd_set *inherit = nullptr; // completed set, or null
  const int *stdfds = nullptr;        // the triple, or null
  std::vector<std::string> env;       // "BSW_MAST=..." then the caller's strings
  void *token = nullptr;              // a qz_spawn_user (POSIX) or a HANDLE (Windows)
};

namespace os {
// Creates the process; on success fills the node (obj, id) and returns 0;
// -1 with errno otherwise (a failed exec of the program reports its errno).
int create(const SpawnReq &req, Child &node) noexcept;
// Process ids and the program search where the back-end needs them.
uint32_t own_pid() noexcept;

// A node was added to the table / the table has no node left to wait for.
void added(ChildTable &t, Child &c) noexcept;
// The node's object is no longer needed: undoes what added() did, closes it.
void release(ChildTable &t, Child &c) noexcept;
void table_closed(ChildTable &t) noexcept;

// Waits for one node (ms 0: a poll; kInfinite: no limit): 1 ended (code
// stored for processes), 0 not yet, -1 failure (errno).
int wait_one(Child &c, uint32_t ms) noexcept;
// Waits for any of the nodes; returns the index of one that ended (newest
// first among those found ended together), -2 on time-out, -1 failure.
// A node found ended whose status is lost comes back with 'lost' set.
int wait_any(ChildTable &t, uint32_t ms) noexcept;
constexpr uint32_t kInfinite = 0xFFFFFFFFu;

// The pass-through status of an id that is not in the table.
int foreign_code(uint32_t id) noexcept;

// Ends a process child with code 9: 0, or -1 with errno.
int terminate(Child &c) noexcept;
// Asks a process to stop (its kill event / the stop signal); node may be
// null. 0, or -1 with errno (a debug line says why).
int request_stop(uint32_t id, Child *node) noexcept;
// 0 when the process exists, -1 with ESRCH when not.
int probe(uint32_t id, Child *node) noexcept;

// Events for thread nodes: set once when the thread's function returned or
// the thread was killed.
intptr_t done_new() noexcept;
void done_set(intptr_t e) noexcept;
void close_obj(intptr_t obj) noexcept;

// Pipes: {read, write} descriptors, close-on-exec / not inheritable.
int make_pipe(int fds[2]) noexcept;
void close_fd(int fd) noexcept;
// The words that run a command line through the command interpreter, the
// words owned by 'store'; false with errno when it cannot be split.
bool command_words(const char *command, std::vector<std::string> &store) noexcept;

// nice for the calling thread.
int thread_nice(int increment) noexcept;

int setup_stdfds(const char *path) noexcept;
void openstdfiles() noexcept;
void closenstdfiles(int keep) noexcept;
}  // namespace os

}  // namespace ll::process
