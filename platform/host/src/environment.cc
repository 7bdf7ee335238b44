#include "host/environment.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>

#include "host/files.h"

namespace vistrel_host {
namespace {

std::string Env(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

}  // namespace

std::string DeviceRoot() {
  std::string root = Env("VISTREL_DEVICE_ROOT");
  if (root.empty()) {
    std::string state = Env("XDG_STATE_HOME");
    if (state.empty()) {
      std::string home = Env("HOME");
      state = (home.empty() ? std::string(".") : home) + "/.local/state";
    }
    root = state + "/vistrel/device";
  }
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  return root;
}

std::string ResolveDevicePath(const std::string& device_path) {
  if (device_path.empty() || device_path[0] != '/') return device_path;
  return DeviceRoot() + device_path;
}

bool PrepareDeviceRoot() {
  for (const char* folder :
       {"/mnt/ext1/system/config", "/mnt/ext1/Downloads", "/mnt/ext1/Digital Editions", "/tmp",
        "/kelmast/bin", "/kelmast/system/resources"}) {
    if (!MakeFolders(ResolveDevicePath(folder))) return false;
  }
  return true;
}

std::string SwitchboardUrl(const std::string& built_in) {
  std::string url = Env("VISTREL_SWITCHBOARD_URL");
  return url.empty() ? built_in : url;
}

const char* SerialNumber() {
  // getenv's result stays valid until the variable changes, as a device's would.
  return std::getenv("VISTREL_SERIAL_NUMBER");
}

bool HasEventLog() { return !Env("VISTREL_LOG_FILE").empty(); }

void AppendEvent(const std::string& line) {
  static std::mutex lock;
  std::string path = Env("VISTREL_LOG_FILE");
  if (path.empty()) return;
  std::string text = line + "\n";
  std::lock_guard<std::mutex> guard(lock);
  // O_APPEND keeps lines whole even when several processes share the file.
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  const char* data = text.data();
  size_t left = text.size();
  while (left > 0) {
    ssize_t n = write(fd, data, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    data += n;
    left -= static_cast<size_t>(n);
  }
  close(fd);
}

Browser BrowserSetting() {
  const std::string browser = Env("VISTREL_BROWSER");
  if (browser.empty()) return Browser::kUnset;
  if (browser == "http") return Browser::kHttp;
  if (browser == "chromium") return Browser::kChromium;
  return Browser::kOther;
}

bool BrowserHeadless() { return Env("VISTREL_BROWSER_HEADLESS") == "1"; }

bool HasDisplay() { return !Env("DISPLAY").empty() || !Env("WAYLAND_DISPLAY").empty(); }

}  // namespace vistrel_host
