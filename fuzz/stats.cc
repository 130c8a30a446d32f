// The statistics file: whatever it holds, the counts taken from it are written as
// lines that give the same counts again.
#include "main/stats.h"

#include <array>
#include <cstdint>

#include "acl/rule.h"
#include "memory_file.h"
#include "tcp/global.h"

using vrox::fuzz::check;
using vrox::fuzz::MemoryFile;

namespace {

std::array<vrox::acl::SharedCell, 4> cells;
std::array<vrox::acl::Rule, 3> rules;

void set_up() {
  vrox::tcp::global.data_left = &cells[0];
  constexpr std::array names{"web", "web2", "m"};
  for (std::size_t i = 0; i < rules.size(); ++i) {
    rules[i].name = names[i];
    rules[i].data_left = &cells[i + 1];
  }
  vrox::acl::rule_lists.on_request.push_back(&rules[1]);
  vrox::acl::rule_lists.on_request.push_back(&rules[0]);
  vrox::acl::rule_lists.at_connect.push_back(&rules[2]);
}

std::array<std::uint64_t, 4> load(const MemoryFile& file) {
  for (auto& cell : cells) cell = 7;
  vrox::tcp::global.save_path = file.path();
  check(vrox::load_stats());
  return {cells[0], cells[1], cells[2], cells[3]};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (vrox::acl::rule_lists.at_connect.empty()) set_up();
  const MemoryFile file;
  file.fill(data, size);
  const auto counts = load(file);
  const MemoryFile copy;
  vrox::tcp::global.save_path = copy.path();
  vrox::save_stats();
  check(load(copy) == counts);
  return 0;
}
