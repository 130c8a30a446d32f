// The statistics file: what is left of the data quotas, one line per counter,
// kept across restarts.
#pragma once

namespace vrox {

// Takes over the counts that the file holds, or creates it. False when it can
// be neither read nor created, which is reported.
[[nodiscard]] bool load_stats();

// Starts the thread that saves every so often. Only the process that stays in the
// foreground has one: a daemon saves when it exits, intended.
void save_stats_periodically();

// For the exit handler, before it saves: keeps the saving thread away from the
// file, once it has finished what it may be writing.
void end_periodic_saving();

// Writes the file anew; nothing when it cannot be opened.
void save_stats();

}  // namespace vrox
