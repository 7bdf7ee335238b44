// Downloads through libcurl, streamed to a temporary file beside the target.
//
// Only http and https are followed (also across redirects), TLS peers are verified, and a
// stalled transfer (under 1 byte/s for 60 s) is given up; there is no limit on the total time
// because books can be large. The error code of a failed download is libcurl's: its own
// transfer code, CURLE_HTTP_RETURNED_ERROR for a status outside 2xx, CURLE_WRITE_ERROR when the
// file could not be written, flushed or put in place.
#include "nbutils/downloader.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "curl_handle.h"
#include "host/environment.h"
#include "host/files.h"

namespace norbel {
namespace utilities {
namespace {

constexpr long kMaxRedirects = 10;
constexpr long kConnectTimeoutMs = 30000;
constexpr long kLowSpeedBytes = 1;
constexpr long kLowSpeedSeconds = 60;
// Fewer, larger writes than curl's 16 KiB default.
constexpr long kReceiveBufferBytes = 512L * 1024;
// Written data is handed to the disk in steps of this size while the transfer goes on, so
// that the flush before the rename has little left to do.
constexpr int64_t kWritebackStep = 8 << 20;

struct Counters {
  std::atomic<int64_t>* total;
  std::atomic<int64_t>* done;
};

// What the write callback works on while curl runs.
struct Sink {
  CURL* curl = nullptr;
  int fd = -1;
  int64_t written_back = 0;  // bytes already handed to the disk
  bool total_checked = false;
  int last_percent = -1;
  std::atomic<int64_t>* total = nullptr;
  std::atomic<int64_t>* done = nullptr;
  const std::function<void(int)>* progress = nullptr;
};

void ReportPercent(Sink* sink) {
  int64_t total = sink->total->load();
  if (!*sink->progress || total <= 0) return;
  int64_t done = sink->done->load();
  int percent = static_cast<int>(done >= total ? 100 : done * 100 / total);
  if (percent == sink->last_percent) return;
  sink->last_percent = percent;
  (*sink->progress)(percent);
}

size_t WriteToFile(char* data, size_t size, size_t count, void* user) {
  auto* sink = static_cast<Sink*>(user);
  size_t bytes = size * count;
  if (!sink->total_checked) {
    // Called after the final answer's headers, so its length is known here if it was sent.
    curl_off_t length = -1;
    curl_easy_getinfo(sink->curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    if (length > 0) sink->total->store(length);
    sink->total_checked = true;
  }
  size_t left = bytes;
  while (left > 0) {
    ssize_t n = write(sink->fd, data, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return 0;  // disk full or I/O error: curl ends with CURLE_WRITE_ERROR
    data += n;
    left -= static_cast<size_t>(n);
    sink->done->fetch_add(n);
  }
  int64_t done = sink->done->load();
  if (done - sink->written_back >= kWritebackStep) {
    // Starts the writeback without waiting for it; the fsync at the end still guarantees it.
    sync_file_range(sink->fd, sink->written_back, done - sink->written_back, SYNC_FILE_RANGE_WRITE);
    sink->written_back = done;
  }
  ReportPercent(sink);
  return bytes;
}

void Configure(CURL* curl, const std::string& url, Sink* sink) {
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kMaxRedirects);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMs);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, kLowSpeedBytes);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, kLowSpeedSeconds);
  // Error answers end the transfer before their body reaches the file.
  curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, kReceiveBufferBytes);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, WriteToFile);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, sink);
}

// Runs the transfer into `fd`; 0 when it completed with a 2xx answer.
int Transfer(const std::string& url, int fd, const std::function<void(int)>& progress,
             Counters counters, Downloader::StatusInfo* status) {
  CurlHandle curl = NewCurlHandle();
  if (!curl) return CURLE_FAILED_INIT;
  Sink sink;
  sink.curl = curl.get();
  sink.fd = fd;
  sink.total = counters.total;
  sink.done = counters.done;
  sink.progress = &progress;
  Configure(curl.get(), url, &sink);
  CURLcode err = curl_easy_perform(curl.get());

  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status->http_code);
  const char* type = nullptr;
  curl_easy_getinfo(curl.get(), CURLINFO_CONTENT_TYPE, &type);
  status->content_type = type ? type : "";
  if (err != CURLE_OK) return err;
  if (status->http_code < 200 || status->http_code > 299) return CURLE_HTTP_RETURNED_ERROR;
  return 0;
}

// Downloads into a temporary beside the target and renames it into place when complete.
int Fetch(const std::string& url, const std::string& file_path,
          const std::function<void(int)>& progress, Counters counters,
          Downloader::StatusInfo* status) {
  std::string target = vistrel_host::ResolveDevicePath(file_path);
  size_t slash = target.find_last_of('/');
  std::string folder = slash == std::string::npos ? "." : target.substr(0, slash);
  std::string name = target.substr(slash + 1);
  if (name.empty() || name == "." || name == "..") return CURLE_WRITE_ERROR;
  if (!folder.empty() && !vistrel_host::MakeFolders(folder)) return CURLE_WRITE_ERROR;
  if (folder.empty()) folder = "/";

  // A fixed name per target, so that what a download killed half way left behind is taken over
  // by the next one.
  std::string temp = folder + "/" + vistrel_host::TemporaryName(name, ".part");
  int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return CURLE_WRITE_ERROR;

  int error = Transfer(url, fd, progress, counters, status);
  if (error == 0 && (fchmod(fd, 0644) != 0 || fsync(fd) != 0)) error = CURLE_WRITE_ERROR;
  if (close(fd) != 0 && error == 0) error = CURLE_WRITE_ERROR;
  if (error == 0 && rename(temp.c_str(), target.c_str()) != 0) error = CURLE_WRITE_ERROR;
  if (error != 0) {
    unlink(temp.c_str());
    return error;
  }
  vistrel_host::SyncFolder(folder);
  if (progress) progress(100);
  return 0;
}

}  // namespace

Downloader::Downloader() = default;

Downloader::~Downloader() = default;

int Downloader::Download(const std::string& url, const std::string& file_path,
                         const std::function<void(int)>& progress) {
  total_.store(0);
  done_.store(0);
  active_.store(true);
  StatusInfo status;
  status.error = Fetch(url, file_path, progress, Counters{&total_, &done_}, &status);
  if (status.error == 0) status.file_path = file_path;
  active_.store(false);
  std::lock_guard<std::mutex> guard(status_lock_);
  status_ = status;
  return status.error;
}

void Downloader::GetProgress(bool* active, int64_t* total, int64_t* done) const {
  if (active) *active = active_.load();
  if (total) *total = total_.load();
  if (done) *done = done_.load();
}

Downloader::StatusInfo Downloader::GetStatusInfo() const {
  std::lock_guard<std::mutex> guard(status_lock_);
  return status_;
}

}  // namespace utilities
}  // namespace norbel
