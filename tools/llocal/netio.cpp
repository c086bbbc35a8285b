// Connections of the save protocol over the library's sockets.
#include "netio.h"

#include "llocal.h"

#include <cctype>
#include <cerrno>
#include <cstring>

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#endif

namespace llocal::net {

namespace {

uint16_t net16(int v) {
  unsigned char b[2] = {static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
  uint16_t r;
  std::memcpy(&r, b, 2);
  return r;
}
int host16(uint16_t v) {
  unsigned char b[2];
  std::memcpy(b, &v, 2);
  return b[0] << 8 | b[1];
}

bool parse_v4(const std::string &s, unsigned char out[4]) {
  int part = 0, val = -1;
  for (size_t i = 0; i <= s.size(); ++i) {
    char c = i < s.size() ? s[i] : '.';
    if (c >= '0' && c <= '9') {
      val = (val < 0 ? 0 : val) * 10 + (c - '0');
      if (val > 255) return false;
    } else if (c == '.' && val >= 0 && part < 4) {
      out[part++] = static_cast<unsigned char>(val);
      val = -1;
    } else {
      return false;
    }
  }
  return part == 4;
}

// The IPv6 text forms a listener or client is given: groups of hex digits
// with at most one "::".
bool parse_v6(const std::string &s, unsigned char out[16]) {
  uint16_t words[8] = {};
  int n = 0, gap = -1;
  size_t i = 0;
  if (s.compare(0, 2, "::") == 0) {
    gap = 0;
    i = 2;
  }
  while (i < s.size()) {
    size_t j = i;
    unsigned v = 0;
    while (j < s.size() && j - i < 5 && std::isxdigit(static_cast<unsigned char>(s[j]))) {
      char c = s[j];
      v = v * 16 + (c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
      ++j;
    }
    if (j == i || j - i > 4 || n == 8) return false;
    words[n++] = static_cast<uint16_t>(v);
    if (j == s.size()) break;
    if (s[j] != ':') return false;
    if (j + 1 < s.size() && s[j + 1] == ':') {
      if (gap >= 0) return false;
      gap = n;
      j += 2;
      if (j == s.size()) break;
    } else {
      ++j;
    }
    i = j;
  }
  if (gap < 0 && n != 8) return false;
  uint16_t full[8] = {};
  if (gap < 0) {
    std::memcpy(full, words, sizeof full);
  } else {
    int tail = n - gap;
    for (int k = 0; k < gap; ++k) full[k] = words[k];
    for (int k = 0; k < tail; ++k) full[8 - tail + k] = words[gap + k];
  }
  for (int k = 0; k < 8; ++k) {
    out[2 * k] = static_cast<unsigned char>(full[k] >> 8);
    out[2 * k + 1] = static_cast<unsigned char>(full[k]);
  }
  return true;
}

struct Sockaddr {
  sockaddr_storage ss{};
  qz_socklen_t len = 0;
};

bool make_sockaddr(const Address &a, Sockaddr &out, std::string &why) {
  unsigned char v4[4], v6[16];
  std::string host = a.host.empty() ? "127.0.0.1" : a.host;
  if (host == "localhost") host = "127.0.0.1";
  if (parse_v4(host, v4)) {
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = net16(a.port);
    std::memcpy(&sin.sin_addr, v4, 4);
    std::memcpy(&out.ss, &sin, sizeof sin);
    out.len = sizeof sin;
    return true;
  }
  if (parse_v6(host, v6)) {
    sockaddr_in6 sin6{};
    sin6.sin6_family = AF_INET6;
    sin6.sin6_port = net16(a.port);
    std::memcpy(&sin6.sin6_addr, v6, 16);
    std::memcpy(&out.ss, &sin6, sizeof sin6);
    out.len = sizeof sin6;
    return true;
  }
  why = "not a numeric address: " + host;
  return false;
}

}  // namespace

bool parse_address(const std::string &text, Address &out, std::string &why) {
  size_t colon = text.rfind(':');
  if (colon == std::string::npos) {
    why = "an address is HOST:PORT";
    return false;
  }
  std::string host = text.substr(0, colon), port = text.substr(colon + 1);
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  long long p = -1;
  if (port.empty() || port.size() > 5 || !parse_number(port.c_str(), p) || p < 0 || p > 65535) {
    why = "bad port: " + port;
    return false;
  }
  out.host = host;
  out.port = static_cast<int>(p);
  Sockaddr sa;
  return make_sockaddr(out, sa, why);
}

qz_socket_t listen_on(Address &addr, std::string &why) {
  Tcp_Is_Loaded();
  Sockaddr sa;
  if (!make_sockaddr(addr, sa, why)) return QZ_INVALID_SOCKET;
  qz_socket_t s = qzsocket(sa.ss.ss_family, SOCK_STREAM, 0);
  if (s == QZ_INVALID_SOCKET) {
    why = std::string("cannot make a socket: ") + qzmo_strerror(errno);
    return s;
  }
#ifndef _WIN32
  int one = 1;
  qzsetsockopt(s, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char *>(&one), sizeof one);
#endif
  if (qzbind(s, reinterpret_cast<sockaddr *>(&sa.ss), sa.len) != 0 || qzlisten(s, 64) != 0) {
    why = std::string("cannot listen: ") + qzmo_strerror(errno);
    qzsoclose(s);
    return QZ_INVALID_SOCKET;
  }
  Sockaddr got;
  got.len = sizeof got.ss;
  if (qzgetsockname(s, reinterpret_cast<sockaddr *>(&got.ss), &got.len) == 0)
    addr.port = host16(got.ss.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 *>(&got.ss)->sin6_port
                                                    : reinterpret_cast<sockaddr_in *>(&got.ss)->sin_port);
  return s;
}

qz_socket_t connect_to(const Address &addr, std::string &why) {
  Tcp_Is_Loaded();
  Sockaddr sa;
  if (!make_sockaddr(addr, sa, why)) return QZ_INVALID_SOCKET;
  qz_socket_t s = qzsocket(sa.ss.ss_family, SOCK_STREAM, 0);
  if (s == QZ_INVALID_SOCKET) {
    why = std::string("cannot make a socket: ") + qzmo_strerror(errno);
    return s;
  }
  if (qzconnect(s, reinterpret_cast<sockaddr *>(&sa.ss), sa.len) != 0) {
    why = std::string("cannot connect: ") + qzmo_strerror(errno);
    qzsoclose(s);
    return QZ_INVALID_SOCKET;
  }
  return s;
}

Conn::Conn(qz_socket_t s, int idle_ms) : s_(s), idle_ms_(idle_ms) {
  int one = 1;
  qzsetsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char *>(&one), sizeof one);
}

Conn::~Conn() { close(); }

void Conn::close() {
  if (s_ != QZ_INVALID_SOCKET) qzsoclose(s_);
  s_ = QZ_INVALID_SOCKET;
}

bool Conn::send_raw(const void *data, size_t len) {
  const char *p = static_cast<const char *>(data);
  while (len > 0) {
    int chunk = len > 1u << 20 ? 1 << 20 : static_cast<int>(len);
    int n = qzsend(s_, p, chunk, 0);
    if (n <= 0) {
      if (n < 0 && errno == EINTR) continue;
      return false;
    }
    p += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

bool Conn::send(uint8_t type, const void *payload, size_t len) {
  proto::build(type, payload, len, out_);
  return send_raw(out_.data(), out_.size());
}

bool Conn::recv_all(unsigned char *p, size_t n) {
  constexpr size_t kAhead = 64 * 1024;
  while (n > 0) {
    if (in_at_ < in_end_) {
      size_t k = n < in_end_ - in_at_ ? n : in_end_ - in_at_;
      std::memcpy(p, in_.data() + in_at_, k);
      in_at_ += k;
      p += k;
      n -= k;
      continue;
    }
    qz_fd_set set;
    QZ_FD_ZERO(&set);
    QZ_FD_SET(s_, &set);
    timeval tv{idle_ms_ / 1000, (idle_ms_ % 1000) * 1000};
    int r = qz_select(0, &set, nullptr, nullptr, &tv);
    if (r <= 0) return false;  // idle too long, or cancelled (EINTR)
    if (n >= kAhead) {         // a large read goes straight to its place
      int chunk = n > 1u << 20 ? 1 << 20 : static_cast<int>(n);
      int got = qzrecv(s_, reinterpret_cast<char *>(p), chunk, 0);
      if (got <= 0) return false;
      p += got;
      n -= static_cast<size_t>(got);
      continue;
    }
    if (in_.empty()) in_.resize(kAhead);
    int got = qzrecv(s_, reinterpret_cast<char *>(in_.data()), static_cast<int>(kAhead), 0);
    if (got <= 0) return false;
    in_at_ = 0;
    in_end_ = static_cast<size_t>(got);
  }
  return true;
}

bool Conn::recv(proto::Frame &f, std::string &why) {
  unsigned char h[proto::kHeader];
  if (!recv_all(h, sizeof h)) {
    why = "connection ended";
    return false;
  }
  uint32_t len = 0;
  if (!proto::parse_header(h, f.type, len)) {
    why = "malformed frame";
    return false;
  }
  f.payload.resize(len);
  if (len && !recv_all(f.payload.data(), len)) {
    why = "connection ended inside a frame";
    return false;
  }
  return true;
}

bool Conn::readable() {
  if (in_at_ < in_end_) return true;
  qz_fd_set set;
  QZ_FD_ZERO(&set);
  QZ_FD_SET(s_, &set);
  timeval tv{0, 0};
  return qz_select(0, &set, nullptr, nullptr, &tv) > 0;
}

void Conn::fail(uint32_t code, const std::string &text) {
  proto::Writer w;
  w.u32(code);
  w.bytes(text.data(), text.size() > 1024 ? 1024 : text.size());
  (void)send(proto::kError, w);
  if (s_ != QZ_INVALID_SOCKET) qzsocloselinger(s_);
  s_ = QZ_INVALID_SOCKET;
}

}  // namespace llocal::net
