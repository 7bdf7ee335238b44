#include "tool_config.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "cli.h"
#include "commands.h"
#include "host/environment.h"

namespace vistrel_cli {
namespace {

// Where each key's value came from, by key.
std::map<std::string, std::string> g_sources;

std::string Trim(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

const Setting* FindSetting(const std::string& key) {
  for (const Setting& setting : Settings()) {
    if (key == setting.key) return &setting;
  }
  return nullptr;
}

}  // namespace

const std::vector<Setting>& Settings() {
  static const std::vector<Setting> settings = {
      {"device_root", "--device-root", "VISTREL_DEVICE_ROOT", "device folder"},
      {"switchboard_url", "--switchboard-url", "VISTREL_SWITCHBOARD_URL", "configuration server"},
      {"serial", "--serial", "VISTREL_SERIAL_NUMBER", "serial number"},
      {"browser", nullptr, "VISTREL_BROWSER", "payment browser"},
      {"log_file", "--log-file", "VISTREL_LOG_FILE", "device event log"},
  };
  return settings;
}

std::string ConfigFilePath() {
  const char* xdg = std::getenv("XDG_CONFIG_HOME");
  if (xdg != nullptr && *xdg == '/') return std::string(xdg) + "/vistrel/config";
  const char* home = std::getenv("HOME");
  if (home != nullptr && *home != '\0') return std::string(home) + "/.config/vistrel/config";
  return "";
}

bool ApplySettings(const std::map<std::string, std::string>& flags, std::string* error) {
  g_sources.clear();
  for (const Setting& setting : Settings()) {
    auto flag = setting.flag != nullptr ? flags.find(setting.flag) : flags.end();
    if (flag != flags.end()) {
      setenv(setting.variable, flag->second.c_str(), 1);
      g_sources[setting.key] = setting.flag;
    } else if (const char* value = std::getenv(setting.variable); value && *value) {
      g_sources[setting.key] = std::string("environment ") + setting.variable;
    }
  }
  const std::string path = ConfigFilePath();
  if (path.empty()) return true;
  std::ifstream in(path);
  if (!in) {
    if (errno == ENOENT || errno == ENOTDIR) return true;
    *error = "cannot read the configuration file " + path + ": " + std::strerror(errno);
    return false;
  }
  std::string line;
  std::vector<std::string> keys;
  for (const Setting& setting : Settings()) keys.push_back(setting.key);
  for (int number = 1; number <= 1000 && std::getline(in, line); ++number) {
    line = Trim(line);
    if (line.empty() || line[0] == '#') continue;
    const size_t equals = line.find('=');
    const std::string where = path + " line " + std::to_string(number);
    if (equals == std::string::npos) {
      Warn(where + ": not \"key = value\", ignored");
      continue;
    }
    std::string key = Trim(line.substr(0, equals));
    for (char& c : key) c = c == '-' ? '_' : c;  // "device-root" reads as "device_root"
    const Setting* setting = FindSetting(key);
    if (setting == nullptr) {
      const std::string guess = Closest(key, keys);
      std::string text = where;
      text += ": unknown key " + key;
      if (!guess.empty()) text += " (did you mean " + guess + "?)";
      Warn(text);
      continue;
    }
    if (g_sources.count(key) != 0 && g_sources[key].compare(0, path.size(), path) != 0) {
      continue;  // a flag or the environment wins
    }
    setenv(setting->variable, Trim(line.substr(equals + 1)).c_str(), 1);
    g_sources[key] = where;
  }
  return true;
}

std::string SettingSource(const Setting& setting) {
  auto it = g_sources.find(setting.key);
  return it == g_sources.end() ? "default" : it->second;
}

int RunConfig(const std::vector<std::string>& words) {
  if (!words.empty()) return Usage("config takes no arguments");
  const std::string path = ConfigFilePath();
  std::ifstream file(path);
  std::printf("configuration file: %s (%s)\n", path.empty() ? "none" : path.c_str(),
              file ? "read" : "absent");
  for (const Setting& setting : Settings()) {
    const char* value = std::getenv(setting.variable);
    std::string shown = value != nullptr && *value != '\0' ? value : "";
    if (shown.empty()) {
      const std::string key = setting.key;
      if (key == "device_root") shown = vistrel_host::DeviceRoot();
      if (key == "switchboard_url")
        shown = vistrel_host::SwitchboardUrl(VISTREL_BUILT_IN_SWITCHBOARD_URL);
      if (key == "serial") shown = "(none)";
      if (key == "browser") shown = "(the built-in one)";
      if (key == "log_file") shown = vistrel_host::DeviceRoot() + ".events.log";
    }
    std::printf("%-16s %s\n%16s   from %s; %s\n", setting.key, shown.c_str(), "",
                SettingSource(setting).c_str(),
                (std::string(setting.flag != nullptr ? setting.flag : "") +
                 (setting.flag != nullptr ? ", " : "") + setting.variable)
                    .c_str());
  }
  return kExitOk;
}

}  // namespace vistrel_cli
