// Decoding the map script's output.
#include "cluster/hxmap.h"

#include <liblocal/output.h>

#include <cctype>
#include <cstring>

namespace ll::cluster {
namespace {

bool blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

std::string_view trim(std::string_view s) {
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return s;
}

bool is_sep(char c) { return c == '/' || c == '\\'; }

// Four decimal numbers of at most 255 joined by dots.
bool dotted_quad(const std::string &s) {
  int parts = 0, digits = 0, value = 0;
  for (char c : s) {
    if (c >= '0' && c <= '9') {
      value = value * 10 + (c - '0');
      if (++digits > 3 || value > 255) return false;
    } else if (c == '.') {
      if (!digits || ++parts > 3) return false;
      digits = value = 0;
    } else {
      return false;
    }
  }
  return parts == 3 && digits;
}

// Letters, digits, '-', '_' and '.', starting with a letter or digit.
bool host_name(const std::string &s) {
  if (s.empty() || s.size() > 255) return false;
  const unsigned char first = static_cast<unsigned char>(s[0]);
  if (!std::isalnum(first)) return false;
  for (char c : s)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '.') return false;
  return true;
}

// An absolute path: "/..." or "\\..." or a drive letter with its separator.
bool absolute_path(const std::string &p) {
  if (p.empty() || p.size() >= 1560) return false;
  if (is_sep(p[0])) return true;
  return p.size() >= 3 && std::isalpha(static_cast<unsigned char>(p[0])) && p[1] == ':' && is_sep(p[2]);
}

}  // namespace

void LineReader::feed(const char *data, size_t n) {
  while (n) {
    const char *nl = static_cast<const char *>(std::memchr(data, '\n', n));
    const size_t take = nl ? static_cast<size_t>(nl - data) : n;
    if (!bad_) {
      if (std::memchr(data, 0, take) || buf_.size() + take > kMaxLine + 1) {
        bad_ = true;
        buf_.clear();
      } else {
        buf_.append(data, take);
      }
    }
    if (!nl) return;
    end_line();
    data += take + 1;
    n -= take + 1;
  }
}

void LineReader::finish() {
  if (bad_ || !buf_.empty()) end_line();
}

void LineReader::end_line() {
  if (!bad_ && !buf_.empty() && buf_.back() == '\r') buf_.pop_back();
  if (bad_ || buf_.size() > kMaxLine)
    sink_.bad_line();
  else
    sink_.line(buf_);
  buf_.clear();
  bad_ = false;
}

void MapDecoder::bad_line() {
  if (abandoned_) return;
  dprintf(7, "Problems reading output of hxmap(.bat) file ...\n");
}

void MapDecoder::line(std::string_view text) {
  if (abandoned_ || text.empty() || text[0] == '#') return;
  dprintf(7, "Decoding line:\n %.*s\n", static_cast<int>(text.size()), text.data());
  const size_t colon = text.find(':');
  if (colon == std::string_view::npos) {
    dprintf(7, "Problems reading output of hxmap(.bat) file ...\n");
    return;
  }
  const std::string_view key = trim(text.substr(0, colon));
  const std::string value(trim(text.substr(colon + 1)));
  if (key == "clu_type") {
    if (value != "BSW_HX_TYPE") {
      dprintf(7, "clu_type %s is not BSW_HX_TYPE: map abandoned\n", value.c_str());
      abandoned_ = true;
      map_ = HxMap{};
      current_ = nullptr;
      return;
    }
    dprintf(7, "cluster status set to active ...\n");
    map_.active = true;
  } else if (key == "interface version") {
    dprintf(7, "hxmap interface version %s\n", value.c_str());
  } else if (key == "nodename") {
    map_.nodename = value;
    dprintf(7, "Hx_nodename set to %s.\n", value.c_str());
  } else if (key == "hostname") {
    host(value);
  } else if (key == "owned paths") {
    owned_paths(value);
  }
}

void MapDecoder::host(const std::string &text) {
  current_ = nullptr;
  VirtHost h;
  if (dotted_quad(text)) {
    std::string name;
    if (!env_.resolve_addr4 || !env_.resolve_addr4(text.c_str(), &name) || name.empty()) {
      dprintf(7, "gethostbyaddr doesn't know host %s\n", text.c_str());
      return;
    }
    h.ipaddr = text;
    h.name = name;
  } else if (host_name(text)) {
    h.name = text;
  } else {
    dprintf(7, "Unknown format of host %s\n", text.c_str());
    return;
  }
  if (map_.hosts.size() >= kMaxHosts) {
    dprintf(7, "too many virtual hosts: %s ignored\n", text.c_str());
    return;
  }
  map_.hosts.push_back(std::move(h));
  current_ = &map_.hosts.back();
}

// Paths are separated by blanks; a path holding blanks is written in double
// quotes.
void MapDecoder::owned_paths(std::string_view value) {
  while (!value.empty()) {
    while (!value.empty() && blank(value.front())) value.remove_prefix(1);
    if (value.empty()) break;
    size_t end;
    std::string_view word;
    if (value.front() == '"') {
      end = value.find('"', 1);
      word = value.substr(1, end == std::string_view::npos ? std::string_view::npos : end - 1);
      end = end == std::string_view::npos ? value.size() : end + 1;
    } else {
      end = 0;
      while (end < value.size() && !blank(value[end])) ++end;
      word = value.substr(0, end);
    }
    owned_path(std::string(word));
    value.remove_prefix(end);
  }
}

void MapDecoder::owned_path(std::string path) {
  if (!current_) {
    dprintf(7, "owned path %s has no host - ignored\n", path.c_str());
    return;
  }
  if (!absolute_path(path)) {
    dprintf(7, "\n%s not a valid path.\n", path.c_str());
    return;
  }
  size_t keep = path.size();
  const size_t floor = path[1] == ':' ? 3 : 1;
  while (keep > floor && is_sep(path[keep - 1])) --keep;
  if (keep != path.size()) {
    dprintf(7, "removing any trailing slashes\n");
    path.resize(keep);
  }
  switch (env_.fstab_check ? env_.fstab_check(path.c_str()) : FsCheck::table_failed) {
    case FsCheck::table_failed:
      dprintf(7, "Problems with getfstab to verify filesystem...\n");
      return;
    case FsCheck::neither:
      dprintf(7, "%s is neither raw device nor fs mount dir - rejecting\n", path.c_str());
      return;
    case FsCheck::raw_device:
      dprintf(7, "%s is raw device - ok\n", path.c_str());
      break;
    case FsCheck::mount_dir:
      dprintf(7, "%s is fs mount dir - ok\n", path.c_str());
      break;
  }
  if (current_->paths.size() >= kMaxPaths) {
    dprintf(7, "too many owned paths: %s ignored\n", path.c_str());
    return;
  }
  current_->paths.push_back(std::move(path));
}

}  // namespace ll::cluster
