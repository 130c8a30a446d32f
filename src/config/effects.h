// What reading the configuration does beyond filling records. A check of the file
// does without.
#pragma once

namespace vrox::config {

struct Effects {
  bool open = true;  // listeners, the DNS cache, the TUN device
  bool ask = true;   // a name server; without it a name stands for one address of all zeroes
};
extern constinit Effects effects;

}  // namespace vrox::config
