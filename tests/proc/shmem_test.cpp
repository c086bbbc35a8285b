// Shared-memory blocks between real processes: names, the lock word, reuse,
// refusals, and what is left behind.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "lltest.h"
#include <liblocal/frame.h>
#include <liblocal/shmem.h>

#ifndef _WIN32
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#else
#include <process.h>

#include <utility>
#include <vector>

#include "frame/win32/win.h"
#include <aclapi.h>
#endif

namespace {

constexpr int kEIO = 5;
constexpr int kEINVAL = 22;
constexpr int kRounds = 1000000;

// Block layout of the two-process tests.
constexpr unsigned kSize = 4096;
constexpr unsigned kCounter = 64;   // int64
constexpr unsigned kReady = 128;    // int32 per side

unsigned my_pid() {
#ifdef _WIN32
  return static_cast<unsigned>(_getpid());
#else
  return static_cast<unsigned>(getpid());
#endif
}

// Keys of this process: tests running side by side do not meet.
unsigned key(unsigned n) { return (my_pid() & 0xFFFFFu) * 64 + n; }

std::string nt_name(unsigned k) { return "nt:Global\\qztsm" + std::to_string(k); }

int number_of(const qzerror *e) { return e ? QZERR_NUMBER(e->code) : 0; }

template <class T>
T *at(shmem_obj *o, unsigned off) {
  return reinterpret_cast<T *>(static_cast<char *>(o->base) + off);
}

void add_under_lock(shmem_obj *o, int rounds) {
  auto *counter = at<int64_t>(o, kCounter);
  for (int i = 0; i < rounds; ++i) {
    while (!o->ops->try_lock(o)) std::this_thread::yield();
    *counter = *counter + 1;
    o->ops->unlock(o);
  }
}

// Marks side 'me' ready and waits (bounded) for the other side.
bool meet(shmem_obj *o, int me) {
  auto *ready = at<volatile int32_t>(o, kReady);
  __atomic_store_n(&ready[me], 1, __ATOMIC_SEQ_CST);
  for (int i = 0; i < 30000; ++i) {
    if (__atomic_load_n(&ready[1 - me], __ATOMIC_SEQ_CST)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

LLTEST_CHILD(shmem_adder) {
  shmem_obj *o = nullptr;
  if (shmem_map(argv[0], kSize, 0, &o)) return 2;
  if (!meet(o, 1)) return 3;
  add_under_lock(o, kRounds);
  o->ops->release(&o);
  return o ? 4 : 0;
}

// Maps the object and checks the counter's 4242: 0, 3, or 10 + the error's number.
int read_counter(const char *name) {
  shmem_obj *o = nullptr;
  qzerror *e = shmem_map(name, kSize, 0, &o);
  if (e) return 10 + number_of(e) % 100;
  const int v = *at<int32_t>(o, kCounter);
  o->ops->release(&o);
  return v == 4242 ? 0 : 3;
}

LLTEST_CHILD(shmem_reader) { return read_counter(argv[0]); }

LLTEST_CHILD(shmem_recreate) {
  Debug = 1;
  const unsigned k = static_cast<unsigned>(std::strtoul(argv[0], nullptr, 10));
  shmem_obj *a = nullptr, *b = nullptr;
  if (shmem_create(k, kSize, 0, SHMEM_NT, &a)) return 2;
  std::memset(a->base, 0x5A, kSize);
  a->ops->try_lock(a);
  if (shmem_create(k, kSize, 0, SHMEM_NT, &b)) return 3;
  const auto *p = static_cast<const unsigned char *>(a->base);
  for (unsigned i = 0; i < kSize; ++i)
    if (p[i]) return 4;  // the second create cleared the block under the first view too
  if (!b->ops->try_lock(b)) return 5;
  b->ops->release(&b);
  a->ops->release(&a);
  return 0;
}

TEST(Shmem, TwoProcessesCountUnderTheLockWord) {
  shmem_obj *o = nullptr;
  ASSERT_EQ(shmem_create(key(1), kSize, 0, SHMEM_NT, &o), nullptr);
  lltest::ChildResult child;
  std::thread t([&] { child = lltest::run_child("shmem_adder", {o->name}, {}, 240000); });
  ASSERT_TRUE(meet(o, 0));
  add_under_lock(o, kRounds);
  t.join();
  EXPECT_EQ(child.exit_code, 0) << child.err;
  EXPECT_EQ(*at<int64_t>(o, kCounter), 2 * int64_t{kRounds});
  EXPECT_EQ(*o->lock_word, 0);
  o->ops->release(&o);
  EXPECT_EQ(o, nullptr);
}

// The private kind's lock between threads (what the thread sanitizer checks:
// taking the word acquires what the last holder released).
TEST(Shmem, PrivateBlockLockBetweenThreads) {
  shmem_obj *o = nullptr;
  ASSERT_EQ(shmem_create(0, kSize, 8, SHMEM_PRIVATE, &o), nullptr);
  std::thread t([o] { add_under_lock(o, kRounds / 10); });
  add_under_lock(o, kRounds / 10);
  t.join();
  EXPECT_EQ(*at<int64_t>(o, kCounter), 2 * int64_t{kRounds / 10});
  o->ops->release(&o);
}

TEST(Shmem, SecondCreateReusesAndClears) {
  const unsigned k = key(2);
  auto r = lltest::run_child("shmem_recreate", {std::to_string(k)});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.err.find("Shared memory object " + nt_name(k) + " already exists!!!"), std::string::npos) << r.err;
}

TEST(Shmem, NamesAndLockOffsets) {
  struct Case {
    unsigned size, offset;
    long delta;  // -1: refused
  } cases[] = {
      {4096, 0, 0}, {4096, 1, 16}, {4096, 16, 16}, {4096, 17, 32}, {4096, 4076, 4080},
      {4096, 4081, -1}, {16, 12, -1}, {20, 16, 16}, {0, 0, -1}, {64, 0xFFFFFFFFu, -1},
  };
  for (int kind : {SHMEM_NT, SHMEM_PRIVATE}) {
    for (const Case &c : cases) {
      SCOPED_TRACE(std::to_string(kind) + " size " + std::to_string(c.size) + " offset " + std::to_string(c.offset));
      shmem_obj *o = reinterpret_cast<shmem_obj *>(1);
      qzerror *e = shmem_create(key(3), c.size, c.offset, kind, &o);
      if (c.delta < 0) {
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(number_of(e), kind ? kEIO : kEINVAL);
        EXPECT_EQ(o, nullptr);
        continue;
      }
      ASSERT_EQ(e, nullptr);
      EXPECT_EQ(reinterpret_cast<char *>(const_cast<int *>(o->lock_word)) - static_cast<char *>(o->base), c.delta);
      EXPECT_EQ(o->size, c.size);
      EXPECT_EQ(*o->lock_word, 0);
      EXPECT_EQ(o->ops->try_lock(o), 1);
      EXPECT_EQ(o->locked, 1);
      EXPECT_EQ(*o->lock_word, -1);
      EXPECT_EQ(o->ops->try_lock(o), 0);
      EXPECT_EQ(o->ops->reset_lock(o), 0);
      EXPECT_EQ(*o->lock_word, 0);
      if (kind == SHMEM_NT) {
        EXPECT_STREQ(o->name, nt_name(key(3)).c_str());
        EXPECT_NE(o->mapping, nullptr);
      } else {
        EXPECT_STREQ(o->name, "");
        EXPECT_EQ(reinterpret_cast<uintptr_t>(o->base) % 8192, 0u);
        EXPECT_NE(o->buffer, nullptr);
      }
      o->ops->release(&o);
      EXPECT_EQ(o, nullptr);
    }
  }
  shmem_obj *o = nullptr;
  ASSERT_EQ(shmem_create(7, 64, 0, SHMEM_NT, &o), nullptr);
  EXPECT_STREQ(o->name, "nt:Global\\qztsm7");
  const shmem_ops *ops = o->ops;
  ops->release_if_present(o);
  ops->release_if_present(nullptr);
  ops->release(nullptr);
}

TEST(Shmem, MapRefusals) {
  shmem_obj *o = nullptr;
  ASSERT_EQ(shmem_create(key(4), kSize, 0, SHMEM_NT, &o), nullptr);
  const std::string name = o->name;
  const std::string bare = name.substr(3);
  struct Case {
    std::string name;
    unsigned size, offset;
    int number;
    const char *text;  // a fragment of the record's text
  } cases[] = {
      {"sysv:x", kSize, 0, kEINVAL, "not compiled to support shmem type `sysv' for `sysv:x'\n"},
      {"NT:" + bare, kSize, 0, kEINVAL, "not compiled to support shmem type `NT'"},
      {":" + bare, kSize, 0, kEINVAL, "not compiled to support shmem type `'"},
      {"nt:", kSize, 0, kEIO, "failed to map shmem object nt:: "},
      {"nt:a/b", kSize, 0, kEIO, "failed to map shmem object"},
      {"nt:..", kSize, 0, kEIO, "failed to map shmem object"},
      {"nt:" + std::string(300, 'q'), kSize, 0, kEIO, "failed to map shmem object"},
      {"nt:Global\\qztsm4294967295", kSize, 0, kEIO, "failed to map shmem object"},
      {name, kSize * 4, 0, kEIO, "failed to map shmem object"},
      {name, 0, 0, kEIO, "failed to map shmem object"},
      {name, kSize, kSize, kEIO, "failed to map shmem object"},
      {"qztsm-none", kSize, 0, kEINVAL, "unable to handle shmem name `qztsm-none'\n"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name.substr(0, 40));
    shmem_obj *m = reinterpret_cast<shmem_obj *>(1);
    qzerror *e = shmem_map(c.name.c_str(), c.size, c.offset, &m);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(number_of(e), c.number);
    EXPECT_NE(std::string(e->text).find(c.text), std::string::npos) << e->text;
    EXPECT_EQ(m, nullptr);
  }
  // Both name forms reach the object; a mapper sees the creator's data and
  // its lock word without clearing either.
  at<int32_t>(o, kCounter)[0] = 4242;
  ASSERT_EQ(o->ops->try_lock(o), 1);
  for (const std::string &n : {name, bare}) {
    shmem_obj *m = nullptr;
    ASSERT_EQ(shmem_map(n.c_str(), kSize, 0, &m), nullptr);
    EXPECT_STREQ(m->name, n.c_str());
    EXPECT_EQ(at<int32_t>(m, kCounter)[0], 4242);
    EXPECT_EQ(m->ops->try_lock(m), 0);
    m->ops->release(&m);
  }
  EXPECT_EQ(lltest::run_child("shmem_reader", {bare}).exit_code, 0);
  o->ops->release(&o);
  // The creator's release ends the name for new mappers.
  shmem_obj *m = nullptr;
  EXPECT_EQ(number_of(shmem_map(name.c_str(), kSize, 0, &m)), kEIO);
}

TEST(Shmem, SecureBadInput) {
  EXPECT_EQ(shmem_secure(nullptr, SHMEM_ACCESS_ALL, "nobody", nullptr), nullptr);
  shmem_obj *o = nullptr;
  EXPECT_EQ(shmem_secure(&o, SHMEM_ACCESS_ALL, "nobody", nullptr), nullptr);
  ASSERT_EQ(shmem_create(key(5), kSize, 0, SHMEM_NT, &o), nullptr);
  qzerror *e = shmem_secure(&o, SHMEM_ACCESS_ALL, "no-such-user-qz", nullptr);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(number_of(e), kEIO);
  EXPECT_EQ(std::string(e->text).rfind("failed to secure shmem object " + nt_name(key(5)) + ": ", 0), 0u) << e->text;
  EXPECT_EQ(shmem_secure(&o, SHMEM_ACCESS_ALL, nullptr, nullptr), nullptr);
  o->ops->release(&o);
  shmem_obj *p = nullptr;
  ASSERT_EQ(shmem_create(0, 100, 0, SHMEM_PRIVATE, &p), nullptr);
  EXPECT_EQ(number_of(shmem_secure(&p, SHMEM_ACCESS_ALL, nullptr, nullptr)), kEIO);
  p->ops->release(&p);
}

#ifndef _WIN32

std::string shm_path(unsigned k) { return "/dev/shm/Global\\qztsm" + std::to_string(k); }
bool exists(const std::string &p) {
  struct stat st;
  return lstat(p.c_str(), &st) == 0;
}

LLTEST_CHILD(shmem_as_nobody) {
  if (setgid(65534) != 0 || setuid(65534) != 0) return 2;
  return read_counter(argv[0]);
}

TEST(ShmemPosix, OwnerOnlyUntilSecured) {
  shmem_obj *o = nullptr;
  ASSERT_EQ(shmem_create(key(6), kSize, 0, SHMEM_NT, &o), nullptr);
  struct stat st;
  ASSERT_EQ(fstat(static_cast<int>(reinterpret_cast<intptr_t>(o->mapping)), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(fcntl(static_cast<int>(reinterpret_cast<intptr_t>(o->mapping)), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  at<int32_t>(o, kCounter)[0] = 4242;
  EXPECT_EQ(lltest::run_child("shmem_as_nobody", {o->name}).exit_code, 10 + kEIO);
  ASSERT_EQ(shmem_secure(&o, SHMEM_ACCESS_ALL, "nobody", nullptr), nullptr);
  EXPECT_EQ(lltest::run_child("shmem_as_nobody", {o->name}).exit_code, 0);
  // Once the object belongs to another user the creator does not adopt it.
  shmem_obj *again = nullptr;
  EXPECT_EQ(number_of(shmem_create(key(6), kSize, 0, SHMEM_NT, &again)), kEIO);
  o->ops->release(&o);
  EXPECT_FALSE(exists(shm_path(key(6))));
}

// Objects planted under the name by someone else, or a link, are never used.
TEST(ShmemPosix, PlantedObjectsAreRefused) {
  const unsigned k = key(7);
  const std::string path = shm_path(k);
  // A plain object planted with this owner and mode (and a second name).
  auto plant = [&path](uid_t uid, mode_t mode, bool second_name) {
    int fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0600);
    bool ok = fd >= 0 && fchown(fd, uid, uid) == 0 && fchmod(fd, mode) == 0;
    if (fd >= 0) close(fd);
    return ok && (!second_name || link(path.c_str(), (path + ".x").c_str()) == 0);
  };
  struct Plant {
    const char *what;
    std::function<bool()> make;
  } plants[] = {
      {"symlink", [&] { return symlink("/dev/shm/../../etc/passwd", path.c_str()) == 0; }},
      {"other owner", [&] { return plant(65534, 0600, false); }},
      {"group writable", [&] { return plant(0, 0620, false); }},
      {"second link", [&] { return plant(0, 0600, true); }},
  };
  for (const Plant &pl : plants) {
    SCOPED_TRACE(pl.what);
    ASSERT_TRUE(pl.make());
    shmem_obj *o = nullptr;
    EXPECT_EQ(number_of(shmem_create(k, kSize, 0, SHMEM_NT, &o)), kEIO);
    EXPECT_EQ(o, nullptr);
    EXPECT_TRUE(exists(path));  // left for its owner; not removed by the refusal
    unlink(path.c_str());
    unlink((path + ".x").c_str());
  }
  struct stat st;
  EXPECT_EQ(stat("/etc/passwd", &st), 0);
  EXPECT_NE(st.st_size, static_cast<off_t>(kSize));
}

LLTEST_CHILD(shmem_crash) {
  shmem_obj *o = nullptr;
  if (shmem_create(static_cast<unsigned>(std::strtoul(argv[0], nullptr, 10)), kSize, 0, SHMEM_NT, &o)) return 2;
  std::memset(o->base, 0x77, kSize);
  o->ops->try_lock(o);
  _exit(0);  // no release: the object stays behind
}

TEST(ShmemPosix, CrashedCreatorLeavesABlockTheNextCreatorCleans) {
  const unsigned k = key(8);
  ASSERT_EQ(lltest::run_child("shmem_crash", {std::to_string(k)}).exit_code, 0);
  ASSERT_TRUE(exists(shm_path(k)));
  shmem_obj *o = nullptr;
  ASSERT_EQ(shmem_create(k, kSize, 0, SHMEM_NT, &o), nullptr);
  EXPECT_EQ(*o->lock_word, 0);
  EXPECT_EQ(at<unsigned char>(o, 100)[0], 0);
  shmem_obj *m = nullptr;
  ASSERT_EQ(shmem_map(o->name, kSize, 0, &m), nullptr);
  m->ops->release(&m);
  EXPECT_TRUE(exists(shm_path(k)));  // a mapper's release keeps the name
  o->ops->release(&o);
  EXPECT_FALSE(exists(shm_path(k)));
}

// A block the system cannot back fails at create (not with a bus error at
// first touch) and leaves nothing behind.
LLTEST_CHILD(shmem_too_big) {
  const unsigned k = static_cast<unsigned>(std::strtoul(argv[0], nullptr, 10));
  signal(SIGXFSZ, SIG_IGN);
  rlimit lim{1 << 20, 1 << 20};
  if (setrlimit(RLIMIT_FSIZE, &lim) != 0) return 2;
  shmem_obj *o = nullptr;
  if (number_of(shmem_create(k, 64u << 20, 0, SHMEM_NT, &o)) != kEIO || o) return 3;
  return exists(shm_path(k)) ? 4 : 0;
}

TEST(ShmemPosix, BlockBeyondTheLimitIsRefused) {
  const unsigned k = key(10);
  auto r = lltest::run_child("shmem_too_big", {std::to_string(k)});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.err.find("failed to create shmem object " + nt_name(k) + ": "), std::string::npos) << r.err;
}
#endif

#ifdef _WIN32
// The allowing entries of the object's DACL: (identifier, mask) pairs.
std::vector<std::pair<std::vector<BYTE>, DWORD>> dacl_of(HANDLE h) {
  std::vector<std::pair<std::vector<BYTE>, DWORD>> out;
  PACL dacl = nullptr;
  PSECURITY_DESCRIPTOR sd = nullptr;
  if (GetSecurityInfo(h, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl, nullptr, &sd) !=
      ERROR_SUCCESS)
    return out;
  for (DWORD i = 0; dacl && i < dacl->AceCount; ++i) {
    void *ace = nullptr;
    if (!GetAce(dacl, i, &ace) || static_cast<ACE_HEADER *>(ace)->AceType != ACCESS_ALLOWED_ACE_TYPE) continue;
    auto *allow = static_cast<ACCESS_ALLOWED_ACE *>(ace);
    auto *sid = reinterpret_cast<BYTE *>(&allow->SidStart);
    out.emplace_back(std::vector<BYTE>(sid, sid + GetLengthSid(sid)), allow->Mask);
  }
  LocalFree(sd);
  return out;
}

DWORD granted(const std::vector<std::pair<std::vector<BYTE>, DWORD>> &dacl, WELL_KNOWN_SID_TYPE who) {
  BYTE sid[SECURITY_MAX_SID_SIZE];
  DWORD n = sizeof sid, mask = 0;
  if (!CreateWellKnownSid(who, nullptr, sid, &n)) return 0;
  for (const auto &e : dacl)
    if (EqualSid(const_cast<BYTE *>(e.first.data()), sid)) mask |= e.second;
  return mask;
}

// A new object's DACL names exactly the calling user and the system; a grant
// adds the user's entry with the mask asked for.
TEST(ShmemWindows, ExplicitDacl) {
  shmem_obj *o = nullptr;
  ASSERT_EQ(shmem_create(key(9), kSize, 0, SHMEM_NT, &o), nullptr);
  auto dacl = dacl_of(o->mapping);
  EXPECT_EQ(dacl.size(), 2u);
  EXPECT_NE(granted(dacl, WinLocalSystemSid), 0u);
  EXPECT_EQ(granted(dacl, WinWorldSid), 0u);
  ASSERT_EQ(shmem_secure(&o, SHMEM_ACCESS_READ, "Everyone", nullptr), nullptr);
  const DWORD world = granted(dacl_of(o->mapping), WinWorldSid);
  EXPECT_EQ(world & SHMEM_ACCESS_READ, SHMEM_ACCESS_READ);
  EXPECT_EQ(world & SHMEM_ACCESS_WRITE, 0u);
  o->ops->release(&o);
}
#endif

}  // namespace
