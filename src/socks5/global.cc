#include "socks5/global.h"

namespace vrox::socks5 {

constinit Global global;

}  // namespace vrox::socks5
