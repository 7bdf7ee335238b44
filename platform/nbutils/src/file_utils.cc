#include "nbutils/file_utils.h"

#include "host/environment.h"
#include "host/files.h"

namespace norbel {
namespace utilities {

bool WriteFileAtomically(const std::string& device_path, const std::string& content, mode_t mode) {
  return vistrel_host::ReplaceFile(vistrel_host::ResolveDevicePath(device_path), content, mode);
}

FileRead ReadDeviceFile(const std::string& device_path, int64_t max_bytes, std::string* content) {
  switch (vistrel_host::ReadRegularFile(vistrel_host::ResolveDevicePath(device_path), max_bytes,
                                        content)) {
    case vistrel_host::ReadOutcome::kRead:
      return FileRead::kRead;
    case vistrel_host::ReadOutcome::kMissing:
      return FileRead::kMissing;
    case vistrel_host::ReadOutcome::kNotRegular:
      return FileRead::kNotRegular;
    case vistrel_host::ReadOutcome::kTooLarge:
      return FileRead::kTooLarge;
    case vistrel_host::ReadOutcome::kFailed:
      break;
  }
  return FileRead::kFailed;
}

}  // namespace utilities
}  // namespace norbel
