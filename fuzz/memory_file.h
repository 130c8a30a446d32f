// Files for targets whose parser wants a path.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>

#include "check.h"

namespace vrox::fuzz {

// A file in memory, under a name that can be opened.
class MemoryFile {
 public:
  MemoryFile() : fd_(memfd_create("input", 0)) {
    check(fd_ != -1);
    (void)std::snprintf(path_.data(), path_.size(), "/proc/self/fd/%d", fd_);
  }
  ~MemoryFile() { (void)close(fd_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  void fill(const std::uint8_t* data, std::size_t size) const {
    check(write(fd_, data, size) == static_cast<ssize_t>(size));
  }
  // The path, with its closing NUL.
  [[nodiscard]] const char* path() const { return path_.data(); }

 private:
  int fd_;
  std::array<char, 32> path_{};
};

}  // namespace vrox::fuzz
