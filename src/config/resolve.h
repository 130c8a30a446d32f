// What connects the sections once all are read: names become pointers, and the
// lists from which the least-used element is picked become rings.
#pragma once

#include "config/watcher.h"

namespace vrox::acl {
struct Rule;
}

namespace vrox::config {

// Null when there is none of that name.
[[nodiscard]] acl::Rule* find_rule(std::string_view name);

// Looks up every name that a section gives. False when one is unknown and the
// watcher does not want to go on.
[[nodiscard]] bool resolve_references(Watcher& watcher);

// Closes the lists and prints the elements of the rings of references and of
// SOCKS5 upstreams on standard output. Called once.
void close_rings();

}  // namespace vrox::config
