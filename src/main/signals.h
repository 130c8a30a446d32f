// What the process does when it is told to end.
#pragma once

namespace vrox {

// SIGPIPE is ignored, SIGUSR1 drains, and SIGTERM, SIGHUP, SIGINT, SIGABRT,
// SIGILL and SIGSEGV save and exit, always with status 0.
//
// The handlers run in the main thread, which does nothing but wait by then, and
// keep each other out, so that a save is never interrupted by another.
void install_handlers();

// Whether this process is the last of the worker chain, or the only one: it
// saves the statistics and resets the speed limits.
extern bool is_last_worker;

}  // namespace vrox
