// oru: the liboru command for people who support applications built on it.
// It reads and writes the library's files from a shell: ZIP archives, the
// download cache, heap traces, SHA-1 digests and Base64.
//
//   oru zip list scene.zip          oru cache stat
//   oru sha1 *.zip > sums           oru sha1 -c sums
//   oru trace summary app.heaptrace oru counters zip test scene.zip
//
// Exit codes: 0 success, 1 failure (one line "oru: <reason>" on stderr),
// 2 bad usage.
#include <oru/performance_counter.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <iostream>
#include <new>

#include "oru_command.h"

namespace oru::tool {

namespace {

constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;

void PrintCounters() {
  std::fflush(stdout);
  PerformanceCounter::VisitAllCounters([](BasicStringSpan<char const> tag, uint64_t value) {
    std::printf("%.*s: %llu\n", static_cast<int>(tag.size()), tag.data(),
                static_cast<unsigned long long>(value));
  });
}

// `counters` alone prints them; `counters COMMAND...` is handled before
// parsing (RunCommandLine), since CLI11 would take COMMAND for its own.
void AddCountersCommand(CLI::App& app, Context& ctx) {
  auto* sub = app.add_subcommand(
      "counters",
      "Prints the library's performance counters, after running the oru command that follows");
  sub->footer("Example: oru counters zip test scene.zip");
  sub->callback([&ctx] {
    ctx.run = [] {
      PrintCounters();
      return 0;
    };
  });
}

}  // namespace

void Complain(std::string const& message) {
  std::fflush(stdout);
  std::fprintf(stderr, "oru: %s\n", message.c_str());
}

int RunCommandLine(std::vector<std::string> args) {
  if (args.size() > 1 && args[0] == "counters" && args[1] != "-h" && args[1] != "--help") {
    const int code = RunCommandLine(std::vector<std::string>(args.begin() + 1, args.end()));
    PrintCounters();
    return code;
  }
  Context ctx;
  CLI::App app(
      "liboru's files from the shell: ZIP archives, the download cache, digests, "
      "heap traces",
      "oru");
  app.add_flag("-q,--quiet", ctx.quiet, "No progress bar");
  app.require_subcommand(1, 1);
  app.fallthrough();
  AddZipCommands(app, ctx);
  AddCacheCommands(app, ctx);
  AddDigestCommands(app, ctx);
  AddTraceCommands(app, ctx);
  AddCountersCommand(app, ctx);

  // CLI11 parses the vector from its back.
  std::reverse(args.begin(), args.end());
  try {
    app.parse(args);
  } catch (CLI::CallForHelp const& help) {
    return app.exit(help);
  } catch (CLI::CallForAllHelp const& help) {
    return app.exit(help);
  } catch (CLI::ParseError const& error) {
    std::cerr << "oru: " << error.what() << "\nRun with --help for more information.\n";
    return EXIT_USAGE;
  }
  try {
    return ctx.run ? ctx.run() : EXIT_USAGE;
  } catch (Failure const& failure) {
    Complain(failure.what());
  } catch (std::bad_alloc const&) {
    Complain("out of memory");
  } catch (std::exception const& error) {
    Complain(error.what());
  }
  return EXIT_FAILED;
}

}  // namespace oru::tool

int main(int argc, char** argv) {
  oru::tool::UseBinaryStdio();
  std::vector<std::string> args(argv + 1, argv + argc);
  const int code = oru::tool::RunCommandLine(std::move(args));
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    std::fputs("oru: cannot write to standard output\n", stderr);
    return 1;
  }
  return code;
}
