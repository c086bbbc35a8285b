// Process-wide cancellation of blocking socket calls.
#include "net_util.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "lltest.h"

using namespace nettest;

namespace {

void nap(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

TEST(Cancel, ReleasesEveryBlockedAcceptSelectAndConnect) {
  sockaddr_in addr, full_addr;
  qz_socket_t l = listener(&addr);
  // A listener whose accept queue is full: further connects wait for it.
  qz_socket_t full = listener(&full_addr, 0);
  std::vector<qz_socket_t> fillers;
  bool with_connect = !lltest::kWindows;
  if (with_connect) {
    for (int i = 0; i < 3; ++i) {
      qz_socket_t c = qzsocket(AF_INET, SOCK_STREAM, 0);
      qzsononblock(c);
      qzconnect(c, reinterpret_cast<sockaddr *>(&full_addr), sizeof full_addr);
      fillers.push_back(c);
    }
    nap(100);
  }
  const int kThreads = 32;
  std::atomic<int> started{0};
  std::vector<int> result(kThreads, 0), err(kThreads, 0);
  std::vector<std::thread> threads;
  uint32_t gen0 = qz_socancel_generation();
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      int kind = i % (with_connect ? 3 : 2);
      started.fetch_add(1);
      if (kind == 0) {
        qz_socket_t a = qzaccept(l, nullptr, nullptr);
        result[i] = a == QZ_INVALID_SOCKET ? -1 : 0;
      } else if (kind == 1) {
        qz_fd_set rs;
        QZ_FD_ZERO(&rs);
        QZ_FD_SET(l, &rs);
        result[i] = qz_select(0, &rs, nullptr, nullptr, nullptr);
      } else {
        qz_socket_t c = qzsocket(AF_INET, SOCK_STREAM, 0);
        result[i] = qzconnect(c, reinterpret_cast<sockaddr *>(&full_addr), sizeof full_addr);
        err[i] = errno;
        qzsoclose(c);
        return;
      }
      err[i] = errno;
    });
  }
  while (started.load() < kThreads) nap(1);
  nap(300);  // all of them inside their waits
  auto t0 = Clock::now();
  std::thread canceller([] { qz_socancel(); });
  canceller.join();
  for (auto &t : threads) t.join();
  EXPECT_LT(ms_since(t0), 5000);
  EXPECT_EQ(qz_socancel_generation(), gen0 + 1);
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_EQ(result[i], -1) << "thread " << i;
    EXPECT_EQ(err[i], EINTR) << "thread " << i;
  }
  // The listener kept its blocking mode: a later accept waits for a client.
  qz_socket_t c = qzsocket(AF_INET, SOCK_STREAM, 0);
  std::thread client([&] {
    nap(100);
    qzconnect(c, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
  });
  qz_socket_t a = qzaccept(l, nullptr, nullptr);
  EXPECT_NE(a, QZ_INVALID_SOCKET);
  client.join();
  qzsoclose(a);
  qzsoclose(c);
  for (qz_socket_t f : fillers) qzsoclose(f);
  qzsoclose(full);
  qzsoclose(l);
}

TEST(Cancel, ACallStartedAfterTheCancelIsWokenByDataOnly) {
  Pair p;
  qz_socancel();
  qz_socancel();
  std::thread sender([&] {
    nap(200);
    qzsend(p.a, "z", 1, 0);
  });
  auto t0 = Clock::now();
  qz_fd_set rs;
  QZ_FD_ZERO(&rs);
  QZ_FD_SET(p.b, &rs);
  EXPECT_EQ(qz_select(0, &rs, nullptr, nullptr, nullptr), 1);
  EXPECT_GE(ms_since(t0), 150);
  sender.join();
  // A timed wait after a cancel runs to its end.
  t0 = Clock::now();
  char c;
  EXPECT_EQ(qzrecv(p.b, &c, 1, 0), 1);
  QZ_FD_SET(p.b, &rs);
  timeval tv = {0, 150000};
  EXPECT_EQ(qz_select(0, &rs, nullptr, nullptr, &tv), 0);
  EXPECT_GE(ms_since(t0), 140);
}

TEST(Cancel, AStreamThatIsNotCancelledLosesNoByte) {
  Pair p;
  const size_t kTotal = 4 << 20;
  std::string data(kTotal, 0);
  for (size_t i = 0; i < kTotal; ++i) data[i] = static_cast<char>(i * 131 + (i >> 9));
  std::atomic<bool> done{false};
  std::thread writer([&] {
    size_t off = 0;
    while (off < kTotal) {
      int n = qzsend(p.a, data.data() + off, static_cast<int>(kTotal - off), 0);
      if (n <= 0) break;
      off += static_cast<size_t>(n);
    }
  });
  std::thread canceller([&] {
    while (!done.load()) {
      qz_socancel();
      std::this_thread::yield();
    }
  });
  std::string got;
  got.reserve(kTotal);
  char buf[16384];
  int interrupted = 0;
  while (got.size() < kTotal) {
    qz_fd_set rs;
    QZ_FD_ZERO(&rs);
    QZ_FD_SET(p.b, &rs);
    if (qz_select(0, &rs, nullptr, nullptr, nullptr) < 0) {
      ASSERT_EQ(errno, EINTR);
      ++interrupted;
      continue;
    }
    int n = qzrecv(p.b, buf, sizeof buf, 0);
    ASSERT_GT(n, 0);
    got.append(buf, static_cast<size_t>(n));
  }
  done = true;
  writer.join();
  canceller.join();
  EXPECT_TRUE(got == data);
}

}  // namespace

namespace {

// Closing a socket that another thread waits on ends that wait with an error.
TEST(Cancel, ClosingTheSocketEndsAWaitingAccept) {
  sockaddr_in addr;
  qz_socket_t l = listener(&addr);
  std::atomic<bool> started{false};
  qz_socket_t got = 0;
  std::thread t([&] {
    started = true;
    got = qzaccept(l, nullptr, nullptr);
  });
  while (!started) nap(1);
  nap(200);
  auto t0 = Clock::now();
  EXPECT_EQ(qzsoclose(l), 0);
  t.join();
  EXPECT_EQ(got, QZ_INVALID_SOCKET);
  EXPECT_LT(ms_since(t0), 5000);
}

}  // namespace
