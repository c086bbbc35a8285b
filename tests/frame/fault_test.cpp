// Injected system failures: every exported call below is run with its first,
// second, third ... system call of the armed kinds failing, until a run sees
// no failure left to inject. Each run must end by the call's own failure
// convention (or recover), without a crash, a hang, a leaked descriptor or
// (under the address sanitizer) leaked memory.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <liblocal.h>

#include "lltest.h"

#ifdef _WIN32
#include <winsock2.h>
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#endif

LLTEST_CHILD(fault_exit) { return 0; }

extern "C" void llt_fault_arm(unsigned kinds, long nth, int persistent);
extern "C" long llt_fault_disarm(void);
extern "C" long llt_fault_calls(void);
extern "C" void llt_catalog_set_appdir(const char *dir) noexcept;
extern "C" void llt_catalog_setup(const char *name) noexcept;
#ifdef _WIN32
extern "C" void llt_eventlog_registry(const char *key) noexcept;
#else
extern "C" void llt_eventlog_socket(const char *path) noexcept;
#endif

namespace {

constexpr unsigned kAlloc = 1, kOpen = 2, kIo = 4, kSpawn = 8, kSocket = 16, kRegistry = 32;
constexpr long kMaxRuns = 400;

struct Outcome {
  bool failed = false;  // the call reported a failure by its convention
  long injected = 0;
};

// A child that ends at once, started and reaped; true when spawn refused.
bool spawn_round() {
  std::string self = lltest::self_path();
  char child[] = "--lltest-child", name[] = "fault_exit";
  char *argv[] = {self.data(), child, name, nullptr};
  const int pid = spawn(0, argv, nullptr, nullptr, nullptr);
  if (pid < 0) {
    EXPECT_NE(errno, 0) << "spawn failed without an error number";
    return true;
  }
  int status = -1;
  EXPECT_EQ(waitchild(pid, &status, 0), pid);
  return false;
}

// A command stream read to its end; true when popen refused.
bool popen_round() {
  FILE *f = popen("echo x", "r");
  if (!f) return true;
  char buf[16];
  while (std::fgets(buf, sizeof buf, f)) {
  }
  EXPECT_EQ(pclose(f), 0);
  return false;
}

#ifndef _WIN32
// The file-system table built afresh; true when it could not be (Windows
// builds it without the hooked calls).
bool fstab_round() {
  donefstab();
  errno = 0;
  const bool failed = getfstab(nullptr) == nullptr;
  if (failed) {
    EXPECT_NE(errno, 0);
  }
  return failed;
}
#endif

// A listening socket on loopback; true when a call refused.
bool socket_round() {
  Tcp_Is_Loaded();
  qz_socket_t s = qzsocket(AF_INET, SOCK_STREAM, 0);
  if (s == QZ_INVALID_SOCKET) return true;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool failed = qzbind(s, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || qzlisten(s, 1) != 0;
  if (failed) {
    EXPECT_NE(errno, 0);
  }
  qzsoclose(s);
  return failed;
}

// The event log of a test's own: on Windows the sources live under a key of
// the test's (created afresh for every run, so that each run registers the
// source from the start); on POSIX a system-log listener bound in a temporary
// folder, connected afresh for every run.
class EventLogSink {
 public:
  EventLogSink() {
#ifdef _WIN32
    llt_eventlog_registry("SOFTWARE\\llt_fault_sources");
#else
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    const std::string path = dir_.file("log");
    std::snprintf(sa.sun_path, sizeof sa.sun_path, "%s", path.c_str());
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0);
#endif
  }
  ~EventLogSink() {
#ifdef _WIN32
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\llt_fault_sources\\Baystow");
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\llt_fault_sources");
    llt_eventlog_registry(nullptr);
#else
    llt_eventlog_socket(nullptr);  // closes the library's connection
    close(fd_);
#endif
  }
  void fresh() {
#ifdef _WIN32
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\llt_fault_sources\\Baystow");
#else
    llt_eventlog_socket(dir_.file("log").c_str());
    char buf[16384];
    while (recv(fd_, buf, sizeof buf, MSG_DONTWAIT) > 0) {
    }
#endif
  }

 private:
#ifndef _WIN32
  lltest::TempDir dir_;
  int fd_ = -1;
#endif
};

// The library's event source set up and one event written; true when either
// reported a failure (0 is their only failure value).
bool eventlog_round(EventLogSink &sink) {
  sink.fresh();
  const int setup = event_source_setup("bsw");
  const int sent = eventprintf(QZ_EVENT_INFORMATION, 0, "fault walk %d", 1);
  EXPECT_TRUE(setup == 0 || setup == 1) << setup;
  EXPECT_TRUE(sent == 0 || sent == 1) << sent;
  sink.fresh();  // nothing of the run left open
  return setup == 0 || sent == 0;
}

#ifdef _WIN32
// Two values under a key of the test's own read back through the exported
// registry readers; true when either reported absence (null, 0).
bool registry_round() {
  const char *key = "SOFTWARE\\llt_fault_values";
  uint32_t type = 0, size = 0;
  void *data = retrieve_data_from_registry_win32(HKEY_LOCAL_MACHINE, key, "Text", &type, &size);
  if (data) {
    EXPECT_EQ(type, static_cast<uint32_t>(REG_SZ));
    EXPECT_STREQ(static_cast<char *>(data), "C:\\data");
    std::free(data);
  }
  const uint32_t address = get_registry_ulong(key, "Address");
  if (address) {
    EXPECT_EQ(address, htonl(0x7F000001));
  }
  return !data || !address;
}
#endif

Outcome armed(unsigned kinds, long nth, bool persistent, const std::function<bool()> &body) {
  llt_fault_arm(kinds, nth, persistent ? 1 : 0);
  errno = 0;
  Outcome r;
  r.failed = body();
  r.injected = llt_fault_disarm();
  return r;
}

// Walks N upward; returns the number of runs that had a failure injected.
long walk(const std::string &what, const std::function<Outcome(long)> &run) {
  for (long n = 1; n <= kMaxRuns; ++n) {
    const Outcome r = run(n);
    if (r.injected == 0) {
      EXPECT_FALSE(r.failed) << what << ": failed with nothing injected (run " << n << ")";
      std::printf("%-36s %3ld failure points\n", what.c_str(), n - 1);
      return n - 1;
    }
  }
  ADD_FAILURE() << what << ": still injecting after " << kMaxRuns << " runs";
  return kMaxRuns;
}

// Handle counts are compared by the stress programs on Windows.
long open_descriptors() { return lltest::kWindows ? -1 : lltest::open_handles(); }

// A record returned for a failure names one.
bool record_failed(const qzerror *e) {
  EXPECT_NE(QZERR_NUMBER(e->code), 0);
  return true;
}

bool shmem_round(int kind, unsigned key) {
  shmem_obj *o = reinterpret_cast<shmem_obj *>(1);
  if (qzerror *e = shmem_create(key, 8192, 64, kind, &o)) {
    EXPECT_EQ(o, nullptr);
    return record_failed(e);
  }
  EXPECT_NE(o, nullptr);
  bool failed = false;
  if (kind == SHMEM_NT) {
    shmem_obj *m = reinterpret_cast<shmem_obj *>(1);
    if (qzerror *e = shmem_map(o->name, 4096, 0, &m)) {
      EXPECT_EQ(m, nullptr);
      failed = record_failed(e);
    } else {
      m->ops->release(&m);
    }
  }
  o->ops->release(&o);
  return failed;
}

struct Tree {
  lltest::TempDir dir;
  Tree() {
    std::filesystem::create_directories(dir.file("a") + "/b/c");
    dir.write("one", "1");
    dir.write("a/two", "2");
    dir.write("a/b/three", "3");
  }
};

bool walk_tree(const std::string &root) {
  struct Seen {
    int entries = 0, errors = 0;
  } seen;
  const int rc = qz_dtree_walk(root.c_str(), 0, [](const qz_dtree_entry *e, void *arg) {
    auto *s = static_cast<Seen *>(arg);
    ++s->entries;
    if (e->visit == QZ_DTV_ERROR) {
      EXPECT_NE(e->error, 0) << e->path;
      ++s->errors;
    }
    return QZ_DTW_CONTINUE;
  }, &seen);
  if (rc == -1) {
    EXPECT_NE(errno, 0);
    return true;
  }
  EXPECT_EQ(rc, 0);
  EXPECT_GT(seen.entries, 0);
  return seen.errors > 0;
}

bool list_folder(const std::string &path) {
  QZDIR *d = qz_opendir(path.c_str());
  if (!d) {
    EXPECT_NE(errno, 0);
    return true;
  }
  int n = 0;
  while (qz_readdir(d)) ++n;
  EXPECT_EQ(qz_closedir(d), 0);
  EXPECT_EQ(n, 2);
  return false;
}

bool open_file(const std::string &path) {
  FILE *f = qzfopen(path.c_str(), "r");
  if (!f) {
    EXPECT_NE(errno, 0);
    return true;
  }
  qzfclose(f);
  const int fd = ll_open64(path.c_str(), 0);
  if (fd < 0) {
    EXPECT_NE(errno, 0);
    return true;
  }
  qzclose(fd);
  return false;
}

// The locale step reads the application's language file and opens the
// library's catalog; a lookup then always has a text (the default at worst).
bool catalog_round(const std::string &appdir) {
  llt_catalog_set_appdir(appdir.c_str());
  llt_catalog_setup("bsw");
  const char *t = qzcatgets(Catd, 17, 292, "Cannot alloc for tokens\n");
  EXPECT_STREQ(t, "Cannot alloc for tokens\n");
  if (Catd >= 0) qzcatclose(Catd);
  Catd = -1;
  llt_catalog_set_appdir(nullptr);
  return false;
}

bool tokenize_line() {
  char line[] = "one \"two three\" four";
  int count = -1;
  char **vec = nullptr;
  if (qzerror *e = tokenize(line, &count, &vec, nullptr, 1)) return record_failed(e);
  EXPECT_EQ(count, 3);
  std::free(vec);
  return false;
}

// A fresh thread: its data area and its record buffer are made on first use.
bool error_record_on_fresh_thread() {
  qzerror *e = err_setstr(QZERR_T_SYSTEM, 3005, "%s %d", "disk", 5);
  if (!e) return true;  // nothing set: the buffer could not be had
  EXPECT_EQ(QZERR_NUMBER(e->code), 5);
  EXPECT_STREQ(e->text, "disk 5");
  return false;
}

bool start_thread() {
  qz_thr_t *t = reinterpret_cast<qz_thr_t *>(1);
  if (!qz_thr_create(&t, [](void *) -> void * { return reinterpret_cast<void *>(7); }, nullptr)) {
    EXPECT_EQ(t, nullptr);
    return true;
  }
  uint32_t status = 0;
  int nowait = 0;
  EXPECT_EQ(qz_thr_wait(t, &status, &nowait), 1);
  EXPECT_EQ(status, 7u);
  qz_thr_destroy(t);
  return false;
}

// A saved record comes back whole, or (its copy could not be made) not at all.
bool save_and_restore() {
  qzerror rec{QZERR_CODE(QZERR_T_SYSTEM, 3, 5), const_cast<char *>("saved text")};
  err_save(&rec);
  qzerror *back = err_restore(err_save(&rec));
  if (!back) return true;
  EXPECT_EQ(back->code, rec.code);
  EXPECT_STREQ(back->text, "saved text");
  return false;
}

int quiet(FILE *, const char *, va_list) { return 0; }

}  // namespace

TEST(Fault, SeamCountsAndFailsTheNthCallOfAKind) {
  lltest::TempDir dir;
  dir.write("f", "x");
  const std::string f = dir.file("f");
  llt_fault_arm(kOpen, 2, 0);
  FILE *a = qzfopen(f.c_str(), "r");
  errno = 0;
  EXPECT_EQ(qzfopen(f.c_str(), "r"), nullptr);
  EXPECT_EQ(errno, EMFILE);
  FILE *c = qzfopen(f.c_str(), "r");
  EXPECT_EQ(llt_fault_calls(), 3);
  EXPECT_EQ(llt_fault_disarm(), 1);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(c, nullptr);
  qzfclose(a);
  qzfclose(c);
  // Another thread is never armed by this one.
  llt_fault_arm(kOpen, 1, 1);
  std::thread([&] {
    FILE *g = qzfopen(f.c_str(), "r");
    EXPECT_NE(g, nullptr);
    if (g) qzfclose(g);
  }).join();
  EXPECT_EQ(llt_fault_disarm(), 0);
}

TEST(Fault, NeverFailingAllocatorsCallTheHandlerAndRetry) {
  static int calls;
  calls = 0;
  qz_xmalloc_handler old = set_xmalloc_failed([](size_t) { ++calls; });
  const Outcome r = armed(kAlloc, 1, false, [] {
    void *p = xmalloc(64);
    void *q = xcalloc(4, 4);
    EXPECT_NE(p, nullptr);
    EXPECT_NE(q, nullptr);
    std::free(p);
    std::free(q);
    return false;
  });
  set_xmalloc_failed(old);
  EXPECT_EQ(r.injected, 1);
  EXPECT_EQ(calls, 1);
}

TEST(Fault, EveryInjectedFailureKeepsTheCallsConvention) {
  Tree tree;
  lltest::TempDir app;
  std::filesystem::create_directories(app.file("gls"));
  app.write("gls/GL_LANG", "en_US.UTF-8\n");
  const std::string file = tree.dir.file("one"), folder = tree.dir.file("a");
  qz_vfprintf_fn old = set_vfprintf(quiet);  // the refusals print their messages
  qz_xmalloc_handler old_handler = set_xmalloc_failed([](size_t) {});  // retry at once
  EventLogSink sink;
#ifdef _WIN32
  ASSERT_EQ(RegSetKeyValueA(HKEY_LOCAL_MACHINE, "SOFTWARE\\llt_fault_values", "Text", REG_SZ, "C:\\data", 8), 0);
  ASSERT_EQ(RegSetKeyValueA(HKEY_LOCAL_MACHINE, "SOFTWARE\\llt_fault_values", "Address", REG_SZ, "127.0.0.1", 10), 0);
#endif
  (void)Win32OSVersion();  // the class is asked once per process: not inside a walk
  unsigned key = 0x7E5A0000u + static_cast<unsigned>(std::rand() % 0x1000) * 16;
  struct Case {
    const char *name;
    unsigned kinds;
    bool persistent_too;  // the never-failing allocators retry forever under a lasting failure
    std::function<bool()> body;
  };
  const Case cases[] = {
      {"shmem_create nt + shmem_map", kAlloc | kOpen | kIo, false, [&] { return shmem_round(SHMEM_NT, ++key); }},
      {"shmem nt, files only", kOpen | kIo, true, [&] { return shmem_round(SHMEM_NT, ++key); }},
      {"shmem_create private", kAlloc, false, [&] { return shmem_round(SHMEM_PRIVATE, ++key); }},
      {"qz_dtree_walk", kAlloc | kOpen | kIo, false, [&] { return walk_tree(tree.dir.path()); }},
      {"qz_dtree_walk, files only", kOpen | kIo, true, [&] { return walk_tree(tree.dir.path()); }},
      {"qz_opendir/qz_readdir", kAlloc | kOpen | kIo, true, [&] { return list_folder(folder); }},
      {"qzfopen/ll_open64", kOpen, true, [&] { return open_file(file); }},
      {"catalog", kAlloc | kOpen | kIo, false, [&] { return catalog_round(app.path()); }},
      {"tokenize", kAlloc, true, [] { return tokenize_line(); }},
      {"err_save/err_restore", kAlloc, true, [] { return save_and_restore(); }},
      {"qz_thr_create", kAlloc | kSpawn, false, [] { return start_thread(); }},
      {"qz_thr_create, threads only", kSpawn, true, [] { return start_thread(); }},
      {"spawn + waitchild", kOpen | kSpawn, true, [] { return spawn_round(); }},
      {"popen + pclose", kOpen | kSpawn, true, [] { return popen_round(); }},
      {"qzsocket + qzbind + qzlisten", kSocket, true, [] { return socket_round(); }},
      // The registry on Windows, the system log's socket on POSIX.
      {"event_source_setup + eventprintf", kRegistry | kSocket, true, [&] { return eventlog_round(sink); }},
#ifndef _WIN32
      {"getfstab", kOpen | kIo, true, [] { return fstab_round(); }},
#else
      {"registry readers", kRegistry, true, [] { return registry_round(); }},
#endif
  };
  const long fds = open_descriptors();
  for (const Case &c : cases) {
    for (bool persistent : {false, true}) {
      if (persistent && !c.persistent_too) continue;
      const std::string what = std::string(c.name) + (persistent ? " (lasting)" : "");
      const long paths = walk(what, [&](long n) { return armed(c.kinds, n, persistent, c.body); });
      EXPECT_GT(paths, 0) << what << ": no failure reached it";
    }
  }
  const long paths = walk("err_setstr on a fresh thread", [](long n) {
    Outcome r;
    std::thread([&] { r = armed(kAlloc, n, false, error_record_on_fresh_thread); }).join();
    return r;
  });
  EXPECT_GT(paths, 0);
#ifdef _WIN32
  RegDeleteKeyA(HKEY_LOCAL_MACHINE, "SOFTWARE\\llt_fault_values");
#endif
  set_vfprintf(old);
  set_xmalloc_failed(old_handler);
  llt_catalog_setup("bsw");
  EXPECT_EQ(open_descriptors(), fds) << "descriptors leaked";
}
