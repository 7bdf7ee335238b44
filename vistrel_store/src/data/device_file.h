#ifndef VISTREL_STORE_SRC_DATA_DEVICE_FILE_H_
#define VISTREL_STORE_SRC_DATA_DEVICE_FILE_H_

#include <string>

namespace norbel {
namespace vistrel {

// Replaces the device file `device_path` by `content` atomically: a temporary file beside it
// is written, flushed to disk and renamed over it, so that a crash or power loss leaves the
// old file or the new one, never a torn one. Returns false when it could not be written; the
// old file is then untouched.
bool WriteDeviceFileAtomically(const std::string& device_path, const std::string& content);

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_SRC_DATA_DEVICE_FILE_H_
