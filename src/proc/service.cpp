// Services: the state machine shared by both back-ends, the rules of the
// exported calls, and command-line installation.
#include "proc/service_state.h"

#include <atomic>
#include <cctype>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <vector>

#include "frame/os.h"
#include "proc/events.h"
#include <liblocal/eventlog.h>
#include <liblocal/socket.h>
#include "proc/service_hooks.h"
#include <liblocal/catalog.h>
#include <liblocal/frame.h>
#include <liblocal/memory.h>
#include <liblocal/output.h>
#include <liblocal/service.h>
#include <liblocal/strutil.h>

namespace ll::svc {
namespace {

constexpr size_t kNameMax = 30;

struct Shared {
  std::mutex lock;
  std::condition_variable cv;
  bool signalled = true;  // the state event: created set, set on every change
  std::vector<int> changes;  // states set since the service main last looked, in order
  std::atomic<int> state{kNone};
  std::atomic<int> exit_code{0};
  std::atomic<qz_event_handler> stop_handler{nullptr};
  char name[kNameMax + 1] = {};
  std::string display;
  uint32_t checkpoint = 0;
};

Shared &sh() {
  static Shared *s = new Shared;  // outlives every thread that may still report
  return *s;
}

Times g_times;

bool same_name(const char *a, const char *b) {
  for (; *a && *b; ++a, ++b)
    if (std::tolower(static_cast<unsigned char>(*a)) != std::tolower(static_cast<unsigned char>(*b))) return false;
  return *a == *b;
}

// True when 'name' names another service than this process's own.
bool other_service(const char *n) { return n && !same_name(n, sh().name); }

void set_and_signal(int st) {
  Shared &s = sh();
  {
    std::lock_guard<std::mutex> g(s.lock);
    s.state.store(st);
    if (s.changes.size() < 64) s.changes.push_back(st);
    s.signalled = true;
  }
  s.cv.notify_all();
}

// A catalog text (set 17) copied into the object under the catalog's lock:
// no other thread's lookup can change it while it is in use.
struct Msg {
  char text[512];
  Msg(int n, const char *def) noexcept { qzcatgets_buf(text, sizeof text, Catd, 17, n, def); }
  const char *c_str() const noexcept { return text; }
};

Msg msg(int n, const char *def) noexcept { return Msg(n, def); }

int poll_until(const char *name, int limit, Status want) {
  const uint32_t t0 = ll::os::tick_ms();
  for (;;) {
    Status st;
    if (!os::query(name, &st)) return -1;
    if (st == want) return 0;
    if (limit >= 0 && (ll::os::tick_ms() - t0) / 1000u > static_cast<uint32_t>(limit)) return -1;
    delay(times().poll_ms);
  }
}

}  // namespace

Times &times() noexcept { return g_times; }
int state() noexcept { return sh().state.load(); }
void set_state(int st) noexcept { set_and_signal(st); }
const char *name() noexcept { return sh().name; }
const char *display() noexcept { return sh().display.empty() ? sh().name : sh().display.c_str(); }
void set_display(const std::string &d) noexcept { sh().display = d; }
int exit_code() noexcept { return sh().exit_code.load(); }

void service_main() noexcept {
  Shared &s = sh();
  const uint32_t started = ll::os::tick_ms();
  set_state(kStarting);
  for (;;) {
    bool timed_out = false;
    std::vector<int> seen;
    {
      std::unique_lock<std::mutex> g(s.lock);
      if (s.state.load() == kRunning) {
        s.cv.wait(g, [&] { return s.signalled; });
      } else {
        timed_out = !s.cv.wait_for(g, std::chrono::milliseconds(times().wait_ms), [&] { return s.signalled; });
      }
      s.signalled = false;
      seen.swap(s.changes);
    }
    if (timed_out && (ll::os::tick_ms() - started) / 1000u > times().start_limit_s && s.state.load() != kStopping) {
      s.exit_code.store(kStartTimeout);
      s.state.store(kStopping);
      seen.clear();
    }
    // Every state set since the last look is reported, in order: a start
    // followed at once by a stop still tells the manager both.
    if (seen.empty() || seen.back() != s.state.load()) seen.push_back(s.state.load());
    for (const int st : seen) {
      bool ok = true;
      int err = 0;
      switch (st) {
        case kStarting: ok = os::report(kStarting, 0, ++s.checkpoint, 15000, &err); break;
        case kRunning: ok = os::report(kRunning, 0, 0, 0, &err); break;
        case kPaused: ok = os::report(kPaused, 0, 0, 0, &err); break;
        case kStopping: ok = os::report(kStopping, s.exit_code.load(), 1, 50000, &err); break;
        default: break;
      }
      if (!ok) StopThisService(nullptr, err);
      if (st == kStopping) break;
    }
    if (s.state.load() == kStopping) break;
  }
  // The program may return from main while this thread gives it its grace:
  // from here on nothing of the library's state is touched.
  const int code = s.exit_code.load();
  if (qz_event_handler h = s.stop_handler.load()) {
    const auto grace = times().grace_ms;
    h(ll::ev::kStop);
    ll::ev::raise_cancel();
    ll::os::sleep_ms(static_cast<uint32_t>(grace));
  }
  os::end_process(code);
}

void control(Control c) noexcept {
  Shared &s = sh();
  switch (c) {
    case Control::Stop: StopThisService(nullptr, 0); break;
    case Control::Pause:
      if (s.state.load() == kRunning && os::can_pause()) {
        os::suspend_main(true);
        set_state(kPaused);
      }
      break;
    case Control::Continue:
      if (s.state.load() == kPaused) {
        os::suspend_main(false);
        set_state(kRunning);
      }
      break;
  }
}

bool take_stop_signal() noexcept {
  if (!os::stop_signal_is_service_stop() || state() == kNone) return false;
  StopThisService(nullptr, 0);
  return true;
}

void teardown() noexcept {
  Shared &s = sh();
  os::close_handles();
  if (s.state.load() == kNone) return;
  const int code = s.exit_code.load();
  os::final_report(code);
  if (code != 0)
    eventprintf(1, 0, msg(176, "%s error: %d").c_str(), display(), code);
  else
    eventprintf(4, 0, msg(177, "%s has stopped").c_str(), display());
}

}  // namespace ll::svc

using namespace ll::svc;

extern "C" {

LL_API int RunByService(void) noexcept { return os::run_by_service() ? 1 : 0; }

LL_API int RegisterThisService(const char *service) noexcept {
  Tcp_Is_Loaded();
  if (!RunByService() || !service) return 0;
  Shared &s = sh();
  if (s.state.load() != kNone) return s.state.load();
  std::strncpy(s.name, service, kNameMax);
  s.name[kNameMax] = '\0';
  ll::ev::start();
  if (!os::begin(s.name)) {
    dprintf(0, "%s", msg(178, "cannot start service dispatcher\n").c_str());
    ll::ev::os::exit_process(1);
  }
  while (s.state.load() == kNone && !os::failed()) delay(1000);
  return s.state.load();
}

LL_API int StartThisService(const char *service) noexcept {
  if (!RunByService()) return -1;
  const int st = state();
  if (st == kNone || st == kRunning) return -1;
  if (other_service(service)) return start_service(service, 60);
  eventprintf(4, 0, msg(175, "%s has started").c_str(), display());
  set_state(kRunning);
  return 0;
}

LL_API int StopThisService(const char *service, int code) noexcept {
  if (!RunByService()) return -1;
  if (other_service(service)) return stop_service(service, 40);
  Shared &s = sh();
  const int st = s.state.load();
  if (st == kNone || st == kStopping) return -1;
  if (code != 0) s.exit_code.store(code);
  set_state(kStopping);
  return 0;
}

LL_API void sethandlerfunc(qz_event_handler handler) noexcept { sh().stop_handler.store(handler); }

LL_API int is_service_running(const char *service) noexcept {
  Status st;
  if (!service || !os::query(service, &st)) return 0;
  return st == Status::Running || st == Status::StartPending;
}

LL_API int start_service(const char *service, int limit) noexcept {
  Status st;
  if (!service || !os::query(service, &st)) return -1;
  if (st != Status::Stopped) return 0;
  if (!os::start(service)) return -1;
  return poll_until(service, limit, Status::Running);
}

LL_API int stop_service(const char *service, int limit) noexcept {
  Status st;
  if (!service || !os::query(service, &st)) return -1;
  if (st == Status::Stopped) return 0;
  if (!os::stop(service)) return -1;
  return poll_until(service, limit, Status::Stopped);
}

LL_API int SvcInstalling2(int argc, char **argv, const char *service, const char *disp, int pass) noexcept {
  if (!argv || !argv[0] || !argv[1]) return 0;
  const bool add = same_name(argv[1], "-ADD");
  if (!add && !same_name(argv[1], "-REM")) return 0;
  if (!service || !*service) return 1;
  if (add) {
    std::vector<std::string> args;
    for (int i = 2; pass && argc > 2 && i < argc && argv[i]; ++i) args.emplace_back(argv[i]);
    os::install(service, disp && *disp ? disp : service, args);
  } else {
    os::remove(service);
  }
  return 1;
}

LL_API int SvcInstalling(char **argv, const char *service, const char *disp) noexcept {
  return SvcInstalling2(1, argv, service, disp, 0);
}

LL_API int Win9xService(int flag) noexcept { return os::win9x_service(flag); }

// Test seam: shortens the service machinery's times (0 keeps a value).
LL_API void llt_svc_times(unsigned start_limit_s, unsigned grace_ms, unsigned wait_ms, unsigned poll_ms) noexcept {
  Times &t = times();
  if (start_limit_s) t.start_limit_s = start_limit_s;
  if (grace_ms) t.grace_ms = grace_ms;
  if (wait_ms) t.wait_ms = wait_ms;
  if (poll_ms) t.poll_ms = poll_ms;
}

}  // extern "C"
