// Internal to the oru command: what the subcommand families share.
//
// Each family registers its subcommands on the CLI11 application and, when
// one is chosen, leaves the work to do in Context::run; main() parses, then
// runs it. Work that fails throws Failure with a one-line reason, which
// main() prints as "oru: <reason>" and turns into exit code 1. Bad usage is
// CLI11's business (exit code 2).
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace oru::tool {

/// A failure of the work itself: the message is the one line printed.
class Failure : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// What the options parsed, and the work they chose.
struct Context {
  bool quiet = false;
  /// Set by the chosen subcommand; returns the exit code (0 or 1).
  std::function<int()> run;
};

void AddZipCommands(CLI::App& app, Context& ctx);
void AddCacheCommands(CLI::App& app, Context& ctx);
void AddDigestCommands(CLI::App& app, Context& ctx);
void AddTraceCommands(CLI::App& app, Context& ctx);

/// Parses and runs one command line (without the program name); the exit
/// code. `oru counters` calls it again for the command it measures.
int RunCommandLine(std::vector<std::string> args);

/// Prints "oru: <message>" on stderr (for failures that do not end the run).
void Complain(std::string const& message);

// ---- files ---------------------------------------------------------------------

/// Opens `path` for binary reading ("-" is stdin); throws Failure with
/// "<path>: <reason>" for a missing file, a directory or anything unreadable.
std::FILE* OpenInput(std::string const& path);
/// The size of the regular file `path`, 0 when unknown ("-", a pipe).
uint64_t InputSize(std::string const& path);
/// Closes what OpenInput opened (stdin is left open).
void CloseInput(std::FILE* file);
/// Writes all of `size` bytes to stdout; throws Failure when it cannot.
void WriteOut(void const* data, std::size_t size);
/// Writes `bytes` to `path` through a temporary name beside it and a rename,
/// so that a failure leaves no partial file (and whatever was at `path`).
void WriteFileAtomically(std::string const& path, std::string const& bytes);
/// `text` with control characters shown as \n, \t, \xNN (for error lines).
std::string Printable(std::string const& text);

// ---- platform (tool_platform_posix.cpp / tool_platform_win.cpp) ------------------

/// Whether the standard error stream is a terminal.
bool StderrIsTerminal();
/// Puts stdin and stdout in binary mode (no CR LF translation on Windows).
void UseBinaryStdio();
/// Why `dir` may not be used as a private cache directory, or empty when it
/// may: it must be a directory (not a link to one), owned by the user and
/// not writable by group or others.
std::string PrivateDirProblem(std::string const& dir);
/// Creates `dir` (one level, private to the user); false when it cannot.
bool MakePrivateDir(std::string const& dir);

/// While alive, the standard error stream goes to a scratch file instead;
/// Text() gives what was written so far. The library reports some refusals
/// only there, and the command turns them into its own lines.
class StderrCapture {
public:
  StderrCapture();
  ~StderrCapture();
  StderrCapture(StderrCapture const&) = delete;
  StderrCapture& operator=(StderrCapture const&) = delete;
  std::string Text();

private:
  std::FILE* m_scratch = nullptr;
  int m_saved = -1;
};

}  // namespace oru::tool
