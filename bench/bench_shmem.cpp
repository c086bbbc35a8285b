// Shared-memory blocks against the plain system calls measured in the same
// run: an uncontended try-lock + unlock against a bare atomic-exchange spin
// lock on the same page, two processes contending for the lock word against a
// process-shared pthread spin lock, and create + release against the bare
// calls that make and remove a named object. Prints "ratio" lines with the
// goal of each.
#include "ratio_main.h"

#include <cstdint>
#include <cstdio>
#include <string>

#include <liblocal/shmem.h>

#ifndef _WIN32
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#else
#include <process.h>
#define getpid _getpid
#endif

namespace {

constexpr unsigned kSize = 4096;

unsigned bench_key(unsigned n) { return 0x40000000u + static_cast<unsigned>(getpid()) * 8 + n; }

inline void cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

// ------------------------------------------------------- uncontended lock

void BM_bare_xchg_lock(benchmark::State &state) {
  shmem_obj *o = nullptr;
  if (shmem_create(bench_key(0), kSize, 0, SHMEM_NT, &o)) return state.SkipWithError("create");
  auto *w = reinterpret_cast<int *>(static_cast<char *>(o->base) + 64);  // same page
  for (auto _ : state) {
    if (__atomic_exchange_n(w, -1, __ATOMIC_ACQUIRE) == 0) __atomic_store_n(w, 0, __ATOMIC_RELEASE);
    benchmark::ClobberMemory();
  }
  o->ops->release(&o);
}

void BM_shmem_trylock(benchmark::State &state) {
  shmem_obj *o = nullptr;
  if (shmem_create(bench_key(1), kSize, 0, SHMEM_NT, &o)) return state.SkipWithError("create");
  for (auto _ : state) {
    if (o->ops->try_lock(o)) o->ops->unlock(o);
    benchmark::ClobberMemory();
  }
  o->ops->release(&o);
}

#ifndef _WIN32
// ---------------------------------------------------- two processes contend
// One iteration: each of two processes adds kBatch to a counter under the
// lock. The second process is forked once and driven through the page.

constexpr int kBatch = 100000;

struct Drive {
  volatile int go;    // batch number the child should run
  volatile int done;  // last batch the child finished
  long long counter;
};

template <class Lock, class Unlock>
void run_batch(Drive *d, Lock lock, Unlock unlock) {
  for (int i = 0; i < kBatch; ++i) {
    lock();
    d->counter = d->counter + 1;
    unlock();
  }
}

template <class Lock, class Unlock>
void contend(benchmark::State &state, Drive *d, Lock lock, Unlock unlock, void (*child_setup)()) {
  d->go = 0;
  d->done = 0;
  const pid_t pid = fork();
  if (pid == 0) {
    if (child_setup) child_setup();
    for (int seen = 0;;) {
      int g;
      while ((g = __atomic_load_n(&d->go, __ATOMIC_ACQUIRE)) == seen) cpu_relax();
      if (g < 0) _exit(0);
      run_batch(d, lock, unlock);
      seen = g;
      __atomic_store_n(&d->done, g, __ATOMIC_RELEASE);
    }
  }
  int batch = 0;
  for (auto _ : state) {
    __atomic_store_n(&d->go, ++batch, __ATOMIC_RELEASE);
    run_batch(d, lock, unlock);
    while (__atomic_load_n(&d->done, __ATOMIC_ACQUIRE) != batch) cpu_relax();
  }
  __atomic_store_n(&d->go, -1, __ATOMIC_RELEASE);
  waitpid(pid, nullptr, 0);
  if (d->counter != 2LL * kBatch * batch) state.SkipWithError("lost increments");
  state.SetItemsProcessed(state.iterations() * 2 * kBatch);
}

void BM_pthread_spin_pair(benchmark::State &state) {
  void *page = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  auto *spin = static_cast<pthread_spinlock_t *>(page);
  pthread_spin_init(spin, PTHREAD_PROCESS_SHARED);
  auto *d = reinterpret_cast<Drive *>(static_cast<char *>(page) + 128);
  contend(state, d, [spin] { pthread_spin_lock(spin); }, [spin] { pthread_spin_unlock(spin); }, nullptr);
  munmap(page, kSize);
}

shmem_obj *g_obj;
std::string g_name;

void BM_shmem_pair(benchmark::State &state) {
  if (shmem_create(bench_key(2), kSize, 0, SHMEM_NT, &g_obj)) return state.SkipWithError("create");
  g_name = g_obj->name;
  // The child works through its own mapping of the block, found by name.
  auto child_setup = [] {
    shmem_obj *m = nullptr;
    if (shmem_map(g_name.c_str(), kSize, 0, &m)) _exit(2);
    g_obj = m;
  };
  auto *d = reinterpret_cast<Drive *>(static_cast<char *>(g_obj->base) + 128);
  contend(
      state, d,
      [] {
        while (!g_obj->ops->try_lock(g_obj)) cpu_relax();
      },
      [] { g_obj->ops->unlock(g_obj); }, child_setup);
  g_obj->ops->release(&g_obj);
}

// ------------------------------------------------------- create + release

void BM_bare_shm_create(benchmark::State &state) {
  const std::string name = "/bench-shm-" + std::to_string(getpid());
  for (auto _ : state) {
    int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0 || ftruncate(fd, kSize) != 0) return state.SkipWithError("shm_open");
    void *p = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    benchmark::DoNotOptimize(p);
    munmap(p, kSize);
    shm_unlink(name.c_str());
    close(fd);
  }
}
#endif

void BM_shmem_create(benchmark::State &state) {
  const unsigned k = bench_key(3);
  for (auto _ : state) {
    shmem_obj *o = nullptr;
    if (shmem_create(k, kSize, 0, SHMEM_NT, &o)) return state.SkipWithError("create");
    benchmark::DoNotOptimize(o->base);
    o->ops->release(&o);
  }
}

BENCHMARK(BM_bare_xchg_lock);
BENCHMARK(BM_shmem_trylock);
#ifndef _WIN32
// Two processes on a shared machine are at the mercy of the scheduler: the
// ratio takes the median of several runs.
BENCHMARK(BM_pthread_spin_pair)->UseRealTime()->MinTime(0.3)->Repetitions(5);
BENCHMARK(BM_shmem_pair)->UseRealTime()->MinTime(0.3)->Repetitions(5);
BENCHMARK(BM_bare_shm_create)->UseRealTime();
#endif
BENCHMARK(BM_shmem_create)->UseRealTime();

// The median of a repeated benchmark, else its first run.
double median_of(const llbench::Results &times, const std::string &prefix) {
  for (const auto &r : times)
    if (r.first.rfind(prefix, 0) == 0 && r.first.size() > 7 && r.first.compare(r.first.size() - 7, 7, "_median") == 0)
      return r.second;
  return llbench::time_of(times, prefix);
}

void print_ratios(const llbench::Results &times) {
  const double x = llbench::time_of(times, "BM_bare_xchg_lock");
  const double t = llbench::time_of(times, "BM_shmem_trylock");
  if (x > 0) std::printf("ratio try_lock+unlock           %.2fx the time of a bare exchange lock (goal <= 1.3x)\n", t / x);
  const double sp = median_of(times, "BM_pthread_spin_pair");
  const double sh = median_of(times, "BM_shmem_pair");
  if (sh > 0) std::printf("ratio two-process contention    %.2fx the throughput of pthread_spin_lock (goal >= 0.8x)\n", sp / sh);
  const double bc = llbench::time_of(times, "BM_bare_shm_create");
  const double sc = llbench::time_of(times, "BM_shmem_create");
  if (bc > 0) std::printf("ratio shmem_create+release      %.2fx the time of shm_open+ftruncate+mmap+munmap+shm_unlink (goal <= 1.5x)\n", sc / bc);
}

}  // namespace

int main(int argc, char **argv) { return llbench::run(argc, argv, print_ratios); }
