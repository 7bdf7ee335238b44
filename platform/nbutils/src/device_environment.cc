#include "nbutils/device_environment.h"

#include "host/environment.h"

namespace norbel {
namespace utilities {

std::string DevicePath(const std::string& device_path) {
  return vistrel_host::ResolveDevicePath(device_path);
}

std::string ConfigurationServerUrl(const std::string& built_in) {
  return vistrel_host::SwitchboardUrl(built_in);
}

}  // namespace utilities
}  // namespace norbel
