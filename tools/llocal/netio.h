// Connections of the save protocol over the library's sockets: addresses,
// whole sends and receives, and frames read with their bounds and a time
// limit.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include <liblocal.h>

#include "proto.h"

namespace llocal::net {

// "HOST:PORT", "[V6]:PORT" or ":PORT" (loopback); host names are resolved by
// the library. False with a message for a malformed address.
struct Address {
  std::string host;
  int port = 0;
};
bool parse_address(const std::string &text, Address &out, std::string &why);

// A listening socket on the address (port 0: any free port); the port it
// got is stored back. QZ_INVALID_SOCKET with a message on failure.
qz_socket_t listen_on(Address &addr, std::string &why);
qz_socket_t connect_to(const Address &addr, std::string &why);

class Conn {
 public:
  // Frames go out as they are written: the library sends a frame in pieces
  // smaller than a segment, which the system must not hold back.
  explicit Conn(qz_socket_t s, int idle_ms = 300000);
  ~Conn();
  Conn(const Conn &) = delete;
  Conn &operator=(const Conn &) = delete;
  qz_socket_t sock() const { return s_; }
  // Sends a whole frame; false when the peer is gone.
  bool send(uint8_t type, const void *payload, size_t len);
  bool send(uint8_t type, const proto::Writer &w) { return send(type, w.b.data(), w.b.size()); }
  bool send_raw(const void *data, size_t len);
  // Reads the next frame; false at the end of the connection, on a broken
  // frame (why says which), after idle_ms without a byte, or when the
  // process's sockets were cancelled (errno EINTR).
  bool recv(proto::Frame &f, std::string &why);
  // True when the peer has sent something (or closed) that is not read yet.
  bool readable();
  // Sends an error frame (best effort) and closes gracefully: what the peer
  // still sends is read and dropped for a while, so that the error frame is
  // not lost to a reset.
  void fail(uint32_t code, const std::string &text);
  void close();

 private:
  bool recv_all(unsigned char *p, size_t n);
  qz_socket_t s_;
  int idle_ms_;
  std::vector<unsigned char> out_;
  // Bytes received ahead of the frame being read: small frames cost no
  // system call of their own.
  std::vector<unsigned char> in_;
  size_t in_at_ = 0, in_end_ = 0;
};

}  // namespace llocal::net
