// Downloads one resource into a file, streamed to disk.
#ifndef NBUTILS_DOWNLOADER_H_
#define NBUTILS_DOWNLOADER_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace norbel {
namespace utilities {

class Downloader {
 public:
  // What the last download found out.
  struct StatusInfo {
    long http_code = 0;
    int error = 0;             // 0 on success
    std::string content_type;  // as the server declared it ("" when it did not)
    std::string file_path;     // the device path of the file written ("" on failure)
  };

  Downloader();
  ~Downloader();
  Downloader(const Downloader&) = delete;
  Downloader& operator=(const Downloader&) = delete;

  // Fetches `url` (redirects followed) into the device path `file_path`. The data goes to a
  // temporary file beside it, renamed into place only when complete; on any failure the
  // temporary is removed. `progress` (may be empty) gets the percentage as it grows.
  // Returns 0 on success, non-zero on any failure (transfer, non-2xx status, disk full).
  int Download(const std::string& url, const std::string& file_path,
               const std::function<void(int)>& progress);

  // Callable from any thread while Download runs.
  void GetProgress(bool* active, int64_t* total, int64_t* done) const;
  // The status of the last finished download; read it after Download has returned.
  StatusInfo GetStatusInfo() const;

 private:
  std::atomic<bool> active_{false};
  std::atomic<int64_t> total_{0};
  std::atomic<int64_t> done_{0};
  mutable std::mutex status_lock_;
  StatusInfo status_;
};

}  // namespace utilities
}  // namespace norbel

#endif  // NBUTILS_DOWNLOADER_H_
