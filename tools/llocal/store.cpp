// The save server's store (see store.h).
#include "store.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#ifdef _WIN32
#include <process.h>
#define getpid _getpid
#else
#include <unistd.h>
#endif

namespace llocal::store {

namespace {

// Identifiers of saves: the library's type for objects a program makes for
// itself.
constexpr int kIdType = 4;

std::string join(const std::string &dir, const std::string &name) {
#ifdef _WIN32
  return dir + "\\" + name;
#else
  return dir + "/" + name;
#endif
}

bool read_info(const std::string &path, Info &info) {
  std::FILE *f = qzfopen(path.c_str(), "rb");
  if (!f) return false;
  char line[128];
  int seen = 0;
  while (std::fgets(line, sizeof line, f)) {
    unsigned long long v = 0;
    long long t = 0;
    if (std::sscanf(line, "files %llu", &v) == 1) info.files = v, seen |= 1;
    else if (std::sscanf(line, "bytes %llu", &v) == 1) info.bytes = v, seen |= 2;
    else if (std::sscanf(line, "time %lld", &t) == 1) info.time = t, seen |= 4;
  }
  qzfclose(f);
  return seen == 7;
}

long long now() {
  qz_time64_t t = qz_time(nullptr);
  return static_cast<long long>(static_cast<uint64_t>(static_cast<uint32_t>(t.high)) << 32 | t.low);
}

}  // namespace

std::string hex_of(const qzui &id) {
  static const char digits[] = "0123456789abcdef";
  std::string s;
  for (unsigned char b : id.b) {
    s += digits[b >> 4];
    s += digits[b & 15];
  }
  return s;
}

bool id_of_hex(const std::string &hex, qzui &id) {
  if (hex.size() != 40) return false;
  for (size_t i = 0; i < 20; ++i) {
    int v = 0;
    for (size_t k = 0; k < 2; ++k) {
      char c = hex[2 * i + k];
      int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
      if (d < 0) return false;
      v = v * 16 + d;
    }
    id.b[i] = static_cast<unsigned char>(v);
  }
  return true;
}

void sweep(const std::string &dir) {
  QZDIR *d = qz_opendir(dir.c_str());
  if (!d) return;
  std::vector<std::string> stale;
  while (struct qz_dirent *e = qz_readdir(d))
    if (std::strncmp(e->d_name, ".partial-", 9) == 0) stale.push_back(e->d_name);
  qz_closedir(d);
  for (const std::string &n : stale) qz_rmtree(join(dir, n).c_str());
}

std::vector<Info> list(const std::string &dir) {
  std::vector<Info> out;
  QZDIR *d = qz_opendir(dir.c_str());
  if (!d) return out;
  while (struct qz_dirent *e = qz_readdir(d)) {
    Info info;
    if (!id_of_hex(e->d_name, info.id)) continue;
    if (read_info(join(join(dir, e->d_name), "info"), info)) out.push_back(info);
  }
  qz_closedir(d);
  std::sort(out.begin(), out.end(), [](const Info &a, const Info &b) {
    return a.time != b.time ? a.time < b.time : qzui_cmp(&a.id, &b.id) < 0;
  });
  return out;
}

std::FILE *open_data(const std::string &dir, const qzui &id) {
  return qzfopen(join(join(dir, hex_of(id)), "data").c_str(), "rb");
}

Writer::~Writer() { discard(); }

bool Writer::begin(std::string &why) {
  // The process id keeps saves made at once by two handlers apart.
  qzui_create(&id_, kIdType, static_cast<uint32_t>(getpid()));
  partial_ = join(dir_, ".partial-" + hex_of(id_));
  if (qz_mkdirs(partial_.c_str(), 0700) != 0) {
    why = std::string("cannot make ") + partial_ + ": " + qzmo_strerror(errno);
    return false;
  }
  data_ = qzfopen(join(partial_, "data").c_str(), "wb");
  if (!data_) {
    why = std::string("cannot write the store: ") + qzmo_strerror(errno);
    return false;
  }
  return true;
}

bool Writer::write(const void *p, size_t n, std::string &why) {
  if (std::fwrite(p, 1, n, data_) != n) {
    why = std::string("cannot write the store: ") + qzmo_strerror(errno);
    return false;
  }
  return true;
}

bool Writer::finish(uint64_t files, uint64_t bytes, std::string &why) {
  bool ok = std::fflush(data_) == 0 && !std::ferror(data_);
  ok = qzfclose(data_) == 0 && ok;
  data_ = nullptr;
  if (ok) {
    std::FILE *f = qzfopen(join(partial_, "info").c_str(), "wb");
    ok = f != nullptr;
    if (f) {
      ok = std::fprintf(f, "files %llu\nbytes %llu\ntime %lld\n", static_cast<unsigned long long>(files),
                        static_cast<unsigned long long>(bytes), now()) > 0;
      ok = qzfclose(f) == 0 && ok;
    }
  }
  if (ok) ok = qzrename(partial_.c_str(), join(dir_, hex_of(id_)).c_str()) == 0;
  if (!ok) {
    why = std::string("cannot finish the save in the store: ") + qzmo_strerror(errno);
    return false;
  }
  done_ = true;
  return true;
}

void Writer::discard() {
  if (data_) qzfclose(data_);
  data_ = nullptr;
  if (!done_ && !partial_.empty()) qz_rmtree(partial_.c_str());
  partial_.clear();
}

}  // namespace llocal::store
