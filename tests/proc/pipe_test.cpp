// pipe, popen/pclose and nice.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <string>
#include <thread>

#include "lltest.h"
#include "proc_test_util.h"
#include <liblocal/fileio.h>
#include <liblocal/process.h>

#ifndef _WIN32
#  include <fcntl.h>
#  include <sys/resource.h>
#  include <sys/syscall.h>
#  include <unistd.h>
#endif

namespace {

std::string read_stream(FILE *fp) {
  std::string s;
  char buf[256];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, fp)) > 0) s.append(buf, n);
  if (lltest::kWindows) std::erase(s, '\r');
  return s;
}

std::string self_command(const std::string &child_and_args) {
  return "\"" + lltest::self_path() + "\" --lltest-child " + child_and_args;
}

}  // namespace

LLTEST_CHILD(say) {
  std::printf("%s\n", argv[0]);
  return argc > 1 ? std::atoi(argv[1]) : 0;
}

LLTEST_CHILD(count_stdin) {
  size_t n = 0;
  while (std::getchar() != EOF) ++n;
  return static_cast<int>(n % 256);
}

TEST(Pipe, EndsCarryDataAndStayOutOfChildren) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  EXPECT_EQ(proctest::write_fd(fds[1], "abc"), 3);
  char buf[4] = {};
  EXPECT_EQ(proctest::read_fd(fds[0], buf, 3), 3);
  EXPECT_STREQ(buf, "abc");
#ifndef _WIN32
  EXPECT_TRUE(fcntl(fds[0], F_GETFD) & FD_CLOEXEC);
  EXPECT_TRUE(fcntl(fds[1], F_GETFD) & FD_CLOEXEC);
#endif
  proctest::close_fd(fds[0]);
  proctest::close_fd(fds[1]);
  errno = 0;
  EXPECT_EQ(pipe(nullptr), -1);
  EXPECT_EQ(errno, EMFILE);
}

TEST(Popen, ReadAndWriteModes) {
  const int before = lltest::open_handles();
  FILE *r = popen(self_command("say hello 1").c_str(), "rb");  // only the first letter counts
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(read_stream(r), "hello\n");
  EXPECT_EQ(pclose(r), 256);

  FILE *w = popen(self_command("count_stdin").c_str(), "w");
  ASSERT_NE(w, nullptr);
  for (int i = 0; i < 1000; ++i) std::fputs("0123456789", w);
  EXPECT_EQ(pclose(w), (10000 % 256) << 8);
  EXPECT_EQ(lltest::open_handles(), before);
}

TEST(Popen, BadInput) {
  errno = 0;
  EXPECT_EQ(popen(nullptr, "r"), nullptr);
  EXPECT_EQ(popen("echo x", nullptr), nullptr);
  EXPECT_EQ(popen("echo x", "x"), nullptr);
  EXPECT_EQ(popen("echo x", ""), nullptr);
  EXPECT_EQ(pclose(nullptr), -1);
  // A stream popen did not return is closed, and the result is -1.
  lltest::TempDir d;
  d.write("f", "x");
  FILE *fp = qzfopen(d.file("f").c_str(), "r");
  ASSERT_NE(fp, nullptr);
  EXPECT_EQ(pclose(fp), -1);
}

TEST(Popen, TwoThreadsEachSeeTheirOwnEnd) {
  std::atomic<int> ok{0};
  auto reader = [&](const char *word) {
    for (int i = 0; i < 5; ++i) {
      FILE *fp = popen(self_command(std::string("say ") + word).c_str(), "r");
      if (!fp) return;
      const bool same = read_stream(fp) == std::string(word) + "\n";
      if (pclose(fp) == 0 && same) ++ok;
    }
  };
  std::thread a(reader, "first"), b(reader, "second");
  a.join();
  b.join();
  EXPECT_EQ(ok, 10);
}

TEST(Popen, PcloseFromAnotherThreadFails) {
  FILE *fp = popen(self_command("say x").c_str(), "r");
  ASSERT_NE(fp, nullptr);
  int other = 0;
  std::thread([&] { other = pclose(fp); }).join();
  EXPECT_EQ(other, -1);
  // The child is still this thread's to reap (its output may have met a
  // closed pipe).
  EXPECT_GT(waitchild(-1, nullptr, 0), 0);
}

#ifndef _WIN32
TEST(Nice, ChangesOnlyTheCallingThread) {
  std::thread([] {
    const id_t tid = static_cast<id_t>(syscall(SYS_gettid));
    const int start = getpriority(PRIO_PROCESS, tid);
    const int main_start = getpriority(PRIO_PROCESS, static_cast<id_t>(getpid()));
    EXPECT_EQ(nice(5), 0);  // 0, not the new value
    EXPECT_EQ(getpriority(PRIO_PROCESS, tid), std::min(start + 5, 19));
    EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(getpid())), main_start);
    EXPECT_EQ(nice(INT_MAX), 0);
    EXPECT_EQ(getpriority(PRIO_PROCESS, tid), 19);
    EXPECT_EQ(nice(INT_MIN), 0);  // as root: back to the top
    EXPECT_EQ(getpriority(PRIO_PROCESS, tid), -20);
  }).join();
}
#endif

#ifdef _WIN32
TEST(Nice, MapsOntoThreadPriorities) {
  std::thread([] {
    HANDLE self = GetCurrentThread();
    struct Case {
      int start, increment, want;
    } cases[] = {{0, 5, 0},         {0, 10, -1},      {0, -20, 2},      {-1, -10, 0},
                 {2, INT_MAX, -2},  {0, INT_MIN, 2},  {15, 0, 0},       {1, 9, 0}};
    for (const Case &c : cases) {
      SetThreadPriority(self, c.start);
      EXPECT_EQ(nice(c.increment), 0) << c.start << " " << c.increment;
      EXPECT_EQ(GetThreadPriority(self), c.want) << c.start << " " << c.increment;
    }
  }).join();
}
#endif
