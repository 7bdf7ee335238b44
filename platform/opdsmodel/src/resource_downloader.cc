#include "opdsmodel/resource_downloader.h"

#include <algorithm>
#include <limits>

namespace norbel {
namespace opds {
namespace {

// The shift that brings `total` into the int range.
int ScaleShift(int64_t total) {
  int shift = 0;
  while ((total >> shift) > std::numeric_limits<int>::max()) ++shift;
  return shift;
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
  if (total_bytes < 0) total_bytes = 0;
  if (done_bytes < 0) done_bytes = 0;
  if (done_bytes > total_bytes && total_bytes > 0) done_bytes = total_bytes;
  const int shift = ScaleShift(std::max(total_bytes, done_bytes));
  if (total) *total = static_cast<int>(total_bytes >> shift);
  if (done) *done = static_cast<int>(done_bytes >> shift);
  if (name) {
    std::lock_guard<std::mutex> guard(name_lock_);
    *name = current_name_;
  }
}

utilities::Downloader::StatusInfo ResourceDownloader::GetStatusInfo() const {
  return downloader_.GetStatusInfo();
}

void ResourceDownloader::SetLimits(const utilities::Downloader::Limits& limits) {
  downloader_.SetLimits(limits);
}

int ResourceDownloader::RemoveStalePartials(const std::function<bool(const std::string&)>& wanted,
                                            int64_t max_age_seconds) {
  return utilities::Downloader::RemoveStalePartials(folder_, wanted, max_age_seconds);
}

}  // namespace opds
}  // namespace norbel
