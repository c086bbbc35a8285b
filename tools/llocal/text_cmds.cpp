// llocal grep, strerror, tag, untag, split and join: the library's regular
// expressions, error texts, message tags and command-line quoting.
#include <cstdlib>
#include <cstring>

#include "llocal.h"

namespace llocal {

namespace {

// Reads one line (without its newline) into 'line'; false at the end.
bool read_line(std::FILE *f, std::string &line) {
  line.clear();
  int c;
  while ((c = std::fgetc(f)) != EOF && c != '\n') line += static_cast<char>(c);
  return c != EOF || !line.empty();
}

#ifdef _WIN32
constexpr bool kWindowsRules = true;
#else
constexpr bool kWindowsRules = false;
#endif

}  // namespace

int cmd_grep(int argc, char **argv) {
  const Command &cmd = *find_command("grep");
  Options opts(argc, argv, "incvh");
  bool icase = false, numbers = false, count_only = false, invert = false;
  for (int c; (c = opts.next()) != -1;) {
    switch (c) {
      case 'i': icase = true; break;
      case 'n': numbers = true; break;
      case 'c': count_only = true; break;
      case 'v': invert = true; break;
      case 'h': return help(cmd);
      default: return opts.bad_option(cmd);
    }
  }
  std::vector<std::string> ops = opts.operands();
  if (ops.empty()) return usage_error(cmd, "%s", msg(40, "no pattern\n"));
  qzregex *re = icase ? regex_icmp(ops[0].c_str()) : regex_cmp(ops[0].c_str());
  if (!re) return usage_error(cmd, msg(41, "bad pattern %s\n"), ops[0].c_str());
  std::vector<std::string> files(ops.begin() + 1, ops.end());
  const bool named = files.size() > 1;
  if (files.empty()) files.emplace_back("-");
  bool selected = false, failed = false;
  std::string line;
  for (const auto &name : files) {
    std::FILE *f = open_input(name);
    if (!f) {
      error("%s: %s\n", name.c_str(), errno_text());
      failed = true;
      continue;
    }
    unsigned long long number = 0, count = 0;
    while (read_line(f, line)) {
      ++number;
      // A line from a CRLF file matches without its carriage return.
      std::string subject = line;
      if (!subject.empty() && subject.back() == '\r') subject.pop_back();
      const bool match = regex_exec(re, subject.c_str()) != nullptr;
      if (match == invert) continue;
      ++count;
      if (count_only) continue;
      if (named) out("%s:", name.c_str());
      if (numbers) out("%llu:", number);
      out("%s\n", line.c_str());
    }
    if (std::ferror(f)) {
      error("%s: %s\n", name.c_str(), errno_text());
      failed = true;
    }
    close_input(f);
    if (count_only) {
      if (named) out("%s:", name.c_str());
      out("%llu\n", count);
    }
    selected = selected || count > 0;
  }
  regex_done(re);
  return selected && !failed ? kOk : kFailed;
}

int cmd_strerror(int argc, char **argv) {
  const Command &cmd = *find_command("strerror");
  Options opts(argc, argv, "h");
  for (int c; (c = opts.next()) != -1;) {
    if (c == 'h') return help(cmd);
    return opts.bad_option(cmd);
  }
  std::vector<std::string> ops = opts.operands();
  if (ops.empty()) return usage_error(cmd, "%s", msg(42, "no error number\n"));
  std::vector<int> codes;
  for (const auto &s : ops) {
    long long v = 0;
    // Marked system codes are written in hexadecimal up to 0xFFFFFFFF.
    if (!parse_number(s.c_str(), v) || v < -2147483648LL || v > 0xFFFFFFFFLL)
      return usage_error(cmd, msg(43, "not an error number: %s\n"), s.c_str());
    codes.push_back(static_cast<int>(static_cast<uint32_t>(v)));
  }
  for (size_t i = 0; i < codes.size(); ++i) out("%s: %s\n", ops[i].c_str(), qzmo_strerror(codes[i]));
  return kOk;
}

int cmd_tag(int argc, char **argv) {
  const Command &cmd = *find_command("tag");
  Options opts(argc, argv, "h");
  for (int c; (c = opts.next()) != -1;) {
    if (c == 'h') return help(cmd);
    return opts.bad_option(cmd);
  }
  std::vector<std::string> ops = opts.operands();
  if (ops.size() != 3) return usage_error(cmd, "%s", msg(44, "needs TEXT, FIRST and SECOND\n"));
  long long first = 0, second = 0;
  if (!parse_number(ops[1].c_str(), first) || !parse_number(ops[2].c_str(), second) || first < INT32_MIN ||
      first > INT32_MAX || second < INT32_MIN || second > INT32_MAX)
    return usage_error(cmd, "%s", msg(45, "FIRST and SECOND must be 32-bit numbers\n"));
  std::string text = ops[0];
  text.resize(ops[0].size() + 32, '\0');
  append_msg_suffix(text.data(), static_cast<int>(first), static_cast<int>(second));
  out("%s\n", text.c_str());
  return kOk;
}

int cmd_untag(int argc, char **argv) {
  const Command &cmd = *find_command("untag");
  Options opts(argc, argv, "nh");
  bool numbers = false;
  for (int c; (c = opts.next()) != -1;) {
    switch (c) {
      case 'n': numbers = true; break;
      case 'h': return help(cmd);
      default: return opts.bad_option(cmd);
    }
  }
  std::vector<std::string> ops = opts.operands();
  if (ops.size() != 1) return usage_error(cmd, "%s", msg(46, "needs one TEXT\n"));
  std::string text = ops[0];
  if (numbers) {
    const char *tag = strmsg(text.c_str());
    int first = 0, second = 0;
    if (!tag || extract_msg_suffix(tag + 2, &first, &second) != 0) {
      error("%s", msg(47, "no message tag in the text\n"));
      return kFailed;
    }
    out("%d %d\n", first, second);
    return kOk;
  }
  strip_msg_ids(text.data());
  out("%s\n", text.c_str());
  return kOk;
}

int cmd_split(int argc, char **argv) {
  const Command &cmd = *find_command("split");
  Options opts(argc, argv, "uwd:h");
  bool windows = kWindowsRules;
  std::string delims;
  bool have_delims = false;
  for (int c; (c = opts.next()) != -1;) {
    switch (c) {
      case 'u': windows = false; break;
      case 'w': windows = true; break;
      case 'd': delims = opts.arg(), have_delims = true; break;
      case 'h': return help(cmd);
      default: return opts.bad_option(cmd);
    }
  }
  std::vector<std::string> ops = opts.operands();
  if (ops.size() != 1) return usage_error(cmd, "%s", msg(48, "needs one STRING\n"));
  std::string s = ops[0];
  int count = 0;
  char **words = nullptr;
  if (tokenize(s.data(), &count, &words, have_delims ? delims.c_str() : nullptr, windows ? 0 : 1)) {
    error("%s", msg(49, "out of memory\n"));
    return kFailed;
  }
  for (int i = 0; i < count; ++i) out("%s\n", words[i]);
  std::free(words);
  return kOk;
}

int cmd_join(int argc, char **argv) {
  const Command &cmd = *find_command("join");
  Options opts(argc, argv, "uwh");
  bool windows = kWindowsRules;
  for (int c; (c = opts.next()) != -1;) {
    switch (c) {
      case 'u': windows = false; break;
      case 'w': windows = true; break;
      case 'h': return help(cmd);
      default: return opts.bad_option(cmd);
    }
  }
  std::vector<std::string> ops = opts.operands();
  if (ops.empty()) return usage_error(cmd, "%s", msg(50, "no words\n"));
  std::vector<char *> words;
  for (auto &w : ops) words.push_back(w.data());
  words.push_back(nullptr);
  char *line = command_string(words.data(), windows ? 0 : 1, nullptr, 0);
  if (!line) {
    error("%s", msg(49, "out of memory\n"));
    return kFailed;
  }
  out("%s\n", line);
  std::free(line);
  return kOk;
}

}  // namespace llocal
