// The words of the tool's server and client commands (serve, serve -ADD,
// save, restore, list, stop) read into checked values: whatever the words,
// the reading ends in run, help or a one-line usage message, and what it
// lets run holds. Only the readers are called: no file, socket or process
// is touched.
//
// Input: one byte choosing the command, then the words, separated by NUL
// bytes. A word beginning with '@' (an option file, which has its own
// target) is given with '#' instead.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "llocal/cmdargs.h"
#include "llocal/llocal.h"

using namespace llocal;

namespace {

void check_verdict(const Verdict &v) {
  if (v.what == Verdict::kBad && (v.why.empty() || v.why.back() != '\n')) std::abort();
  if (v.what != Verdict::kBad && !v.why.empty()) std::abort();
}

void check_address(const net::Address &a) {
  if (a.port < 0 || a.port > 65535) std::abort();
}

// A number is decimal unless it says 0x: never octal, never with blanks.
void check_number(const std::string &w) {
  long long v = 0;
  if (!parse_number(w.c_str(), v)) return;
  const char *d = w.c_str() + (w[0] == '-' || w[0] == '+');
  if (!(d[0] >= '0' && d[0] <= '9')) std::abort();
  const bool hex = d[0] == '0' && (d[1] == 'x' || d[1] == 'X');
  if (!hex && v != std::strtoll(w.c_str(), nullptr, 10)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1 || size > 4096) return 0;
  static const char *const kNames[] = {"serve", "serve", "save", "restore", "list", "stop"};
  const int which = data[0] % 6;
  std::vector<std::string> words{kNames[which]};
  if (which == 1) words.emplace_back(data[0] & 0x80 ? "-ADD" : "-rem");
  std::string word;
  for (size_t i = 1; i <= size && words.size() < 24; ++i) {
    if (i == size || data[i] == 0) {
      if (!word.empty() && word[0] == '@') word[0] = '#';
      words.push_back(word);
      word.clear();
    } else {
      word += static_cast<char>(data[i]);
    }
  }
  for (const std::string &w : words) check_number(w);
  // getopt may reorder and the readers rewrite words: a fresh vector each time.
  std::vector<std::string> store = words;
  std::vector<char *> argv;
  for (std::string &w : store) argv.push_back(w.data());
  argv.push_back(nullptr);
  const int argc = static_cast<int>(argv.size()) - 1;
  switch (which) {
    case 0: {
      ServeOptions o;
      const Verdict v = parse_serve(argc, argv.data(), o);
      check_verdict(v);
      if (v.what == Verdict::kRun) {
        if (o.store.empty()) std::abort();
        check_address(o.address);
      }
      break;
    }
    case 1: {
      if (!is_service_install(argc, argv.data())) std::abort();
      const ServiceInstall s = service_words(argc, argv.data(), "/opt/llocal/bin/llocal", "/var/lib/llocal");
      // The command line, then every word once: folders made absolute.
      if (s.words.size() != static_cast<size_t>(argc) + 2 || s.words[0] != "/opt/llocal/bin/llocal") std::abort();
      break;
    }
    case 2:
    case 3:
    case 4: {
      ClientArgs a;
      const Verdict v = which == 2 ? parse_save(argc, argv.data(), a)
                        : which == 3 ? parse_restore(argc, argv.data(), a)
                                     : parse_list(argc, argv.data(), a);
      check_verdict(v);
      if (v.what == Verdict::kRun) {
        check_address(a.address);
        if ((which == 2 && a.paths.empty()) || (which == 3 && a.paths.size() != 1)) std::abort();
      }
      break;
    }
    default: {
      int pid = -1;
      const Verdict v = parse_stop(argc, argv.data(), pid);
      check_verdict(v);
      if (v.what == Verdict::kRun && pid <= 0) std::abort();
      break;
    }
  }
  return 0;
}
