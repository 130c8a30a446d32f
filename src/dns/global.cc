#include "dns/global.h"

namespace vrox::dns {

constinit Global global;

}  // namespace vrox::dns
