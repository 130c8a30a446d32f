#include "main/options.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "main/helpers.h"
#include "main/instance.h"

namespace vrox {

namespace {

constexpr const char* banner = "Pelorin Linux Network Client(0.3 beta):";
constexpr const char* usage_text =
    "required_argument:\n"
    "    -c    vrox.conf path\n"
    "    -p    pid file path\n"
    "    -d    disable daemon proc\n"
    "    -u    effective uid(only support tcp socket)\n"
    "    -w    worker proc\n"
    "no_argument:\n"
    "    -k    kill all vrox proc\n"
    "    -r    reload configuration file\n"
    "    -v    display version message\n"
    "    -h    display this message\n"
    "Environment variables used:\n"
    "    VROX_INIT_CONFIG_DNS read_config_query_domain_dnsip default_is_8.8.8.8";

[[noreturn]] void usage(int status) {
  std::puts(banner);
  std::puts(usage_text);
  std::exit(status);
}

[[noreturn]] void version() {
  std::puts(banner);
  std::exit(EXIT_SUCCESS);
}

void apply(int letter, Options& options, const char* program) {
  switch (letter) {
    case 'c':
      options.config_path = optarg;
      break;
    case 'p':
      options.pid_path = optarg;
      (void)std::remove(optarg);  // every process of this start appends to a new one
      break;
    case 'd':
      options.foreground = true;
      break;
    case 'u':
      options.uid = to_number(optarg);
      break;
    case 'w':
      options.workers = to_number(optarg);
      break;
    case 'k':
      std::exit(signal_instances(program, InstanceSignal::kill));
    case 'r':
      (void)signal_instances(program, InstanceSignal::reload);
      options.restart = true;
      break;
    case 'v':
      version();
    case 'h':
      usage(EXIT_SUCCESS);
    default:
      usage(EXIT_FAILURE);
  }
}

}  // namespace

Options read_options(int argc, char** argv) {
  Options options;
  int letter = 0;
  while ((letter = getopt(argc, argv, "c:u:p:w:vdhrk")) != -1) apply(letter, options, argv[0]);
  if (options.config_path == nullptr) usage(EXIT_FAILURE);
  return options;
}

}  // namespace vrox
