// Running the map script: its standard output is read through a pipe, like a
// command stream opened for reading, but the run is bounded in time and in
// output so that a script that hangs or never stops printing cannot hold up
// the caller. One implementation per back-end (cluster/posix/script.cpp,
// cluster/win32/script.cpp).
#pragma once
#include "cluster/hxmap.h"

#include <cstddef>

namespace ll::cluster {

struct ScriptLimits {
  unsigned timeout_ms = 30000;         // the whole run, from start to end of output
  size_t max_output = size_t{1} << 20;  // bytes of standard output
};

enum class ScriptEnd {
  ok,              // ended with exit status 0
  failed,          // ended with another status, or by a signal
  not_started,     // could not be started
  timed_out,       // ended by the library at the deadline
  too_much_output  // ended by the library past max_output
};

// True when path names a file this process may run.
bool script_runnable(const char *path) noexcept;

// Runs path with no arguments, standard input from the null device and
// standard error inherited, feeds its standard output to reader (without
// calling finish), and ends it (with anything it started) at either limit.
ScriptEnd run_script(const char *path, const ScriptLimits &limits, LineReader &reader) noexcept;

}  // namespace ll::cluster
