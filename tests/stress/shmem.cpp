// Counters in one shared block, raised by 4 processes at once under the
// block's lock word: the parent creates the block, starts 4 copies of itself
// that map it by name, lets them go together, and checks that the counter
// under the lock equals the sum of what each process says it added, and
// that an interlocked counter beside it agrees. Each child stops after
// "--rounds N" (LL_STRESS_ROUNDS; default 5000000) or when the time
// ("--seconds") runs out.
#include <string>

#include "stress.h"
#include <liblocal/frame.h>
#include <liblocal/process.h>
#include <liblocal/shmem.h>

namespace {

using stress::fail;

constexpr int kProcesses = 4;
constexpr unsigned kSize = 4096;
constexpr unsigned kLockOffset = 0;

// The block after its lock word.
struct Block {
  char lock_area[64];
  volatile int64_t locked_counter;  // raised only while the lock is held
  int64_t atomic_counter;           // raised with interlocked adds
  int64_t go;                       // set by the parent once every child has mapped
  int64_t ready;                    // children that have mapped the block
  int64_t added[kProcesses];        // what each child says it added
  int64_t busy[kProcesses];         // times a child found the lock held
};
static_assert(sizeof(Block) <= kSize, "the block is too small");

int64_t load(int64_t *p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }

int child(const char *name, int slot, long rounds, int secs) {
  if (slot < 0) return 0;  // the parent's first child: only started and reaped
  shmem_obj *o = nullptr;
  if (qzerror *e = shmem_map(name, kSize, kLockOffset, &o)) {
    std::fprintf(stderr, "child %d: %s\n", slot, e->text ? e->text : "shmem_map failed");
    return 2;
  }
  auto *b = static_cast<Block *>(o->base);
  __atomic_add_fetch(&b->ready, 1, __ATOMIC_ACQ_REL);
  const auto deadline = stress::Clock::now() + std::chrono::seconds(secs);
  while (!load(&b->go))
    if (stress::Clock::now() > deadline) return 3;
  int64_t added = 0, busy = 0;
  for (long i = 0; i < rounds; ++i) {
    if ((i & 1023) == 0 && stress::Clock::now() > deadline) break;
    while (!o->ops->try_lock(o)) {
      ++busy;
      std::this_thread::yield();
    }
    b->locked_counter = b->locked_counter + 1;
    o->ops->unlock(o);
    __atomic_add_fetch(&b->atomic_counter, 1, __ATOMIC_RELAXED);
    ++added;
  }
  __atomic_store_n(&b->added[slot], added, __ATOMIC_RELEASE);
  __atomic_store_n(&b->busy[slot], busy, __ATOMIC_RELEASE);
  o->ops->release(&o);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  qzinit(argv[0]);
  const int secs = stress::seconds(argc, argv, 10);
  const char *rounds_opt = stress::option(argc, argv, "--rounds");
  if (!rounds_opt) rounds_opt = std::getenv("LL_STRESS_ROUNDS");
  const long rounds = rounds_opt ? std::atol(rounds_opt) : 5000000;
  if (const char *slot = stress::option(argc, argv, "--child"))
    return child(stress::option(argc, argv, "--name"), std::atoi(slot), rounds, secs);

  // One child first: whatever the library makes once for spawning exists
  // before the descriptors are counted.
  {
    char *cargv[] = {argv[0], const_cast<char *>("--child"), const_cast<char *>("-1"), nullptr};
    int status = -1, id = spawn(0, cargv, nullptr, nullptr, nullptr);
    if (id <= 0 || waitchild(id, &status, 0) != id || status != 0) {
      std::printf("FAIL: the first child did not run (id %d, status %#x)\n", id, status);
      return 1;
    }
  }
  stress::Watchdog dog("stress_shmem", secs + 120);
  const int before = stress::open_handles();
#ifdef _WIN32
  const unsigned key = 0x51000000u + static_cast<unsigned>(GetCurrentProcessId() & 0xFFFFF);
#else
  const unsigned key = 0x51000000u + static_cast<unsigned>(getpid() & 0xFFFFF);
#endif
  shmem_obj *o = nullptr;
  if (qzerror *e = shmem_create(key, kSize, kLockOffset, SHMEM_NT, &o)) {
    std::printf("FAIL: shmem_create: %s\n", e->text ? e->text : "");
    return 1;
  }
  auto *b = static_cast<Block *>(o->base);

  // Blocks made, mapped and released over and over: nothing may stay open.
  constexpr int kChurn = 200;
  for (int i = 0; i < kChurn; ++i) {
    shmem_obj *extra = nullptr, *view = nullptr;
    if (shmem_create(key + 1, kSize, kLockOffset, SHMEM_NT, &extra)) {
      fail("shmem_create, round %d", i);
      break;
    }
    if (shmem_map(extra->name, kSize, kLockOffset, &view)) fail("shmem_map, round %d", i);
    view->ops->release(&view);
    extra->ops->release(&extra);
  }
  const int after_churn = stress::open_handles();
  const auto t0 = stress::Clock::now();
  int ids[kProcesses];
  std::string secs_text = std::to_string(secs), rounds_text = std::to_string(rounds);
  for (int i = 0; i < kProcesses; ++i) {
    std::string slot = std::to_string(i);
    char *cargv[] = {argv[0],          const_cast<char *>("--child"),   slot.data(),
                     const_cast<char *>("--name"), o->name,              const_cast<char *>("--seconds"),
                     secs_text.data(), const_cast<char *>("--rounds"), rounds_text.data(),
                     nullptr};
    ids[i] = spawn(0, cargv, nullptr, nullptr, nullptr);
    if (ids[i] <= 0) fail("spawn of child %d: errno %d", i, errno);
  }
  const auto ready_by = stress::Clock::now() + std::chrono::seconds(60);
  while (load(&b->ready) < kProcesses && stress::Clock::now() < ready_by)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  __atomic_store_n(&b->go, 1, __ATOMIC_RELEASE);
  for (int i = 0; i < kProcesses; ++i) {
    int status = -1;
    if (ids[i] > 0 && (waitchild(ids[i], &status, 0) != ids[i] || status != 0))
      fail("child %d: status %#x", i, status);
  }
  const double ran = stress::since(t0);

  int64_t sum = 0, busy = 0;
  std::string each;
  for (int i = 0; i < kProcesses; ++i) {
    sum += load(&b->added[i]);
    busy += load(&b->busy[i]);
    each += (i ? ", " : "") + std::to_string(load(&b->added[i]));
  }
  const int64_t locked = b->locked_counter, atomic = load(&b->atomic_counter);
  if (locked != sum) fail("the counter under the lock is %lld, the processes added %lld", static_cast<long long>(locked), static_cast<long long>(sum));
  if (atomic != sum) fail("the interlocked counter is %lld, the processes added %lld", static_cast<long long>(atomic), static_cast<long long>(sum));
  if (sum == 0) fail("nothing was counted");
  if (*o->lock_word != 0) fail("the lock word is still held");
  o->ops->release(&o);
  std::string did = std::to_string(kChurn) + " blocks made, mapped and released (open count then " + std::to_string(after_churn) + "); " +
                    std::to_string(kProcesses) + " processes; added " + each + " = " + std::to_string(sum) +
                    ", counter under the lock " + std::to_string(locked) + ", lock found busy " + std::to_string(busy) + " times";
  return stress::report("stress_shmem", did, ran, before, stress::open_handles());
}
