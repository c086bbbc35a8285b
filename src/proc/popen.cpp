// pipe, command streams (popen/pclose) and nice.
//
// The open command streams form one process-wide list under the
// command-stream lock; the child behind a stream is in the table of the
// thread that opened it, so only that thread can close it with its status.
#include <liblocal/process.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <string>
#include <vector>

#include "frame/areas.h"
#include "proc/process_os.h"
#include "proc/spawn_internal.h"
#include <liblocal/fileio.h>

namespace ll::process {
namespace {

struct Stream {
  FILE *fp;
  int pid;
};

struct StreamList {
  std::vector<Stream> list;  // newest last
};

StreamList &streams() noexcept { return *ll::process_area<StreamList>(); }
std::recursive_mutex &streams_lock() noexcept { return *ll::proc()->cs[1]; }

void close_fd(int fd) noexcept { os::close_fd(fd); }

}  // namespace
}  // namespace ll::process

using namespace ll::process;

extern "C" {

LL_API int ll_pipe(int fds[2]) noexcept {
  if (!fds || os::make_pipe(fds) != 0) {
    errno = EMFILE;
    return -1;
  }
  return 0;
}

LL_API FILE *ll_popen(const char *command, const char *mode) noexcept {
  if (!command || !mode || (mode[0] != 'r' && mode[0] != 'w')) {
    errno = EINVAL;
    return nullptr;
  }
  const bool reading = mode[0] == 'r';
  std::vector<std::string> words;
  std::vector<char *> argv;
  try {
    if (!os::command_words(command, words)) return nullptr;
    for (std::string &w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
  } catch (...) {
    errno = ENOMEM;
    return nullptr;
  }
  int fds[2];
  if (ll_pipe(fds) != 0) return nullptr;
  int triple[3] = {-1, -1, -1};
  int mine, theirs;
  if (reading) {
    triple[1] = theirs = fds[1];
    mine = fds[0];
  } else {
    triple[0] = theirs = fds[0];
    mine = fds[1];
  }
  const int pid = spawn_impl(QZ_SPAWN_INTERPRETER | 2, argv.data(), nullptr, triple, nullptr, nullptr);
  const int saved = errno;
  close_fd(theirs);
  if (pid < 0) {
    close_fd(mine);
    errno = saved;
    return nullptr;
  }
  FILE *fp = fdopen(mine, reading ? "r" : "w");
  if (!fp) {
    close_fd(mine);
    waitchild(pid, nullptr, 0);
    errno = ENOMEM;
    return nullptr;
  }
  std::lock_guard<std::recursive_mutex> g(streams_lock());
  try {
    streams().list.push_back({fp, pid});
  } catch (...) {
    fclose(fp);
    waitchild(pid, nullptr, 0);
    errno = ENOMEM;
    return nullptr;
  }
  return fp;
}

LL_API int ll_pclose(FILE *stream) noexcept {
  if (!stream) {
    errno = EINVAL;
    return -1;
  }
  int pid = 0;
  {
    std::lock_guard<std::recursive_mutex> g(streams_lock());
    auto &l = streams().list;
    auto it = std::find_if(l.begin(), l.end(), [stream](const Stream &s) { return s.fp == stream; });
    if (it != l.end()) {
      pid = it->pid;
      l.erase(it);
    }
  }
  qzfclose(stream);
  if (pid == 0) {
    errno = EINVAL;
    return -1;
  }
  // Only the thread that opened the stream has the child in its table.
  ChildTable &t = table();
  Child *c = find(t, static_cast<uint32_t>(pid));
  if (!c || c->reaped) {
    errno = ECHILD;
    return -1;
  }
  int status;
  return waitchild(pid, &status, 0) == pid ? status : -1;
}

LL_API int ll_nice(int increment) noexcept { return os::thread_nice(increment); }

LL_API int setup_stdfds(const char *path) noexcept {
  if (!path || !*path) {
    errno = EINVAL;
    return -1;
  }
  return os::setup_stdfds(path);
}

LL_API void qz_openstdfiles(void) noexcept { os::openstdfiles(); }

LL_API void qz_closenstdfiles(int keep) noexcept { os::closenstdfiles(keep); }

}  // extern "C"
