#include "httpmod/replica.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

namespace vrox::httpmod {

namespace {

// On its way from the loop that captured the value to the one that reads it.
struct Capture {
  Mail mail;
  HttpModModule* module = nullptr;
  SavedValue* saved = nullptr;
  Buffer value;
  std::time_t captured_at = 0;
};

void take_over(Mail& mail) {
  static_assert(offsetof(Capture, mail) == 0);
  const std::unique_ptr<Capture> capture(reinterpret_cast<Capture*>(&mail));
  (void)store_capture(*capture->module, *capture->saved, capture->value.view(),
                      capture->captured_at);
}

// A copy has the saved values of its original in the same order.
SavedValue* counterpart(const HttpModModule& original, const SavedValue& saved,
                        const HttpModModule& copy) {
  SavedValue* at = copy.saved_values.head;
  for (const SavedValue& other : original.saved_values) {
    if (&other == &saved) return at;
    at = at->next;
  }
  return nullptr;
}

void tell(const Replica& replica, const HttpModModule& original, const SavedValue& saved) {
  std::unique_ptr<Capture> capture(new (std::nothrow) Capture);
  if (capture == nullptr || !capture->value.assign(saved.value.view())) return;
  capture->mail.deliver = take_over;
  capture->module = replica.copy;
  capture->saved = counterpart(original, saved, *replica.copy);
  capture->captured_at = saved.captured_at;
  if (capture->saved == nullptr) return;
  // The mailbox owns it from here on.
  replica.loop->post(capture.release()->mail);
}

}  // namespace

HttpModModule* replica_for(HttpModModule* original, Loop& loop) {
  if (original == nullptr) return nullptr;
  for (const Replica& replica : original->replicas) {
    if (replica.loop == &loop) return replica.copy;
  }
  auto* replica = new Replica{.next = nullptr, .copy = copy_module(*original), .loop = &loop};
  if (replica->copy == nullptr) {
    std::perror("malloc()");
    std::exit(EXIT_FAILURE);
  }
  original->replicas.push_back(replica);
  return replica->copy;
}

void tell_replicas(const HttpModModule& original, const SavedValue& saved) {
  for (const Replica& replica : original.replicas) tell(replica, original, saved);
}

}  // namespace vrox::httpmod
