// The tool's settings: device folder, configuration server, serial number, browser and event
// log. Each comes from a global option, else from its environment variable, else from the
// configuration file ($XDG_CONFIG_HOME/vistrel/config, else ~/.config/vistrel/config; lines
// "key = value", "#" comments), else from the built-in default. The winner is put in the
// environment variable, which the host emulation reads.
#ifndef TOOLS_VISTREL_TOOL_CONFIG_H_
#define TOOLS_VISTREL_TOOL_CONFIG_H_

#include <map>
#include <string>
#include <vector>

namespace vistrel_cli {

struct Setting {
  const char* key;       // in the configuration file
  const char* flag;      // the global option, or null
  const char* variable;  // the environment variable
  const char* meaning;   // for "vistrel config"
};

// Every setting, in the order "vistrel config" lists them.
const std::vector<Setting>& Settings();

// The configuration file's path ("" without HOME and XDG_CONFIG_HOME).
std::string ConfigFilePath();

// Puts the settings in force: `flags` (global option -> value) first, then the environment,
// then the configuration file. Problems of the file (unknown keys, lines without "=") are
// written as warnings; an unreadable file that exists is an error (false, *error set).
bool ApplySettings(const std::map<std::string, std::string>& flags, std::string* error);

// Where the setting in force came from: "--device-root", "environment VISTREL_DEVICE_ROOT",
// "<file> line 3" or "default".
std::string SettingSource(const Setting& setting);

}  // namespace vistrel_cli

#endif  // TOOLS_VISTREL_TOOL_CONFIG_H_
