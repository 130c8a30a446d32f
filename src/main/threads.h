// Threads with the default attributes and the handled signals blocked, so that
// the main thread receives those.
#pragma once

#include <pthread.h>

namespace vrox {

using ThreadBody = void* (*)(void*);

// Ends the process with status 1, reported as "pthread_create()", when there
// can be no further thread: a daemon that lacks one would serve half of what it
// was told to.
pthread_t start_thread(ThreadBody body);

// For the calling thread, and for those it starts. Signals that came while they
// were blocked are handled when they are unblocked.
void block_handled_signals();
void unblock_handled_signals();

}  // namespace vrox
