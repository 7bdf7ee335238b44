// The host emulation of the device, and the only place that reads its variables:
//
//   VISTREL_DEVICE_ROOT     folder that stands for the device's "/" (default:
//                           $XDG_STATE_HOME/vistrel/device, else ~/.local/state/vistrel/device)
//   VISTREL_SWITCHBOARD_URL configuration server base address (default: the built-in one)
//   VISTREL_SERIAL_NUMBER   the device serial number (default: none)
//   VISTREL_LOG_FILE        file to which every device event is appended as one
//                           tab-separated line (default: level-2 log lines to stderr only)
//   VISTREL_BROWSER         the payment browser: "chromium" (a real Chromium) or "http" (the
//                           redirect follower; the default)
//   VISTREL_BROWSER_HEADLESS "1": Chromium without a window
//
// Variables are read at each call, so a process (or a test) may change them between calls.
#ifndef HOST_ENVIRONMENT_H_
#define HOST_ENVIRONMENT_H_

#include <string>

namespace vistrel_host {

std::string DeviceRoot();
// DeviceRoot() + `device_path` for an absolute path; other paths unchanged.
std::string ResolveDevicePath(const std::string& device_path);
// Creates the device's standard folders under the root. False when one cannot be made.
bool PrepareDeviceRoot();

std::string SwitchboardUrl(const std::string& built_in);
// Null when VISTREL_SERIAL_NUMBER is unset.
const char* SerialNumber();

// True when VISTREL_LOG_FILE is set.
bool HasEventLog();
// Appends one line (a newline is added) to the event log and flushes it; no-op without one.
void AppendEvent(const std::string& line);

// The payment browser that VISTREL_BROWSER names: kUnset when it is unset, kOther when it
// names something else.
enum class Browser { kUnset, kHttp, kChromium, kOther };
Browser BrowserSetting();
// Whether VISTREL_BROWSER_HEADLESS is "1".
bool BrowserHeadless();
// Whether the session has a graphical display ($DISPLAY or $WAYLAND_DISPLAY set).
bool HasDisplay();

}  // namespace vistrel_host

#endif  // HOST_ENVIRONMENT_H_
