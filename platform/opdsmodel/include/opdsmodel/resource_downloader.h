// The OPDS library's downloader: fetches resources into one folder, one at a time.
#ifndef OPDSMODEL_RESOURCE_DOWNLOADER_H_
#define OPDSMODEL_RESOURCE_DOWNLOADER_H_

#include <functional>
#include <mutex>
#include <string>

#include "nbutils/downloader.h"

namespace norbel {
namespace opds {

class TaskQueue;

class ResourceDownloader {
 public:
  // Downloads into the device folder `folder` (created when missing). `queue` may be null:
  // then every download runs on the caller's thread.
  ResourceDownloader(const std::string& folder, TaskQueue* queue);

  // Fetches `url` into the folder under `file_name`. The name is confined to the folder:
  // "/" and ".." cannot lead out of it. Returns 0 on success, non-zero on failure.
  int DownloadResource(const std::string& url, const std::string& file_name,
                       std::function<void(int)> progress);

  // Safe from any thread while DownloadResource runs. `total` and `done` are bytes, the ones
  // kept from an earlier attempt included; `name` is the file name of the running download.
  // A size beyond the int range is reported as a scaled pair: both numbers shifted right by
  // the same number of bits, so that total fits and done / total keeps its ratio.
  void GetProgress(bool* active, std::string* name, int* total, int* done);

  // Additions. Bounds of the next downloads (see Downloader::Limits); call it while none runs.
  void SetLimits(const utilities::Downloader::Limits& limits);
  // Removes the partial files in the folder that earlier downloads left: those of file names
  // that `wanted` no longer wants and those older than `max_age_seconds`, but none that a
  // running download holds. Returns the number of entries removed.
  int RemoveStalePartials(const std::function<bool(const std::string&)>& wanted,
                          int64_t max_age_seconds);

  // The status of the last finished download: declared content type and the device path
  // of the file written.
  utilities::Downloader::StatusInfo GetStatusInfo() const;

  const std::string& folder() const { return folder_; }

 private:
  std::string folder_;
  [[maybe_unused]] TaskQueue* queue_;  // the host runs every download on the caller's thread
  utilities::Downloader downloader_;
  mutable std::mutex name_lock_;
  std::string current_name_;
};

}  // namespace opds
}  // namespace norbel

#endif  // OPDSMODEL_RESOURCE_DOWNLOADER_H_
