// The debugging console: a place where a program without a terminal (a GUI
// application, a service) can see what it writes to stdout and stderr.
//
//   if (oru::CreateDebuggingConsole("Viewer diagnostics")) {
//     std::printf("scene loaded\n");        // now visible somewhere
//     ...
//     oru::StopDebuggingConsole();
//   }
//
// Windows: a console is allocated for a process that has none, given the
// title, and stdout, stderr and stdin (the C streams and std::cout, cerr,
// cin with them) are routed to it; StopDebuggingConsole routes them back and
// frees the console. A process that already has a console keeps it: true,
// and nothing changes.
// Elsewhere: when stderr is already a terminal, true and nothing changes.
// Otherwise stdout and stderr (C and C++ streams alike) go to a new log file
// in $TMPDIR or /tmp, named "oru-console-<pid>-XXXXXX.log" (created
// exclusively, mode 0600), whose path is written first to the old stderr;
// StopDebuggingConsole restores both. The title is not used.
//
// Calling CreateDebuggingConsole again while a console is up is harmless
// (true, nothing changes); so is StopDebuggingConsole without one.
//
// Threading: call both from one thread, while no other thread writes to
// stdout or stderr.
#pragma once

#include "oru/export.h"

namespace oru {

/// See above; false when no console or log file could be set up.
ORU_API bool CreateDebuggingConsole(const char* title = nullptr);
ORU_API void StopDebuggingConsole();

}  // namespace oru
