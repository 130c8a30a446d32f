// The process frame: from the command line to serving.
#pragma once

namespace vrox {

// The daemon. The result is the process's exit status.
[[nodiscard]] int run(int argc, char** argv);

}  // namespace vrox
