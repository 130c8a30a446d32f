#include "main/instance.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string_view>

#include "main/helpers.h"

namespace vrox {

namespace {

constexpr int kill_waits = 5;
constexpr timespec tenth_second{.tv_sec = 0, .tv_nsec = 100'000'000};

struct DirectoryCloser {
  void operator()(DIR* directory) const { (void)closedir(directory); }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

using CommPath = std::array<char, 269>;

CommPath comm_path(const char* process) {
  CommPath path{};
  (void)std::snprintf(path.data(), path.size(), "/proc/%s/comm", process);
  return path;
}

std::string_view base_name(std::string_view program) {
  return program.substr(program.rfind('/') + 1);  // npos + 1 is 0
}

bool has_name(const CommPath& path, std::string_view name) {
  const int fd = open(path.data(), O_RDONLY | O_CLOEXEC);
  if (fd == -1) return false;
  std::array<char, 256> text{};
  const ssize_t got = read(fd, text.data(), text.size());
  (void)close(fd);
  if (got < 2) return false;
  return std::string_view{text.data(), static_cast<std::size_t>(got) - 1} == name;
}

void pause_shortly() { (void)nanosleep(&tenth_second, nullptr); }

void kill_for_sure(pid_t pid, const CommPath& path) {
  (void)kill(pid, SIGTERM);
  for (int waits = 0; waits < kill_waits; ++waits) {
    if (access(path.data(), F_OK) != 0) return;
    pause_shortly();
  }
  (void)kill(pid, SIGKILL);
}

}  // namespace

int signal_instances(const char* program, InstanceSignal mode) {
  const Directory proc(opendir("/proc"));
  if (proc == nullptr) return 1;
  const std::string_view own_name = base_name(program);
  const pid_t own_pid = getpid();
  while (const dirent* entry = readdir(proc.get())) {
    if ((entry->d_type & DT_DIR) == 0) continue;
    const pid_t pid = to_number(entry->d_name);
    if (pid < 1 || pid == own_pid) continue;
    const CommPath path = comm_path(entry->d_name);
    if (!has_name(path, own_name)) continue;
    if (mode == InstanceSignal::reload) {
      (void)kill(pid, SIGUSR1);
    } else {
      kill_for_sure(pid, path);
    }
  }
  if (mode == InstanceSignal::reload) pause_shortly();
  return 0;
}

}  // namespace vrox
