// The table while it is built: the duplicate rule, and the reader of the
// POSIX mount table. Plain string work with no platform calls, so the fuzz
// target can take this file on its own.
#include <cstring>

#include "paths/fstab_os.h"

namespace ll::fstab {

bool has_word(std::string_view list, std::string_view word) noexcept {
  while (true) {
    const size_t comma = list.find(',');
    if (list.substr(0, comma) == word) return true;
    if (comma == std::string_view::npos) return false;
    list.remove_prefix(comma + 1);
  }
}

void mark_ignore(std::string &options) {
  if (has_word(options, "ignore")) return;
  options = options.empty() ? std::string("ignore") : "ignore," + options;
}

namespace {

size_t count_of(const std::string &s, char c) {
  size_t n = 0;
  for (char x : s) n += x == c;
  return n;
}

}  // namespace

void Table::settle(Mount &m, char sep) {
  if (has_word(m.options, "ignore")) return;
  const auto newest = newest_.find(m.serial);
  if (newest == newest_.end()) return;
  // The one to compare with: the newest row of the serial that is still
  // active, else the newest row of the serial.
  auto active = active_.find(m.serial);
  const bool from_active = active != active_.end() && !active->second.empty();
  Mount &other = rows[from_active ? active->second.back() : newest->second];
  const size_t mine = count_of(m.dir, sep), theirs = count_of(other.dir, sep);
  const bool smaller = mine < theirs || (mine == theirs && m.dir.size() < other.dir.size());
  if (!smaller) {
    mark_ignore(m.options);
  } else if (from_active) {
    mark_ignore(other.options);
    active->second.pop_back();
  }
}

void Table::push(Mount m) {
  const size_t at = rows.size();
  dirs_.insert(m.dir);
  newest_[m.serial] = at;
  if (!has_word(m.options, "ignore")) active_[m.serial].push_back(at);
  rows.push_back(std::move(m));
}

// ---- /proc/self/mountinfo ----
//   36 35 98:0 /mnt1 /mnt/parent rw,noatime master:1 - ext3 /dev/root rw,errors=continue
//   id parent major:minor root dir options [optional fields...] - type source super-options

namespace {

// The next field (up to a blank); false at the end of the line.
bool next_field(std::string_view &line, std::string_view &field) {
  if (line.empty()) return false;
  const size_t blank = line.find(' ');
  field = line.substr(0, blank);
  line.remove_prefix(blank == std::string_view::npos ? line.size() : blank + 1);
  return true;
}

bool number(std::string_view s, uint32_t &out) {
  if (s.empty() || s.size() > 10) return false;
  uint64_t v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<unsigned>(c - '0');
  }
  if (v > 0xFFFFFFFFu) return false;
  out = static_cast<uint32_t>(v);
  return true;
}

bool octal(char c) { return c >= '0' && c <= '7'; }

// The kernel writes blank, tab, newline and backslash as "\ooo"; anything
// else that looks like an escape stays as it is.
std::string decode(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && s.size() - i >= 4 && s[i + 1] >= '0' && s[i + 1] <= '3' && octal(s[i + 2]) &&
        octal(s[i + 3])) {
      out += static_cast<char>((s[i + 1] - '0') * 64 + (s[i + 2] - '0') * 8 + (s[i + 3] - '0'));
      i += 3;
    } else {
      out += s[i];
    }
  }
  return out;
}

}  // namespace

bool parse_mountinfo_line(std::string_view line, MountLine &out) {
  std::string_view f[6];
  for (auto &x : f)
    if (!next_field(line, x) || x.empty()) return false;
  const size_t colon = f[2].find(':');
  if (colon == std::string_view::npos) return false;
  if (!number(f[0], out.id) || !number(f[1], out.parent) || !number(f[2].substr(0, colon), out.major) ||
      !number(f[2].substr(colon + 1), out.minor))
    return false;
  // Optional fields up to the lone "-".
  std::string_view x;
  do {
    if (!next_field(line, x)) return false;
  } while (x != "-");
  std::string_view type, source, super;
  if (!next_field(line, type) || type.empty() || !next_field(line, source) || source.empty()) return false;
  next_field(line, super);
  out.root = decode(f[3]);
  out.dir = decode(f[4]);
  out.options = decode(f[5]);
  out.type = decode(type);
  out.source = decode(source);
  out.super_options = decode(super);
  return true;
}

void table_from_mountinfo(std::string_view text, Table &t) {
  std::vector<MountLine> lines;
  while (!text.empty()) {
    const size_t nl = text.find('\n');
    std::string_view line = text.substr(0, nl);
    text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
    MountLine m;
    if (parse_mountinfo_line(line, m)) lines.push_back(std::move(m));
  }
  const size_t n = lines.size(), none = static_cast<size_t>(-1);
  std::unordered_map<uint32_t, size_t> by_id;
  by_id.reserve(n);
  for (size_t i = 0; i < n; ++i) by_id[lines[i].id] = i;
  std::vector<size_t> parent(n, none);
  std::vector<char> covered(n, 0);
  for (size_t i = 0; i < n; ++i) {
    auto p = by_id.find(lines[i].parent);
    if (p == by_id.end() || p->second == i) continue;
    parent[i] = p->second;
    // A mount on the very directory of its parent hides the parent.
    if (lines[i].dir == lines[p->second].dir) covered[p->second] = 1;
  }
  // Reachable: the parent is reachable and this mount sits either on the
  // parent's own directory or in a parent that nothing covers. Resolved up
  // the chain without recursion; a loop of parents is unreachable.
  enum : char { kUnknown, kVisiting, kYes, kNo };
  std::vector<char> state(n, kUnknown);
  std::vector<size_t> chain;
  for (size_t i = 0; i < n; ++i) {
    chain.clear();
    for (size_t j = i; state[j] == kUnknown;) {
      state[j] = kVisiting;
      chain.push_back(j);
      if (parent[j] == none) break;
      j = parent[j];
    }
    for (size_t k = chain.size(); k-- > 0;) {
      const size_t at = chain[k], p = parent[at];
      const bool ok = p == none || (state[p] == kYes && (!covered[p] || lines[at].dir == lines[p].dir));
      state[at] = ok ? kYes : kNo;
    }
  }
  for (size_t i = 0; i < n; ++i) {
    if (state[i] != kYes || covered[i]) continue;
    MountLine &l = lines[i];
    Mount m;
    m.device = std::move(l.source);
    m.dir = std::move(l.dir);
    m.type = std::move(l.type);
    m.options = std::move(l.options);
    // A super block mounted read-only makes every mount of it read-only.
    if (has_word(l.super_options, "ro") && !has_word(m.options, "ro")) {
      if (m.options.compare(0, 2, "rw") == 0 && (m.options.size() == 2 || m.options[2] == ','))
        m.options[1] = 'o';
      else
        m.options = m.options.empty() ? std::string("ro") : "ro," + m.options;
    }
    m.serial = (l.major << 20) ^ l.minor;
    m.name = m.dir;
    if (m.name.size() > 1 && m.name.back() == '/') m.name.pop_back();
    if (t.has_dir(m.dir)) continue;
    t.settle(m, '/');
    t.push(std::move(m));
  }
}

}  // namespace ll::fstab
