// Host identity: what the portable cache needs from the platform's resolver
// and interface list (net/posix/resolver.cpp, net/win32/resolver.cpp).
#pragma once
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

struct hostent;

namespace ll::net {

// A resolver answer in plain form.
struct Answer {
  std::string name;
  std::vector<std::string> aliases;
  int type = 0;
  int length = 0;
  std::vector<std::string> addrs;  // each 'length' bytes
};

// The per-process name-service lock: every resolver call, the alias cache,
// the one-time fill of getlocalhost.
std::recursive_mutex &ns_lock() noexcept;

// Test seams: functions that replace the system's gethostbyname and
// gethostbyaddr (null: the system's), and the own-address source.
using SeamByName = void *(*)(const char *name);
using SeamByAddr = void *(*)(const char *addr, int len, int type);
extern SeamByName g_seam_byname;
extern SeamByAddr g_seam_byaddr;

// Through qzmo_gethostbyname / qzmo_gethostbyaddr; false when nothing resolved.
bool resolve_name(const char *name, Answer &out) noexcept;
bool resolve_addr(const std::string &addr, int type, Answer &out) noexcept;

namespace os {
// A resolver answer in plain form (may throw when memory runs short); false
// for no answer.
bool to_answer(const hostent *h, Answer &out);
// The system's resolver (or the test seam), its answer copied to the calling
// thread's storage; the arguments are checked already.
hostent *by_name(const char *name) noexcept;
hostent *by_addr(const char *addr, int len, int type) noexcept;
// This machine's IPv4 addresses (network order, as 32-bit words in memory
// order); -1 when memory runs short, else the number found.
int own_addrs(std::vector<uint32_t> &out) noexcept;
}  // namespace os

}  // namespace ll::net
