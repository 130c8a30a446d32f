// The command line.
#pragma once

#include <sys/types.h>

#include <string_view>

namespace vrox {

struct Options {
  const char* config_path = nullptr;
  const char* pid_path = nullptr;
  bool foreground = false;  // -d
  bool restart = false;     // -r: another instance has just been told to end
  int uid = -1;             // -u: effective user and group; below 0: no switch
  int workers = -1;         // -w
};

// Reads the options in the order given; some act at once. Ends the process
// after -h, -v and -k, and with the usage text and status 1 when the command
// line is wrong.
[[nodiscard]] Options read_options(int argc, char** argv);

}  // namespace vrox
