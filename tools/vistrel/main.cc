// vistrel: the store library from the command line.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cli.h"
#include "commands.h"

namespace {

void PrintHelp() {
  std::printf(
      "usage: vistrel [global options] COMMAND [ARGS]\n"
      "\n"
      "Buys and downloads e-books through the vistrel store library on an emulated device.\n"
      "Each command starts the library (configuration, session, cart) from the device's\n"
      "files, so a session carries over from one command to the next.\n"
      "\n"
      "global options (set before the library starts):\n"
      "  --device-root DIR      folder that stands for the device (VISTREL_DEVICE_ROOT)\n"
      "  --switchboard-url URL  configuration server, ending in /norbel/config/\n"
      "                         (VISTREL_SWITCHBOARD_URL)\n"
      "  --serial SERIAL        the device's serial number (VISTREL_SERIAL_NUMBER)\n"
      "  --log-file FILE        device event log (VISTREL_LOG_FILE; default: the device\n"
      "                         folder's name + \".events.log\")\n"
      "\n"
      "commands:\n");
  for (const auto& command : vistrel_cli::Commands()) {
    std::printf("  %-11s%s\n", command.name, command.summary);
  }
  std::printf(
      "\n"
      "\"vistrel COMMAND --help\" describes a command.\n"
      "\n"
      "exit codes:\n"
      "  0  success\n"
      "  1  the operation failed or the shop refused it\n"
      "  2  usage error\n"
      "  3  configuration server or shop unreachable, or no usable configuration\n"
      "  4  not logged in\n"
      "  5  unknown book (not in the catalogue, the cart or the purchases)\n");
}

}  // namespace

int main(int argc, char** argv) {
  using vistrel_cli::Fail;
  static const std::vector<std::pair<std::string, const char*>> kGlobals = {
      {"--device-root", "VISTREL_DEVICE_ROOT"},
      {"--switchboard-url", "VISTREL_SWITCHBOARD_URL"},
      {"--serial", "VISTREL_SERIAL_NUMBER"},
      {"--log-file", "VISTREL_LOG_FILE"},
  };
  int i = 1;
  for (; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      PrintHelp();
      return vistrel_cli::kExitOk;
    }
    if (arg.compare(0, 2, "--") != 0) break;
    const char* variable = nullptr;
    for (const auto& global : kGlobals) {
      if (global.first == arg) variable = global.second;
    }
    if (variable == nullptr) return Fail(vistrel_cli::kExitUsage, "unknown option " + arg);
    if (i + 1 == argc) return Fail(vistrel_cli::kExitUsage, "option " + arg + " needs a value");
    // The library reads these when it starts, so they are set before any call into it.
    setenv(variable, argv[++i], 1);
  }
  if (i == argc) {
    PrintHelp();
    return vistrel_cli::kExitUsage;
  }
  const std::string name = argv[i];
  const std::vector<std::string> words(argv + i + 1, argv + argc);
  for (const auto& command : vistrel_cli::Commands()) {
    if (name != command.name) continue;
    for (const std::string& word : words) {
      if (word == "--help" || word == "-h") {
        std::fputs(command.usage, stdout);
        return vistrel_cli::kExitOk;
      }
    }
    return vistrel_cli::GuardedRun(name, [&] { return command.run(words); });
  }
  return Fail(vistrel_cli::kExitUsage, "unknown command " + name + " (see vistrel --help)");
}
