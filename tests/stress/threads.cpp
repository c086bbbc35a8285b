// 64 threads at once on the library's shared state, for a given time:
//   areas    short-lived threads making and using per-thread areas and the
//            per-process area while others do the same;
//   catalog  lookups and joins in the catalog's result ring, handles opened
//            and closed meanwhile;
//   numbers  the number-text ring;  idtext  the identifier-text ring;
//   errors   error records set, saved, restored and copied;
//   ids      identifiers, every one unique across the threads;
//   hosts    the host cache on loopback names and documentation addresses;
//   cancel   qz_socancel releasing threads blocked in qzaccept and qz_select
//            while bytes and connections flow, none of them lost.
// Every answer given under load must equal the one the main thread got
// alone. By default the threads are spread over all kinds; "--kind K" puts
// all of them on one. "--threads N" changes their number.
//
// The result rings are process-wide and a text stays valid for 19 more calls
// of the process; the threads keep to that with a window of tickets (at most
// 10 calls outstanding around anyone's), as a careful caller must.
#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "stress.h"
#include <liblocal/catalog.h>
#include <liblocal/errrec.h>
#include <liblocal/frame.h>
#include <liblocal/hostid.h>
#include <liblocal/qztime.h>
#include <liblocal/qzui.h>
#include <liblocal/socket.h>
#include <liblocal/strutil.h>
#include <liblocal/thread.h>

extern "C" void llt_catalog_set_appdir(const char *dir) noexcept;
extern "C" void llt_catalog_setup(const char *name) noexcept;

// The C library's reentrant resolver calls reload the resolver configuration
// under a lock of their own that the thread sanitizer cannot see: two plain
// threads calling gethostbyname_r alone get the same report. Only that one
// is left out (read by the sanitizer at start; unused in other builds).
extern "C" const char *__tsan_default_suppressions() { return "race:__libc_dynarray_emplace_enlarge\n"; }

namespace {

using stress::fail;

std::atomic<bool> g_stop{false};

// Small fast generator, one per thread.
struct Rand {
  uint64_t s;
  explicit Rand(uint64_t seed) : s(seed * 0x9E3779B97F4A7C15ull + 1) {}
  uint64_t next() {
    s ^= s << 13;
    s ^= s >> 7;
    s ^= s << 17;
    return s;
  }
  int below(int n) { return static_cast<int>(next() % static_cast<uint64_t>(n)); }
};

// ---- the ticket window of a result ring ----
class RingWindow {
 public:
  uint64_t enter() {
    std::unique_lock<std::mutex> l(mu_);
    cv_.wait(l, [this] { return active_.empty() || next_ - *active_.begin() < 10; });
    uint64_t t = next_++;
    active_.insert(t);
    return t;
  }
  void leave(uint64_t t) {
    {
      std::lock_guard<std::mutex> l(mu_);
      active_.erase(active_.find(t));
    }
    cv_.notify_all();
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  uint64_t next_ = 0;
  std::multiset<uint64_t> active_;
};
RingWindow g_catalog_ring, g_number_ring, g_idtext_ring;

struct Window {
  RingWindow &w;
  uint64_t t;
  explicit Window(RingWindow &r) : w(r), t(r.enter()) {}
  ~Window() { w.leave(t); }
};

// ---- areas ----
struct ThreadArea {
  uint32_t magic;
  uint32_t owner;
  long uses;
};
struct ProcessArea {
  std::atomic<long> uses{0};
};
constexpr uint32_t kMagic = 0x5EED1234;
std::atomic<long> g_tareas_made{0}, g_tareas_freed{0}, g_pareas_made{0};
std::atomic<long> g_process_uses{0};
std::atomic<ProcessArea *> g_parea{nullptr};

void tarea_free(void *a) {
  auto *t = static_cast<ThreadArea *>(a);
  // A killed thread's areas are destroyed by its killer.
  if (t->magic != kMagic) fail("a thread area destroyed twice");
  t->magic = 0;
  std::free(t);
  ++g_tareas_freed;
}
void *tarea_init(qz_area_dtor *out) {
  auto *t = static_cast<ThreadArea *>(std::malloc(sizeof(ThreadArea)));
  if (!t) return nullptr;
  *t = {kMagic, qz_thr_getid(), 0};
  *out = tarea_free;
  ++g_tareas_made;
  return t;
}
void parea_free(void *a) { delete static_cast<ProcessArea *>(a); }
void *parea_init(qz_area_dtor *out) {
  ++g_pareas_made;
  *out = parea_free;
  return new ProcessArea;
}

// One use of both areas by the calling thread; false when an area is wrong.
bool use_areas() {
  auto *t = static_cast<ThreadArea *>(T_GetDataAreaPtr(tarea_init));
  if (!t || t->magic != kMagic || t->owner != qz_thr_getid()) return fail("thread area not the thread's own"), false;
  ++t->uses;
  if (T_GetDataAreaPtr(tarea_init) != t) return fail("a second thread area for one thread"), false;
  auto *p = static_cast<ProcessArea *>(P_GetDataAreaPtr(parea_init));
  ProcessArea *expected = nullptr;
  if (!g_parea.compare_exchange_strong(expected, p) && expected != p)
    return fail("two process areas of one kind"), false;
  ++p->uses;
  ++g_process_uses;
  // The library's own thread area, made on this thread's first error record.
  if (!err_setstr(8, 3001, "area %u", t->owner)) return fail("no error record on a new thread"), false;
  return true;
}

// Where a thread that is to be killed waits: a library wait, so that the
// kill never lands inside an allocation of this program.
struct Park {
  qz_mtx_t *mtx = nullptr;
  qz_cond_t *cond = nullptr;
} g_park;
constexpr uint32_t kKilled = 0xC0FFEE;
std::atomic<long> g_killed{0};

void *short_thread(void *arg) {
  auto *parked = static_cast<std::atomic<int> *>(arg);
  bool ok = true;
  for (int i = 0; i < 3; ++i) ok = use_areas() && ok;
  if (parked) {
    const qz_timespec_t interval{0, 20000000};
    qz_mtx_lock(g_park.mtx);
    parked->store(1);
    for (;;) qz_cond_timedwait(g_park.cond, g_park.mtx, &interval);
  }
  return reinterpret_cast<void *>(uintptr_t{ok ? kMagic : 1u});
}

// Up to 4 short threads beside this one's own use of the areas; one in four
// of them ends by being killed, its areas then destroyed by the killer.
long areas_round(Rand &r) {
  qz_thr_t *th[4];
  std::atomic<int> parked[4];
  bool kill[4];
  int n = 1 + r.below(4);
  for (int i = 0; i < n; ++i) {
    kill[i] = r.below(4) == 0;
    parked[i] = 0;
    if (!qz_thr_create(&th[i], short_thread, kill[i] ? &parked[i] : nullptr)) {
      fail("qz_thr_create");
      n = i;
    } else {
      ++stress::g_threads_made;
    }
  }
  use_areas();
  for (int i = 0; i < n; ++i) {
    uint32_t status = 0;
    int nowait = 0;
    if (kill[i]) {
      while (!parked[i].load()) qz_thr_yield();
      if (!qz_thr_kill(th[i], kKilled)) fail("qz_thr_kill");
      ++g_killed;
      ++stress::g_threads_killed;
    }
    if (!qz_thr_wait(th[i], &status, &nowait) || status != (kill[i] ? kKilled : kMagic)) fail("thread status %x", status);
    qz_thr_destroy(th[i]);
  }
  return n + 1;
}

// ---- catalog ----
const int kMessages[] = {252, 270, 285, 292, 1006};
struct CatalogAnswers {
  std::string own[5];    // of the library's catalog (Catd)
  std::string other[5];  // of a handle opened by the thread
  std::string time_text; // a time in the catalog's layout (the library reads the ring itself)
} g_cat;
const qz_time64_t kSomeTime = {1700000000u, 0};
const char *kDefaults[] = {"Unknown error", "%.19s GMT%c%.2d%.2d %.4s", "%a %b %d %X %Y", "Cannot alloc for tokens\n",
                           "\nWaiting to be contacted ...\n\n"};

long catalog_round(Rand &r) {
  long ops = 0;
  for (int k = 0; k < 16; ++k, ++ops) {
    int i = r.below(5);
    Window w(g_catalog_ring);
    const char *t = qzcatgets(Catd, 17, kMessages[i], kDefaults[i]);
    if (!t || g_cat.own[i] != t) fail("qzcatgets(%d) gave \"%s\"", kMessages[i], t ? t : "(null)");
  }
  {
    char text[QZ_TIMETEXT_SIZE];
    if (g_cat.time_text != i18n_long_time(kSomeTime, text)) fail("i18n_long_time gave \"%s\"", text);
    ++ops;
  }
  {
    Window w(g_catalog_ring);
    const char *j = i18n_3("a-", g_cat.own[0].c_str(), "-z");
    if (!j || ("a-" + g_cat.own[0] + "-z") != j) fail("i18n_3 gave \"%s\"", j ? j : "(null)");
    ++ops;
  }
  if (r.below(32) == 0) {
    int h = qzcatopen("bsw");
    if (Catd >= 0 && h < 0) fail("qzcatopen failed while the catalog is there");
    for (int i = 0; i < 5; ++i, ++ops) {
      Window w(g_catalog_ring);
      const char *t = qzcatgets(h, 17, kMessages[i], kDefaults[i]);
      if (!t || g_cat.other[i] != t) fail("qzcatgets on a new handle gave \"%s\"", t ? t : "(null)");
    }
    if (qzcatclose(h) != 0) fail("qzcatclose(%d)", h);
    ops += 2;
  }
  return ops;
}

// ---- number and identifier texts ----
long numbers_round(Rand &r) {
  char want[40];
  for (int k = 0; k < 32; ++k) {
    uint64_t n = r.next() >> r.below(64);
    Window w(g_number_ring);
    switch (k % 3) {
      case 0:
        std::snprintf(want, sizeof want, "%llu", static_cast<unsigned long long>(n));
        if (std::strcmp(qz_uint64str(n), want) != 0) fail("qz_uint64str(%s)", want);
        break;
      case 1:
        std::snprintf(want, sizeof want, "%llx", static_cast<unsigned long long>(n));
        if (std::strcmp(qz_uint64xstr(n), want) != 0) fail("qz_uint64xstr(%s)", want);
        break;
      default:
        std::snprintf(want, sizeof want, "%lld", -static_cast<long long>(n >> 1));
        if (std::strcmp(qz_int64str(-static_cast<int64_t>(n >> 1)), want) != 0) fail("qz_int64str(%s)", want);
    }
  }
  return 32;
}

long idtext_round(Rand &r) {
  char want[QZUI_TEXT_SIZE];
  for (int k = 0; k < 16; ++k) {
    qzui id;
    qzui_create_old(&id, 2 + r.below(8), static_cast<uint32_t>(r.next()), static_cast<uint32_t>(r.next()),
                    static_cast<uint32_t>(r.next()));
    const int force = k & 1;
    qzui_to_string(&id, want, force);
    Window w(g_idtext_ring);
    const char *t = qzui_to_string(&id, nullptr, force);
    qzui back;
    if (std::strcmp(t, want) != 0) fail("qzui_to_string: \"%s\", not \"%s\"", t, want);
    else if (force && (string_to_qzui(t, &back, nullptr) < 0 || std::memcmp(&back, &id, sizeof id) != 0))
      fail("string_to_qzui(\"%s\") does not give the identifier back", t);
  }
  return 32;
}

// ---- error records ----
char *g_type_texts[] = {const_cast<char *>("none"), const_cast<char *>("first"), const_cast<char *>("second"),
                        const_cast<char *>("third")};
int g_type_severities[] = {0, 3, 2, 1};
std::string g_system_text;  // err_set(QZERR_T_SYSTEM, 3002) as the main thread saw it

long errors_round(Rand &r, int me) {
  char want[64], digits[72];
  for (int k = 0; k < 8; ++k) {
    int n = r.below(1000);
    std::snprintf(want, sizeof want, "thread %d record %d", me, n);
    qzerror *e = err_setstr(9, 3000 + n, "thread %d record %s", me, qz_int64str_buf(digits, n));
    if (!e || e->code != QZERR_CODE(9, 3, n) || std::strcmp(e->text, want) != 0) {
      fail("err_setstr: %d \"%s\"", e ? e->code : -1, e && e->text ? e->text : "(null)");
      continue;
    }
    qzerror *saved = err_save(e);
    if (!saved || saved->code != e->code || std::strcmp(saved->text, want) != 0) fail("err_save");
    int t = 1 + r.below(3);
    qzerror *o = err_set(8, t);
    if (!o || o->code != QZERR_CODE(8, g_type_severities[t], t) || std::strcmp(o->text, g_type_texts[t]) != 0)
      fail("err_set(8, %d): %d \"%s\"", t, o ? o->code : -1, o && o->text ? o->text : "(null)");
    qzerror *s = err_set(QZERR_T_SYSTEM, 3002);
    if (!s || !s->text || g_system_text != s->text) fail("err_set(system, 2): \"%s\"", s && s->text ? s->text : "(null)");
    qzerror *back = err_restore(saved);
    if (!back || back->code != QZERR_CODE(9, 3, n) || std::strcmp(back->text, want) != 0)
      fail("err_restore: %d \"%s\"", back ? back->code : -1, back && back->text ? back->text : "(null)");
    qzerror copy;
    err_dup2(back, &copy);
    if (copy.code != QZERR_CODE(9, 3, n) || !copy.text || std::strcmp(copy.text, want) != 0) fail("err_dup2");
    err_free(&copy);
  }
  return 8 * 6;
}

// ---- identifiers ----
size_t g_ids_kept = 0;  // per thread; later ones are made but not kept
std::mutex g_ids_mu;
std::vector<qzui> g_ids;

long ids_round(std::vector<qzui> &mine) {
  for (int k = 0; k < 64; ++k) {
    qzui id;
    qzui_create(&id, 5, 77);  // one type and value for all: only time and counter tell them apart
    if (mine.size() < g_ids_kept) mine.push_back(id);
  }
  return 64;
}

// ---- host cache ----
struct HostQuestion {
  const char *a, *b;
  int same;  // samehost(a, b) as the main thread found it
};
HostQuestion g_host_questions[] = {
    {"localhost", "127.0.0.1", 0}, {"LOCALHOST", "localhost", 0}, {"127.0.0.1", "192.0.2.1", 0},
    {"192.0.2.7", "192.0.2.7", 0}, {"192.0.2.7", "192.0.2.8", 0}, {nullptr, "localhost", 0},
    {"localhost", "192.0.2.200", 0},
};
int g_myname_localhost = 0, g_myname_doc = 0;

long hosts_round(Rand &r) {
  long ops = 0;
  for (auto &q : g_host_questions) {
    if (samehost(q.a, q.b) != q.same) fail("samehost(%s, %s) changed under load", q.a ? q.a : "null", q.b);
    ++ops;
  }
  if (is_myname("localhost") != g_myname_localhost) fail("is_myname(localhost) changed under load");
  if (is_myname("192.0.2.9") != g_myname_doc) fail("is_myname(192.0.2.9) changed under load");
  ops += 2;
  if (hostent *h = qzgethostbyname("localhost")) {
    if (h->h_addrtype != AF_INET || !h->h_addr_list[0] || static_cast<unsigned char>(h->h_addr_list[0][0]) != 127)
      fail("qzgethostbyname(localhost): not a loopback address");
  } else {
    fail("qzgethostbyname(localhost) failed (%d)", errno);
  }
  const unsigned char loop[4] = {127, 0, 0, 1};
  if (!qzgethostbyaddr(reinterpret_cast<const char *>(loop), 4, AF_INET)) fail("qzgethostbyaddr(127.0.0.1) failed");
  if (r.below(8) == 0) {
    if (char *p = get_primaryhostname("localhost")) std::free(p);
    else fail("get_primaryhostname(localhost) failed");
    ++ops;
  }
  return ops + 2;
}

// ---- cancellation ----
struct CancelGroup {
  qz_socket_t listener = QZ_INVALID_SOCKET;
  sockaddr_in addr{};
  int pairs = 0;
  std::vector<qz_socket_t> rx, tx;                 // receiving and sending ends of each pair
  std::vector<std::atomic<uint64_t>> sent, got;    // bytes per pair
  std::atomic<long> connects{0}, accepts{0};
  std::atomic<long> connects_cut{0};               // cancelled: may or may not reach the listener
  std::atomic<long> released{0};                   // blocked calls ended by a cancel
  std::atomic<long> cancels{0};
  std::atomic<bool> feeding_done{false};
  std::atomic<int> waiters_left{0};
  explicit CancelGroup(int n) : pairs(n), rx(n), tx(n), sent(n), got(n) {}
};
CancelGroup *g_cancel = nullptr;

unsigned char pattern(int pair, uint64_t k) { return static_cast<unsigned char>(k * 7 + pair * 13 + (k >> 8)); }

qz_socket_t tcp_socket() { return qzsocket(AF_INET, SOCK_STREAM, 0); }

// The canceller: cancels every few milliseconds until every waiter has left.
void cancel_canceller(Rand &r, long &ops) {
  CancelGroup &g = *g_cancel;
  while (g.waiters_left.load() > 0) {
    std::this_thread::sleep_for(std::chrono::microseconds(500 + r.below(4000)));
    qz_socancel();
    ++g.cancels;
    ++ops;
  }
}

// The feeder: bytes into every pair, and connections to the listener (never
// more than 8 waiting to be accepted, so that no connect has to wait).
void cancel_feeder(Rand &r, long &ops) {
  CancelGroup &g = *g_cancel;
  std::vector<unsigned char> buf(512);
  while (!g_stop.load()) {
    for (int p = 0; p < g.pairs; ++p) {
      if (g.sent[p].load() - g.got[p].load() > (256u << 10)) continue;  // the receiver is behind: never block in send
      int n = 1 + r.below(static_cast<int>(buf.size()));
      uint64_t at = g.sent[p].load();
      for (int i = 0; i < n; ++i) buf[i] = pattern(p, at + i);
      int put = qzsend(g.tx[p], reinterpret_cast<const char *>(buf.data()), n, 0);
      if (put > 0) g.sent[p] += static_cast<uint64_t>(put);
      else if (errno != EINTR) fail("qzsend: errno %d", errno);
      ++ops;
    }
    if (g.connects.load() - g.accepts.load() < 8) {
      qz_socket_t c = tcp_socket();
      if (c == QZ_INVALID_SOCKET) {
        fail("qzsocket: errno %d", errno);
      } else {
        if (qzconnect(c, reinterpret_cast<sockaddr *>(&g.addr), sizeof g.addr) == 0) ++g.connects;
        else if (errno == EINTR) ++g.connects_cut;
        else fail("qzconnect: errno %d", errno);
        qzsoclose(c);
        ops += 3;
      }
    }
    std::this_thread::sleep_for(std::chrono::microseconds(200 + r.below(800)));
  }
  g.feeding_done = true;
}

// An acceptor: blocked in qzaccept until a connection or a cancel.
void cancel_acceptor(long &ops) {
  CancelGroup &g = *g_cancel;
  while (!(g.feeding_done.load() && g.accepts.load() >= g.connects.load())) {
    qz_socket_t s = qzaccept(g.listener, nullptr, nullptr);
    ++ops;
    if (s != QZ_INVALID_SOCKET) {
      ++g.accepts;
      qzsoclose(s);
    } else if (errno == EINTR) {
      ++g.released;
    } else {
      fail("qzaccept: errno %d", errno);
    }
  }
  --g.waiters_left;
}

// A receiver: blocked in qz_select on its pair until bytes or a cancel; every
// byte must arrive once and in order.
void cancel_receiver(int p, long &ops) {
  CancelGroup &g = *g_cancel;
  std::vector<unsigned char> buf(4096);
  uint64_t at = 0;
  while (!(g.feeding_done.load() && at == g.sent[p].load())) {
    qz_fd_set rd;
    QZ_FD_ZERO(&rd);
    QZ_FD_SET(g.rx[p], &rd);
    int n = qz_select(0, &rd, nullptr, nullptr, nullptr);
    ++ops;
    if (n < 0) {
      if (errno == EINTR) ++g.released;
      else fail("qz_select: errno %d", errno);
      continue;
    }
    int got = qzrecv(g.rx[p], reinterpret_cast<char *>(buf.data()), static_cast<int>(buf.size()), 0);
    ++ops;
    if (got <= 0) {
      fail("qzrecv: %d, errno %d", got, errno);
      break;
    }
    for (int i = 0; i < got; ++i)
      if (buf[i] != pattern(p, at + i)) {
        fail("pair %d: byte %llu wrong", p, static_cast<unsigned long long>(at + i));
        break;
      }
    at += static_cast<uint64_t>(got);
    g.got[p] = at;
  }
  --g.waiters_left;
}

bool cancel_setup(int threads) {
  // Roles: the canceller, the feeder, then acceptors and receivers taking turns.
  int waiters = threads - 2;
  int pairs = waiters / 2 > 0 ? (waiters + 1) / 2 : 0;
  g_cancel = new CancelGroup(pairs);
  CancelGroup &g = *g_cancel;
  g.waiters_left = waiters;
  g.listener = tcp_socket();
  g.addr.sin_family = AF_INET;
  g.addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  qz_socklen_t len = sizeof g.addr;
  if (g.listener == QZ_INVALID_SOCKET || qzbind(g.listener, reinterpret_cast<sockaddr *>(&g.addr), len) != 0 ||
      qzlisten(g.listener, 64) != 0 || qzgetsockname(g.listener, reinterpret_cast<sockaddr *>(&g.addr), &len) != 0)
    return fail("listener: errno %d", errno), false;
  for (int p = 0; p < pairs; ++p) {
    g.tx[p] = tcp_socket();
    if (g.tx[p] == QZ_INVALID_SOCKET || qzconnect(g.tx[p], reinterpret_cast<sockaddr *>(&g.addr), sizeof g.addr) != 0)
      return fail("pair %d: connect: errno %d", p, errno), false;
    g.rx[p] = qzaccept(g.listener, nullptr, nullptr);
    if (g.rx[p] == QZ_INVALID_SOCKET) return fail("pair %d: accept: errno %d", p, errno), false;
  }
  return true;
}

void cancel_teardown() {
  CancelGroup &g = *g_cancel;
  for (int p = 0; p < g.pairs; ++p) {
    qzsoclose(g.rx[p]);
    qzsoclose(g.tx[p]);
  }
  qzsoclose(g.listener);
}

// ---- the workers ----
enum Kind { kAreas, kCatalog, kNumbers, kIdText, kErrors, kIds, kHosts, kCancel, kKinds };
const char *kKindNames[] = {"areas", "catalog", "numbers", "idtext", "errors", "ids", "hosts", "cancel"};

struct Worker {
  int index = 0;
  Kind kind = kAreas;
  int role = 0;  // its place among the workers of its kind
  long ops = 0;
  qz_thr_t *thr = nullptr;
};

void *work(void *arg) {
  Worker &w = *static_cast<Worker *>(arg);
  Rand r(static_cast<uint64_t>(w.index) + 1);
  if (w.kind == kCancel) {
    const int waiter = w.role - 2;  // acceptors and receivers take turns
    if (w.role == 0) cancel_canceller(r, w.ops);
    else if (w.role == 1) cancel_feeder(r, w.ops);
    else if (waiter % 2 == 1 || waiter / 2 >= g_cancel->pairs) cancel_acceptor(w.ops);
    else cancel_receiver(waiter / 2, w.ops);
    return nullptr;
  }
  std::vector<qzui> ids;
  while (!g_stop.load()) {
    switch (w.kind) {
      case kAreas: w.ops += areas_round(r); break;
      case kCatalog: w.ops += catalog_round(r); break;
      case kNumbers: w.ops += numbers_round(r); break;
      case kIdText: w.ops += idtext_round(r); break;
      case kErrors: w.ops += errors_round(r, w.index); break;
      case kIds: w.ops += ids_round(ids); break;
      case kHosts: w.ops += hosts_round(r); break;
      default: break;
    }
  }
  if (!ids.empty()) {
    std::lock_guard<std::mutex> l(g_ids_mu);
    g_ids.insert(g_ids.end(), ids.begin(), ids.end());
  }
  return nullptr;
}

// The library's catalog from a locale file naming English, when one exists
// next to this program; the answers the workers must get.
void catalog_setup(const std::string &appdir) {
  if (!appdir.empty()) {
    llt_catalog_set_appdir(appdir.c_str());
    llt_catalog_setup("bsw");
  }
  for (int i = 0; i < 5; ++i) g_cat.own[i] = qzcatgets(Catd, 17, kMessages[i], kDefaults[i]);
  char text[QZ_TIMETEXT_SIZE];
  g_cat.time_text = i18n_long_time(kSomeTime, text);
  int h = qzcatopen("bsw");
  for (int i = 0; i < 5; ++i) g_cat.other[i] = qzcatgets(h, 17, kMessages[i], kDefaults[i]);
  qzcatclose(h);
}

// One round of everything on the main thread: the answers under load are
// compared with these, and whatever the library makes once per process
// exists before the descriptors are counted.
void warm_up() {
  qz_mtx_create(&g_park.mtx);
  qz_cond_create(&g_park.cond);
  err_settype(8, 3, "stress", g_type_texts, g_type_severities);
  g_system_text = err_set(QZERR_T_SYSTEM, 3002)->text;
  for (auto &q : g_host_questions) q.same = samehost(q.a, q.b);
  g_myname_localhost = is_myname("localhost");
  g_myname_doc = is_myname("192.0.2.9");
  Rand r(99);
  hosts_round(r);
  numbers_round(r);
  idtext_round(r);
  qzui id;
  qzui_create(&id, 5, 77);
  qz_fd_set rd;
  QZ_FD_ZERO(&rd);
  timeval zero{0, 0};
  qz_select(0, &rd, nullptr, nullptr, &zero);
  qz_socancel();
}

}  // namespace

int main(int argc, char **argv) {
  qzinit(argv[0]);
  Tcp_Is_Loaded();
  const int secs = stress::seconds(argc, argv, 10);
  const char *only = stress::option(argc, argv, "--kind");
  const char *threads_opt = stress::option(argc, argv, "--threads");
  const char *appdir = stress::option(argc, argv, "--appdir");
  const int threads = threads_opt ? std::max(8, std::atoi(threads_opt)) : 64;
  int kind_only = -1;
  if (only) {
    for (int k = 0; k < kKinds; ++k)
      if (std::strcmp(only, kKindNames[k]) == 0) kind_only = k;
    if (kind_only < 0) {
      std::fprintf(stderr, "unknown kind %s\n", only);
      return 2;
    }
  }

  catalog_setup(appdir ? appdir : "");
  warm_up();
  stress::Watchdog dog("stress_threads", secs + 120);
  const int before = stress::open_handles();

  // Spread the kinds over the threads; the cancel group gets at least 4.
  std::vector<Worker> workers(static_cast<size_t>(threads));
  int per_kind[kKinds] = {};
  for (int i = 0; i < threads; ++i) {
    Kind k = kind_only >= 0 ? static_cast<Kind>(kind_only) : static_cast<Kind>(i % kKinds);
    workers[i] = Worker{i, k, per_kind[k]++, 0, nullptr};
  }
  if (per_kind[kIds]) g_ids_kept = 4000000 / static_cast<size_t>(per_kind[kIds]);
  if (per_kind[kCancel] && per_kind[kCancel] < 4) {
    std::fprintf(stderr, "the cancel kind needs at least 4 threads\n");
    return 2;
  }
  if (per_kind[kCancel] && !cancel_setup(per_kind[kCancel])) return stress::report("stress_threads", "setup failed", 0, 0, 0);

  const auto t0 = stress::Clock::now();
  for (auto &w : workers)
    if (!qz_thr_create(&w.thr, work, &w)) fail("qz_thr_create for worker %d", w.index);
    else ++stress::g_threads_made;
  std::this_thread::sleep_for(std::chrono::seconds(secs));
  g_stop = true;
  for (auto &w : workers) {
    if (!w.thr) continue;
    uint32_t status = 0;
    int nowait = 0;
    qz_thr_wait(w.thr, &status, &nowait);
    qz_thr_destroy(w.thr);
  }
  const double ran = stress::since(t0);

  // What the kinds did, and the checks that need every thread ended.
  long ops[kKinds] = {};
  for (auto &w : workers) ops[w.kind] += w.ops;
  std::string did = std::to_string(threads) + " threads";
  if (per_kind[kCatalog]) did += Catd >= 0 ? "; the English catalog open" : "; no catalog: English defaults";
  for (int k = 0; k < kKinds; ++k)
    if (per_kind[k]) did += std::string("; ") + kKindNames[k] + " " + std::to_string(per_kind[k]) + "x " + std::to_string(ops[k]) + " ops";
  if (per_kind[kAreas]) {
    did += "; threads killed " + std::to_string(g_killed.load()) + "; thread areas made " + std::to_string(g_tareas_made.load()) +
           ", freed " + std::to_string(g_tareas_freed.load());
    if (g_tareas_made.load() != g_tareas_freed.load()) fail("thread areas: %ld made, %ld freed", g_tareas_made.load(), g_tareas_freed.load());
    if (g_pareas_made.load() != 1) fail("%ld process areas of one kind", g_pareas_made.load());
    ProcessArea *p = g_parea.load();
    if (p && p->uses.load() != g_process_uses.load()) fail("process area: %ld uses counted, %ld made", p->uses.load(), g_process_uses.load());
  }
  if (per_kind[kIds]) {
    std::sort(g_ids.begin(), g_ids.end(), [](const qzui &a, const qzui &b) { return std::memcmp(&a, &b, sizeof a) < 0; });
    auto dup = std::adjacent_find(g_ids.begin(), g_ids.end(), [](const qzui &a, const qzui &b) { return std::memcmp(&a, &b, sizeof a) == 0; });
    did += "; " + std::to_string(g_ids.size()) + " identifiers compared (at most 4000000 are kept)";
    if (dup != g_ids.end()) fail("identifier %s made twice", qzui_to_string(&*dup, nullptr, 1));
  }
  if (per_kind[kCancel]) {
    CancelGroup &g = *g_cancel;
    uint64_t sent = 0, got = 0;
    for (int p = 0; p < g.pairs; ++p) {
      sent += g.sent[p].load();
      got += g.got[p].load();
    }
    did += "; cancels " + std::to_string(g.cancels.load()) + ", blocked calls released " + std::to_string(g.released.load()) +
           ", bytes " + std::to_string(sent) + " sent " + std::to_string(got) + " received, connections " +
           std::to_string(g.connects.load()) + " made, " + std::to_string(g.connects_cut.load()) +
           " cut by a cancel, " + std::to_string(g.accepts.load()) + " accepted";
    if (sent != got) fail("bytes lost: %llu sent, %llu received", static_cast<unsigned long long>(sent), static_cast<unsigned long long>(got));
    if (g.accepts.load() < g.connects.load() || g.accepts.load() > g.connects.load() + g.connects_cut.load())
      fail("connections: %ld made, %ld cut by a cancel, %ld accepted", g.connects.load(), g.connects_cut.load(), g.accepts.load());
    if (g.released.load() == 0) fail("no blocked call was released by a cancel");
    cancel_teardown();
  }
  return stress::report("stress_threads", did, ran, before, stress::open_handles());
}
