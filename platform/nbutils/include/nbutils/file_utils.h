// Files of the device that must survive a crash or a power loss.
#ifndef NBUTILS_FILE_UTILS_H_
#define NBUTILS_FILE_UTILS_H_

#include <string>

namespace norbel {
namespace utilities {

// Replaces the device file `device_path` by `content` atomically: readers see the old file or
// the new one, never a torn one. False when it could not be written; the old file is then
// untouched.
bool WriteFileAtomically(const std::string& device_path, const std::string& content);

}  // namespace utilities
}  // namespace norbel

#endif  // NBUTILS_FILE_UTILS_H_
