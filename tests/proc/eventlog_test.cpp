// The event log: categories, the message's stored forms, the system log as a
// listener receives it (POSIX) and the event source in the registry (Windows).
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <thread>
#include <vector>

#include "lltest.h"
#include <liblocal/eventlog.h>
#include <liblocal/frame.h>
#include <liblocal/output.h>

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#endif

extern "C" size_t llt_eventlog_wide(const char *utf8, char16_t *out, size_t cap);
extern "C" size_t llt_eventlog_text(const char *utf8, char *out, size_t cap);
extern "C" void llt_force_os_class(int c);

namespace {

TEST(EventCategory, RowsAndNames) {
  const struct {
    const char *name;
    int category;
  } cases[] = {
      {"masterd", 1},      {"MasterD.EXE", 1}, {"tapectl", 5},  {"tapectl.exe", 5}, {"tapectl.", 5},
      {"tapectlx", 0},     {"tapect", 0},      {"llocal", 34},  {"baystow", 35},    {"Baystow", 35},
      {"unknownprog", 0},  {"", 0},            {".masterd", 0}, {"masterd exe", 0},
  };
  for (const auto &c : cases) EXPECT_EQ(event_category(c.name), c.category) << c.name;
  EXPECT_EQ(event_category(nullptr), 0);
}

// A fresh process whose first lookup names the server's source.
LLTEST_CHILD(eventlog_first_source) {
  const bool ok = std::strcmp(event_source_name("server"), "Baystow Server") == 0 &&
                  std::strcmp(event_source_name("no such key"), "Baystow") == 0 &&
                  std::strcmp(event_source_name(nullptr), "Baystow Server") == 0;
  return ok ? 0 : 1;
}

TEST(EventSource, FirstAnswerIsKept) { EXPECT_EQ(lltest::run_child("eventlog_first_source").exit_code, 0); }

std::u16string wide(const char *s, size_t cap) {
  std::u16string out(cap + 1, u'?');
  out.resize(llt_eventlog_wide(s, out.data(), cap));
  return out;
}

TEST(EventMessage, WideFormLineEndsPairsAndCap) {
  EXPECT_EQ(wide("one\ntwo\n", 100), u"one\r\ntwo\r\n");
  EXPECT_EQ(wide("kept\r\nas is", 100), u"kept\r\nas is");
  EXPECT_EQ(wide("\xC3\xA9\xF0\x9F\x98\x80", 100), u"\u00E9\U0001F600");
  // invalid bytes, an overlong form, a surrogate and a value past U+10FFFF
  EXPECT_EQ(wide("a\xFF" "b\xC0\xAF" "c\xED\xA0\x80" "d\xF4\x90\x80\x80", 100),
            u"a\uFFFDb\uFFFD\uFFFDc\uFFFD\uFFFD\uFFFDd\uFFFD\uFFFD\uFFFD\uFFFD");
  // the cap never splits a pair, a CR LF made from a line feed, or one given
  EXPECT_EQ(wide("ab\xF0\x9F\x98\x80", 3), u"ab");
  EXPECT_EQ(wide("ab\ncd", 3), u"ab");
  EXPECT_EQ(wide("ab\r\ncd", 3), u"ab");
  EXPECT_EQ(wide("ab\rcd", 3), u"ab\r");
  std::string big(100000, 'x');
  EXPECT_EQ(wide(big.c_str(), 6142).size(), 6142u);
}

TEST(EventMessage, LogTextCutsAtCharacters) {
  char out[32];
  EXPECT_EQ(llt_eventlog_text("two\nlines\n\n", out, 31), 9u);
  EXPECT_STREQ(out, "two\nlines");
  llt_eventlog_text("x\xFFy", out, 31);
  EXPECT_STREQ(out, "x\xEF\xBF\xBDy");
  EXPECT_EQ(llt_eventlog_text("ab\xE2\x82\xAC", out, 4), 2u);
  EXPECT_EQ(eventprintf(QZ_EVENT_ERROR, 0, nullptr), 0);
}

#ifndef _WIN32
extern "C" void llt_eventlog_socket(const char *path);

// A log listener bound in a temporary folder; the library writes to it.
class Listener {
 public:
  explicit Listener(const lltest::TempDir &dir, int type = SOCK_DGRAM) : path_(dir.file("log")) {
    fd_ = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::strcpy(sa.sun_path, path_.c_str());
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0);
    if (type == SOCK_STREAM) {
      EXPECT_EQ(listen(fd_, 4), 0);
    }
    llt_eventlog_socket(path_.c_str());
  }
  ~Listener() {
    llt_eventlog_socket(nullptr);
    if (conn_ >= 0) close(conn_);
    close(fd_);
  }
  std::string next() {
    char buf[20000];
    timeval tv{5, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    const ssize_t n = recv(fd_, buf, sizeof buf, 0);
    return n < 0 ? std::string("(nothing)") : std::string(buf, static_cast<size_t>(n));
  }
  std::string next_record() {  // from a stream listener: up to the NUL
    if (conn_ < 0) conn_ = accept(fd_, nullptr, nullptr);
    std::string out;
    char c;
    while (read(conn_, &c, 1) == 1 && c) out += c;
    return out;
  }
  int fd() const { return fd_; }

 private:
  std::string path_;
  int fd_ = -1, conn_ = -1;
};

// The datagram without its time stamp, which is checked for its form.
std::string without_stamp(const std::string &msg) {
  static const std::regex stamp(R"(^(<\d+>)[A-Z][a-z]{2} [ 123]\d \d\d:\d\d:\d\d ([\s\S]*)$)");
  std::smatch m;
  if (!std::regex_match(msg, m, stamp)) return "(bad form) " + msg;
  return m[1].str() + m[2].str();
}

TEST(SystemLog, ListenerReceivesTheExactMessage) {
  lltest::TempDir dir;
  Listener log(dir);
  setMyname("tapectl");
  const std::string who = "tapectl[" + std::to_string(getpid()) + "]: ";
  const struct {
    int type, category;
    const char *expect;
  } cases[] = {
      {QZ_EVENT_ERROR, 0, "<11>" /* user.err */ "[category 5, error] "},
      {QZ_EVENT_WARNING, 7, "<12>[category 7, warning] "},
      {QZ_EVENT_INFORMATION, 35, "<14>[category 35, information] "},
      {QZ_EVENT_AUDIT_SUCCESS, 36, "<13>[category 0, audit success] "},
      {QZ_EVENT_AUDIT_FAILURE, -1, "<13>[category 0, audit failure] "},
      {QZ_EVENT_SUCCESS, 1, "<14>[category 1, success] "},
      {3, 1, "<14>[category 1, type 3] "},
  };
  for (const auto &c : cases) {
    ASSERT_EQ(eventprintf(c.type, c.category, "disk %s is full\nsecond line\n", "D1"), 1);
    std::string expect = c.expect;
    expect.insert(expect.find('>') + 1, who);
    EXPECT_EQ(without_stamp(log.next()), expect + "disk D1 is full\nsecond line");
  }
  // a huge message is cut at the cap, on a character boundary
  std::string big;
  for (int i = 0; i < 50000; ++i) big += "\xC3\xA9";
  ASSERT_EQ(eventprintf(QZ_EVENT_INFORMATION, 1, "%s", big.c_str()), 1);
  const std::string got = log.next();
  const std::string text = got.substr(got.find("] ", got.find("[category")) + 2);
  EXPECT_EQ(text.size(), 12284u);
  EXPECT_EQ(text, big.substr(0, 12284));
  // the Windows 9x class writes nothing: the next datagram is the later event
  llt_force_os_class(4);
  EXPECT_EQ(eventprintf(QZ_EVENT_ERROR, 1, "not written"), 0);
  llt_force_os_class(0);
  ASSERT_EQ(eventprintf(QZ_EVENT_ERROR, 1, "written"), 1);
  EXPECT_NE(log.next().find("] written"), std::string::npos);
  setMyname("baystow");
}

TEST(SystemLog, StreamListenerGetsNulEndedRecords) {
  lltest::TempDir dir;
  Listener log(dir, SOCK_STREAM);
  ASSERT_EQ(eventprintf(QZ_EVENT_WARNING, 2, "one %d", 1), 1);
  ASSERT_EQ(eventprintf(QZ_EVENT_WARNING, 2, "two"), 1);
  EXPECT_NE(log.next_record().find("[category 2, warning] one 1"), std::string::npos);
  EXPECT_NE(log.next_record().find("[category 2, warning] two"), std::string::npos);
}

TEST(SystemLog, ThreadsWriteWholeRecords) {
  lltest::TempDir dir;
  Listener log(dir);
  // no more events than a listener's queue holds (10 on Linux): none waits
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 2; ++i) eventprintf(QZ_EVENT_INFORMATION, 3, "thread %d event %d", t, i);
    });
  std::set<std::string> seen;
  for (int i = 0; i < 8; ++i) {
    const std::string m = log.next();
    seen.insert(m.substr(m.find("] thread ") + 2));
  }
  for (auto &th : threads) th.join();
  EXPECT_EQ(seen.size(), 8u);
}

TEST(SystemLog, NoListenerNeverBlocks) {
  lltest::TempDir dir;
  const auto t0 = std::chrono::steady_clock::now();
  // gone, not a socket, a listener that went away, and one that never reads
  llt_eventlog_socket(dir.file("none").c_str());
  EXPECT_EQ(eventprintf(QZ_EVENT_ERROR, 1, "lost"), 0);
  dir.write("plain", "x");
  llt_eventlog_socket(dir.file("plain").c_str());
  EXPECT_EQ(eventprintf(QZ_EVENT_ERROR, 1, "lost"), 0);
  {
    Listener gone(dir);
    EXPECT_EQ(eventprintf(QZ_EVENT_ERROR, 1, "kept"), 1);
    close(gone.fd());
    unlink(dir.file("log").c_str());
    EXPECT_EQ(eventprintf(QZ_EVENT_ERROR, 1, "lost"), 0);
  }
  {
    Listener deaf(dir);
    int sent = 0;
    for (int i = 0; i < 3000; ++i) sent += eventprintf(QZ_EVENT_ERROR, 1, "%0500d", i);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, 3000);  // the queue filled up and the rest was dropped
  }
  llt_eventlog_socket(nullptr);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(10));
}
#else
// The key of an event source in the registry. The set-up tests use the
// "client" product's source, which nothing else in the test programs sets up;
// initialisation sets up the library's own ("bsw").
std::wstring source_key(const wchar_t *source = L"Baystow Client") {
  return std::wstring(L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\") + source;
}

std::wstring library_path() {
  wchar_t buf[MAX_PATH * 4];
  const DWORD n = GetModuleFileNameW(GetModuleHandleW(L"liblocal.dll"), buf, MAX_PATH * 4);
  return std::wstring(buf, n);
}

// A value of a source's key as its type and text (a number in decimal);
// type 0 when it is absent.
using Value = std::pair<DWORD, std::wstring>;
Value value(const wchar_t *name, const wchar_t *source = L"Baystow Client") {
  wchar_t buf[4096] = {};
  DWORD type = 0, size = sizeof buf - sizeof(wchar_t), number = 0;
  if (RegGetValueW(HKEY_LOCAL_MACHINE, source_key(source).c_str(), name, RRF_RT_ANY | RRF_NOEXPAND, &type, buf,
                   &size) != ERROR_SUCCESS)
    return {0, L""};
  std::memcpy(&number, buf, sizeof number);
  return {type, type == REG_DWORD ? std::to_wstring(number) : std::wstring(buf)};
}
void set_value(const wchar_t *name, DWORD type, const void *data, size_t size) {
  ASSERT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, source_key().c_str(), name, type, data, static_cast<DWORD>(size)), 0);
}

TEST(EventSource, RegistryHoldsTheLibraryAsMessageFile) {
  RegDeleteKeyW(HKEY_LOCAL_MACHINE, source_key().c_str());
  llt_force_os_class(4);  // the Windows 9x class has no event log
  EXPECT_EQ(event_source_setup("client"), 0);
  EXPECT_EQ(eventprintf(QZ_EVENT_ERROR, 1, "nothing"), 0);
  llt_force_os_class(0);
  EXPECT_EQ(value(L"EventMessageFile").first, 0u);

  ASSERT_EQ(event_source_setup("client"), 1);
  const Value file{REG_EXPAND_SZ, library_path()};
  EXPECT_EQ(value(L"EventMessageFile"), file);
  EXPECT_EQ(value(L"CategoryMessageFile"), file);
  EXPECT_EQ(value(L"CategoryCount"), Value(REG_DWORD, L"35"));
  EXPECT_EQ(value(L"TypesSupported"), Value(REG_DWORD, L"7"));

  // the same file in other case: a second set-up changes nothing
  std::wstring upper = library_path();
  for (auto &c : upper) c = towupper(c);
  set_value(L"CategoryMessageFile", REG_EXPAND_SZ, upper.c_str(), (upper.size() + 1) * 2);
  const DWORD marker = 99;
  set_value(L"CategoryCount", REG_DWORD, &marker, sizeof marker);
  ASSERT_EQ(event_source_setup("client"), 1);
  EXPECT_EQ(value(L"CategoryCount").second, L"99");

  // another file: the registration is renewed
  const std::wstring other = L"C:\\elsewhere\\other.dll";
  set_value(L"CategoryMessageFile", REG_EXPAND_SZ, other.c_str(), (other.size() + 1) * 2);
  ASSERT_EQ(event_source_setup("client"), 1);
  EXPECT_EQ(value(L"CategoryMessageFile"), file);
  EXPECT_EQ(value(L"CategoryCount").second, L"35");
}

LLTEST_CHILD(eventlog_qzinit) {
  qzinit("masterd");
  return 0;
}

TEST(EventSource, InitialisationSetsItUp) {
  RegDeleteKeyW(HKEY_LOCAL_MACHINE, source_key(L"Baystow").c_str());
  EXPECT_EQ(lltest::run_child("eventlog_qzinit").exit_code, 0);
  EXPECT_EQ(value(L"CategoryMessageFile", L"Baystow").second, library_path());
}

extern "C" void llt_eventlog_registry(const char *key);

// A volatile key takes no lasting subkey: creating the source's key under it fails.
LLTEST_CHILD(eventlog_refused_key) {
  liblvars_set_debug(1);
  llt_eventlog_registry("SOFTWARE\\llt_volatile");
  return event_source_setup(nullptr);
}

TEST(EventSource, KeyThatCannotBeCreatedIsReportedAtLevelOne) {
  HKEY k;
  ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\llt_volatile", 0, nullptr, REG_OPTION_VOLATILE,
                            KEY_ALL_ACCESS, nullptr, &k, nullptr), 0);
  RegCloseKey(k);
  const auto r = lltest::run_child("eventlog_refused_key");
  RegDeleteKeyW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\llt_volatile");
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_NE(r.err.find("Cannot create EventLog source registry key"), std::string::npos) << r.err;
}

TEST(EventLog, ReportsAndTheLibrarysMessageTable) {
  ASSERT_EQ(event_source_setup("bsw"), 1);
  EXPECT_EQ(eventprintf(QZ_EVENT_INFORMATION, 0, "two\nlines %d", 2), 1);
  EXPECT_EQ(eventprintf(QZ_EVENT_ERROR, 99, "%s", std::string(100000, 'x').c_str()), 1);

  HMODULE lib = GetModuleHandleW(L"liblocal.dll");
  auto text = [&](DWORD id, const wchar_t *insert) {
    wchar_t buf[512] = {};
    DWORD_PTR args[1] = {reinterpret_cast<DWORD_PTR>(insert)};
    const DWORD flags = FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY;
    const DWORD n = FormatMessageW(flags, lib, id, 0, buf, 512, reinterpret_cast<va_list *>(args));
    return std::wstring(buf, n);
  };
  EXPECT_EQ(text(QZ_EVENT_ID_MESSAGE, L"hello\r\nworld"), L"hello\r\nworld");
  EXPECT_EQ(text(QZ_EVENT_ID_DEFAULT, L"plain"), L"plain");
  EXPECT_EQ(text(1, nullptr), L"Master Server");
  EXPECT_EQ(text(35, nullptr), L"Other Programs");
  for (DWORD c = 1; c <= 35; ++c) EXPECT_FALSE(text(c, nullptr).empty()) << c;
  EXPECT_TRUE(text(36, nullptr).empty());
}
#endif

}  // namespace
