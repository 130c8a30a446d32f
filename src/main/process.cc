#include "main/process.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <new>

#include "config/listen.h"
#include "config/reader.h"
#include "config/resolve.h"
#include "main/options.h"
#include "main/services.h"
#include "main/signals.h"
#include "main/stats.h"
#include "main/threads.h"
#include "tcp/global.h"

namespace vrox {

namespace {

constexpr rlim_t descriptor_limit = 65535;
constexpr int restart_patience_ms = 1000;

[[noreturn]] void fail(const char* call) {
  std::perror(call);
  std::exit(EXIT_FAILURE);
}

[[noreturn]] void out_of_memory() { fail("malloc()"); }

void raise_descriptor_limit() {
  rlimit limit{.rlim_cur = descriptor_limit, .rlim_max = descriptor_limit};
  if (setrlimit(RLIMIT_NOFILE, &limit) == 0) return;
  // Not allowed to: then as many as there may be.
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  (void)setrlimit(RLIMIT_NOFILE, &limit);
}

void become_daemon() {
  (void)std::fflush(stdout);  // the parent's copy is not written twice
  if (daemon(1, 1) != 0) fail("daemon()");
}

// A chain: each process forks the next one and goes on as a worker.
void fork_workers(int count) {
  if (count >= 2) worker_place.count = static_cast<unsigned>(count);
  for (int left = count; left >= 2; --left) {
    (void)std::fflush(stdout);
    const pid_t child = fork();
    is_last_worker = child == 0;  // a failed fork ends the chain without a last one
    if (!is_last_worker) return;
    ++worker_place.index;
  }
}

void append_pid(const char* path) {
  std::FILE* file = std::fopen(path, "a");
  if (file == nullptr) file = std::fopen(path, "w");
  if (file == nullptr) fail("fopen()");
  (void)std::fprintf(file, "%d ", static_cast<int>(getpid()));
  (void)std::fclose(file);
}

void drop_privileges(int uid) {
  const auto id = static_cast<uid_t>(uid);
  if (setegid(id) != 0 || seteuid(id) != 0) fail("setegid(or seteuid)()");
}

}  // namespace

int run(int argc, char** argv) {
  std::set_new_handler(out_of_memory);
  const Options options = read_options(argc, argv);
  if (options.restart) config::address_patience_ms = restart_patience_ms;
  if (!config::read_configuration(options.config_path)) return EXIT_FAILURE;
  config::close_rings();
  std::set_new_handler(nullptr);  // from here on want of memory ends at most a session
  raise_descriptor_limit();
  const bool has_stats = tcp::global.save_interval != 0 && load_stats();
  if (!options.foreground) become_daemon();
  fork_workers(options.workers);
  // No fork beside a thread: what that holds just then would stay locked in the child.
  const bool is_first_process = options.foreground && worker_place.index == 0;
  if (has_stats && is_first_process) save_stats_periodically();
  if (options.pid_path != nullptr) append_pid(options.pid_path);
  if (options.uid >= 0) drop_privileges(options.uid);
  block_handled_signals();
  install_handlers();
  run_services();
  std::puts("11");
  return EXIT_SUCCESS;
}

}  // namespace vrox
