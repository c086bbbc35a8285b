// Process start at its edges on POSIX: standard descriptors handed over
// crosswise (a source that is another slot's target), a new process group
// and a new session.
#include <gtest/gtest.h>

#ifndef _WIN32
#include <unistd.h>

#include <string>

#include "proc_test_util.h"

namespace {

using proctest::child_argv;

// Writes a word to each of its standard outputs, and its group and session
// leaders as seen from inside.
LLTEST_CHILD(std_words) {
  std::printf("to-stdout pgid=%d sid=%d pid=%d\n", static_cast<int>(getpgrp()), static_cast<int>(getsid(0)),
              static_cast<int>(getpid()));
  std::fflush(stdout);
  std::fprintf(stderr, "to-stderr\n");
  return 0;
}

// argv: stdin stdout stderr slots (-1 for the default), then the flags.
// Starts std_words with them and waits for it.
LLTEST_CHILD(std_crosswise) {
  int fds[3] = {std::atoi(argv[0]), std::atoi(argv[1]), std::atoi(argv[2])};
  auto a = child_argv("std_words", {});
  const int id = spawn(std::atoi(argv[3]), a.argv(), nullptr, fds, nullptr);
  if (id < 0) return 3;
  int status = -1;
  if (waitchild(id, &status, 0) != id) return 4;
  return QZ_WEXITCODE(status);
}

TEST(SpawnStdEdge, StandardDescriptorsHandedOverCrosswise) {
  struct Case {
    std::vector<std::string> slots;
    bool out_has_stdout, err_has_stdout, out_has_stderr, err_has_stderr;
  } cases[] = {
      {{"-1", "2", "1", "0"}, false, true, true, false},  // swapped
      {{"-1", "2", "2", "0"}, false, true, false, true},  // both to the caller's error
      {{"-1", "1", "1", "0"}, true, false, true, false},  // both to the caller's output
      {{"-1", "-1", "-1", "0"}, true, false, false, true},
  };
  for (const auto &c : cases) {
    auto r = lltest::run_child("std_crosswise", c.slots);
    const std::string what = c.slots[1] + "," + c.slots[2];
    ASSERT_EQ(r.exit_code, 0) << what;
    EXPECT_EQ(r.out.find("to-stdout") != std::string::npos, c.out_has_stdout) << what;
    EXPECT_EQ(r.err.find("to-stdout") != std::string::npos, c.err_has_stdout) << what;
    EXPECT_EQ(r.out.find("to-stderr") != std::string::npos, c.out_has_stderr) << what;
    EXPECT_EQ(r.err.find("to-stderr") != std::string::npos, c.err_has_stderr) << what;
  }
}

TEST(SpawnStdEdge, NewGroupAndNewSession) {
  struct Case {
    int flags;
    bool own_group, own_session;
  } cases[] = {
      {0, false, false},
      {QZ_SPAWN_NEWGROUP, true, false},
      {QZ_SPAWN_DETACHED, true, true},
  };
  for (const auto &c : cases) {
    auto r = lltest::run_child("std_crosswise", {"-1", "-1", "-1", std::to_string(c.flags)});
    ASSERT_EQ(r.exit_code, 0) << c.flags;
    int pgid = 0, sid = 0, pid = 0;
    const size_t at = r.out.find("pgid=");
    ASSERT_NE(at, std::string::npos) << r.out;
    ASSERT_EQ(std::sscanf(r.out.c_str() + at, "pgid=%d sid=%d pid=%d", &pgid, &sid, &pid), 3);
    EXPECT_EQ(pgid == pid, c.own_group) << c.flags;
    EXPECT_EQ(sid == pid, c.own_session) << c.flags;
  }
}

}  // namespace
#endif
