// Waiting for children on Windows.
//
// Up to 64 children are waited for with one WaitForMultipleObjects. With more,
// every child gets a wait registered with the system's thread pool (which
// waits for 63 handles per pool thread) the first time the table needs it:
// an ended child puts its handle on the table's ready list and sets the
// table's event, so the child is reported at once, however many others run.
#include <algorithm>
#include <cerrno>
#include <mutex>
#include <vector>

#include "frame/syserr.h"
#include "frame/win32/win.h"
#include "proc/process_os.h"

namespace ll::process::os {
namespace {

constexpr size_t kSlice = MAXIMUM_WAIT_OBJECTS;

// The table's registered waits.
struct WaitSet {
  HANDLE event;                // auto-reset: something was put on 'ready'
  std::mutex mu;
  std::vector<intptr_t> ready;  // objects of ended children
};

struct Registration {
  WaitSet *set;
  intptr_t obj;
  HANDLE wait;
};

void CALLBACK on_end(void *p, BOOLEAN) {
  auto *r = static_cast<Registration *>(p);
  {
    std::lock_guard<std::mutex> g(r->set->mu);
    try {
      r->set->ready.push_back(r->obj);
    } catch (...) {
    }
  }
  SetEvent(r->set->event);
}

WaitSet *waitset(ChildTable &t) noexcept {
  if (t.waitset == -1) {
    auto *s = new (std::nothrow) WaitSet;
    if (!s) return nullptr;
    s->event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (!s->event) {
      delete s;
      return nullptr;
    }
    t.waitset = reinterpret_cast<intptr_t>(s);
  }
  return reinterpret_cast<WaitSet *>(t.waitset);
}

bool register_node(WaitSet *s, Child &c) noexcept {
  if (c.aux || c.obj == -1) return true;
  auto *r = new (std::nothrow) Registration{s, c.obj, nullptr};
  if (!r) return false;
  if (!RegisterWaitForSingleObject(&r->wait, reinterpret_cast<HANDLE>(c.obj), on_end, r, INFINITE,
                                   WT_EXECUTEONLYONCE)) {
    delete r;
    return false;
  }
  c.aux = reinterpret_cast<intptr_t>(r);
  return true;
}

void record_end(Child &c) noexcept {
  if (c.is_thread) return;
  DWORD code = 0;
  c.code = GetExitCodeProcess(reinterpret_cast<HANDLE>(c.obj), &code) ? static_cast<int>(code) : -1;
}

int slice_wait(ChildTable &t, uint32_t ms) noexcept {
  HANDLE hs[kSlice];
  int idx[kSlice];
  DWORD n = 0;
  for (size_t i = t.nodes.size(); i-- > 0 && n < kSlice;)
    if (!t.nodes[i].reaped && t.nodes[i].obj != -1) {
      hs[n] = reinterpret_cast<HANDLE>(t.nodes[i].obj);
      idx[n++] = static_cast<int>(i);
    }
  if (n == 0) {
    errno = ECHILD;
    return -1;
  }
  const DWORD r = WaitForMultipleObjects(n, hs, FALSE, ms);
  if (r < WAIT_OBJECT_0 + n) return idx[r - WAIT_OBJECT_0];
  if (r >= WAIT_ABANDONED_0 && r < WAIT_ABANDONED_0 + n) return idx[r - WAIT_ABANDONED_0];
  if (r == WAIT_TIMEOUT) return -2;
  set_errno_from_os();
  return -1;
}

int live_nodes(const ChildTable &t) noexcept {
  int n = 0;
  for (const Child &c : t.nodes) n += !c.reaped && c.obj != -1;
  return n;
}

}  // namespace

void added(ChildTable &, Child &) noexcept {}

void release(ChildTable &t, Child &c) noexcept {
  if (c.aux) {
    auto *r = reinterpret_cast<Registration *>(c.aux);
    UnregisterWaitEx(r->wait, INVALID_HANDLE_VALUE);  // returns once no callback runs
    delete r;
    c.aux = 0;
    // Its handle value may come back for a new child: no stale report of it.
    if (t.waitset != -1) {
      auto *s = reinterpret_cast<WaitSet *>(t.waitset);
      std::lock_guard<std::mutex> g(s->mu);
      s->ready.erase(std::remove(s->ready.begin(), s->ready.end(), c.obj), s->ready.end());
    }
  }
  close_obj(c.obj);
  c.obj = -1;
}

void table_closed(ChildTable &t) noexcept {
  if (t.waitset == -1) return;
  auto *s = reinterpret_cast<WaitSet *>(t.waitset);
  CloseHandle(s->event);
  delete s;
  t.waitset = -1;
}

int wait_one(Child &c, uint32_t ms) noexcept {
  switch (WaitForSingleObject(reinterpret_cast<HANDLE>(c.obj), ms)) {
    case WAIT_OBJECT_0:
    case WAIT_ABANDONED:
      record_end(c);
      return 1;
    case WAIT_TIMEOUT:
      return 0;
    default:
      set_errno_from_os();
      return -1;
  }
}

int wait_any(ChildTable &t, uint32_t ms) noexcept {
  if (static_cast<size_t>(live_nodes(t)) <= kSlice) {
    const int i = slice_wait(t, ms);
    if (i >= 0) record_end(t.nodes[static_cast<size_t>(i)]);
    return i;
  }
  WaitSet *s = waitset(t);
  bool registered = s != nullptr;
  for (Child &c : t.nodes)
    if (registered && !c.reaped && !register_node(s, c)) registered = false;
  if (!registered) {
    // No registered waits: slices of 64 handles in turn, 100 ms each.
    const DWORD start = GetTickCount();
    for (;;) {
      std::vector<Child *> order;
      for (size_t i = t.nodes.size(); i-- > 0;)
        if (!t.nodes[i].reaped && t.nodes[i].obj != -1) order.push_back(&t.nodes[i]);
      for (size_t from = 0; from < order.size(); from += kSlice) {
        HANDLE hs[kSlice];
        DWORD n = 0;
        for (size_t k = from; k < order.size() && n < kSlice; ++k) hs[n++] = reinterpret_cast<HANDLE>(order[k]->obj);
        const DWORD r = WaitForMultipleObjects(n, hs, FALSE, ms < 100 ? ms : 100);
        DWORD hit = r >= WAIT_ABANDONED_0 && r < WAIT_ABANDONED_0 + n ? r - WAIT_ABANDONED_0 : r - WAIT_OBJECT_0;
        if (hit < n) {
          Child *c = order[from + hit];
          record_end(*c);
          return static_cast<int>(c - t.nodes.data());
        }
        if (r != WAIT_TIMEOUT) {
          set_errno_from_os();
          return -1;
        }
        if (ms != kInfinite && GetTickCount() - start >= ms) return -2;
      }
    }
  }
  const DWORD start = GetTickCount();
  for (;;) {
    intptr_t obj = -1;
    {
      std::lock_guard<std::mutex> g(s->mu);
      while (!s->ready.empty() && obj == -1) {
        const intptr_t o = s->ready.back();
        s->ready.pop_back();
        for (const Child &c : t.nodes)
          if (c.obj == o && !c.reaped) obj = o;  // else: stale, reaped by a wait for its id
      }
    }
    if (obj != -1) {
      for (size_t i = t.nodes.size(); i-- > 0;)
        if (t.nodes[i].obj == obj && !t.nodes[i].reaped) {
          record_end(t.nodes[i]);
          return static_cast<int>(i);
        }
    }
    DWORD wait = INFINITE;
    if (ms != kInfinite) {
      const DWORD spent = GetTickCount() - start;
      if (spent >= ms) return -2;
      wait = ms - spent;
    }
    const DWORD r = WaitForSingleObject(s->event, wait);
    if (r == WAIT_FAILED) {
      set_errno_from_os();
      return -1;
    }
  }
}

int foreign_code(uint32_t id) noexcept {
  // The id taken as a handle, as callers of the pass-through expect.
  DWORD code;
  return GetExitCodeProcess(reinterpret_cast<HANDLE>(static_cast<uintptr_t>(id)), &code) ? static_cast<int>(code)
                                                                                         : -1;
}

intptr_t done_new() noexcept {
  HANDLE e = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  return e ? reinterpret_cast<intptr_t>(e) : -1;
}

void done_set(intptr_t e) noexcept {
  if (e != -1) SetEvent(reinterpret_cast<HANDLE>(e));
}

void close_obj(intptr_t obj) noexcept {
  if (obj != -1 && obj != 0) CloseHandle(reinterpret_cast<HANDLE>(obj));
}

}  // namespace ll::process::os
