// Runs a fuzz target over files and directories of files given as arguments,
// where the compiler brings no fuzzer of its own.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "main/helpers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

std::vector<std::string> files_of(const char* argument) {
  std::error_code error;
  std::vector<std::string> files;
  for (fs::directory_iterator at(argument, error), end; at != end; at.increment(error)) {
    if (at->is_regular_file(error)) files.push_back(at->path().string());
  }
  if (files.empty()) files.emplace_back(argument);  // a file, or an error when it is read
  std::sort(files.begin(), files.end());
  return files;
}

bool replay(const std::string& file) {
  const std::optional<vrox::Buffer> text = vrox::read_whole_file(file.c_str());
  if (!text) return false;
  // A copy of its exact size: reading behind the end is an error then.
  const std::vector<std::uint8_t> bytes(text->view().begin(), text->view().end());
  (void)LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    (void)std::fprintf(stderr, "usage: %s file-or-directory...\n", argv[0]);
    return 2;
  }
  std::size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const std::string& file : files_of(argv[i])) {
      if (!replay(file)) {
        (void)std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return 1;
      }
      ++count;
    }
  }
  (void)std::printf("%zu inputs\n", count);
  return 0;
}
