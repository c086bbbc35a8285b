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

inline unsigned lower(unsigned c) { return std::isupper(static_cast<int>(c)) ? static_cast<unsigned>(std::tolower(static_cast<int>(c))) : c; }

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
        icase_(re->icase != 0) {}

  // The matcher's answer for the program from 'ep' at 'lp': 1 matched, 0 not,
  // -1 a program error (an unrecorded group, an unknown opcode).
  int run(size_t ep, const uchar *lp);

 private:
  unsigned fold(unsigned c) const { return icase_ ? lower(c) : c; }
  // Class membership as the editor tests it; never the end of the string.
  int in_class(size_t at, unsigned c, bool positive) const;
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

  Frame inline_[32];
  std::vector<Frame> heap_;
  size_t depth_ = 0;

  size_t resumes_ = 0;
  bool memo_ = false;
  bool memo_broken_ = false;
  std::vector<uint32_t> reads_;  // per program offset: group starts (bits 0-8) and ends (16-24) read from there on
  std::unordered_set<std::string> failed_;
};

int Matcher::in_class(size_t at, unsigned c, bool positive) const {
  if (c == 0) return 0;
  if (at >= plen_) return -1;
  const unsigned n = prog_[at];
  if (n == 0 || at + n > plen_) return -1;
  c = fold(c);
  for (size_t i = at + 1; i < at + n; ++i)
    if (prog_[i] == c) return positive;
  return !positive;
}

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
  const uint32_t mask = ep < reads_.size() ? reads_[ep] : 0;
  for (int g = 0; g < kGroups; ++g) {
    if (mask & (1u << g)) k.append(reinterpret_cast<const char *>(&re_->group_start[g]), sizeof(const char *));
    if (mask & (1u << (g + 16))) k.append(reinterpret_cast<const char *>(&re_->group_end[g]), sizeof(const char *));
  }
  return k;
}

void Matcher::start_memo() {
  memo_ = true;
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
  if (!memo_ || memo_broken_ || failed_.size() >= (1u << 22)) return;
  failed_.insert(key(f.ep, f.lp));
}

bool Matcher::known_failure(size_t ep, const uchar *lp) {
  if (!memo_ || memo_broken_ || failed_.empty()) return false;
  return failed_.count(key(ep, lp)) != 0;
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
          int r = in_class(ep, *lp, op == kCcl);
          if (r < 0) return -1;
          if (!r) goto fail;
          ++lp;
          ep += prog_[ep];
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
          const uchar *min = lp;
          for (;;) {
            int r = in_class(ep, *lp, op == (kCcl | kStar));
            if (r < 0) return -1;
            if (!r) break;
            ++lp;
          }
          ep += prog_[ep];
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
    if (prog[0] == kChr && prog[1] != 0) {
      // Only positions holding the leading literal can match.
      const unsigned c = prog[1];
      for (const uchar *p = s; p < end; ++p) {
        if (re->icase) {
          while (p < end && lower(*p) != c) ++p;
        } else {
          p = static_cast<const uchar *>(std::memchr(p, static_cast<int>(c), static_cast<size_t>(end - p)));
          if (!p) break;
        }
        if (p >= end) break;
        if (m.run(2, p + 1)) return reinterpret_cast<char *>(const_cast<uchar *>(p));
      }
      return nullptr;
    }
    if ((prog[0] == kCcl || prog[0] == kNccl) && prog[1] != 0 && prog[1] + 1u < re->capacity + kSlack) {
      // A leading class: test membership from a table first.
      bool member[256] = {};
      for (unsigned i = 2; i < 1u + prog[1]; ++i) member[prog[i]] = true;
      const bool want = prog[0] == kCcl;
      const size_t after = 1 + prog[1];
      for (const uchar *p = s; p < end; ++p) {
        const unsigned c = re->icase ? lower(*p) : *p;
        if (member[c] != want) continue;
        if (m.run(after, p + 1)) return reinterpret_cast<char *>(const_cast<uchar *>(p));
      }
      return nullptr;
    }
    for (const uchar *p = s;; ++p) {
      if (m.run(0, p)) return reinterpret_cast<char *>(const_cast<uchar *>(p));
      if (p >= end) break;
    }
  } catch (const std::bad_alloc &) {
    // Out of memory for backtracking: no match can be reported.
  }
  return nullptr;
}

LL_API void regex_done(qzregex *re) noexcept {
  if (!re) return;
  std::free(re->program);
  std::free(re);
}

}  // extern "C"
