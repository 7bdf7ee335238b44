#include "nbutils/file_utils.h"

#include <errno.h>
#include <time.h>
#include <unistd.h>

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

bool KeepFileAside(const std::string& device_path, const std::string& label, std::string* kept_as) {
  const time_t now = time(nullptr);
  struct tm utc {};
  gmtime_r(&now, &utc);
  char stamp[32];
  strftime(stamp, sizeof(stamp), "%Y%m%dT%H%M%SZ", &utc);
  const std::string from = vistrel_host::ResolveDevicePath(device_path);
  const std::string base = device_path + "." + label + "-" + stamp;
  for (int n = 1; n < 100; ++n) {
    const std::string kept = n == 1 ? base : base + "-" + std::to_string(n);
    const std::string to = vistrel_host::ResolveDevicePath(kept);
    // link() never replaces an entry, so a file kept aside earlier survives; unlink() then
    // leaves the one name.
    if (link(from.c_str(), to.c_str()) == 0) {
      unlink(from.c_str());
      const size_t slash = to.rfind('/');
      vistrel_host::SyncFolder(slash == std::string::npos ? "." : to.substr(0, slash));
      *kept_as = kept;
      return true;
    }
    if (errno != EEXIST) return false;
  }
  return false;
}

}  // namespace utilities
}  // namespace norbel
