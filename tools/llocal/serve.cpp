// llocal serve: the save server. The daemon accepts connections and hands
// each to a child process it spawns with the connection as the child's only
// inherited descriptor ("llocal serve -C SOCKET -s STORE"), reaping children
// with waitchild(-1) between accepts. The child speaks the protocol of
// proto.h and keeps or serves saves in the store (store.h).
//
// Stopping: the kill event (llocal stop PID, the service manager's stop, a
// console Ctrl-C) sets a flag and cancels every blocking socket call of the
// process; the daemon stops accepting, asks its children to stop (a child
// discards the save it was receiving), reaps them and exits 0.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#ifdef _WIN32
#include <io.h>
#endif

#include "cmdargs.h"
#include "llocal.h"
#include "netio.h"
#include "proto.h"
#include "store.h"

namespace llocal {

namespace {

using proto::Frame;
using proto::Reader;
using proto::Writer;

constexpr const char *kServiceDisplay = "llocal save server";

std::atomic<int> g_stop{0};

// The tool's own executable, found beside the running program.
std::string self_path() {
  char buf[4096];
  const char *p = execpath("llocal", buf, sizeof buf);
  return p && *p ? std::string(p) : std::string("llocal");
}

std::string current_folder() {
  std::string cwd(4096, '\0');
  return qzmo_getcwd(cwd.data(), static_cast<int>(cwd.size())) ? std::string(cwd.c_str()) : std::string();
}

void on_stop(int) {
  g_stop.store(1);
  qz_socancel();
}

// The connection a handler child was started with.
qz_socket_t stdin_socket() {
#ifdef _WIN32
  return static_cast<qz_socket_t>(_get_osfhandle(0));
#else
  return 0;
#endif
}

// ---------------------------------------------------------------- one connection

struct Session {
  net::Conn &c;
  std::string store;
  std::string why;
};

bool serve_save(Session &s) {
  store::Writer w(s.store);
  if (!w.begin(s.why)) {
    s.c.fail(proto::kErrStore, s.why);
    return false;
  }
  std::vector<unsigned char> framed;
  Frame f;
  bool in_file = false;
  uint64_t files = 0, bytes = 0;
  for (;;) {
    if (!s.c.recv(f, s.why)) return false;  // the writer discards what it got
    bool ok = true;
    switch (f.type) {
      case proto::kEntry: {
        proto::Entry e;
        ok = !in_file && proto::get_entry(f.payload.data(), f.payload.size(), e);
        if (ok && e.kind == proto::kFile) {
          in_file = true;
          ++files;
        }
        break;
      }
      case proto::kBlock: {
        // The block's fields and lengths are checked here; its bytes (CRC and
        // the file's SHA-1) are checked by the client that restores it, so
        // the server never spends a decoder on data it only keeps.
        proto::Block b;
        ok = in_file && proto::get_block(f.payload.data(), f.payload.size(), b);
        if (ok) bytes += b.length;
        break;
      }
      case proto::kFileEnd:
        ok = in_file && f.payload.size() == 21 && f.payload[20] <= 1;
        in_file = false;
        break;
      case proto::kEnd: {
        if (in_file || !f.payload.empty()) {
          ok = false;
          break;
        }
        if (!w.finish(files, bytes, s.why)) {
          s.c.fail(proto::kErrStore, s.why);
          return false;
        }
        Writer r;
        r.bytes(w.id().b, 20);
        r.u64(files);
        r.u64(bytes);
        return s.c.send(proto::kSaved, r);
      }
      default: ok = false;
    }
    if (!ok) {
      s.why = "a frame breaks the protocol";
      s.c.fail(proto::kErrProtocol, s.why);
      return false;
    }
    proto::build(f.type, f.payload.data(), f.payload.size(), framed);
    if (!w.write(framed.data(), framed.size(), s.why)) {
      s.c.fail(proto::kErrStore, s.why);
      return false;
    }
  }
}

bool serve_restore(Session &s, const qzui &id) {
  std::FILE *data = store::open_data(s.store, id);
  if (!data) {
    s.c.fail(proto::kErrUnknownId, "no such save");
    return false;
  }
  std::vector<unsigned char> buf(proto::kHeader + proto::kMaxPayload), pend;
  constexpr size_t kBatch = 64 * 1024;
  bool ok = true;
  for (;;) {
    size_t got = read_full(data, buf.data(), proto::kHeader);
    if (got == 0 && !std::ferror(data)) break;
    uint8_t type = 0;
    uint32_t len = 0;
    if (got != proto::kHeader || !proto::parse_header(buf.data(), type, len) ||
        read_full(data, buf.data() + proto::kHeader, len) != len) {
      // The client checks every block and file; a damaged store still ends clearly.
      if (!pend.empty()) s.c.send_raw(pend.data(), pend.size());
      s.c.fail(proto::kErrStore, "the stored save is damaged");
      ok = false;
      break;
    }
    // Small frames go out together, a batch at a time.
    size_t n = proto::kHeader + len;
    if (pend.size() + n > kBatch && !pend.empty()) {
      ok = s.c.send_raw(pend.data(), pend.size());
      pend.clear();
    }
    if (ok && n >= kBatch) {
      ok = s.c.send_raw(buf.data(), n);
    } else {
      pend.insert(pend.end(), buf.begin(), buf.begin() + static_cast<std::ptrdiff_t>(n));
    }
    if (!ok) break;
  }
  std::fclose(data);
  if (ok && !pend.empty()) ok = s.c.send_raw(pend.data(), pend.size());
  return ok && s.c.send(proto::kEnd, nullptr, 0);
}

bool serve_list(Session &s) {
  for (const store::Info &i : store::list(s.store)) {
    Writer w;
    w.bytes(i.id.b, 20);
    w.u64(static_cast<uint64_t>(i.time));
    w.u64(i.files);
    w.u64(i.bytes);
    if (!s.c.send(proto::kListed, w)) return false;
  }
  return s.c.send(proto::kEnd, nullptr, 0);
}

// Serves one connection to its end; the status of the child process.
int serve_connection(qz_socket_t sock, const std::string &store_dir) {
  net::Conn c(sock);
  Session s{c, store_dir, {}};
  Frame f;
  if (!c.recv(f, s.why)) return kFailed;
  Reader r(f.payload.data(), f.payload.size());
  char magic[4];
  uint32_t version = 0;
  uint8_t op = 0;
  if (f.type != proto::kHello || !r.bytes(magic, 4) || std::memcmp(magic, "LLSV", 4) != 0 || !r.u32(version) ||
      !r.u8(op)) {
    c.fail(proto::kErrProtocol, "not a save client");
    return kFailed;
  }
  if (version != proto::kVersion) {
    c.fail(proto::kErrVersion, "unsupported protocol version");
    return kFailed;
  }
  qzui id{};
  bool hello_ok = op == proto::kOpRestore ? r.bytes(id.b, 20) && r.done()
                                          : (op == proto::kOpSave || op == proto::kOpList) && r.done();
  if (!hello_ok) {
    c.fail(proto::kErrProtocol, "unknown operation");
    return kFailed;
  }
  if (g_stop.load()) {
    c.fail(proto::kErrBusy, "the server is stopping");
    return kFailed;
  }
  Writer ok;
  ok.u32(proto::kVersion);
  if (!c.send(proto::kOk, ok)) return kFailed;
  bool done = op == proto::kOpSave ? serve_save(s) : op == proto::kOpRestore ? serve_restore(s, id) : serve_list(s);
  if (!done && !s.why.empty()) dprintf(1, "connection ended: %s\n", s.why.c_str());
  return done ? kOk : kFailed;
}

// ---------------------------------------------------------------- the daemon

// A connection handed to a thread of the daemon.
struct Handed {
  qz_socket_t sock;
  std::string store;
};

void *handler_thread(void *arg) {
  std::unique_ptr<Handed> h(static_cast<Handed *>(arg));
  serve_connection(h->sock, h->store);
  h.reset();
  T_threadexit();
  return nullptr;
}

void announce(const ServeOptions &o, int port) {
  out("listening on port %d, store %s\n", port, o.store.c_str());
  if (o.port_file.empty()) return;
  std::string tmp = o.port_file + ".tmp";
  if (std::FILE *f = qzfopen(tmp.c_str(), "wb")) {
    std::fprintf(f, "%d\n", port);
    qzfclose(f);
    qzrename(tmp.c_str(), o.port_file.c_str());
  }
}

int run_daemon(const ServeOptions &o, const char *self) {
  if (qz_mkdirs(o.store.c_str(), 0700) != 0 && errno != EEXIST) {
    error(msg(91, "cannot use the store %s: %s\n"), o.store.c_str(), errno_text());
    return kFailed;
  }
  store::sweep(o.store);
  net::Address addr = o.address;
  std::string why;
  bool service = RegisterThisService(o.name.c_str()) != 0;
  regevent(9, on_stop);
  regevent(2, on_stop);
  qz_socket_t ls = net::listen_on(addr, why);
  if (ls == QZ_INVALID_SOCKET) {
    error("%s\n", why.c_str());
    if (service) StopThisService(nullptr, 1);
    return kFailed;
  }
  announce(o, addr.port);
  if (service) StartThisService(nullptr);
  eventprintf(QZ_EVENT_INFORMATION, 0, "save server listening on port %d", addr.port);

  int children = 0;
  std::vector<qz_thr_t *> threads;
  auto reap = [&children, &threads](bool block) {
    int status = 0;
    while (children > 0) {
      int id = waitchild(-1, &status, block ? 0 : QZ_WAIT_NOHANG);
      if (id <= 0) break;
      --children;
    }
    for (size_t i = 0; i < threads.size();) {
      int nowait = 1;
      qz_thr_wait(threads[i], nullptr, &nowait);
      if (nowait) {
        qz_thr_destroy(threads[i]);
        threads.erase(threads.begin() + static_cast<std::ptrdiff_t>(i));
      } else {
        ++i;
      }
    }
  };
  while (!g_stop.load()) {
    reap(false);
    qz_fd_set set;
    QZ_FD_ZERO(&set);
    QZ_FD_SET(ls, &set);
    timeval tv{1, 0};  // wake now and then to reap children
    int r = qz_select(0, &set, nullptr, nullptr, &tv);
    if (r <= 0) continue;
    qz_socket_t c = qzaccept(ls, nullptr, nullptr);
    if (c == QZ_INVALID_SOCKET) continue;
    if (o.threads) {
      qz_thr_t *t = nullptr;
      auto *h = new Handed{c, o.store};
      if (qz_thr_create(&t, handler_thread, h)) {
        threads.push_back(t);
      } else {
        delete h;
        qzsoclose(c);
        error(msg(92, "cannot start a connection handler: %s\n"), errno_text());
      }
      continue;
    }
    // The child starts with the connection as its standard input and
    // output: the library's start-up closes every other descriptor a program
    // inherits.
    std::string self_s = self;
    std::vector<char *> args = {self_s.data(), const_cast<char *>("serve"), const_cast<char *>("-C"),
                                const_cast<char *>("-s"), const_cast<char *>(o.store.c_str()), nullptr};
    int std3[3] = {static_cast<int>(c), static_cast<int>(c), -1};
    int id = spawn(0, args.data(), nullptr, std3, nullptr);
    if (id > 0) {
      ++children;
    } else {
      error(msg(92, "cannot start a connection handler: %s\n"), errno_text());
    }
    qzsoclose(c);  // the child has its own
  }
  qzsoclose(ls);
  // Children still receiving are asked to stop; those sending finish quickly.
  if (children > 0) kill(0, 15);
  reap(true);
  // Threads still receiving are released from their wait by a cancel; one
  // that was between two waits meets the next cancel. A thread still stuck
  // after ten seconds (a client that reads nothing) ends with the process.
  for (int i = 0; i < 100 && !threads.empty(); ++i) {
    qz_socancel();
    delay(100);
    reap(false);
  }
  eventprintf(QZ_EVENT_INFORMATION, 0, "save server stopped");
  if (service) StopThisService(nullptr, 0);
  return kOk;
}

}  // namespace

int cmd_serve(int argc, char **argv) {
  const Command &cmd = *find_command("serve");
  // "-ADD"/"-REM" install or remove the server as a service that runs
  // "llocal serve" with the words after them.
  if (is_service_install(argc, argv)) {
    const ServiceInstall install = service_words(argc, argv, self_path(), current_folder());
    std::vector<char *> words;
    for (const std::string &w : install.words) words.push_back(const_cast<char *>(w.c_str()));
    words.push_back(nullptr);
    SvcInstalling2(static_cast<int>(words.size()) - 1, words.data(), install.name.c_str(), kServiceDisplay, 1);
    return kOk;
  }
  ServeOptions o;
  const Verdict v = parse_serve(argc, argv, o);
  if (v.what == Verdict::kHelp) return help(cmd);
  if (v.what == Verdict::kBad) return usage_error(cmd, "%s", v.why.c_str());
#ifdef _WIN32
  // The library tells a Windows service from a console program by the
  // absence of the profile's HOMEDRIVE, which some systems (Wine among them)
  // give services too. The installed command line says what the process is.
  if (o.service) qzputenv("HOMEDRIVE=");
#endif
  if (o.child) {
    regevent(9, on_stop);
    return serve_connection(stdin_socket(), o.store);
  }
  return run_daemon(o, "llocal");
}

int cmd_stop(int argc, char **argv) {
  const Command &cmd = *find_command("stop");
  int pid = 0;
  const Verdict v = parse_stop(argc, argv, pid);
  if (v.what == Verdict::kHelp) return help(cmd);
  if (v.what == Verdict::kBad) return usage_error(cmd, "%s", v.why.c_str());
  // The process's kill event: its kill handler runs (the server stops cleanly).
  if (kill(pid, 15) != 0 && errno == ESRCH) {
    error(msg(97, "no process %lld\n"), static_cast<long long>(pid));
    return kFailed;
  }
  return kOk;
}

}  // namespace llocal
