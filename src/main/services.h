// The service threads.
#pragma once

namespace vrox {

// This process among the workers; set while they are forked.
struct WorkerPlace {
  unsigned index = 0;
  unsigned count = 1;
};
extern WorkerPlace worker_place;

// Called with the handled signals blocked: their handlers post to the loops, so
// they wait until those exist, and are let in then.
//
// Prepares and starts every service that the configuration asks for, from a
// thread of its own, and waits for that thread, and then for the last started of
// the DNS and TCP threads. Returns when there is none of those: a process that
// only serves SOCKS5 or a TUN device ends here, intended.
void run_services();

}  // namespace vrox
