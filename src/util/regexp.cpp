// Basic regular expressions in the classic line editor's program form: one
// pass compiles the pattern into a byte program (opcode byte, operands), and
// a backtracking matcher runs it.
//
// The matcher keeps its backtracking points on an explicit stack instead of
// recursing, so deep patterns cannot exhaust the thread's stack. When a run
// backtracks a lot it starts remembering the continuations that failed (the
// program position, the subject position and the groups the rest of the
// program can read), which turns the classic exponential cases polynomial
// without changing any result.
#include <liblocal/regexp.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <unordered_set>
#include <vector>

namespace {

using uchar = unsigned char;

constexpr uchar kBra = QZRE_GROUP_OPEN, kChr = QZRE_CHAR, kDot = QZRE_ANY, kCcl = QZRE_CLASS,
                kNccl = QZRE_NCLASS, kDol = QZRE_END_ANCHOR, kEof = QZRE_END, kKet = QZRE_GROUP_CLOSE,
                kBack = QZRE_BACKREF, kStar = QZRE_STAR;
constexpr int kGroups = QZREGEX_NGROUPS;
constexpr size_t kMinCapacity = 768;
// Room past the capacity: the capacity is tested before each pattern item, as
// the editor did, so the last item may end a few bytes beyond it.
constexpr size_t kSlack = 4;

// Behind the program, in the same allocation, the compiler leaves membership
// tables for the matcher: for each program offset a 16-bit table number (the
// class's count byte holds one; 0xFFFF elsewhere), then 32 bytes per class.
// The program itself stays exactly as compiled.
// The first class of the program also has a byte per character (after the
// offset of its count byte), for the scans of the search.
constexpr uint16_t kNoTable = 0xFFFF;
constexpr size_t kLeadSize = sizeof(uint64_t) + 256;
inline size_t tail_offset(size_t cap) { return (cap + kSlack + 7) & ~size_t{7}; }

inline unsigned lower(unsigned c) { return std::isupper(static_cast<int>(c)) ? static_cast<unsigned>(std::tolower(static_cast<int>(c))) : c; }

// Appends the membership tables to a compiled program of 'used' bytes; false
// (with the program freed) when memory runs out.
bool add_tables(qzregex *re, size_t used) {
  const size_t plen = re->capacity + kSlack, base = tail_offset(re->capacity);
  size_t classes = 0;
  for (size_t ep = 0; ep < used;) {
    const uchar op = re->program[ep];
    if (op == kEof) break;
    if ((op | kStar) == (kCcl | kStar) || (op | kStar) == (kNccl | kStar)) {
      ++classes;
      ep += 1 + re->program[ep + 1];
    } else {
      ep += (op == kDot || op == (kDot | kStar) || op == kDol) ? 1 : 2;
    }
  }
  if (classes >= kNoTable) classes = 0;  // linear scans then
  // The first class also gets a byte per character: searches scan with it.
  const size_t lead = base + plen * sizeof(uint16_t);
  const size_t total = lead + kLeadSize + classes * 32;
  auto *mem = static_cast<uchar *>(std::realloc(re->program, total));
  if (!mem) {
    std::free(re->program);
    return false;
  }
  re->program = mem;
  std::memset(mem + plen, 0, total - plen);
  for (size_t i = 0; i < plen; ++i) std::memcpy(mem + base + 2 * i, &kNoTable, 2);
  uchar *tables = mem + lead + kLeadSize;
  uint16_t n = 0;
  uint64_t lead_at = ~uint64_t{0};
  for (size_t ep = 0; ep < used && classes;) {
    const uchar op = mem[ep];
    if (op == kEof) break;
    if ((op | kStar) == (kCcl | kStar) || (op | kStar) == (kNccl | kStar)) {
      const size_t count = mem[ep + 1];
      if (n == 0) {
        lead_at = ep + 1;
        for (size_t i = ep + 2; i < ep + 1 + count; ++i) mem[lead + sizeof(uint64_t) + mem[i]] = 1;
      }
      for (size_t i = ep + 2; i < ep + 1 + count; ++i) tables[32 * n + mem[i] / 8] |= static_cast<uchar>(1u << (mem[i] % 8));
      std::memcpy(mem + base + 2 * (ep + 1), &n, 2);
      ++n;
      ep += 1 + count;
    } else {
      ep += (op == kDot || op == (kDot | kStar) || op == kDol) ? 1 : 2;
    }
  }
  std::memcpy(mem + lead, &lead_at, sizeof lead_at);
  return true;
}

qzregex *compile(const char *pattern, bool icase) {
  if (!pattern || !*pattern) return nullptr;
  const size_t len = std::strlen(pattern);
  if (len > (static_cast<size_t>(-1) - kSlack) / 3) return nullptr;
  const size_t cap = 3 * len > kMinCapacity ? 3 * len : kMinCapacity;
  auto *re = static_cast<qzregex *>(std::calloc(1, sizeof(qzregex)));
  uchar *prog = static_cast<uchar *>(std::calloc(cap + kSlack, 1));
  if (!re || !prog) {
    std::free(re);
    std::free(prog);
    return nullptr;
  }
  re->program = prog;
  re->capacity = cap;
  re->icase = icase;

  const uchar *p = reinterpret_cast<const uchar *>(pattern);
  auto next = [&]() -> unsigned {
    unsigned c = *p;
    if (c) ++p;
    return icase ? lower(c) : c;
  };
  if (*p == '^') {
    re->anchored = 1;
    ++p;
  }

  constexpr size_t kNone = static_cast<size_t>(-1);
  size_t ep = 0, lastep = kNone;
  uchar open[kGroups];
  int nopen = 0, ngroups = 0;
  for (;;) {
    if (ep >= cap) goto error;
    unsigned c = next();
    if (c == 0) {
      if (nopen) goto error;
      prog[ep++] = kEof;
      prog[ep++] = 0;
      if (!add_tables(re, ep)) goto error_tables;
      return re;
    }
    if (c != '*') lastep = ep;
    switch (c) {
      case '.':
        prog[ep++] = kDot;
        continue;
      case '*':
        // Nothing to star at the start or right after a group bracket.
        if (lastep == kNone || prog[lastep] == kBra || prog[lastep] == kKet) break;
        prog[lastep] |= kStar;
        continue;
      case '$':
        if (*p) break;  // only the last character anchors
        prog[ep++] = kDol;
        continue;
      case '[': {
        prog[ep++] = kCcl;
        prog[ep++] = 0;
        unsigned count = 1;
        c = next();
        if (c == '^') {
          c = next();
          prog[ep - 2] = kNccl;
        }
        do {
          if (c == 0) goto error;
          // A '-' right after the count is a member; otherwise it spans
          // from the member before it, unless the class ends here.
          if (c == '-' && prog[ep - 1] != 0) {
            c = next();
            if (c == ']') {
              prog[ep++] = '-';
              ++count;
              break;
            }
            if (c == 0) goto error;
            while (prog[ep - 1] < c) {
              prog[ep] = static_cast<uchar>(prog[ep - 1] + 1);
              ++ep;
              ++count;
              if (ep >= cap) goto error;
            }
          }
          prog[ep++] = static_cast<uchar>(c);
          ++count;
          if (ep >= cap) goto error;
        } while ((c = next()) != ']');
        if (count > 255) goto error;  // the count must fit its byte
        prog[lastep + 1] = static_cast<uchar>(count);
        continue;
      }
      case '\\':
        c = next();
        if (c == 0) goto error;
        if (c == '(') {
          if (ngroups >= kGroups) goto error;
          open[nopen++] = static_cast<uchar>(ngroups);
          prog[ep++] = kBra;
          prog[ep++] = static_cast<uchar>(ngroups++);
          continue;
        }
        if (c == ')') {
          if (nopen == 0) goto error;
          prog[ep++] = kKet;
          prog[ep++] = open[--nopen];
          continue;
        }
        if (c >= '1' && c <= '9') {
          prog[ep++] = kBack;
          prog[ep++] = static_cast<uchar>(c - '1');
          continue;
        }
        break;
      default:
        break;
    }
    prog[ep++] = kChr;  // a literal
    prog[ep++] = static_cast<uchar>(c);
  }
error:
  std::free(prog);
error_tables:
  std::free(re);
  return nullptr;
}

// A backtracking point: the rest of the program from 'ep' is tried at 'lp',
// then at each shorter length (lp - step) down to 'min'.
struct Frame {
  size_t ep;
  const uchar *min;
  const uchar *lp;
  size_t step;
};

class Matcher {
 public:
  Matcher(qzregex *re, const uchar *subject, const uchar *end)
      : re_(re), prog_(re->program), plen_(re->capacity + kSlack), subj_(subject), end_(end),
        icase_(re->icase != 0), index_(re->program + tail_offset(re->capacity)),
        tables_(index_ + plen_ * sizeof(uint16_t) + kLeadSize) {
    const uchar *lead = index_ + plen_ * sizeof(uint16_t);
    std::memcpy(&lead_at_, lead, sizeof lead_at_);
    lead_lut_ = lead + sizeof(uint64_t);
  }

  // The matcher's answer for the program from 'ep' at 'lp': 1 matched, 0 not,
  // -1 a program error (an unrecorded group, an unknown opcode).
  int run(size_t ep, const uchar *lp);
  // How many characters a leading starred single-character instruction
  // takes at lp.
  // Single-character instructions (literal, any, class; starred or not):
  // the instruction's size (0 when 'ep' holds none, or a malformed one)...
  size_t single_size(size_t ep) const;
  // ...whether it takes the character c...
  bool single_takes(size_t ep, unsigned c) const;
  // ...how many characters its starred form takes at lp (0 for any other
  // instruction)...
  size_t star_run(size_t ep, const uchar *lp) const;
  // ...how many characters just before q it takes...
  size_t back_run(size_t ep, const uchar *q) const;
  // ...and the first position at or after q where an unstarred literal or
  // class at ep can match (null for none); any other instruction: q itself,
  // up to the end of the string.
  const uchar *candidate(size_t ep, const uchar *q) const;

 private:
  unsigned fold(unsigned c) const { return icase_ ? lower(c) : c; }
  // A class instruction's members (count byte at 'at'): its table, or its
  // member bytes when it has none; false when the instruction is malformed.
  struct ClassRef {
    const uchar *table;
    const uchar *lut;  // a byte per character, for the program's first class
    const uchar *members;
    unsigned n;  // the count byte: members + 1
  };
  bool class_ref(size_t at, ClassRef &r) const {
    if (at >= plen_) return false;
    r.n = prog_[at];
    if (r.n == 0 || at + r.n > plen_) return false;
    r.members = prog_ + at + 1;
    uint16_t t;
    std::memcpy(&t, index_ + 2 * at, 2);
    r.table = t == kNoTable ? nullptr : tables_ + 32 * static_cast<size_t>(t);
    r.lut = r.table && at == lead_at_ ? lead_lut_ : nullptr;
    return true;
  }
  static bool member(const ClassRef &r, unsigned c) {
    if (r.table) return (r.table[c >> 3] >> (c & 7)) & 1u;
    for (unsigned i = 0; i + 1 < r.n; ++i)
      if (r.members[i] == c) return true;
    return false;
  }
  // Length of the run of subject characters at lp that are (want) or are not
  // members; never past the end of the string.
  size_t class_run(const ClassRef &r, const uchar *lp, bool want) const {
    const uchar *p = lp;
    const uchar *const t = r.table;
    if (r.lut && !icase_) {
      const uchar w = want;
      while (end_ - p >= 4 && r.lut[p[0]] == w && r.lut[p[1]] == w && r.lut[p[2]] == w && r.lut[p[3]] == w) p += 4;
      while (p < end_ && r.lut[*p] == w) ++p;
    } else if (t && !icase_) {
      while (p < end_ && ((t[*p >> 3] >> (*p & 7)) & 1u) == static_cast<unsigned>(want)) ++p;
    } else if (icase_) {
      while (p < end_ && member(r, lower(*p)) == want) ++p;
    } else {
      while (p < end_ && member(r, *p) == want) ++p;
    }
    return static_cast<size_t>(p - lp);
  }
  // The recorded text of group g matches at lp (its first character is
  // always compared, even for an empty group).
  bool backref(int g, const uchar *lp) const;
  void push(size_t ep, const uchar *min, const uchar *lp, size_t step);
  void note_failure(const Frame &f);
  bool known_failure(size_t ep, const uchar *lp);
  std::string key(size_t ep, const uchar *lp) const;
  void start_memo();

  qzregex *re_;
  const uchar *prog_;
  size_t plen_;
  const uchar *subj_;
  const uchar *end_;
  bool icase_;
  const uchar *index_;   // table numbers by program offset
  const uchar *tables_;  // 32-byte membership tables
  uint64_t lead_at_ = 0; // count-byte offset of the first class
  const uchar *lead_lut_ = nullptr;

  Frame inline_[32];
  std::vector<Frame> heap_;
  size_t depth_ = 0;

  size_t resumes_ = 0;
  bool memo_ = false;
  bool memo_broken_ = false;
  struct Memo {
    std::vector<uint32_t> reads;  // per program offset: group starts (bits 0-8) and ends (16-24) read from there on
    std::unordered_set<std::string> failed;
  };
  std::unique_ptr<Memo> memo_data_;  // made when the memo starts
};

bool Matcher::backref(int g, const uchar *lp) const {
  auto *bp = reinterpret_cast<const uchar *>(re_->group_start[g]);
  auto *be = reinterpret_cast<const uchar *>(re_->group_end[g]);
  for (;;) {
    if (fold(*bp++) != fold(*lp)) return false;
    if (bp >= be) return true;
    if (!*lp++) return false;
  }
}

void Matcher::push(size_t ep, const uchar *min, const uchar *lp, size_t step) {
  Frame f{ep, min, lp, step};
  if (depth_ < 32)
    inline_[depth_] = f;
  else
    heap_.push_back(f);
  ++depth_;
}

std::string Matcher::key(size_t ep, const uchar *lp) const {
  std::string k;
  const uint32_t e = static_cast<uint32_t>(ep);
  const uint64_t at = static_cast<uint64_t>(lp - subj_);
  k.append(reinterpret_cast<const char *>(&e), sizeof e);
  k.append(reinterpret_cast<const char *>(&at), sizeof at);
  const auto &reads = memo_data_->reads;
  const uint32_t mask = ep < reads.size() ? reads[ep] : 0;
  for (int g = 0; g < kGroups; ++g) {
    if (mask & (1u << g)) k.append(reinterpret_cast<const char *>(&re_->group_start[g]), sizeof(const char *));
    if (mask & (1u << (g + 16))) k.append(reinterpret_cast<const char *>(&re_->group_end[g]), sizeof(const char *));
  }
  return k;
}

void Matcher::start_memo() {
  memo_ = true;
  memo_data_ = std::make_unique<Memo>();
  auto &reads_ = memo_data_->reads;
  // Walk the program once to learn which groups each continuation can read.
  std::vector<std::pair<size_t, int>> refs;  // offset of a back-reference, group
  size_t bra[kGroups], ket[kGroups];           // where each group opens and closes
  for (int g = 0; g < kGroups; ++g) bra[g] = ket[g] = static_cast<size_t>(-1);
  if (plen_ >= 0xFFFFFFFFu) {
    memo_broken_ = true;
    return;
  }
  size_t ep = 0;
  for (;;) {
    if (ep >= plen_) {
      memo_broken_ = true;
      return;
    }
    const uchar op = prog_[ep];
    size_t len;
    if (op == kEof) break;
    if (op == kDol || op == kDot || op == (kDot | kStar)) {
      len = 1;
    } else if (op == kChr || op == (kChr | kStar)) {
      len = 2;
    } else if (op == kBra || op == kKet) {
      if (ep + 1 >= plen_ || prog_[ep + 1] >= kGroups) {
        memo_broken_ = true;
        return;
      }
      (op == kBra ? bra : ket)[prog_[ep + 1]] = ep;
      len = 2;
    } else if (op == kBack || op == (kBack | kStar)) {
      if (ep + 1 >= plen_ || prog_[ep + 1] >= kGroups) {
        memo_broken_ = true;
        return;
      }
      refs.push_back({ep, prog_[ep + 1]});
      len = 2;
    } else if ((op & ~kStar) == kCcl || (op & ~kStar) == kNccl) {
      if (ep + 1 >= plen_ || prog_[ep + 1] == 0) {
        memo_broken_ = true;
        return;
      }
      len = 1 + prog_[ep + 1];
    } else {
      memo_broken_ = true;
      return;
    }
    ep += len;
  }
  // A continuation from offset i can read a group's start when a reference
  // to it lies at or after i and its opening lies before i (after i it is
  // recorded again first); the same for its end and its closing.
  reads_.assign(ep + 1, 0);
  for (auto &r : refs) {
    const int g = r.second;
    for (size_t i = 0; i <= r.first; ++i) {
      if (bra[g] < i) reads_[i] |= 1u << g;
      if (ket[g] < i) reads_[i] |= 1u << (g + 16);
    }
  }
}

void Matcher::note_failure(const Frame &f) {
  if (!memo_ || memo_broken_ || memo_data_->failed.size() >= (1u << 22)) return;
  memo_data_->failed.insert(key(f.ep, f.lp));
}

bool Matcher::known_failure(size_t ep, const uchar *lp) {
  if (!memo_ || memo_broken_ || memo_data_->failed.empty()) return false;
  return memo_data_->failed.count(key(ep, lp)) != 0;
}

size_t Matcher::single_size(size_t ep) const {
  if (ep + 1 >= plen_) return 0;
  switch (prog_[ep] | kStar) {
    case kChr | kStar:
      return 2;
    case kDot | kStar:
      return 1;
    case kCcl | kStar:
    case kNccl | kStar:
      return prog_[ep + 1] && ep + 1 + prog_[ep + 1] <= plen_ ? 1 + static_cast<size_t>(prog_[ep + 1]) : 0;
    default:
      return 0;
  }
}

bool Matcher::single_takes(size_t ep, unsigned c) const {
  if (!c) return false;
  switch (prog_[ep] | kStar) {
    case kChr | kStar:
      return fold(c) == prog_[ep + 1];
    case kDot | kStar:
      return true;
    default: {
      ClassRef r{};
      const bool positive = (prog_[ep] | kStar) == (kCcl | kStar);
      return class_ref(ep + 1, r) && member(r, fold(c)) == positive;
    }
  }
}

size_t Matcher::star_run(size_t ep, const uchar *lp) const {
  const uchar op = prog_[ep];
  if (!(op & kStar) || !single_size(ep) || op == (kBack | kStar)) return 0;
  if (op == (kDot | kStar)) return static_cast<size_t>(end_ - lp);
  if (op == (kCcl | kStar) || op == (kNccl | kStar)) {
    ClassRef r{};
    return class_ref(ep + 1, r) ? class_run(r, lp, op == (kCcl | kStar)) : 0;
  }
  const uchar *p = lp;
  while (single_takes(ep, *p)) ++p;
  return static_cast<size_t>(p - lp);
}

size_t Matcher::back_run(size_t ep, const uchar *q) const {
  const uchar *p = q;
  while (p > subj_ && single_takes(ep, p[-1])) --p;
  return static_cast<size_t>(q - p);
}

const uchar *Matcher::candidate(size_t ep, const uchar *q) const {
  if (q > end_) return nullptr;
  const uchar op = prog_[ep];
  if (op == kChr && ep + 1 < plen_) {
    const unsigned c = prog_[ep + 1];
    if (!icase_) return static_cast<const uchar *>(std::memchr(q, static_cast<int>(c), static_cast<size_t>(end_ - q)));
    while (q < end_ && lower(*q) != c) ++q;
    return q < end_ ? q : nullptr;
  }
  if ((op == kCcl || op == kNccl) && single_size(ep)) {
    ClassRef r{};
    if (!class_ref(ep + 1, r)) return q;
    q += class_run(r, q, op != kCcl);
    return *q ? q : nullptr;
  }
  return q;
}

int Matcher::run(size_t ep, const uchar *lp) {
  depth_ = 0;
  heap_.clear();
  for (;;) {
    // Forward: step through the instructions until one fails.
    for (;;) {
      if (ep >= plen_) return -1;
      const uchar op = prog_[ep++];
      switch (op) {
        case kChr:
          if (ep >= plen_) return -1;
          if (!*lp || fold(*lp) != prog_[ep]) goto fail;
          ++ep;
          ++lp;
          continue;
        case kDot:
          if (!*lp) goto fail;
          ++lp;
          continue;
        case kDol:
          if (*lp) goto fail;
          continue;
        case kEof:
          return 1;
        case kCcl:
        case kNccl: {
          ClassRef r{};
          if (!class_ref(ep, r)) return -1;
          const unsigned c = *lp;
          if (!c || member(r, fold(c)) != (op == kCcl)) goto fail;
          ++lp;
          ep += r.n;
          continue;
        }
        case kBra:
        case kKet: {
          if (ep >= plen_ || prog_[ep] >= kGroups) return -1;
          const int g = prog_[ep++];
          (op == kBra ? re_->group_start : re_->group_end)[g] = reinterpret_cast<const char *>(lp);
          continue;
        }
        case kBack:
        case kBack | kStar: {
          if (ep >= plen_ || prog_[ep] >= kGroups) return -1;
          const int g = prog_[ep++];
          if (!re_->group_end[g] || !re_->group_start[g]) return -1;
          if (re_->group_end[g] < re_->group_start[g]) goto fail;
          const size_t n = static_cast<size_t>(re_->group_end[g] - re_->group_start[g]);
          if (op == kBack) {
            if (!backref(g, lp)) goto fail;
            lp += n;
            continue;
          }
          // An empty group repeats zero times: nothing to back off.
          if (n == 0) continue;
          const uchar *min = lp;
          while (backref(g, lp)) lp += n;
          push(ep, min, lp, n);
          if (known_failure(ep, lp)) goto fail;
          continue;
        }
        case kChr | kStar: {
          if (ep >= plen_) return -1;
          const unsigned c = prog_[ep++];
          const uchar *min = lp;
          if (c) {
            if (icase_) {
              while (*lp && lower(*lp) == c) ++lp;
            } else {
              while (*lp == c) ++lp;
            }
          }
          push(ep, min, lp, 1);
          if (known_failure(ep, lp)) goto fail;
          continue;
        }
        case kDot | kStar: {
          const uchar *min = lp;
          lp = end_;
          push(ep, min, lp, 1);
          if (known_failure(ep, lp)) goto fail;
          continue;
        }
        case kCcl | kStar:
        case kNccl | kStar: {
          ClassRef r{};
          if (!class_ref(ep, r)) return -1;
          const uchar *min = lp;
          lp += class_run(r, lp, op == (kCcl | kStar));
          ep += r.n;
          push(ep, min, lp, 1);
          if (known_failure(ep, lp)) goto fail;
          continue;
        }
        default:
          return -1;
      }
    }
  fail:
    // Back off the innermost starred instruction by one repetition; when it
    // has none left, the one before it failed at its current length too.
    for (;;) {
      if (depth_ == 0) return 0;
      Frame &f = depth_ <= 32 ? inline_[depth_ - 1] : heap_.back();
      note_failure(f);
      if (f.lp > f.min) {
        f.lp -= f.step;
        if (++resumes_ == 4096 + 16 * static_cast<size_t>(end_ - subj_)) start_memo();
        if (known_failure(f.ep, f.lp)) continue;
        ep = f.ep;
        lp = f.lp;
        break;
      }
      if (depth_ > 32) heap_.pop_back();
      --depth_;
    }
  }
}

}  // namespace

extern "C" {

LL_API qzregex *regex_cmp(const char *pattern) noexcept { return compile(pattern, false); }

LL_API qzregex *regex_icmp(const char *pattern) noexcept { return compile(pattern, true); }

LL_API char *regex_exec(qzregex *re, const char *subject) noexcept {
  if (!re || !re->program || !subject) return nullptr;
  for (int g = 0; g < kGroups; ++g) re->group_start[g] = re->group_end[g] = nullptr;
  const auto *s = reinterpret_cast<const uchar *>(subject);
  const uchar *end = s + std::strlen(subject);
  const uchar *prog = re->program;
  try {
    Matcher m(re, s, end);
    if (re->anchored) return m.run(0, s) == 1 ? const_cast<char *>(subject) : nullptr;

    // Unanchored: any non-zero answer counts, a program error included.
    const uchar op = prog[0];
    const size_t first = m.single_size(0);
    if (first && !(op & kStar) && op != kDot) {
      // A leading literal or class: only positions holding one of its
      // characters. When the instruction after it is starred and took k
      // characters at p, the rest of the program has been tried at p + 1 ..
      // p + 1 + k; the candidates up to p + k can only fail the same way.
      for (const uchar *p = m.candidate(0, s); p; p = m.candidate(0, p + 1)) {
        if (m.run(first, p + 1)) return reinterpret_cast<char *>(const_cast<uchar *>(p));
        p += m.star_run(first, p + 1);
      }
      return nullptr;
    }
    if (first && (op & kStar)) {
      // A leading starred character, class or dot matches from p when the
      // rest of the program matches at some q that it reaches from p. So the
      // leftmost start belongs to the leftmost such q: the start of the run
      // of characters that the star takes just before q. The run is then
      // made from there, for its groups.
      for (const uchar *q = m.candidate(first, s); q; q = m.candidate(first, q + 1)) {
        if (!m.run(first, q)) continue;
        const uchar *p = q - m.back_run(0, q);
        m.run(0, p);
        return reinterpret_cast<char *>(const_cast<uchar *>(p));
      }
      return nullptr;
    }
    for (const uchar *p = s; p <= end; ++p)
      if (m.run(0, p)) return reinterpret_cast<char *>(const_cast<uchar *>(p));
  } catch (const std::bad_alloc &) {
    // Out of memory for backtracking: no match can be reported.
  }
  return nullptr;
}

// Test seam: the plain search, the program run at every position in turn,
// which the shortcuts of regex_exec must agree with.
LL_API char *llt_regex_exec_plain(qzregex *re, const char *subject) noexcept {
  if (!re || !re->program || !subject) return nullptr;
  for (int g = 0; g < kGroups; ++g) re->group_start[g] = re->group_end[g] = nullptr;
  const auto *s = reinterpret_cast<const uchar *>(subject);
  const uchar *end = s + std::strlen(subject);
  try {
    Matcher m(re, s, end);
    if (re->anchored) return m.run(0, s) == 1 ? const_cast<char *>(subject) : nullptr;
    for (const uchar *p = s; p <= end; ++p)
      if (m.run(0, p)) return reinterpret_cast<char *>(const_cast<uchar *>(p));
  } catch (const std::bad_alloc &) {
  }
  return nullptr;
}

LL_API void regex_done(qzregex *re) noexcept {
  if (!re) return;
  std::free(re->program);
  std::free(re);
}

}  // extern "C"
