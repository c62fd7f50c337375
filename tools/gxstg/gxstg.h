// gxstg: a command-line tool for compound files. Shared declarations of the
// commands and their helpers.
//
// Exit codes are the tool's contract with scripts:
//   0 success, 1 bad usage, 2 missing or unreadable file or element,
//   3 not a compound file, or corrupt.
#ifndef GXSTORAGE_TOOLS_GXSTG_GXSTG_H_
#define GXSTORAGE_TOOLS_GXSTG_GXSTG_H_

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace gxstg {

enum ExitCode : int {
  kExitOk = 0,
  kExitUsage = 1,
  kExitMissing = 2,
  kExitCorrupt = 3,
};

// Every command takes its arguments after the command name (UTF-8).
typedef std::vector<std::string> Args;
int runProbe(const Args& args);
int runInfo(const Args& args);
int runTree(const Args& args);
int runCat(const Args& args);
int runExtract(const Args& args);
int runPack(const Args& args);
int runPut(const Args& args);
int runRemove(const Args& args);
int runMove(const Args& args);
int runMakeDir(const Args& args);
int runCompact(const Args& args);

// Prints "gxstg: <message>" to standard error and returns `code`.
int fail(int code, const std::string& message);
// True when `args` asks for help (--help or -h anywhere).
bool wantsHelp(const Args& args);
// Prints the help text of `command` ("" for the tool) to standard output.
void printHelp(const std::string& command);

// ---- Text ---------------------------------------------------------------
// UTF-8 to UTF-16; false on malformed input.
bool utf8ToUtf16(const std::string& in, std::u16string& out);
// UTF-16 to UTF-8; an unpaired surrogate becomes U+FFFD.
std::string utf16ToUtf8(const std::u16string& in);
// A host path from a UTF-8 string, and back.
std::filesystem::path hostPath(const std::string& utf8);
std::string displayHostPath(const std::filesystem::path& path);

// Splits a path as `gxstg tree` prints it ("a/b/\005c") into element names,
// undoing the escapes \ooo (octal), \uXXXX and \\. False on a bad escape or
// an empty component.
bool parseElementPath(const std::string& text,
                      std::vector<std::u16string>& names);

// The file-system name under which `extract` writes an element, and the
// element name `pack` reads from a file-system name. A unit that is unsafe
// in a host name (below 0x20, '/', an unpaired surrogate; on Windows also
// \ : * ? " < > | and a trailing dot or space) is written as %HHHH, four
// hex digits of the unit; a '%' that is followed by four hex digits is
// written as %0025 so that the escape can be undone; names made only of
// dots get their first dot escaped ("." -> "%002E", ".." -> "%002E.");
// an empty name becomes "%0000". The result is always one safe component.
std::string escapeHostName(const std::u16string& name);
// Undoes every %HHHH escape; false when one would give a zero unit.
bool unescapeHostName(const std::string& utf8, std::u16string& name);

// ---- Progress -------------------------------------------------------------
// A one-line progress report on standard error, shown only when standard
// error is a terminal and the run has lasted more than a second.
class Progress {
 public:
  explicit Progress(const char* verb);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  // Counts `elements` more elements and `bytes` more bytes done, and
  // redraws at most ten times a second.
  void add(uint64_t elements, uint64_t bytes);

 private:
  const char* verb_;
  bool terminal_;
  bool shown_ = false;
  uint64_t elements_ = 0;
  uint64_t bytes_ = 0;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point lastDraw_;
};

}  // namespace gxstg

#endif  // GXSTORAGE_TOOLS_GXSTG_GXSTG_H_
