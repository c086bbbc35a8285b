// regex_exec against the C library's regexec (basic expressions, the match
// start asked for) on the same patterns over a log corpus built here: one
// call per line, as callers select names and lines. Prints "ratio" lines:
// regexec time / regex_exec time (goal >= 1.0x).
#include "ratio_main.h"
#include <regex.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include <liblocal/regexp.h>

namespace {

const std::vector<std::string> &corpus() {
  static std::vector<std::string> lines;
  if (lines.empty()) {
    std::mt19937 rng(42);
    const char *hosts[] = {"alpha", "bravo", "charlie", "delta", "echo"};
    const char *progs[] = {"backupd", "catalogd", "sshd", "kernel", "cron", "mediad"};
    const char *msgs[] = {"session opened for user %s",
                          "saved %u files (%u bytes) in %u ms",
                          "error writing block %u to volume VOL%u: device busy",
                          "connection from 10.0.%u.%u port %u",
                          "WARNING: retrying request %u after timeout",
                          "job %u finished with status %u",
                          "disk /dev/sd%c%u: %u%% full",
                          "client %s: backup of /home/%s completed"};
    const char *users[] = {"root", "alice", "bob", "operator", "backup"};
    char msg[256], line[512];
    for (int i = 0; i < 100000; ++i) {
      const unsigned a = rng() % 1000, b = rng() % 100, c = rng() % 65536;
      const char *u = users[rng() % 5];
      switch (rng() % 8) {
        case 0: std::snprintf(msg, sizeof msg, msgs[0], u); break;
        case 1: std::snprintf(msg, sizeof msg, msgs[1], a, c * 17, b); break;
        case 2: std::snprintf(msg, sizeof msg, msgs[2], c, b); break;
        case 3: std::snprintf(msg, sizeof msg, msgs[3], b, a % 256, c); break;
        case 4: std::snprintf(msg, sizeof msg, msgs[4], c); break;
        case 5: std::snprintf(msg, sizeof msg, msgs[5], c, b % 3); break;
        case 6: std::snprintf(msg, sizeof msg, msgs[6], 'a' + static_cast<char>(b % 4), b % 9, b); break;
        default: std::snprintf(msg, sizeof msg, msgs[7], hosts[b % 5], u); break;
      }
      std::snprintf(line, sizeof line, "Jun %2u %02u:%02u:%02u %s %s[%u]: %s", 1 + b % 30, a % 24, b % 60,
                    c % 60, hosts[rng() % 5], progs[rng() % 6], 100 + c, msg);
      lines.push_back(line);
    }
  }
  return lines;
}

struct Case {
  const char *kind, *pattern;
};
const Case kCases[] = {
    {"literal-led", "error writing"},
    {"literal-led", "backup.*completed"},
    {"literal-led", "VOL[0-9]*: device"},
    {"class-led", "[0-9][0-9]* ms"},
    {"class-led", "[A-Z][A-Z]*: retrying"},
    {"class-led", "[a-z]*d\\[[0-9]*\\]: job"},
};

void BM_regex_exec(benchmark::State &state) {
  const Case &c = kCases[state.range(0)];
  qzregex *re = regex_cmp(c.pattern);
  const auto &lines = corpus();
  size_t hits = 0;
  for (auto _ : state)
    for (const auto &l : lines) hits += regex_exec(re, l.c_str()) != nullptr;
  state.counters["hits/pass"] = static_cast<double>(hits) / static_cast<double>(state.iterations());
  state.SetLabel(std::string(c.kind) + " " + c.pattern);
  regex_done(re);
}

void BM_regexec(benchmark::State &state) {
  const Case &c = kCases[state.range(0)];
  regex_t re;
  regcomp(&re, c.pattern, 0);
  const auto &lines = corpus();
  size_t hits = 0;
  regmatch_t m[1];
  for (auto _ : state)
    for (const auto &l : lines) hits += regexec(&re, l.c_str(), 1, m, 0) == 0;
  state.counters["hits/pass"] = static_cast<double>(hits) / static_cast<double>(state.iterations());
  state.SetLabel(std::string(c.kind) + " " + c.pattern);
  regfree(&re);
}

BENCHMARK(BM_regex_exec)->DenseRange(0, 5)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_regexec)->DenseRange(0, 5)->Unit(benchmark::kMillisecond);

void print_ratios(const llbench::Results &times_) {
  for (size_t i = 0; i < std::size(kCases); ++i) {
    double ours = 0, theirs = 0;
    const std::string suffix = "/" + std::to_string(i);
    for (auto &t : times_) {
      if (t.first.size() < suffix.size() || t.first.compare(t.first.size() - suffix.size(), suffix.size(), suffix))
        continue;
      (t.first.find("regex_exec") != std::string::npos ? ours : theirs) = t.second;
    }
    if (ours > 0)
      std::printf("ratio regex_exec %-12s %-26s %.2fx regexec (goal >= 1.0x)\n", kCases[i].kind, kCases[i].pattern,
                  theirs / ours);
  }
}

}  // namespace

int main(int argc, char **argv) { return llbench::run(argc, argv, print_ratios); }
