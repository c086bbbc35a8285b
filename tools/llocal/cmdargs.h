// llocal - reading the words of the server and client commands (serve,
// save, restore, list, stop) into checked values. Nothing here opens a file
// or a socket or touches a process: the commands act on what these return,
// and the fuzz target drives them directly.
#pragma once
#include <string>
#include <vector>

#include <liblocal.h>

#include "netio.h"

namespace llocal {

// What a command's words ask for.
struct Verdict {
  enum What { kRun, kHelp, kBad } what = kRun;
  std::string why;  // for kBad: the usage message, one line ending in "\n"
};

constexpr const char *kServiceName = "llocalsave";
constexpr const char *kDefaultListen = "127.0.0.1:7440";
// Windows serves each connection on a thread of the daemon: a socket a child
// inherits as its standard input reads there, but sends and socket options
// on it fail with "not a socket" (seen under the Wine the library is tested
// on), and a process start costs tens of milliseconds there against a
// fraction of one for a thread. POSIX keeps a child per connection.
#ifdef _WIN32
constexpr bool kThreadsByDefault = true;
#else
constexpr bool kThreadsByDefault = false;
#endif

struct ServeOptions {
  std::string store, listen = kDefaultListen, port_file;
  net::Address address;  // 'listen', read (for kRun)
  bool child = false;    // serve the connection on standard input and output
  bool threads = kThreadsByDefault;
  bool service = false;             // the command line installed for the service manager
  std::string name = kServiceName;  // the service's name
};

// "serve [--store DIR] [--listen ADDR:PORT] [--port-file FILE] [--threads]
// [--name NAME] ..."; argv[0] is the command name. The long words are
// rewritten in argv to the letters getopt reads.
Verdict parse_serve(int argc, char **argv, ServeOptions &o);

// "serve -ADD|-REM ...": the command line the service is installed with
// ('self' first, then the words after -ADD/-REM, store and port-file folders
// made absolute against 'cwd') and the service's name.
struct ServiceInstall {
  std::vector<std::string> words;
  std::string name = kServiceName;
};
bool is_service_install(int argc, char **argv);
ServiceInstall service_words(int argc, char **argv, const std::string &self, const std::string &cwd);

// 'name' made absolute against the folder 'cwd' (as it is when that fails).
std::string absolute_against(const char *name, const std::string &cwd);

// Clients: "save ADDR:PORT PATH...", "restore ADDR:PORT ID DIR",
// "list ADDR:PORT".
struct ClientArgs {
  std::string where;  // the server's address as given
  net::Address address;
  qzui id{};                       // restore
  std::vector<std::string> paths;  // save: the trees; restore: the target folder
};
Verdict parse_save(int argc, char **argv, ClientArgs &a);
Verdict parse_restore(int argc, char **argv, ClientArgs &a);
Verdict parse_list(int argc, char **argv, ClientArgs &a);

// A save's identifier: 40 lowercase hex digits, or the library's text form.
bool parse_save_id(const std::string &text, qzui &id);

// "stop PID".
Verdict parse_stop(int argc, char **argv, int &pid);

}  // namespace llocal
