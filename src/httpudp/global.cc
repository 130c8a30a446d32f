#include "httpudp/global.h"

namespace vrox::httpudp {

constinit Global global;

}  // namespace vrox::httpudp
