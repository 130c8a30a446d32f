#include "acl/rule.h"

#include <sys/mman.h>

#include <cstdio>
#include <memory>
#include <new>

#include "tcp/global.h"

namespace vrox::acl {

constinit RuleLists rule_lists{.at_connect = {}, .on_request = {}, .fallback = &tcp::global};

namespace {

template <class T>
List<T> copy_of(const List<T>& list) {
  List<T> copy;
  for (const T& element : list) copy.push_back(new T(element));
  return copy;
}

// Replaces a counter that was copied with its rule by one of the rule's own.
bool own_cell(SharedCell*& cell) {
  if (cell == nullptr) return true;
  cell = new_shared_cell(cell->load(std::memory_order_relaxed));
  return cell != nullptr;
}

}  // namespace

SharedCell* new_shared_cell(std::uint64_t value) {
  void* place =
      mmap(nullptr, sizeof(SharedCell), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (place == MAP_FAILED) {
    std::perror("mmap()");
    return nullptr;
  }
  return new (place) SharedCell(value);
}

Rule* new_rule(const Rule& defaults, std::string_view name) {
  auto rule = std::make_unique<Rule>(defaults);
  rule->name = name;
  rule->next = nullptr;
  rule->conditions = copy_of(defaults.conditions);
  rule->module_refs = copy_of(defaults.module_refs);
  rule->inherits_modules = true;
  rule->first_match = false;
  if (!own_cell(rule->data_left) || !own_cell(rule->speed_limit) || !own_cell(rule->speed_used)) {
    return nullptr;
  }
  if (rule->speed_used != nullptr) rule->speed_used->store(0, std::memory_order_relaxed);
  return rule.release();
}

}  // namespace vrox::acl
