// Downloads one resource into a file, streamed to disk, resumed where an earlier attempt
// stopped.
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
    long http_code = 0;        // NOLINT(runtime/int): the status of the final answer, 0 without one
    int error = 0;             // 0 on success
    std::string content_type;  // as the server declared it ("" when it did not)
    std::string file_path;     // the device path of the file written ("" on failure)

    // Additions that say why a download failed, for the people who wait for it.
    std::string url;
    std::string error_text;    // the transfer's or the downloader's own words; "" on success
    int64_t bytes = 0;         // bytes of the file when the download ended (kept ones included)
    int64_t total = 0;         // the whole size, 0 when the server did not say
    int64_t resumed_from = 0;  // bytes continued from an earlier attempt, 0 when started anew
    bool too_slow = false;     // slower than the floor of Limits
    bool timed_out = false;    // the total time limit, or no connection in time
    bool too_large = false;    // beyond the byte cap of Limits
    bool name_too_long = false;
    bool kept = false;  // the bytes received wait in the partial file for the next attempt
    // Set through NoteRefusedType when the caller deleted the file for its type.
    std::string refused_type;
  };

  // Bounds of a download (an addition). The defaults suit books, which can be large and come
  // over weak networks: no cap on size or total time, but a transfer that stays below the floor
  // (averaged over the window, the wait for the answer included) is given up.
  struct Limits {
    int64_t max_bytes = 0;         // 0: no cap
    int64_t max_milliseconds = 0;  // whole download, 0: no limit
    int64_t floor_bytes_per_second = 1024;
    int64_t floor_window_milliseconds = 30000;
  };

  Downloader();
  ~Downloader();
  Downloader(const Downloader&) = delete;
  Downloader& operator=(const Downloader&) = delete;

  // Fetches `url` (redirects followed) into the device path `file_path`; only http and https,
  // TLS peers verified.
  //
  // The data grows in a partial file beside the target (".<name>.part", made with
  // O_CREAT|O_EXCL|O_NOFOLLOW) and is renamed into place only when whole; the folder is then
  // flushed. A failed attempt keeps the partial file, with a record of the server's validator
  // (a strong ETag, else Last-Modified) written before the first byte of the body; the next
  // download of the same link to the same path, in this process or a later one, asks for the
  // rest with Range and If-Range. It appends only to a 206 whose Content-Range starts exactly
  // at the bytes kept and names the recorded size; a 200 (the server ignores ranges, or the
  // file changed), a refused range, a changed size or validator start again from zero in the
  // same call. Without a validator nothing is kept for later.
  //
  // Success is a 200, or a 206 answering our own Range, with a body that is not empty and is as
  // long as the size announced. Everything else fails and leaves no file at `file_path`: a
  // status other than these (204 and a 206 nobody asked for included), an empty body, a short
  // body, a transfer error, a full disk, the floor or a bound of Limits. `progress` (may be
  // empty) gets the percentage as it grows. Returns 0 on success, else libcurl's code of the
  // failure (CURLE_HTTP_RETURNED_ERROR for an unusable status, CURLE_WRITE_ERROR for files,
  // CURLE_OPERATION_TIMEDOUT for the floor and the time limit, CURLE_FILESIZE_EXCEEDED for the
  // byte cap, CURLE_PARTIAL_FILE for a short body).
  //
  // Every download, finished or not, appends one line to the device's event log:
  //   download <"ok"|"failed"> <http status> <bytes> <total> <resumed from> <content type>
  //            <device path> <url without its query> <error text>
  // tab-separated, control characters replaced by spaces (a query may carry a token).
  int Download(const std::string& url, const std::string& file_path,
               const std::function<void(int)>& progress);

  // Bounds of the next downloads (an addition); the defaults until called.
  void SetLimits(const Limits& limits);

  // Callable from any thread while Download runs. `done` counts the bytes kept from an
  // earlier attempt too.
  void GetProgress(bool* active, int64_t* total, int64_t* done) const;
  // The status of the last finished download; read it after Download has returned.
  StatusInfo GetStatusInfo() const;

  // Additions for a caller that reports failures: the status of the last download that ended
  // in this process, whichever downloader ran it, and the caller's note that it removed that
  // download's file because of its content type.
  static StatusInfo LastStatus();
  // Addition: as GetProgress, for the download started last in this process, whichever
  // downloader runs it.
  static void GetRunningProgress(bool* active, int64_t* total, int64_t* done);
  static void NoteRefusedType(const std::string& content_type);

  // Removes, from the device folder `folder`, the partial files of downloads that `wanted`
  // (given a file name in the folder) no longer wants, and those unchanged for
  // `max_age_seconds`. Only partial files with this downloader's own record are touched;
  // those that a running download (of any process) holds, and every other file, are left
  // alone. Returns the number of entries removed.
  static int RemoveStalePartials(const std::string& folder,
                                 const std::function<bool(const std::string&)>& wanted,
                                 int64_t max_age_seconds);

 private:
  std::atomic<bool> active_{false};
  std::atomic<int64_t> total_{0};
  std::atomic<int64_t> done_{0};
  Limits limits_;
  mutable std::mutex status_lock_;
  StatusInfo status_;
};

}  // namespace utilities
}  // namespace norbel

#endif  // NBUTILS_DOWNLOADER_H_
