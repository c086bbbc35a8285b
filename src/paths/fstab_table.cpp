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

namespace {

size_t count_of(std::string_view s, char c) {
  size_t n = 0;
  for (char x : s) n += x == c;
  return n;
}

// Eight bytes at a time, each word mixed in by a multiply.
uint32_t hash_of(std::string_view s) {
  uint64_t h = 0x9E3779B97F4A7C15ull ^ s.size();
  size_t i = 0;
  for (; i + 8 <= s.size(); i += 8) {
    uint64_t w;
    std::memcpy(&w, s.data() + i, 8);
    h = (h ^ w) * 0xFF51AFD7ED558CCDull;
    h ^= h >> 32;
  }
  if (i < s.size()) {
    uint64_t w = 0;
    std::memcpy(&w, s.data() + i, s.size() - i);
    h = (h ^ w) * 0xC4CEB9FE1A85EC53ull;
  }
  h ^= h >> 29;
  return static_cast<uint32_t>(h);
}

}  // namespace

bool Table::has_dir(std::string_view dir) const {
  if (dirs_.empty()) return false;
  const size_t mask = dirs_.size() - 1;
  const uint32_t h = hash_of(dir);
  for (size_t i = h & mask;; i = (i + 1) & mask) {
    const uint64_t s = dirs_[i];
    if (s == 0) return false;
    if (static_cast<uint32_t>(s >> 32) == h && rows[static_cast<uint32_t>(s) - 1].dir == dir) return true;
  }
}

void Table::place_dir(size_t row) {
  const size_t mask = dirs_.size() - 1;
  const uint32_t h = hash_of(rows[row].dir);
  size_t i = h & mask;
  while (dirs_[i] != 0) i = (i + 1) & mask;
  dirs_[i] = (static_cast<uint64_t>(h) << 32) | static_cast<uint32_t>(row + 1);
}

void Table::grow_dirs(size_t want) {
  size_t cap = 16;
  while (cap < want * 2) cap *= 2;
  if (cap <= dirs_.size()) return;
  dirs_.assign(cap, 0);
  for (size_t r = 0; r < rows.size(); ++r) place_dir(r);
}

void Table::settle(Mount &m, char sep) {
  if (is_ignored(m)) return;
  const auto g = groups_.find(m.serial);
  if (g == groups_.end()) return;
  // The one to compare with: the newest row of the serial that is still
  // active, else the newest row of the serial.
  const bool from_active = g->second.active != kNone;
  const size_t at = from_active ? g->second.active : g->second.newest;
  Mount &other = rows[at];
  const size_t mine = count_of(m.dir, sep), theirs = count_of(other.dir, sep);
  const bool smaller = mine < theirs || (mine == theirs && m.dir.size() < other.dir.size());
  if (!smaller) {
    m.ignored = true;
  } else if (from_active) {
    other.ignored = true;
    g->second.active = below_[at];
  }
}

void Table::push(Mount m) {
  const size_t at = rows.size();
  rows.push_back(std::move(m));
  const Mount &r = rows.back();
  if ((dir_count_ + 1) * 2 > dirs_.size())
    grow_dirs(dir_count_ + 1);  // the new row is placed with the others
  else
    place_dir(at);
  ++dir_count_;
  Group &g = groups_[r.serial];
  g.newest = at;
  below_.push_back(kNone);
  if (!is_ignored(r)) {
    below_[at] = g.active;
    g.active = at;
  }
}

void Table::reserve(size_t n) {
  grow_dirs(n);
  groups_.reserve(n);
  below_.reserve(n);
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
  if (s.find('\\') == std::string_view::npos) return std::string(s);
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

namespace {

// A line taken apart, its texts still escaped.
struct RawLine {
  uint32_t id = 0, parent = 0, major = 0, minor = 0;
  std::string_view root, dir, options, type, source, super;
};

bool parse_raw(std::string_view line, RawLine &out) {
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
  if (!next_field(line, out.type) || out.type.empty() || !next_field(line, out.source) || out.source.empty())
    return false;
  next_field(line, out.super);
  out.root = f[3];
  out.dir = f[4];
  out.options = f[5];
  return true;
}

}  // namespace

bool parse_mountinfo_line(std::string_view line, MountLine &out) {
  RawLine r;
  if (!parse_raw(line, r)) return false;
  out.id = r.id;
  out.parent = r.parent;
  out.major = r.major;
  out.minor = r.minor;
  out.root = decode(r.root);
  out.dir = decode(r.dir);
  out.options = decode(r.options);
  out.type = decode(r.type);
  out.source = decode(r.source);
  out.super_options = decode(r.super);
  return true;
}

void table_from_mountinfo(std::string_view text, Table &t) {
  std::vector<RawLine> lines;
  lines.reserve(text.size() / 96 + 1);  // a mount line is rarely shorter
  while (!text.empty()) {
    const size_t nl = text.find('\n');
    RawLine r;
    if (parse_raw(text.substr(0, nl), r)) lines.push_back(r);
    text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
  }
  const size_t n = lines.size(), none = static_cast<size_t>(-1);
  // Lines by id (open addressing; of two lines with one id the later counts).
  size_t cap = 16;
  while (cap < n * 2) cap *= 2;
  std::vector<size_t> by_id(cap, none);
  const size_t mask = cap - 1;
  auto slot = [&](uint32_t id) {
    size_t i = (id * 2654435761u) & mask;
    while (by_id[i] != none && lines[by_id[i]].id != id) i = (i + 1) & mask;
    return i;
  };
  for (size_t i = 0; i < n; ++i) by_id[slot(lines[i].id)] = i;
  std::vector<size_t> parent(n, none);
  std::vector<char> covered(n, 0);
  for (size_t i = 0; i < n; ++i) {
    const size_t p = by_id[slot(lines[i].parent)];
    if (p == none || p == i) continue;
    parent[i] = p;
    // A mount on the very directory of its parent hides the parent.
    if (lines[i].dir == lines[p].dir) covered[p] = 1;
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
  t.reserve(t.rows.size() + n);
  auto text_of = [&t](std::string_view raw) {
    return raw.find('\\') == std::string_view::npos ? raw : t.keep(decode(raw));
  };
  for (size_t i = 0; i < n; ++i) {
    if (state[i] != kYes || covered[i]) continue;
    const RawLine &l = lines[i];
    Mount m;
    m.dir = text_of(l.dir);
    if (t.has_dir(m.dir)) continue;
    m.device = text_of(l.source);
    m.type = text_of(l.type);
    m.options = text_of(l.options);
    // A super block mounted read-only makes every mount of it read-only.
    if (has_word(l.super, "ro") && !has_word(m.options, "ro")) {
      if (m.options.substr(0, 2) == "rw" && (m.options.size() == 2 || m.options[2] == ','))
        m.options = t.keep("ro" + std::string(m.options.substr(2)));
      else
        m.options = m.options.empty() ? std::string_view("ro") : t.keep("ro," + std::string(m.options));
    }
    m.serial = (l.major << 20) ^ l.minor;
    if (m.dir.size() > 1 && m.dir.back() == '/') m.name = m.dir.substr(0, m.dir.size() - 1);
    t.settle(m, '/');
    t.push(m);
  }
}

}  // namespace ll::fstab
