// Where the device's files and servers are. On the device every path is itself and every
// built-in setting holds; on a host the device is emulated (see host/environment.h).
#ifndef NBUTILS_DEVICE_ENVIRONMENT_H_
#define NBUTILS_DEVICE_ENVIRONMENT_H_

#include <string>

namespace norbel {
namespace utilities {

// The local path of an absolute device path such as "/mnt/ext1/Downloads/a.epub". Relative
// paths are returned unchanged.
std::string DevicePath(const std::string& device_path);

// The configuration server's base address: `built_in` on a device; a host may replace it.
std::string ConfigurationServerUrl(const std::string& built_in);

}  // namespace utilities
}  // namespace norbel

#endif  // NBUTILS_DEVICE_ENVIRONMENT_H_
