// The wake-up object of the current cancel generation, for both socket
// back-ends. Cancellable waits hold it while they run; the cancel retires
// it (raising g_generation), wakes the waits that hold it, and whoever lets
// go of it last frees it. W has the members 'refs' and 'retired'.
#pragma once
#include <mutex>

#include "net/socket_os.h"

namespace ll::net {

template <class W> class Wakers {
 public:
  std::mutex mu;        // the POSIX fork handlers hold it across a fork
  W *current = nullptr;  // the current generation's, once a wait made it

  // The current object, held until release(). prepare(current) makes it when
  // there is none (and may complete it); null when it could not be made.
  template <class Prepare> W *acquire(Prepare prepare) noexcept {
    std::lock_guard<std::mutex> lock(mu);
    prepare(current);
    if (!current) return nullptr;  // the wait is then not cancellable, but still correct
    ++current->refs;
    return current;
  }

  // Lets go of w; the last holder of a retired object frees it with destroy(w).
  template <class Destroy> void release(W *w, Destroy destroy) noexcept {
    if (!w) return;
    std::lock_guard<std::mutex> lock(mu);
    if (--w->refs == 0 && w->retired) destroy(w);
  }

  // Raises the generation and retires its object, returned held (null when
  // no wait made one): the caller wakes its waits outside the lock, where
  // they take it on their way out, and then releases it.
  W *retire() noexcept {
    std::lock_guard<std::mutex> lock(mu);
    g_generation.fetch_add(1, std::memory_order_acq_rel);
    W *w = current;
    if (!w) return nullptr;
    current = nullptr;
    w->retired = true;
    ++w->refs;
    return w;
  }
};

}  // namespace ll::net
