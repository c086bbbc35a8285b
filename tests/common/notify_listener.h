// The service manager's end of the notify protocol, bound by a test: it
// treats datagrams as the manager does (without the sender's credentials,
// longer than 4096 bytes, truncated or holding a NUL, they are dropped) and
// keeps the accepted ones with the sender's pid. POSIX only.
#pragma once
#ifndef _WIN32
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace lltest {

class NotifyListener {
 public:
  explicit NotifyListener(const std::string &path) : path_(path) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    const int one = 1;
    setsockopt(fd_, SOL_SOCKET, SO_PASSCRED, &one, sizeof one);
    ok_ = bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
    th_ = std::thread([this] { run(); });
  }
  ~NotifyListener() {
    done_ = true;
    th_.join();
    close(fd_);
  }
  NotifyListener(const NotifyListener &) = delete;
  NotifyListener &operator=(const NotifyListener &) = delete;

  bool ok() const { return ok_; }
  const std::string &path() const { return path_; }
  // The messages 'pid' sent, without the keep-alives.
  std::vector<std::string> from(int pid) {
    std::lock_guard<std::mutex> g(lock_);
    std::vector<std::string> out;
    for (const auto &m : msgs_)
      if (m.first == pid && m.second != "WATCHDOG=1\n") out.push_back(m.second);
    return out;
  }
  int first_sender() {
    std::lock_guard<std::mutex> g(lock_);
    return msgs_.empty() ? 0 : msgs_.front().first;
  }
  int keepalives() {
    std::lock_guard<std::mutex> g(lock_);
    int n = 0;
    for (const auto &m : msgs_) n += m.second == "WATCHDOG=1\n";
    return n;
  }
  // Waits up to 'ms' for a message not looked at before that holds 'line';
  // its sender's pid, or 0 when none came.
  int wait_for(const std::string &line, int ms = 10000) {
    for (auto t0 = std::chrono::steady_clock::now();
         std::chrono::steady_clock::now() - t0 < std::chrono::milliseconds(ms);) {
      {
        std::lock_guard<std::mutex> g(lock_);
        while (looked_ < msgs_.size()) {
          const auto &m = msgs_[looked_++];
          if (("\n" + m.second).find("\n" + line + "\n") != std::string::npos) return m.first;
        }
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return 0;
  }
  // Every message taken in, one after the other.
  std::string seen() {
    std::lock_guard<std::mutex> g(lock_);
    std::string all;
    for (const auto &m : msgs_) all += m.second;
    return all;
  }

 private:
  void run() {
    while (!done_) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 20) <= 0) continue;
      char buf[4097];
      iovec iov{buf, sizeof buf};
      alignas(cmsghdr) char ctl[CMSG_SPACE(sizeof(ucred)) + 64];
      msghdr m{};
      m.msg_iov = &iov;
      m.msg_iovlen = 1;
      m.msg_control = ctl;
      m.msg_controllen = sizeof ctl;
      const ssize_t n = recvmsg(fd_, &m, MSG_TRUNC);
      if (n <= 0 || n > 4096 || (m.msg_flags & (MSG_TRUNC | MSG_CTRUNC))) continue;
      if (std::memchr(buf, 0, static_cast<size_t>(n))) continue;
      const ucred *cr = nullptr;
      for (cmsghdr *c = CMSG_FIRSTHDR(&m); c; c = CMSG_NXTHDR(&m, c))
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS) cr = reinterpret_cast<ucred *>(CMSG_DATA(c));
      if (!cr) continue;
      std::lock_guard<std::mutex> g(lock_);
      msgs_.emplace_back(cr->pid, std::string(buf, static_cast<size_t>(n)));
    }
  }
  std::string path_;
  int fd_ = -1;
  bool ok_ = false;
  std::atomic<bool> done_{false};
  std::mutex lock_;
  std::vector<std::pair<int, std::string>> msgs_;
  size_t looked_ = 0;  // messages wait_for has looked at
  std::thread th_;
};

}  // namespace lltest
#endif
