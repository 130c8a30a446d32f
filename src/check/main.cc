// vrox-check: says what is wrong with a configuration before the daemon reads it.
#include <getopt.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <optional>

#include "check/checker.h"
#include "config/known_keys.h"
#include "main/helpers.h"

namespace {

constexpr int exit_refused = 1;
constexpr int exit_unable = 2;

constexpr const char* usage_text =
    "usage: vrox-check [-qr] FILE\n"
    "       vrox-check --keys\n"
    "  -q, --quiet    say nothing, the exit status tells\n"
    "  -r, --resolve  look host names up, as the daemon does\n"
    "  -k, --keys     list every section and key\n"
    "  -h, --help     show this text\n"
    "Exit status: 0 the daemon takes the file, 1 it does not, 2 it cannot be checked.\n";

struct Options {
  bool quiet = false;
  bool resolve = false;
  bool keys = false;
};

[[noreturn]] void out_of_memory() {
  std::perror("malloc()");
  std::exit(exit_unable);
}

void print_keys() {
  for (const vrox::config::SectionKind kind : vrox::config::all_sections) {
    const std::string_view prefix = vrox::config::section_prefix(kind);
    for (const vrox::config::KnownKey& key : vrox::config::known_keys(kind)) {
      (void)std::printf("%.*s %.*s\n", static_cast<int>(prefix.size()), prefix.data(),
                        static_cast<int>(key.spelling.size()), key.spelling.data());
    }
  }
}

int check_file(const char* path, const Options& options) {
  const std::optional<vrox::Buffer> text = vrox::read_whole_file(path);
  if (!text) {
    (void)std::fprintf(stderr, "vrox-check: %s cannot be read\n", path);
    return exit_unable;
  }
  int status = EXIT_SUCCESS;
  for (const vrox::check::Finding& at :
       vrox::check::check_configuration(text->view(), options.resolve)) {
    if (at.refused) status = exit_refused;
    if (options.quiet) continue;
    (void)std::fprintf(stderr, "%s:%zu:%zu: %s: %s\n", path, at.line, at.column,
                       at.refused ? "error" : "warning", at.text.c_str());
  }
  return status;
}

Options read_options(int argc, char** argv) {
  constexpr std::array<option, 5> known{{{"quiet", no_argument, nullptr, 'q'},
                                         {"resolve", no_argument, nullptr, 'r'},
                                         {"keys", no_argument, nullptr, 'k'},
                                         {"help", no_argument, nullptr, 'h'},
                                         {nullptr, 0, nullptr, 0}}};
  Options options;
  for (int letter = 0; (letter = getopt_long(argc, argv, "qrkh", known.data(), nullptr)) != -1;) {
    switch (letter) {
      case 'q':
        options.quiet = true;
        break;
      case 'r':
        options.resolve = true;
        break;
      case 'k':
        options.keys = true;
        break;
      case 'h':
        (void)std::fputs(usage_text, stdout);
        std::exit(EXIT_SUCCESS);
      default:
        (void)std::fputs(usage_text, stderr);
        std::exit(exit_unable);
    }
  }
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  std::set_new_handler(out_of_memory);
  const Options options = read_options(argc, argv);
  if (options.keys && optind == argc) {
    print_keys();
    return EXIT_SUCCESS;
  }
  if (options.keys || optind + 1 != argc) {
    (void)std::fputs(usage_text, stderr);
    return exit_unable;
  }
  return check_file(argv[optind], options);
}
