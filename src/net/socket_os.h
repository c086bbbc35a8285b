// The platform side of the socket layer, one implementation per back-end
// (net/posix/socket.cpp, net/win32/socket.cpp). Failures return -1 (or
// kBadSocket / null) with errno already set to the library's number.
#pragma once
#include <liblocal/socket.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace ll::net {

constexpr qz_socket_t kBadSocket = QZ_INVALID_SOCKET;
constexpr int kSendMax = QZ_SEND_MAX;
constexpr int kBufMin = 65536;  // smallest send and receive buffer the library sets

// The process-wide cancel generation. Only the back-end's cancel raises it,
// under its own lock, so that waiters see the generation and its wake-up
// object change together.
extern std::atomic<uint32_t> g_generation;

// errno = the library's number for the last socket error; returns -1.
int fail() noexcept;

namespace os {
void load() noexcept;
// Raises g_generation by one and wakes every wait begun under the old value.
void cancel() noexcept;

qz_socket_t socket(int af, int type, int protocol) noexcept;
qz_socket_t accept(qz_socket_t s, sockaddr *addr, qz_socklen_t *len) noexcept;
int connect(qz_socket_t s, const sockaddr *name, qz_socklen_t len) noexcept;
int select(qz_fd_set *r, qz_fd_set *w, qz_fd_set *e, const timeval *timeout) noexcept;
// One attempt; the caller retries on 135.
int close(qz_socket_t s) noexcept;
int bind(qz_socket_t s, const sockaddr *name, qz_socklen_t len) noexcept;
int listen(qz_socket_t s, int backlog) noexcept;
int getsockopt(qz_socket_t s, int level, int opt, char *val, qz_socklen_t *len) noexcept;
int setsockopt(qz_socket_t s, int level, int opt, const char *val, int len) noexcept;
// True for the send-buffer and receive-buffer options.
bool buffer_option(int level, int opt) noexcept;
int getpeername(qz_socket_t s, sockaddr *name, qz_socklen_t *len) noexcept;
int getsockname(qz_socket_t s, sockaddr *name, qz_socklen_t *len) noexcept;
protoent *getprotobyname(const char *name) noexcept;
int ioctl(qz_socket_t s, long cmd, unsigned long *argp) noexcept;
int recv(qz_socket_t s, char *buf, int len, int flags) noexcept;
int recvfrom(qz_socket_t s, char *buf, int len, int flags, sockaddr *from, qz_socklen_t *fromlen) noexcept;
int send(qz_socket_t s, const char *buf, int len, int flags) noexcept;
int sendto(qz_socket_t s, const char *buf, int len, int flags, const sockaddr *to, qz_socklen_t tolen) noexcept;
int shutdown(qz_socket_t s, int how) noexcept;
// Non-blocking mode on or off; false on failure (errno set).
bool set_nonblocking(qz_socket_t s, bool on) noexcept;
// Two buffers in one call; -2 when the platform has no gathered call.
int send2(qz_socket_t s, const char *b1, int l1, const char *b2, int l2) noexcept;
int recv2(qz_socket_t s, char *b1, int l1, char *b2, int l2) noexcept;
// Shut the sending side, wait up to 30 s for data or an error, discarding
// what arrives; no close.
void drain(qz_socket_t s) noexcept;
// The socket layer's host name; -1 with errno set on failure.
int host_name(char *buf, size_t size) noexcept;
// The system's computer name; false when it has none.
bool computer_name(char *buf, size_t size) noexcept;
// The runtime's write and read on a descriptor.
int rt_write(int fd, const void *buf, size_t len) noexcept;
int rt_read(int fd, void *buf, size_t len) noexcept;
}  // namespace os

}  // namespace ll::net
