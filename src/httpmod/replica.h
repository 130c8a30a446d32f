// Copies of the httpMod modules for other loops than the one that rewrites the
// clients' requests: that one captures header values, and each capture travels
// to the copies' loops as a message.
#pragma once

#include <string_view>

#include "httpmod/module.h"
#include "main/loop.h"

namespace vrox::httpmod {

// A loop's copy of a module of the list.
struct Replica {
  Replica* next = nullptr;
  HttpModModule* copy = nullptr;  // the loop's own
  Loop* loop = nullptr;
};

// The loop's copy of a module, the same one however often it is asked for; null
// for null. Called before any thread runs. Ends the process with status 1,
// reported as "malloc()", when memory is short.
[[nodiscard]] HttpModModule* replica_for(HttpModModule* original, Loop& loop);

// Called by the loop that captured `saved` of `original`. A copy for which there
// is no memory keeps its older value until the next capture.
void tell_replicas(const HttpModModule& original, const SavedValue& saved);

}  // namespace vrox::httpmod
