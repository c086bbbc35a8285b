// llocal save / restore / list: the clients of the save server.
//
// save walks each PATH with the library's walker (sorted, links and special
// files left out, other file systems entered only when they are local save
// sets), and sends every directory and file as entry frames, a file's bytes
// as compressed blocks with their CRC, and its SHA-1 at its end. restore
// checks every block's CRC and every file's SHA-1 before the file is renamed
// into place; list prints the saves the server keeps.
#include <cerrno>
#include <cstring>
#include <ctime>
#include <deque>
#include <memory>
#include <vector>

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

char native_sep() {
#ifdef _WIN32
  return '\\';
#else
  return '/';
#endif
}

// ---------------------------------------------------------------- progress

class Meter {
 public:
  Meter() : active_(is_terminal(stderr)), start_(clock_ms()) {}
  ~Meter() { done(); }
  void add(uint64_t files, uint64_t bytes) {
    files_ += files;
    bytes_ += bytes;
    if (!active_) return;
    long long now = clock_ms();
    if (now - last_ < 250) return;
    last_ = now;
    double secs = (now - start_) / 1000.0;
    std::fprintf(stderr, "\r%llu files, %.1f MB, %.1f MB/s   ", static_cast<unsigned long long>(files_),
                 bytes_ / 1e6, secs > 0 ? bytes_ / 1e6 / secs : 0.0);
    drawn_ = true;
  }
  void done() {
    if (drawn_) std::fprintf(stderr, "\r%60s\r", "");
    drawn_ = false;
  }

 private:
  // Wall time: the rate a user sees, not the processor time spent.
  static long long clock_ms() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return static_cast<long long>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
  }
  bool active_, drawn_ = false;
  long long start_, last_ = 0;
  uint64_t files_ = 0, bytes_ = 0;
};

// ---------------------------------------------------------------- connecting

// The text of an error frame.
std::string error_text(const Frame &f) {
  Reader r(f.payload.data(), f.payload.size());
  uint32_t code = 0;
  size_t n = 0;
  r.u32(code);
  const unsigned char *text = r.rest(n);
  return std::string(reinterpret_cast<const char *>(text), n);
}

bool open_session(const ClientArgs &a, uint8_t op, const qzui *id, std::unique_ptr<net::Conn> &conn) {
  const std::string &where = a.where;
  std::string why;
  qz_socket_t s = net::connect_to(a.address, why);
  if (s == QZ_INVALID_SOCKET) {
    error("%s: %s\n", where.c_str(), why.c_str());
    return false;
  }
  conn = std::make_unique<net::Conn>(s);
  Writer w;
  w.bytes("LLSV", 4);
  w.u32(proto::kVersion);
  w.u8(op);
  if (id) w.bytes(id->b, 20);
  Frame f;
  if (!conn->send(proto::kHello, w) || !conn->recv(f, why)) {
    error("%s: %s\n", where.c_str(), why.empty() ? "connection ended" : why.c_str());
    return false;
  }
  if (f.type == proto::kError) {
    error("%s: the server refused: %s\n", where.c_str(), error_text(f).c_str());
    return false;
  }
  return f.type == proto::kOk;
}

std::string id_text(const qzui &id) {
  char buf[64];
  const char *t = qzui_to_string(&id, buf, 1);
  return t ? t : store::hex_of(id);
}


// ---------------------------------------------------------------- the pipeline

// Items kept in the order they were queued. Those queued as work are handed
// to up to four worker threads, each with its own Work (a function object
// that makes an item ready); the others are ready at once. An item leaves
// the head only when it is ready. Items are recycled, not freed.
template <class Item, class Work>
class Pipeline {
 public:
  Pipeline() {
    qz_mtx_create(&m_);
    qz_cond_create(&work_);
    qz_cond_create(&done_);
    int n = get_num_processors();
    n = n < 1 ? 1 : n > 4 ? 4 : n;
    for (int i = 0; i < n; ++i) {
      qz_thr_t *t = nullptr;
      if (qz_thr_create(&t, run, this)) threads_.push_back(t);
    }
  }
  ~Pipeline() {
    qz_mtx_lock(m_);
    stop_ = true;
    qz_mtx_unlock(m_);
    for (qz_thr_t *t : threads_) {
      // A worker waiting for work sees the stop; wake each until all are gone.
      for (;;) {
        qz_cond_signal(work_);
        int nowait = 1;
        qz_thr_wait(t, nullptr, &nowait);
        if (nowait) break;
        delay(1);
      }
      qz_thr_destroy(t);
    }
    qz_cond_destroy(work_);
    qz_cond_destroy(done_);
    qz_mtx_destroy(m_);
    for (Item *it : order_) delete it;
    for (Item *it : spare_) delete it;
  }
  Pipeline(const Pipeline &) = delete;
  Pipeline &operator=(const Pipeline &) = delete;

  // An item to fill; hand it to push() or back to recycle().
  Item *take() {
    qz_mtx_lock(m_);
    Item *it = nullptr;
    if (!spare_.empty()) {
      it = spare_.back();
      spare_.pop_back();
    }
    qz_mtx_unlock(m_);
    return it ? it : new Item;
  }
  void push(Item *it, bool work) {
    qz_mtx_lock(m_);
    it->ready = !work;
    order_.push_back(it);
    if (work) todo_.push_back(it);
    qz_mtx_unlock(m_);
    if (work) qz_cond_signal(work_);
  }
  // The oldest item once it is ready, when more than 'keep' are queued
  // (waiting for it then); null otherwise. Give it back with recycle().
  Item *next(size_t keep) {
    qz_mtx_lock(m_);
    while (order_.size() > keep && !order_.front()->ready) qz_cond_wait(done_, m_);
    Item *it = nullptr;
    if (!order_.empty() && order_.front()->ready) {
      it = order_.front();
      order_.pop_front();
    }
    qz_mtx_unlock(m_);
    return it;
  }
  void recycle(Item *it) {
    qz_mtx_lock(m_);
    spare_.push_back(it);
    qz_mtx_unlock(m_);
  }

 private:
  static void *run(void *arg) {
    Pipeline *p = static_cast<Pipeline *>(arg);
    Work work;
    for (;;) {
      qz_mtx_lock(p->m_);
      while (p->todo_.empty() && !p->stop_) qz_cond_wait(p->work_, p->m_);
      if (p->todo_.empty()) {
        qz_mtx_unlock(p->m_);
        break;
      }
      Item *it = p->todo_.front();
      p->todo_.pop_front();
      qz_mtx_unlock(p->m_);
      work(*it);
      qz_mtx_lock(p->m_);
      it->ready = true;
      qz_mtx_unlock(p->m_);
      qz_cond_signal(p->done_);  // one waiter: the thread that queued it
    }
    T_threadexit();
    return nullptr;
  }

  qz_mtx_t *m_ = nullptr;
  qz_cond_t *work_ = nullptr, *done_ = nullptr;
  std::vector<qz_thr_t *> threads_;
  std::deque<Item *> order_, todo_;
  std::vector<Item *> spare_;
  bool stop_ = false;
};

// ---------------------------------------------------------------- sending

// Frames go out in the order they were made; blocks are compressed (and
// their CRC taken) by worker threads meanwhile, at most kDepth in flight.
class Sender {
 public:
  explicit Sender(net::Conn &c) : c_(c) {}
  ~Sender() {
    if (next_) jobs_.recycle(next_);
  }
  Sender(const Sender &) = delete;
  Sender &operator=(const Sender &) = delete;

  // A buffer of kMaxBlock bytes to read a block into; hand it to block().
  std::vector<unsigned char> &buffer() {
    if (!next_) next_ = jobs_.take();
    return next_->in;
  }
  bool block(uint32_t n) {
    Job *j = next_;
    next_ = nullptr;
    j->n = n;
    // A small block costs less to compress here than to hand over.
    bool small = n < kInline;
    if (small) compress_(*j);
    jobs_.push(j, !small);
    return drain(kDepth);
  }
  bool frame(uint8_t type, const void *payload, size_t len) {
    Job *j = jobs_.take();
    proto::build(type, payload, len, j->out);
    jobs_.push(j, false);
    return drain(kDepth);
  }
  // Sends everything made so far.
  bool flush() { return drain(0); }

 private:
  static constexpr size_t kDepth = 16;
  static constexpr uint32_t kInline = 16 * 1024;
  static constexpr size_t kBatch = 64 * 1024;
  struct Job {
    std::vector<unsigned char> in = std::vector<unsigned char>(proto::kMaxBlock);
    std::vector<unsigned char> out;
    uint32_t n = 0;
    bool ready = false;
  };
  struct Compress {
    Writer w;  // the block payload, kept for its room
    void operator()(Job &j) {
      w.b.clear();
      proto::make_block(j.in.data(), j.n, w);
      proto::build(proto::kBlock, w.b.data(), w.b.size(), j.out);
    }
  };

  // Sends finished frames from the head until at most 'keep' remain.
  bool drain(size_t keep) {
    while (Job *j = jobs_.next(keep)) {
      if (j->out.size() >= kBatch) {
        send_pending();
        if (ok_) ok_ = c_.send_raw(j->out.data(), j->out.size());
      } else {
        pend_.insert(pend_.end(), j->out.begin(), j->out.end());
        if (pend_.size() >= kBatch) send_pending();
      }
      // The server speaks during a save only to refuse it: stop sending then.
      if (ok_ && ++sent_ % 64 == 0 && c_.readable()) ok_ = false;
      jobs_.recycle(j);
    }
    // Small frames wait for company until the end of the save.
    if (keep == 0) send_pending();
    return ok_;
  }

  // Small frames go out together, a batch at a time.
  void send_pending() {
    if (ok_ && !pend_.empty()) ok_ = c_.send_raw(pend_.data(), pend_.size());
    pend_.clear();
  }

  net::Conn &c_;
  Pipeline<Job, Compress> jobs_;
  Job *next_ = nullptr;
  Compress compress_;  // the walking thread's own
  bool ok_ = true;
  unsigned sent_ = 0;
  std::vector<unsigned char> pend_;
};

// ---------------------------------------------------------------- save

struct Saver {
  net::Conn &c;
  Sender out{c};
  Meter meter;
  size_t root_len = 0;  // bytes of the walked path before the first saved name
  std::string top;      // the saved name of the walk's root
  int failures = 0;
  bool broken = false;  // the connection failed: stop the walk
  Writer w;

  std::string name_of(const char *path) const {
    std::string rel = top;
    const char *rest = path + root_len;
    for (; *rest; ++rest) rel += (*rest == '\\' || *rest == '/') ? '/' : *rest;
    return rel;
  }

  bool send_entry(uint8_t kind, const struct ll_stat64 *st, const std::string &name) {
    proto::Entry e;
    e.kind = kind;
    e.mode = st ? st->st_mode & 07777 : 0;
#if defined(st_mtime)
    e.mtime = st ? st->st_mtim.tv_sec : 0;
#else
    e.mtime = st ? st->st_mtime : 0;
#endif
    e.size = kind == proto::kFile && st ? static_cast<uint64_t>(st->st_size) : 0;
    e.name = name;
    if (!proto::valid_name(e.name)) {
      error(msg(98, "%s: the name cannot be saved\n"), name.c_str());
      ++failures;
      return true;
    }
    w.b.clear();
    proto::put_entry(e, w);
    return out.frame(proto::kEntry, w.b.data(), w.b.size());
  }

  bool send_file(const char *path, const struct ll_stat64 *st, const std::string &name) {
    std::FILE *f = qzfopen(path, "rb");
    if (!f) {
      error(msg(99, "%s: %s\n"), path, errno_text());
      ++failures;
      return true;
    }
    if (!proto::valid_name(name)) {
      std::fclose(f);
      return send_entry(proto::kFile, st, name);  // reports it
    }
    if (!send_entry(proto::kFile, st, name)) {
      std::fclose(f);
      return false;
    }
    sha_ctx sha;
    sha_init(&sha);
    uint8_t status = 0;
    for (;;) {
      std::vector<unsigned char> &buf = out.buffer();
      size_t n = read_full(f, buf.data(), buf.size());
      bool last = n < buf.size();
      if (n > 0) {
        sha_update(&sha, buf.data(), n);
        if (!out.block(static_cast<uint32_t>(n))) {
          std::fclose(f);
          return false;
        }
        meter.add(0, n);
      }
      if (last) {
        if (std::ferror(f)) {
          error(msg(99, "%s: %s\n"), path, errno_text());
          ++failures;
          status = 1;
        }
        break;
      }
    }
    std::fclose(f);
    unsigned char digest[21];
    sha_final(digest, &sha);
    digest[20] = status;
    meter.add(1, 0);
    return out.frame(proto::kFileEnd, digest, sizeof digest);
  }

  static int visit(const qz_dtree_entry *e, void *arg) {
    Saver *s = static_cast<Saver *>(arg);
    bool ok = true;
    if (e->visit == QZ_DTV_ERROR) {
      error(msg(99, "%s: %s\n"), e->path, qzmo_strerror(e->error));
      ++s->failures;
    } else if (e->visit == QZ_DTV_PRE) {
      ok = s->send_entry(proto::kDir, e->st, s->name_of(e->path));
    } else if (e->visit == QZ_DTV_ENTRY && e->kind == QZ_DTK_FILE) {
      ok = s->send_file(e->path, e->st, s->name_of(e->path));
    }
    if (!ok) {
      s->broken = true;
      return QZ_DTW_STOP;
    }
    return QZ_DTW_CONTINUE;
  }
};

// The file-system table's entry a path lies on: the longest mount directory
// that is a prefix of it.
const qz_fstab_t *mount_of(const std::string &path) {
  const qz_fstab_t *best = nullptr;
  size_t best_len = 0;
  for (const qz_fstab_t *n = getfstab(nullptr); n; n = n->next) {
    if (!n->name) continue;
    size_t len = std::strlen(n->name);
    bool root = len == 1 && (n->name[0] == '/' || n->name[0] == '\\');
    if (path.compare(0, len, n->name) == 0 &&
        (root || path.size() == len || path[len] == '/' || path[len] == '\\') && len >= best_len) {
      best = n;
      best_len = len;
    }
  }
  return best;
}

// Mount points below a saved path are entered only when they are local save sets.
int mount_handler(const qz_dtree_entry *e, int) {
  const qz_fstab_t *m = mount_of(e->path);
  return m && is_local_saveset(m) ? QZ_DTH_FOLLOW : QZ_DTH_REPORT;
}

}  // namespace

int cmd_save(int argc, char **argv) {
  const Command &cmd = *find_command("save");
  ClientArgs a;
  const Verdict v = parse_save(argc, argv, a);
  if (v.what == Verdict::kHelp) return help(cmd);
  if (v.what == Verdict::kBad) return usage_error(cmd, "%s", v.why.c_str());
  const std::vector<std::string> &ops = a.paths;
  std::unique_ptr<net::Conn> conn;
  if (!open_session(a, proto::kOpSave, nullptr, conn)) return kUsage;
  Saver s{*conn};
  qz_dtree_sethandler(QZ_DTK_MOUNT, mount_handler);
  for (size_t i = 0; i < ops.size() && !s.broken; ++i) {
    char full[4096];
    std::string path = fullpath(ops[i].c_str(), full, sizeof full) ? full : ops[i];
    const qz_fstab_t *m = mount_of(path);
    if (m && !is_local_saveset(m)) {
      error(msg(85, "%s: not on a local file system, left out\n"), ops[i].c_str());
      ++s.failures;
      continue;
    }
    // The saved names start at the path's last component ("root" for a root).
    size_t cut = path.find_last_of("/\\");
    while (cut != std::string::npos && cut + 1 == path.size() && cut > 0) {
      path.pop_back();
      cut = path.find_last_of("/\\");
    }
    s.top = cut == std::string::npos ? path : path.substr(cut + 1);
    if (s.top.empty() || s.top.back() == ':') s.top = "root";
    s.root_len = path.size();
    if (qz_dtree_walk(path.c_str(), 0, Saver::visit, &s) < 0 && !s.broken) {
      error(msg(99, "%s: %s\n"), ops[i].c_str(), errno_text());
      ++s.failures;
    }
  }
  qz_dtree_sethandler(QZ_DTK_MOUNT, nullptr);
  s.meter.done();
  Frame f;
  std::string why;
  bool sent = !s.broken && s.out.frame(proto::kEnd, nullptr, 0) && s.out.flush();
  // A save the server refused ends with its error frame: read it for the reason.
  if (!conn->recv(f, why) || f.type != proto::kSaved || !sent) {
    std::string text = f.type == proto::kError ? error_text(f) : why.empty() ? "connection ended" : why;
    error(msg(86, "the save failed: %s\n"), text.c_str());
    return kUsage;
  }
  Reader r(f.payload.data(), f.payload.size());
  qzui id{};
  uint64_t files = 0, bytes = 0;
  if (!r.bytes(id.b, 20) || !r.u64(files) || !r.u64(bytes)) {
    error(msg(86, "the save failed: %s\n"), "malformed reply");
    return kUsage;
  }
  out("%s\n", id_text(id).c_str());
  if (is_terminal(stderr))
    std::fprintf(stderr, "%llu files, %llu bytes\n", static_cast<unsigned long long>(files),
                 static_cast<unsigned long long>(bytes));
  return s.failures ? kFailed : kOk;
}

namespace {

// The place of a restored name below dir, with the system's separator.
std::string target_of(const std::string &dir, const std::string &name) {
  std::string t = dir;
  if (!t.empty() && t.back() != '/' && t.back() != '\\') t += native_sep();
  for (char c : name) t += c == '/' ? native_sep() : c;
  return t;
}

std::string parent_of(const std::string &path) {
  size_t cut = path.find_last_of("/\\");
  return cut == std::string::npos ? std::string() : path.substr(0, cut);
}

// Frames of a restore in the order they came; block frames are opened
// (decoded, CRC checked) by worker threads meanwhile, at most
// kReceiveDepth ahead of the frame in use.
struct Received {
  Frame f;
  std::vector<unsigned char> out;
  proto::Block b;
  bool parsed = false;  // the block frame's fields hold
  bool opened = false;  // ... and its bytes decoded and checked
  bool ready = false;
};
struct OpenBlock {
  void operator()(Received &it) {
    if (it.out.empty()) it.out.resize(proto::kBlockRoom);
    it.parsed = proto::get_block(it.f.payload.data(), it.f.payload.size(), it.b);
    it.opened = it.parsed && proto::open_block(it.b, it.out.data());
  }
};
using Receiver = Pipeline<Received, OpenBlock>;
constexpr size_t kReceiveDepth = 16;

// One restore's files: each written under a temporary name and renamed into
// place once its blocks and its SHA-1 checked out.
struct Restorer {
  const std::string &dir;
  Meter meter;
  std::unique_ptr<Output> file;
  std::string file_name;
  sha_ctx sha;
  bool file_bad = false;
  int failures = 0;

  enum Step { kGoOn, kDone, kBroken };

  Step take(Received &it) {
    const Frame &f = it.f;
    if (f.type == proto::kEnd && !file) return kDone;
    if (f.type == proto::kEntry && !file) {
      proto::Entry e;
      if (!proto::get_entry(f.payload.data(), f.payload.size(), e)) return kBroken;
      std::string target = target_of(dir, e.name);
      if (e.kind == proto::kDir) {
        if (qz_mkdirs(target.c_str(), 0755) != 0 && errno != EEXIST) {
          error(msg(99, "%s: %s\n"), target.c_str(), errno_text());
          ++failures;
        }
        return kGoOn;
      }
      std::string parent = parent_of(target);
      if (!parent.empty()) qz_mkdirs(parent.c_str(), 0755);
      file = std::make_unique<Output>();
      file_name = target;
      file_bad = !file->open(target, true);
      sha_init(&sha);
      return kGoOn;
    }
    if (f.type == proto::kBlock && file) {
      if (!it.parsed) return kBroken;
      if (!it.opened) {
        if (!file_bad) error(msg(90, "%s: a stored block is damaged\n"), file_name.c_str());
        file_bad = true;
        return kGoOn;
      }
      sha_update(&sha, it.out.data(), it.b.length);
      if (!file_bad && !file->write(it.out.data(), it.b.length)) file_bad = true;
      meter.add(0, it.b.length);
      return kGoOn;
    }
    if (f.type == proto::kFileEnd && file && f.payload.size() == 21) {
      unsigned char digest[20];
      sha_final(digest, &sha);
      if (!file_bad && std::memcmp(digest, f.payload.data(), 20) != 0) {
        error(msg(81, "%s: the restored bytes do not match the saved file\n"), file_name.c_str());
        file_bad = true;
      }
      if (file_bad || !file->commit()) {
        file->abandon();
        ++failures;
      }
      file.reset();
      meter.add(1, 0);
      return kGoOn;
    }
    return kBroken;  // a frame out of place
  }
};

}  // namespace

int cmd_restore(int argc, char **argv) {
  const Command &cmd = *find_command("restore");
  ClientArgs a;
  const Verdict v = parse_restore(argc, argv, a);
  if (v.what == Verdict::kHelp) return help(cmd);
  if (v.what == Verdict::kBad) return usage_error(cmd, "%s", v.why.c_str());
  std::unique_ptr<net::Conn> conn;
  if (!open_session(a, proto::kOpRestore, &a.id, conn)) return kUsage;
  const std::string &dir = a.paths[0];
  if (qz_mkdirs(dir.c_str(), 0755) != 0 && errno != EEXIST) {
    error(msg(99, "%s: %s\n"), dir.c_str(), errno_text());
    return kFailed;
  }
  Restorer rs{dir};
  Receiver rx;
  std::string why;
  bool received = true;  // all frames up to the end or an error frame came
  Restorer::Step step = Restorer::kGoOn;
  for (bool more = true; step == Restorer::kGoOn;) {
    if (more) {
      Received *it = rx.take();
      if (!conn->recv(it->f, why)) {
        rx.recycle(it);
        received = more = false;
      } else {
        more = it->f.type != proto::kEnd && it->f.type != proto::kError;
        rx.push(it, it->f.type == proto::kBlock);
      }
    }
    // Frames are taken in order; while more are coming, up to kReceiveDepth wait.
    while (Received *it = rx.next(more ? kReceiveDepth : 0)) {
      if (it->f.type == proto::kError) {
        error(msg(89, "the restore failed: %s\n"), error_text(it->f).c_str());
        rx.recycle(it);
        if (rs.file) rs.file->abandon();
        return kFailed;
      }
      step = rs.take(*it);
      rx.recycle(it);
      if (step != Restorer::kGoOn) break;
    }
    if (!more && step == Restorer::kGoOn) break;  // every frame used, no end came
  }
  rs.meter.done();
  if (step != Restorer::kDone) {
    if (rs.file) rs.file->abandon();
    error(msg(89, "the restore failed: %s\n"), received ? "a frame breaks the protocol" : why.c_str());
    return kFailed;
  }
  return rs.failures ? kFailed : kOk;
}

int cmd_list(int argc, char **argv) {
  const Command &cmd = *find_command("list");
  ClientArgs a;
  const Verdict v = parse_list(argc, argv, a);
  if (v.what == Verdict::kHelp) return help(cmd);
  if (v.what == Verdict::kBad) return usage_error(cmd, "%s", v.why.c_str());
  std::unique_ptr<net::Conn> conn;
  if (!open_session(a, proto::kOpList, nullptr, conn)) return kUsage;
  Frame f;
  std::string why;
  while (conn->recv(f, why) && f.type == proto::kListed) {
    Reader r(f.payload.data(), f.payload.size());
    qzui id{};
    uint64_t t = 0, files = 0, bytes = 0;
    if (!r.bytes(id.b, 20) || !r.u64(t) || !r.u64(files) || !r.u64(bytes)) break;
    char when[64] = "?";
    qz_time64_t qt{static_cast<uint32_t>(t), static_cast<int32_t>(t >> 32)};
    if (struct tm *tm = qz_localtime(qt)) std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", tm);
    out("%s  %s  %llu files  %llu bytes\n", id_text(id).c_str(), when, static_cast<unsigned long long>(files),
        static_cast<unsigned long long>(bytes));
  }
  if (f.type != proto::kEnd) {
    error(msg(82, "the listing failed: %s\n"), why.empty() ? "a frame breaks the protocol" : why.c_str());
    return kFailed;
  }
  return kOk;
}

}  // namespace llocal
