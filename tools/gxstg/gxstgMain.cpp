// gxstg entry point: picks the command, prints help, maps failures to exit
// codes, and draws the progress line.
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>

#include "gxstg.h"

#ifdef _WIN32
// windows.h must come before shellapi.h.
// clang-format off
#include <windows.h>
#include <shellapi.h>
#include <fcntl.h>
#include <io.h>
// clang-format on
#else
#include <unistd.h>
#endif

namespace gxstg {

namespace {

const char kToolHelp[] =
    "usage: gxstg COMMAND [ARGS]\n"
    "\n"
    "Inspect, unpack and build compound files (structured storage).\n"
    "\n"
    "commands:\n"
    "  probe FILE...      is each FILE a compound file, and if not, why\n"
    "  info FILE          header facts and element counts\n"
    "  tree FILE          every element: path, type, size\n"
    "  cat FILE PATH      a stream's bytes to standard output\n"
    "  extract FILE DIR   the whole tree as folders and files under DIR\n"
    "  pack DIR FILE      a folder tree into a new compound file\n"
    "  put FILE PATH [SRC]  write SRC (or standard input) as stream PATH\n"
    "  rm FILE PATH       remove a stream, or a storage with all below it\n"
    "  mv FILE PATH NEWNAME  rename an element inside its storage\n"
    "  mkdir FILE PATH    create a storage (and the storages above it)\n"
    "  compact FILE       rewrite FILE without free space\n"
    "\n"
    "Each edit (put, rm, mv, mkdir) is one transaction: the file holds the\n"
    "whole edit or none of it, even when the program is killed.\n"
    "\n"
    "'gxstg COMMAND --help' describes one command.\n"
    "\n"
    "exit codes: 0 success, 1 bad usage, 2 missing or unreadable file or\n"
    "element, 3 not a compound file or corrupt.\n";

const std::map<std::string, const char*>& commandHelp() {
  static const std::map<std::string, const char*> help = {
      {"probe",
       "usage: gxstg probe FILE...\n"
       "\n"
       "Prints one line per FILE: 'compound file, version N', or why not\n"
       "(cannot be opened, too short, bad signature, unsupported major\n"
       "version, nonzero reserved header bytes, corrupt).\n"
       "Exit code: 0 when every FILE is a compound file that loads, else\n"
       "2 when one is missing or unreadable, else 3.\n"},
      {"info",
       "usage: gxstg info FILE\n"
       "\n"
       "Prints the version, sector and mini sector sizes, mini stream\n"
       "cutoff, the numbers of FAT, DIFAT, MiniFAT and directory sectors,\n"
       "the numbers of storages and streams and the total stream bytes.\n"},
      {"tree",
       "usage: gxstg tree FILE\n"
       "\n"
       "Prints every element below the root, one per line:\n"
       "  PATH<TAB>storage|stream<TAB>SIZE\n"
       "Names are UTF-8 joined with '/'; inside a name, units below 0x20 and\n"
       "'/' appear as \\ooo octal escapes (\\005SummaryInformation), a\n"
       "backslash as \\\\, an unpaired surrogate as \\uXXXX.\n"},
      {"cat",
       "usage: gxstg cat FILE PATH\n"
       "\n"
       "Writes the bytes of the stream at PATH to standard output. PATH is\n"
       "written as 'gxstg tree' prints it, escapes included. Names are\n"
       "compared exactly (case-sensitive).\n"},
      {"extract",
       "usage: gxstg extract FILE DIR\n"
       "\n"
       "Writes the whole tree under DIR: storages become folders, streams\n"
       "files. DIR is created when missing and must otherwise be empty.\n"
       "Nothing is ever written outside DIR. A name unit that is unsafe in a\n"
       "file name (below 0x20, '/', an unpaired surrogate; on Windows also\n"
       "\\ : * ? \" < > | and a trailing dot or space) is written as %HHHH,\n"
       "its four hex digits: \\005SummaryInformation becomes\n"
       "%0005SummaryInformation. A '%' followed by four hex digits becomes\n"
       "%0025; a name made only of dots gets its first dot escaped ('..'\n"
       "becomes '%002E.'). 'gxstg pack' undoes these escapes.\n"
       "Names that collide on the host are skipped with a warning (exit 3).\n"},
      {"pack",
       "usage: gxstg pack DIR FILE\n"
       "\n"
       "Creates FILE (replacing it) from the folder tree DIR: subfolders\n"
       "become storages, files streams. %HHHH escapes in file names are\n"
       "undone (see 'gxstg extract --help'). A name longer than 31 UTF-16\n"
       "units, a file of 4 GiB or more, or more than 2 GiB of data in all is\n"
       "refused (exit 1). Symbolic links and special files are skipped with\n"
       "a warning. The temporary file that the library keeps beside FILE\n"
       "while writing is removed afterwards.\n"},
      {"put",
       "usage: gxstg put FILE PATH [SRC]\n"
       "\n"
       "Writes the bytes of SRC (standard input when SRC is absent) as the\n"
       "stream PATH of FILE, replacing a stream of that name; storages on the\n"
       "way are created. PATH is written as 'gxstg tree' prints it. One\n"
       "transaction: FILE holds the old or the new tree, never a mix.\n"},
      {"rm",
       "usage: gxstg rm FILE PATH\n"
       "\n"
       "Removes the stream PATH, or the storage PATH with everything below\n"
       "it. The space it used is zeroed and reused.\n"},
      {"mv",
       "usage: gxstg mv FILE PATH NEWNAME\n"
       "\n"
       "Renames the element PATH to NEWNAME inside the same storage.\n"
       "A name is 1 to 31 UTF-16 units without / \\ : or ! (exit 1).\n"},
      {"mkdir",
       "usage: gxstg mkdir FILE PATH\n"
       "\n"
       "Creates the storage PATH and any missing storage above it.\n"},
      {"compact",
       "usage: gxstg compact FILE\n"
       "\n"
       "Rewrites FILE without free space: the same tree, class ids and\n"
       "state bits. The copy is written beside FILE, flushed, then renamed\n"
       "over it, so FILE is never half written.\n"},
  };
  return help;
}

int dispatch(const std::vector<std::string>& argv) {
  if (argv.size() < 2) {
    std::cerr << kToolHelp;
    return kExitUsage;
  }
  const std::string& command = argv[1];
  if (command == "--help" || command == "-h" || command == "help") {
    printHelp(argv.size() > 2 ? argv[2] : "");
    return kExitOk;
  }
  if (command == "--version") {
    std::cout << "gxstg 0.1.0\n";
    return kExitOk;
  }
  Args args(argv.begin() + 2, argv.end());
  typedef int (*Run)(const Args&);
  static const std::map<std::string, Run> commands = {
      {"probe", runProbe}, {"info", runInfo},       {"tree", runTree},
      {"cat", runCat},     {"extract", runExtract}, {"pack", runPack},
      {"put", runPut},     {"rm", runRemove},       {"mv", runMove},
      {"mkdir", runMakeDir}, {"compact", runCompact},
  };
  auto found = commands.find(command);
  if (found == commands.end())
    return fail(kExitUsage,
                "unknown command '" + command + "' (try 'gxstg --help')");
  if (wantsHelp(args)) {
    printHelp(command);
    return kExitOk;
  }
  return found->second(args);
}

}  // namespace

int fail(int code, const std::string& message) {
  std::cout.flush();
  std::cerr << "gxstg: " << message << "\n";
  return code;
}

bool wantsHelp(const Args& args) {
  for (const std::string& a : args)
    if (a == "--help" || a == "-h") return true;
  return false;
}

void printHelp(const std::string& command) {
  auto found = commandHelp().find(command);
  std::cout << (found == commandHelp().end() ? kToolHelp : found->second);
}

Progress::Progress(const char* verb)
    : verb_(verb),
#ifdef _WIN32
      terminal_(_isatty(_fileno(stderr)) != 0),
#else
      terminal_(isatty(STDERR_FILENO) != 0),
#endif
      start_(std::chrono::steady_clock::now()),
      lastDraw_(start_) {
}

Progress::~Progress() {
  if (shown_)
    std::fprintf(stderr, "\r%s: %llu elements, %.1f MB done\n", verb_,
                 static_cast<unsigned long long>(elements_),
                 static_cast<double>(bytes_) / 1e6);
}

void Progress::add(uint64_t elements, uint64_t bytes) {
  elements_ += elements;
  bytes_ += bytes;
  if (!terminal_) return;
  auto now = std::chrono::steady_clock::now();
  if (now - start_ < std::chrono::seconds(1) ||
      (shown_ && now - lastDraw_ < std::chrono::milliseconds(100)))
    return;
  shown_ = true;
  lastDraw_ = now;
  std::fprintf(stderr, "\r%s: %llu elements, %.1f MB", verb_,
               static_cast<unsigned long long>(elements_),
               static_cast<double>(bytes_) / 1e6);
  std::fflush(stderr);
}

}  // namespace gxstg

#ifdef _WIN32
// Arguments come from the wide command line, so that any file name reaches
// the tool intact; they are handled as UTF-8 inside.
int main() {
  int count = 0;
  wchar_t** wide = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> argv;
  for (int i = 0; i < count; ++i) {
    std::u16string units(reinterpret_cast<const char16_t*>(wide[i]));
    argv.push_back(gxstg::utf16ToUtf8(units));
  }
  LocalFree(wide);
  _setmode(_fileno(stdout), _O_BINARY);
  return gxstg::dispatch(argv);
}
#else
int main(int argc, char** argv) {
  return gxstg::dispatch(std::vector<std::string>(argv, argv + argc));
}
#endif
