#include "nbutils/file_utils.h"

#include "host/environment.h"
#include "host/files.h"

namespace norbel {
namespace utilities {

bool WriteFileAtomically(const std::string& device_path, const std::string& content) {
  return vistrel_host::ReplaceFile(vistrel_host::ResolveDevicePath(device_path), content, 0644);
}

}  // namespace utilities
}  // namespace norbel
