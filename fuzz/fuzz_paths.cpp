// Path syntax under arbitrary input: canon_dirsep and each of its block
// passes (checked against the step-by-step form, in place too), fullcanon_dirsep with a given directory, child, parent
// and depth with tight buffers, and the UNC routines.
// Input: byte 0 picks the separator and buffer size, the rest up to the first
// NUL is the path, what follows it is the directory.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <liblocal/path.h>
#include <liblocal/wfile.h>

extern "C" void llt_canon_reference(const char *name, char *buf, int sep);
extern "C" int llt_canon_pass(int which, const char *name, char *buf, int sep);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const int sep = (data[0] & 1) ? '/' : '\\';
  const unsigned small = (data[0] >> 1) % 40 + 2;
  std::string rest(reinterpret_cast<const char *>(data + 1), size - 1);
  const size_t nul = rest.find('\0');
  const std::string path = rest.substr(0, nul);
  std::string dir = nul == std::string::npos ? std::string("C:\\d") : rest.substr(nul + 1);
  dir = dir.substr(0, dir.find('\0'));
  if (dir.empty()) dir = sep == '/' ? "/" : "C:";

  // Exactly the stated sizes: ASan sees any write past them.
  std::vector<char> a(path.size() + 2), b(path.size() + 2);
  canon_dirsep(path.c_str(), a.data(), sep);
  llt_canon_reference(path.c_str(), b.data(), sep);
  if (std::strcmp(a.data(), b.data()) != 0) std::abort();
  // Every block pass this processor has, into a separate buffer and in place.
  for (int which = 0; which < 3; ++which) {
    std::vector<char> c(path.size() + 2), in_place(path.begin(), path.end());
    in_place.resize(path.size() + 2);
    if (llt_canon_pass(which, path.c_str(), c.data(), sep) != 0) continue;
    if (std::strcmp(c.data(), b.data()) != 0) std::abort();
    llt_canon_pass(which, in_place.data(), in_place.data(), sep);
    if (std::strcmp(in_place.data(), b.data()) != 0) std::abort();
  }

  std::vector<char> full(path.size() + dir.size() + 4);
  fullcanon_dirsep(path.c_str(), full.data(), dir.c_str(), sep);

  std::vector<char> tight(small);
  (void)getpathchild_dirsep(path.c_str(), tight.data(), small, sep);
  (void)getpathparent_dirsep(path.c_str(), tight.data(), small, sep);
  std::free(getpathchild_dirsep(path.c_str(), nullptr, 0, sep));
  std::free(getpathparent_dirsep(path.c_str(), nullptr, 0, sep));
  (void)getpathdepth_dirsep(path.c_str(), sep);
  (void)ispathrelative(path.c_str(), sep);
  std::free(qz_dirname(path.c_str()));
  std::free(parse_apppath(dir.c_str(), path.c_str()));

  (void)is_unc_path(path.c_str());
  (void)unc_skip_prefix(path.c_str());
  (void)get_unc_obj_type(path.c_str());
  (void)get_unc_file_path(path.c_str());
  char host[16];
  (void)get_unc_host(path.c_str(), host, small < sizeof host ? small : sizeof host);
  return 0;
}
