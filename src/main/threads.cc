#include "main/threads.h"

#include <signal.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace vrox {

namespace {

// SIGABRT is left out: it is raised by the thread that fails.
constexpr std::array main_thread_signals{SIGHUP,  SIGINT,  SIGILL, SIGUSR1,
                                         SIGSEGV, SIGPIPE, SIGTERM};

void change_mask(int how) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : main_thread_signals) sigaddset(&set, signal);
  pthread_sigmask(how, &set, nullptr);
}

}  // namespace

void block_handled_signals() { change_mask(SIG_BLOCK); }
void unblock_handled_signals() { change_mask(SIG_UNBLOCK); }

pthread_t start_thread(ThreadBody body) {
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, nullptr, &before);
  block_handled_signals();
  pthread_t thread{};
  const int error = pthread_create(&thread, nullptr, body, nullptr);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (error == 0) return thread;
  errno = error;
  std::perror("pthread_create()");
  std::exit(EXIT_FAILURE);
}

}  // namespace vrox
