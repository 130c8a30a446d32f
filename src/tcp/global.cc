#include "tcp/global.h"

namespace vrox::tcp {

constinit Global global;

}  // namespace vrox::tcp
