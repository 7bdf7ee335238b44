// vistrel: the store library from the command line.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "tool_config.h"

namespace {

using vistrel_cli::Fail;
using vistrel_cli::kExitUsage;

void PrintHelp() {
  std::printf(
      "usage: vistrel [global options] COMMAND [ARGS]\n"
      "\n"
      "Buys and downloads e-books through the vistrel store library on an emulated device.\n"
      "Each command starts the library (configuration, session, cart) from the device's\n"
      "files, so a session carries over from one command to the next.\n"
      "\n"
      "global options (also accepted after the command; --name=value works too):\n"
      "  --device-root DIR      folder that stands for the device (VISTREL_DEVICE_ROOT)\n"
      "  --switchboard-url URL  configuration server, ending in /norbel/config/\n"
      "                         (VISTREL_SWITCHBOARD_URL)\n"
      "  --serial SERIAL        the device's serial number (VISTREL_SERIAL_NUMBER)\n"
      "  --log-file FILE        device event log (VISTREL_LOG_FILE; default: the device\n"
      "                         folder's name + \".events.log\")\n"
      "  -v, --verbose          show every HTTP exchange (method, address, status, time)\n"
      "  --version              show the version\n"
      "Settings not given come from the environment, then from the configuration file\n"
      "$XDG_CONFIG_HOME/vistrel/config (\"key = value\"; see vistrel config).\n"
      "\n"
      "commands:\n");
  for (const auto& command : vistrel_cli::Commands()) {
    std::printf("  %-11s%s\n", command.name, command.summary);
  }
  std::printf(
      "\n"
      "\"vistrel help COMMAND\" or \"vistrel COMMAND --help\" describes a command.\n"
      "\n"
      "exit codes:\n"
      "  0  success\n"
      "  1  the operation failed or the shop refused it\n"
      "  2  usage error\n"
      "  3  configuration server or shop unreachable, or no usable configuration\n"
      "  4  not logged in\n"
      "  5  unknown book (not in the catalogue, the cart or the purchases)\n");
}

const vistrel_cli::Command* FindCommand(const std::string& name) {
  for (const auto& command : vistrel_cli::Commands()) {
    if (name == command.name) return &command;
  }
  return nullptr;
}

int UnknownCommand(const std::string& name) {
  std::vector<std::string> names = {"help"};
  for (const auto& command : vistrel_cli::Commands()) names.push_back(command.name);
  const std::string guess = vistrel_cli::Closest(name, names);
  return Fail(kExitUsage, "unknown command " + name +
                              (guess.empty() ? "" : " (did you mean " + guess + "?)") +
                              " (see vistrel --help)");
}

bool IsGlobalWithValue(const std::string& name) {
  for (const auto& setting : vistrel_cli::Settings()) {
    if (setting.flag != nullptr && name == setting.flag) return true;
  }
  return false;
}

// An event log that cannot be written would lose the device's log lines without a word.
bool LogFileWritable(std::string* problem) {
  const char* path = std::getenv("VISTREL_LOG_FILE");
  if (path == nullptr || *path == '\0') return true;
  const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) {
    *problem = std::string("cannot write the log file ") + path + ": " + std::strerror(errno);
    return false;
  }
  close(fd);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  // Global options may come before or after the command; the first other word is the command.
  std::map<std::string, std::string> flags;
  bool verbose = false;
  std::string name;
  std::vector<std::string> words;
  bool options_end = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const size_t equals = arg.find('=');
    const std::string option = arg.compare(0, 2, "--") == 0 ? arg.substr(0, equals) : arg;
    if (!options_end && IsGlobalWithValue(option)) {
      if (equals != std::string::npos) {
        flags[option] = arg.substr(equals + 1);
      } else if (i + 1 == argc) {
        return Fail(kExitUsage, "option " + option + " needs a value");
      } else {
        flags[option] = argv[++i];
      }
      if (flags[option].empty()) return Fail(kExitUsage, "option " + option + " needs a value");
    } else if (!options_end && (arg == "-v" || arg == "--verbose")) {
      verbose = true;
    } else if (name.empty() && (arg == "-h" || arg == "--help")) {
      PrintHelp();
      return vistrel_cli::kExitOk;
    } else if (name.empty() && arg == "--version") {
      std::printf("vistrel %s\n", VISTREL_VERSION);
      return vistrel_cli::kExitOk;
    } else if (name.empty() && arg.compare(0, 1, "-") == 0) {
      std::vector<std::string> known = {"--verbose", "--version", "--help"};
      for (const auto& setting : vistrel_cli::Settings()) {
        if (setting.flag != nullptr) known.push_back(setting.flag);
      }
      const std::string guess = vistrel_cli::Closest(option, known);
      return Fail(kExitUsage, "unknown option " + option +
                                  (guess.empty() ? "" : " (did you mean " + guess + "?)"));
    } else if (name.empty()) {
      name = arg;
    } else {
      options_end = options_end || arg == "--";
      words.push_back(arg);
    }
  }
  if (name.empty()) {
    PrintHelp();
    return kExitUsage;
  }
  if (name == "help") {
    if (words.empty() || words[0] == "help" || words[0] == "--help" || words[0] == "-h") {
      PrintHelp();
      return vistrel_cli::kExitOk;
    }
    const vistrel_cli::Command* command = FindCommand(words[0]);
    if (command == nullptr) return UnknownCommand(words[0]);
    std::fputs(command->usage, stdout);
    return vistrel_cli::kExitOk;
  }
  const vistrel_cli::Command* command = FindCommand(name);
  if (command == nullptr) return UnknownCommand(name);
  for (const std::string& word : words) {
    if (word == "--") break;
    if (word == "--help" || word == "-h") {
      std::fputs(command->usage, stdout);
      return vistrel_cli::kExitOk;
    }
  }
  std::string problem;
  if (!vistrel_cli::ApplySettings(flags, &problem)) return Fail(vistrel_cli::kExitFailed, problem);
  if (!LogFileWritable(&problem)) return Fail(vistrel_cli::kExitFailed, problem);
  vistrel_cli::WatchExchanges(verbose);
  return vistrel_cli::GuardedRun(name, [&] { return command->run(words); });
}
