#include "main/stats.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string_view>

#include "acl/rule.h"
#include "main/helpers.h"
#include "main/threads.h"
#include "tcp/global.h"

namespace vrox {

namespace {

constexpr std::string_view global_prefix = "global";
constexpr mode_t file_mode = 0666;

// The number behind the line's first word.
std::optional<std::uint64_t> second_word(const char* line) {
  unsigned long long value = 0;
  if (std::sscanf(line, "%*s%llu", &value) != 1) return std::nullopt;
  return value;
}

// The first rule of the list whose name the line begins with: a rule "web" also
// takes the line of a "web2" behind it, intended.
acl::Rule* rule_of(std::string_view line, const List<acl::Rule>& rules) {
  for (acl::Rule& rule : rules) {
    if (line.starts_with(rule.name)) return &rule;
  }
  return nullptr;
}

acl::SharedCell* cell_of(std::string_view line) {
  if (line.starts_with(global_prefix) && tcp::global.data_left != nullptr) {
    return tcp::global.data_left;
  }
  acl::Rule* rule = rule_of(line, acl::rule_lists.on_request);
  if (rule == nullptr) rule = rule_of(line, acl::rule_lists.at_connect);
  return rule == nullptr ? nullptr : rule->data_left;
}

void take_line(const char* line) {
  acl::SharedCell* cell = cell_of(line);
  if (cell == nullptr) return;
  if (const auto value = second_word(line)) cell->store(*value, std::memory_order_relaxed);
}

void take_lines(Buffer text) {
  for (char* line = text.data(); line != nullptr;) {
    const std::size_t start = static_cast<std::size_t>(line - text.data());
    const std::size_t feed = text.view().find('\n', start);
    if (feed != std::string_view::npos) text.span()[feed] = '\0';
    take_line(line);
    line = feed == std::string_view::npos ? nullptr : &text.data()[feed + 1];
  }
}

bool create_file(const char* path) {
  std::FILE* file = std::fopen(path, "w");
  if (file == nullptr) {
    std::perror("fopen()");
    return false;
  }
  (void)std::fclose(file);
  (void)chmod(path, file_mode);
  return true;
}

// Held by whoever writes the file. A second writer would empty it under the first
// one's hands, and the end of the process could leave it like that.
constinit std::atomic_flag writing = ATOMIC_FLAG_INIT;
constexpr int patience_ms = 200;  // when it is the saving thread itself that fails
constexpr timespec one_ms{.tv_sec = 0, .tv_nsec = 1'000'000};

void* save_for_ever(void*) {
  for (;;) {
    sleep(static_cast<unsigned>(tcp::global.save_interval));
    while (writing.test_and_set(std::memory_order_acquire)) pause();  // the process ends
    save_stats();
    writing.clear(std::memory_order_release);
  }
}

void write_lines(std::FILE* file, const List<acl::Rule>& rules) {
  for (const acl::Rule& rule : rules) {
    if (rule.data_left == nullptr) continue;
    (void)std::fprintf(file, "%.*s: %llu\n", static_cast<int>(rule.name.size()), rule.name.data(),
                       static_cast<unsigned long long>(rule.data_left->load()));
  }
}

}  // namespace

bool load_stats() {
  const char* path = tcp::global.save_path.data();
  auto text = read_whole_file(path);
  if (!text) return create_file(path);
  take_lines(std::move(*text));
  return true;
}

void save_stats_periodically() { start_thread(save_for_ever); }

void end_periodic_saving() {
  for (int waited = 0; waited < patience_ms; ++waited) {
    if (!writing.test_and_set(std::memory_order_acquire)) return;
    (void)nanosleep(&one_ms, nullptr);
  }
}

void save_stats() {
  std::FILE* file = std::fopen(tcp::global.save_path.data(), "w");
  if (file == nullptr) return;
  if (const acl::SharedCell* left = tcp::global.data_left) {
    (void)std::fprintf(file, "global: %llu\n", static_cast<unsigned long long>(left->load()));
  }
  write_lines(file, acl::rule_lists.on_request);
  write_lines(file, acl::rule_lists.at_connect);
  (void)std::fclose(file);
}

}  // namespace vrox
