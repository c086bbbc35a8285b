// The per-thread copy of a resolver answer, for both back-ends' host records.
#pragma once
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "net/hostid_os.h"

namespace ll::net {

template <class H> struct HostCopy {
  H ent{};
  std::string name;
  std::vector<std::string> alias_text, addr_bytes;
  std::vector<char *> alias_ptr, addr_ptr;

  H *fill(const H *src) {
    name = src->h_name ? src->h_name : "";
    alias_text.clear();
    addr_bytes.clear();
    for (char **a = src->h_aliases; a && *a; ++a) alias_text.emplace_back(*a);
    int len = src->h_length < 0 ? 0 : src->h_length;
    for (char **a = src->h_addr_list; a && *a; ++a) addr_bytes.emplace_back(*a, static_cast<size_t>(len));
    alias_ptr.clear();
    addr_ptr.clear();
    for (auto &s : alias_text) alias_ptr.push_back(s.data());
    alias_ptr.push_back(nullptr);
    for (auto &s : addr_bytes) addr_ptr.push_back(s.data());
    addr_ptr.push_back(nullptr);
    ent.h_name = name.data();
    ent.h_aliases = alias_ptr.data();
    ent.h_addrtype = src->h_addrtype;
    ent.h_length = src->h_length;
    ent.h_addr_list = addr_ptr.data();
    return &ent;
  }
  // fill() for a caller that cannot throw: null with errno 135 when memory
  // runs short.
  H *keep(const H *src) noexcept {
    try {
      return fill(src);
    } catch (...) {
      errno = 135;
      return nullptr;
    }
  }
};

template <class H> bool plain_answer(const H *h, Answer &out) {
  if (!h) return false;
  out = Answer{};
  out.name = h->h_name ? h->h_name : "";
  for (char **a = h->h_aliases; a && *a; ++a) out.aliases.emplace_back(*a);
  out.type = h->h_addrtype;
  out.length = h->h_length < 0 ? 0 : h->h_length;
  for (char **a = h->h_addr_list; a && *a; ++a) out.addrs.emplace_back(*a, static_cast<size_t>(out.length));
  return true;
}

}  // namespace ll::net
