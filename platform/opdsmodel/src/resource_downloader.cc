#include "opdsmodel/resource_downloader.h"

#include <limits>

namespace norbel {
namespace opds {
namespace {

int ClampToInt(int64_t value) {
  if (value > std::numeric_limits<int>::max()) return std::numeric_limits<int>::max();
  if (value < 0) return 0;
  return static_cast<int>(value);
}

// Keeps a server- or caller-given name inside the folder: no folders, no "." or "..".
std::string ConfinedName(const std::string& file_name) {
  std::string name = file_name.substr(file_name.find_last_of('/') + 1);
  if (name.empty() || name == "." || name == "..") name = "download";
  return name;
}

}  // namespace

ResourceDownloader::ResourceDownloader(const std::string& folder, TaskQueue* queue)
    : folder_(folder), queue_(queue) {
  while (folder_.size() > 1 && folder_.back() == '/') folder_.pop_back();
}

int ResourceDownloader::DownloadResource(const std::string& url, const std::string& file_name,
                                         std::function<void(int)> progress) {  // NOLINT
  std::string name = ConfinedName(file_name);
  {
    std::lock_guard<std::mutex> guard(name_lock_);
    current_name_ = name;
  }
  return downloader_.Download(url, folder_ + "/" + name, progress);
}

void ResourceDownloader::GetProgress(bool* active, std::string* name, int* total, int* done) {
  bool is_active = false;
  int64_t total_bytes = 0;
  int64_t done_bytes = 0;
  downloader_.GetProgress(&is_active, &total_bytes, &done_bytes);
  if (active) *active = is_active;
  if (total) *total = ClampToInt(total_bytes);
  if (done) *done = ClampToInt(done_bytes);
  if (name) {
    std::lock_guard<std::mutex> guard(name_lock_);
    *name = current_name_;
  }
}

utilities::Downloader::StatusInfo ResourceDownloader::GetStatusInfo() const {
  return downloader_.GetStatusInfo();
}

}  // namespace opds
}  // namespace norbel
