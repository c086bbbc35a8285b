// llocal - the library's own command-line tool: a handful of subcommands
// built only on the library's exported interface.
#include <cstdarg>
#include <cstring>

#include "llocal.h"

namespace llocal {

const std::vector<Command> &commands() {
  static const std::vector<Command> table = {
      {"tour", cmd_tour, 100,
       "usage: llocal tour\n"
       "A short walk through what the library does, on a sample text embedded\n"
       "in the tool, ending with a summary line.\n"},
      {"cksum", cmd_cksum, 101,
       "usage: llocal cksum [FILE...]\n"
       "Prints the POSIX cksum value, the byte count and the name of each FILE\n"
       "(standard input, without a name, when there is none or FILE is -).\n"},
      {"sha1", cmd_sha1, 102,
       "usage: llocal sha1 [FILE...]\n"
       "Prints the SHA-1 digest of each FILE as five groups of eight hex digits,\n"
       "two blanks and the name (standard input, without a name, when there is\n"
       "none or FILE is -).\n"},
      {"pack", cmd_pack, 103,
       "usage: llocal pack [-f] [-b KIB] [-o OUTPUT] [FILE]\n"
       "Compresses FILE (or standard input) into a packed container on standard\n"
       "output or into OUTPUT.\n"
       "  -b KIB     block size in KiB, 1 to 65536 (default 128)\n"
       "  -o OUTPUT  write to OUTPUT instead of standard output\n"
       "  -f         overwrite OUTPUT if it exists; write to a terminal\n"},
      {"unpack", cmd_unpack, 104,
       "usage: llocal unpack [-f] [-o OUTPUT] [FILE]\n"
       "Restores the data of a packed container read from FILE (or standard\n"
       "input). Every block is checked before it is written; OUTPUT appears only\n"
       "when the whole container was sound.\n"
       "  -o OUTPUT  write to OUTPUT instead of standard output\n"
       "  -f         overwrite OUTPUT if it exists\n"},
      {"uncompress", cmd_uncompress, 105,
       "usage: llocal uncompress [-c] [-f] [-o OUTPUT] [FILE.Z...]\n"
       "Decodes files made by the compress tool with 12-bit codes (-b12). Each\n"
       "FILE.Z is written to FILE and kept; with no FILE, standard input goes to\n"
       "standard output.\n"
       "  -c         write to standard output\n"
       "  -o OUTPUT  write to OUTPUT (one input only)\n"
       "  -f         overwrite existing output files\n"},
      {"grep", cmd_grep, 106,
       "usage: llocal grep [-i] [-n] [-c] [-v] PATTERN [FILE...]\n"
       "Prints the lines that match PATTERN, a basic regular expression (. * [ ]\n"
       "^ $ \\( \\) \\1-\\9). Exit status 0 when a line was selected, 1 when none\n"
       "was or a file could not be read, 2 for a usage error or a bad pattern.\n"
       "  -i  ignore case    -n  prefix line numbers\n"
       "  -c  print only the count of selected lines    -v  select non-matching lines\n"},
      {"canon", cmd_canon, 107,
       "usage: llocal canon [-s SEP] PATH...\n"
       "Prints the canonical form of each PATH.\n"
       "  -s SEP  separator: / or \\ (default: the system's own)\n"},
      {"fullcanon", cmd_fullcanon, 108,
       "usage: llocal fullcanon [-s SEP] [-d DIR] PATH...\n"
       "Prints the canonical absolute form of each PATH, taken against DIR\n"
       "(default: the current directory).\n"
       "  -s SEP  separator: / or \\ (default: the system's own)\n"
       "  -d DIR  the directory relative paths start from\n"},
      {"pathinfo", cmd_pathinfo, 109,
       "usage: llocal pathinfo [-s SEP] PATH\n"
       "Prints the last component, the parent, the depth, whether PATH is\n"
       "relative, and its UNC type (none, share, pipe, drive or tape).\n"
       "  -s SEP  separator: / or \\ (default: the system's own)\n"},
      {"strerror", cmd_strerror, 110,
       "usage: llocal strerror N...\n"
       "Prints the text of each error number N (decimal, or hexadecimal with 0x,\n"
       "e.g. 0x10000005 for a marked system code).\n"},
      {"tag", cmd_tag, 111,
       "usage: llocal tag TEXT FIRST SECOND\n"
       "Prints TEXT with the message tag of the numbers FIRST and SECOND appended.\n"},
      {"untag", cmd_untag, 112,
       "usage: llocal untag [-n] TEXT\n"
       "Prints TEXT without its message tags.\n"
       "  -n  print the two numbers of the first tag instead (exit 1 when none)\n"},
      {"split", cmd_split, 113,
       "usage: llocal split [-u | -w] [-d DELIMS] STRING\n"
       "Splits STRING into words by the library's quoting rules and prints one\n"
       "word per line.\n"
       "  -u  POSIX-shell rules    -w  Windows command-line rules\n"
       "      (default: the system's own)\n"
       "  -d DELIMS  the characters that separate unquoted words\n"},
      {"join", cmd_join, 114,
       "usage: llocal join [-u | -w] WORD...\n"
       "Prints one command line that splits back into the given words.\n"
       "  -u  for a POSIX shell    -w  for the Windows C runtime\n"
       "      (default: the system's own)\n"},
      {"serve", cmd_serve, 115,
       "usage: llocal serve --store DIR [--listen ADDR:PORT] [--port-file FILE] [--threads] [--name NAME]\n"
       "       llocal serve -ADD|-REM [--name NAME] [--store DIR ...]\n"
       "Keeps saves in DIR and serves save, restore and list clients on ADDR:PORT\n"
       "(default 127.0.0.1:7440; port 0 takes a free port, written to FILE).\n"
       "Each connection is served by a child process (a thread on Windows, or\n"
       "with --threads). Ends cleanly on llocal stop,\n"
       "the service manager's stop or Ctrl-C. -ADD installs the server as a\n"
       "service that runs with the words after it; -REM removes the service.\n"},
      {"save", cmd_save, 116,
       "usage: llocal save ADDR:PORT PATH...\n"
       "Saves the trees at PATH on the server and prints the save's identifier.\n"
       "Exit status 1 when some files could not be read (named on standard\n"
       "error; the save still completes), 2 when the save itself failed.\n"},
      {"restore", cmd_restore, 117,
       "usage: llocal restore ADDR:PORT ID DIR\n"
       "Brings the save ID back into DIR, every block and file checked before a\n"
       "file is put in place.\n"},
      {"list", cmd_list, 118,
       "usage: llocal list ADDR:PORT\n"
       "Lists the server's saves: identifier, time, files and bytes.\n"},
      {"stop", cmd_stop, 119,
       "usage: llocal stop PID\n"
       "Tells the process PID (a save server) to stop cleanly.\n"},
  };
  return table;
}

const Command *find_command(const char *name) {
  for (const auto &c : commands())
    if (std::strcmp(c.name, name) == 0) return &c;
  return nullptr;
}

int help(const Command &cmd) {
  out("%s", msg(cmd.help_number, cmd.help));
  return kOk;
}

int usage_error(const Command &cmd, const char *fmt, ...) {
  std::string text = std::string(cmd.name) + ": ";
  va_list ap;
  va_start(ap, fmt);
  char buf[1024];
  std::vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  text += buf;
  error("%s", text.c_str());
  // The first line of the help is the synopsis.
  const std::string h = msg(cmd.help_number, cmd.help);
  std::fprintf(stderr, "%s\n", h.substr(0, h.find('\n')).c_str());
  return kUsage;
}

static int main_usage(std::FILE *f) {
  std::fprintf(f, "%s", msg(5, "usage: llocal COMMAND [ARGUMENT...]\n"
                               "       llocal COMMAND -h | --help\n"
                               "Options may also come from option files named by @FILE words.\n"
                               "Commands:\n"));
  for (const auto &c : commands()) {
    std::string h = msg(c.help_number, c.help);
    h = h.substr(0, h.find('\n'));
    if (h.rfind("usage: ", 0) == 0) h = h.substr(7);
    std::fprintf(f, "  %s\n", h.c_str());
  }
  return f == stdout ? kOk : kUsage;
}

static int run(int argc, char **argv) {
  if (argc < 2) return main_usage(stderr);
  const char *name = argv[1];
  if (!std::strcmp(name, "-h") || !std::strcmp(name, "--help")) return main_usage(stdout);
  if (!std::strcmp(name, "help")) {
    if (argc < 3) return main_usage(stdout);
    const Command *c = find_command(argv[2]);
    if (!c) {
      error(msg(6, "unknown command %s\n"), argv[2]);
      return main_usage(stderr);
    }
    return help(*c);
  }
  const Command *c = find_command(name);
  if (!c) {
    error(msg(6, "unknown command %s\n"), name);
    return main_usage(stderr);
  }
  // "-h" is every command's help option; "--help" among its leading options
  // is understood too (getopt would take it for the end of the options).
  for (int i = 2; i < argc && argv[i][0] == '-' && std::strcmp(argv[i], "--") != 0; ++i)
    if (!std::strcmp(argv[i], "--help")) return help(*c);
  return c->run(argc - 1, argv + 1);
}

}  // namespace llocal

int main(int argc, char **argv) {
  // The product's name, not the program's path: it names the application
  // folder searched for and the catalog opened ("bsw" is the library's own,
  // which holds the texts the tool shows through the library).
  _qzinit("bsw", argc, argv);
  setMyname("llocal");
  return llocal::run(argc, argv);
}
