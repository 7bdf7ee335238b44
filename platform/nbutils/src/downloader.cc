// Downloads through libcurl into a partial file beside the target, continued across attempts.
//
// One attempt is one curl transfer. Its answer is judged once, when the headers of the final
// answer are in and before the first byte of the body is written: a resumed attempt goes on
// only with a 206 that fits the bytes kept, starts again in place on a 200, and asks once more
// from zero when the range was refused or did not fit.
#include "nbutils/downloader.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <utility>

#include "curl_handle.h"
#include "host/environment.h"
#include "host/files.h"
#include "partial_file.h"

namespace norbel {
namespace utilities {
namespace {

using Clock = std::chrono::steady_clock;

constexpr long kMaxRedirects = 10;         // NOLINT(runtime/int): curl's type
constexpr long kConnectTimeoutMs = 30000;  // NOLINT(runtime/int)
// Fewer, larger writes than curl's 16 KiB default.
constexpr long kReceiveBufferBytes = 512L * 1024;  // NOLINT(runtime/int)
// Written data is handed to the disk in steps of this size while the transfer goes on, so
// that the flush before the rename has little left to do.
constexpr int64_t kWritebackStep = 8 << 20;
// The longest name a folder entry takes on the device's file systems.
constexpr size_t kMaxNameBytes = 255;
// Header values longer than this are not validators or ranges of any real server.
constexpr size_t kMaxHeaderValue = 1024;

// The headers of the latest answer that matter here (a redirect's are replaced by the next).
struct AnswerHeaders {
  std::string etag;
  std::string last_modified;
  std::string content_range;
};

enum class Verdict { kUndecided, kAccepted, kRestart, kFailed };

// The progress of the download started last in this process, for callers without the
// downloader at hand.
std::atomic<bool> g_running_active{false};
std::atomic<int64_t> g_running_total{0};
std::atomic<int64_t> g_running_done{0};

// A downloader's progress figures, mirrored to the process-wide ones.
struct Counters {
  std::atomic<int64_t>* total = nullptr;
  std::atomic<int64_t>* done = nullptr;
  void SetTotal(int64_t value) const {
    total->store(value);
    g_running_total.store(value);
  }
  void SetDone(int64_t value) const {
    done->store(value);
    g_running_done.store(value);
  }
};

// What the curl callbacks of one attempt work on.
struct Sink {
  CURL* curl = nullptr;
  PartialFile* partial = nullptr;
  std::string url;
  std::string name;
  int64_t asked_from = 0;  // the Range start sent, 0 without Range
  AnswerHeaders headers;
  Verdict verdict = Verdict::kUndecided;
  std::string failure;  // our words when we end the transfer
  int64_t size = 0;     // bytes in the file
  int64_t total = 0;    // the whole size, 0 when unknown
  int64_t resumed_from = 0;
  int64_t written_back = 0;
  Downloader::Limits limits;
  bool too_slow = false;
  bool too_large = false;
  std::deque<std::pair<Clock::time_point, int64_t>> samples;  // (time, bytes received)
  int last_percent = -1;
  Counters counters;
  const std::function<void(int)>* progress = nullptr;
};

std::string Trim(const std::string& text) {
  size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return std::string();
  size_t end = text.find_last_not_of(" \t\r\n");
  return text.substr(begin, end - begin + 1);
}

bool IsStrongEtag(const std::string& etag) { return !etag.empty() && etag[0] == '"'; }

// A strong ETag, else Last-Modified, else "" (a weak ETag cannot be sent in If-Range).
std::string ValidatorOf(const AnswerHeaders& headers) {
  if (IsStrongEtag(headers.etag)) return headers.etag;
  return headers.last_modified;
}

// "bytes <first>-<last>/<complete>"; false for anything else, "*" for the size included.
bool ParseContentRange(const std::string& text, int64_t* first, int64_t* last, int64_t* complete) {
  long long a = -1, b = -1, c = -1;  // NOLINT(runtime/int): sscanf's type
  char extra = 0;
  if (std::sscanf(text.c_str(), "bytes %lld-%lld/%lld%c", &a, &b, &c, &extra) != 3) return false;
  if (a < 0 || b < a || c <= b) return false;
  *first = a;
  *last = b;
  *complete = c;
  return true;
}

size_t OnHeader(char* data, size_t size, size_t count, void* user) {
  auto* sink = static_cast<Sink*>(user);
  size_t bytes = size * count;
  std::string line(data, bytes);
  if (line.compare(0, 5, "HTTP/") == 0) {
    sink->headers = AnswerHeaders();  // a new answer: a redirect's headers do not count
    return bytes;
  }
  size_t colon = line.find(':');
  if (colon == std::string::npos) return bytes;
  std::string key = line.substr(0, colon);
  for (char& c : key) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  std::string value = Trim(line.substr(colon + 1));
  if (value.size() > kMaxHeaderValue) return bytes;
  if (key == "etag") sink->headers.etag = value;
  if (key == "last-modified") sink->headers.last_modified = value;
  if (key == "content-range") sink->headers.content_range = value;
  return bytes;
}

void Fail(Sink* sink, Verdict verdict, const std::string& why) {
  sink->verdict = verdict;
  sink->failure = why;
}

// Keeps the record of a whole-file answer before its body is written.
void StartWholeFile(Sink* sink, int64_t length) {
  sink->size = 0;
  sink->written_back = 0;
  sink->resumed_from = 0;
  sink->total = length > 0 ? length : 0;
  PartialInfo info;
  info.url = sink->url;
  info.name = sink->name;
  info.validator = ValidatorOf(sink->headers);
  info.total = sink->total;
  sink->partial->SaveInfo(info);  // without it the attempt still counts, but cannot be continued
  sink->verdict = Verdict::kAccepted;
}

// Judges the final answer once its headers are in.
void Decide(Sink* sink) {
  long status = 0;  // NOLINT(runtime/int): curl's type
  curl_easy_getinfo(sink->curl, CURLINFO_RESPONSE_CODE, &status);
  curl_off_t length = -1;
  curl_easy_getinfo(sink->curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
  const std::string code = std::to_string(status);

  if (sink->asked_from > 0 && status == 206) {
    const PartialInfo& kept = sink->partial->info();
    int64_t first = 0, last = 0, complete = 0;
    if (!ParseContentRange(sink->headers.content_range, &first, &last, &complete)) {
      Fail(sink, Verdict::kRestart,
           "unusable Content-Range \"" + sink->headers.content_range + "\"");
    } else if (first != sink->asked_from || last + 1 != complete ||
               (kept.total > 0 && complete != kept.total)) {
      Fail(sink, Verdict::kRestart,
           "a range other than the one asked for (" + sink->headers.content_range + ")");
    } else if (IsStrongEtag(kept.validator) && !sink->headers.etag.empty() &&
               sink->headers.etag != kept.validator) {
      Fail(sink, Verdict::kRestart, "the file changed (ETag " + sink->headers.etag + ")");
    } else {
      sink->size = sink->asked_from;
      sink->resumed_from = sink->asked_from;
      sink->total = complete;
      sink->verdict = Verdict::kAccepted;
    }
    return;
  }
  if (status == 200) {
    // Asked for the rest, sent everything: the server ignores ranges or the file changed.
    if (sink->asked_from > 0 && !sink->partial->Restart()) {
      Fail(sink, Verdict::kFailed, "cannot empty the partial file");
      return;
    }
    StartWholeFile(sink, length);
    return;
  }
  if (status == 206) {
    Fail(sink, Verdict::kFailed, "HTTP 206, a part of the file, to a request for all of it");
  } else {
    Fail(sink, Verdict::kFailed, "HTTP " + code + " instead of the file");
  }
}

void ReportPercent(Sink* sink) {
  if (!*sink->progress || sink->total <= 0) return;
  int percent = static_cast<int>(sink->size >= sink->total ? 100 : sink->size * 100 / sink->total);
  if (percent == sink->last_percent) return;
  sink->last_percent = percent;
  (*sink->progress)(percent);
}

size_t WriteToFile(char* data, size_t size, size_t count, void* user) {
  auto* sink = static_cast<Sink*>(user);
  size_t bytes = size * count;
  if (sink->verdict == Verdict::kUndecided) {
    Decide(sink);
    sink->counters.SetTotal(sink->total);
    sink->counters.SetDone(sink->size);
  }
  if (sink->verdict != Verdict::kAccepted) return 0;  // ends the transfer
  if (sink->limits.max_bytes > 0 &&
      sink->size + static_cast<int64_t>(bytes) > sink->limits.max_bytes) {
    sink->too_large = true;
    sink->failure = "larger than " + std::to_string(sink->limits.max_bytes) + " bytes";
    return 0;
  }
  size_t left = bytes;
  while (left > 0) {
    ssize_t n = write(sink->partial->fd(), data, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      sink->failure = std::string("cannot write the file: ") + std::strerror(errno);
      return 0;  // disk full or I/O error: curl ends with CURLE_WRITE_ERROR
    }
    data += n;
    left -= static_cast<size_t>(n);
    sink->size += n;
  }
  sink->counters.SetDone(sink->size);
  if (sink->size - sink->written_back >= kWritebackStep) {
    // Starts the writeback without waiting for it; the fsync at the end still guarantees it.
    sync_file_range(sink->partial->fd(), sink->written_back, sink->size - sink->written_back,
                    SYNC_FILE_RANGE_WRITE);
    sink->written_back = sink->size;
  }
  ReportPercent(sink);
  return bytes;
}

// Gives up a transfer whose bytes over the last window stay under the floor, counting from the
// start of the attempt (so the wait for an answer counts too).
int CheckFloor(void* user, curl_off_t, curl_off_t received, curl_off_t, curl_off_t) {
  auto* sink = static_cast<Sink*>(user);
  const Downloader::Limits& limits = sink->limits;
  if (limits.floor_bytes_per_second <= 0 || limits.floor_window_milliseconds <= 0) return 0;
  const auto window = std::chrono::milliseconds(limits.floor_window_milliseconds);
  const auto step = window / 30;
  Clock::time_point now = Clock::now();
  if (sink->samples.empty() || now - sink->samples.back().first >= step) {
    sink->samples.emplace_back(now, static_cast<int64_t>(received));
  }
  // Keep the newest sample that is at least a window old, and the ones after it.
  while (sink->samples.size() >= 2 && now - sink->samples[1].first >= window) {
    sink->samples.pop_front();
  }
  const auto& oldest = sink->samples.front();
  if (now - oldest.first < window) return 0;
  double seconds = std::chrono::duration<double>(now - oldest.first).count();
  double rate = static_cast<double>(static_cast<int64_t>(received) - oldest.second) / seconds;
  if (rate >= static_cast<double>(limits.floor_bytes_per_second)) return 0;
  sink->too_slow = true;
  sink->failure = "too slow: under " + std::to_string(limits.floor_bytes_per_second) +
                  " bytes/s over " + std::to_string(limits.floor_window_milliseconds / 1000) + " s";
  return 1;
}

void Configure(CURL* curl, Sink* sink, curl_slist* headers, char* error_buffer) {
  curl_easy_setopt(curl, CURLOPT_URL, sink->url.c_str());
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kMaxRedirects);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMs);
  if (sink->limits.max_milliseconds > 0) {
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS,
                     static_cast<long>(  // NOLINT(runtime/int)
                         sink->limits.max_milliseconds));
  }
  if (sink->limits.max_bytes > 0) {
    curl_easy_setopt(curl, CURLOPT_MAXFILESIZE_LARGE,
                     static_cast<curl_off_t>(sink->limits.max_bytes));
  }
  // Error answers end the transfer before their body reaches the file.
  curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, kReceiveBufferBytes);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error_buffer);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, OnHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, sink);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, WriteToFile);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, sink);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, CheckFloor);
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, sink);
  if (sink->asked_from > 0) {
    std::string range = std::to_string(sink->asked_from) + "-";
    curl_easy_setopt(curl, CURLOPT_RANGE, range.c_str());  // copied by curl
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  }
}

// What one attempt came to.
struct Attempt {
  int error = 0;
  bool restart = false;  // ask again from zero
  bool keep = false;     // the partial file can be continued later
};

// Failures after which the bytes kept are still good for a later attempt.
bool KeepsPartial(CURLcode err, long status) {  // NOLINT(runtime/int)
  switch (err) {
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_COULDNT_CONNECT:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_SSL_CONNECT_ERROR:
      return true;
    case CURLE_HTTP_RETURNED_ERROR:
      return status >= 500;
    default:
      return false;
  }
}

Attempt Transfer(Sink* sink, Downloader::StatusInfo* status) {
  Attempt attempt;
  CurlHandle curl = NewCurlHandle();
  if (!curl) {
    attempt.error = CURLE_FAILED_INIT;
    status->error_text = "cannot start a transfer";
    return attempt;
  }
  sink->curl = curl.get();
  char error_buffer[CURL_ERROR_SIZE] = {0};
  curl_slist* headers = nullptr;
  if (sink->asked_from > 0) {
    headers = curl_slist_append(headers, ("If-Range: " + sink->partial->info().validator).c_str());
  }
  Configure(curl.get(), sink, headers, error_buffer);
  CURLcode err = curl_easy_perform(curl.get());
  curl_slist_free_all(headers);

  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status->http_code);
  const char* type = nullptr;
  curl_easy_getinfo(curl.get(), CURLINFO_CONTENT_TYPE, &type);
  status->content_type = type ? type : "";
  if (err == CURLE_OK && sink->verdict == Verdict::kUndecided) Decide(sink);  // no body came

  if (sink->verdict == Verdict::kRestart ||
      (err == CURLE_HTTP_RETURNED_ERROR && status->http_code == 416 && sink->asked_from > 0)) {
    attempt.restart = true;
    status->error_text = sink->failure.empty() ? "range refused" : sink->failure;
    return attempt;
  }
  if (sink->verdict == Verdict::kFailed) {
    attempt.error = CURLE_HTTP_RETURNED_ERROR;
  } else if (sink->too_slow) {
    attempt.error = CURLE_OPERATION_TIMEDOUT;
    attempt.keep = true;
  } else if (sink->too_large || err == CURLE_FILESIZE_EXCEEDED) {
    attempt.error = CURLE_FILESIZE_EXCEEDED;
    if (sink->failure.empty()) {
      sink->failure = "larger than " + std::to_string(sink->limits.max_bytes) + " bytes";
    }
  } else if (err != CURLE_OK) {
    attempt.error = err;
    attempt.keep = KeepsPartial(err, status->http_code);
  } else if (sink->size == 0) {
    attempt.error = CURLE_HTTP_RETURNED_ERROR;
    sink->failure = "an empty answer instead of the file";
  } else if (sink->total > 0 && sink->size != sink->total) {
    attempt.error = CURLE_PARTIAL_FILE;
    attempt.keep = sink->size < sink->total;
    sink->failure =
        "got " + std::to_string(sink->size) + " of " + std::to_string(sink->total) + " bytes";
  }
  if (attempt.error != 0) {
    if (!sink->failure.empty()) {
      status->error_text = sink->failure;
    } else {
      status->error_text = error_buffer[0] ? error_buffer : curl_easy_strerror(err);
    }
    status->too_slow = sink->too_slow;
    status->too_large = attempt.error == CURLE_FILESIZE_EXCEEDED;
    status->timed_out = err == CURLE_OPERATION_TIMEDOUT && !sink->too_slow;
  }
  return attempt;
}

// Downloads into the partial file beside the target and renames it into place when whole.
int Fetch(const std::string& url, const std::string& file_path,
          const std::function<void(int)>& progress, const Downloader::Limits& limits,
          Counters counters, Downloader::StatusInfo* status) {
  std::string target = vistrel_host::ResolveDevicePath(file_path);
  size_t slash = target.find_last_of('/');
  std::string folder = slash == std::string::npos ? "." : target.substr(0, slash);
  std::string name = target.substr(slash + 1);
  if (folder.empty()) folder = "/";
  if (name.empty() || name == "." || name == "..") {
    status->error_text = "no file name";
    return CURLE_WRITE_ERROR;
  }
  if (name.size() > kMaxNameBytes) {
    status->name_too_long = true;
    status->error_text = "the file name has " + std::to_string(name.size()) +
                         " bytes, more than the " + std::to_string(kMaxNameBytes) +
                         " a folder entry takes";
    return CURLE_WRITE_ERROR;
  }
  if (!vistrel_host::MakeFolders(folder)) {
    status->error_text = "cannot make the folder";
    return CURLE_WRITE_ERROR;
  }

  PartialFile partial(folder, name);
  if (!partial.Open(url, &status->error_text)) return CURLE_WRITE_ERROR;
  Attempt attempt;
  Sink sink;
  for (int round = 0; round < 2; ++round) {
    sink = Sink();
    sink.partial = &partial;
    sink.url = url;
    sink.name = name;
    sink.asked_from = partial.resume_from();
    sink.size = partial.resume_from();
    sink.written_back = partial.resume_from();  // an earlier attempt handed those to the disk
    sink.total = partial.info().total;
    sink.limits = limits;
    sink.counters = counters;
    sink.progress = &progress;
    counters.SetTotal(sink.total);
    counters.SetDone(sink.size);
    attempt = Transfer(&sink, status);
    if (!attempt.restart) break;
    if (round == 0 && !partial.Restart()) break;
    if (round == 1) attempt.error = CURLE_RANGE_ERROR;  // refused a request without a range
  }
  status->bytes = sink.size;
  status->total = sink.total;
  status->resumed_from = sink.resumed_from;
  if (attempt.error != 0) {
    if (attempt.keep) {
      status->kept = partial.Keep();
    } else {
      partial.Discard();
    }
    return attempt.error;
  }
  if (!partial.Commit(target, &status->error_text)) return CURLE_WRITE_ERROR;
  status->error_text.clear();
  if (progress) progress(100);
  return 0;
}

// The event log takes one line per event, fields split by tabs.
std::string Field(const std::string& text) {
  std::string clean = text;
  for (char& c : clean) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
  }
  return clean;
}

void LogDownload(const Downloader::StatusInfo& status, const std::string& file_path) {
  vistrel_host::AppendEvent("download\t" + std::string(status.error == 0 ? "ok" : "failed") + "\t" +
                            std::to_string(status.http_code) + "\t" + std::to_string(status.bytes) +
                            "\t" + std::to_string(status.total) + "\t" +
                            std::to_string(status.resumed_from) + "\t" +
                            Field(status.content_type) + "\t" + Field(file_path) + "\t" +
                            Field(status.url) + "\t" + Field(status.error_text));
}

std::mutex& LastLock() {
  static std::mutex lock;
  return lock;
}

Downloader::StatusInfo& Last() {
  static Downloader::StatusInfo last;
  return last;
}

}  // namespace

Downloader::Downloader() = default;

Downloader::~Downloader() = default;

int Downloader::Download(const std::string& url, const std::string& file_path,
                         const std::function<void(int)>& progress) {
  Counters counters{&total_, &done_};
  counters.SetTotal(0);
  counters.SetDone(0);
  active_.store(true);
  g_running_active.store(true);
  StatusInfo status;
  status.url = url;
  status.error = Fetch(url, file_path, progress, limits_, counters, &status);
  if (status.error == 0) status.file_path = file_path;
  active_.store(false);
  g_running_active.store(false);
  LogDownload(status, file_path);
  {
    std::lock_guard<std::mutex> guard(LastLock());
    Last() = status;
  }
  std::lock_guard<std::mutex> guard(status_lock_);
  status_ = status;
  return status.error;
}

void Downloader::SetLimits(const Limits& limits) { limits_ = limits; }

void Downloader::GetProgress(bool* active, int64_t* total, int64_t* done) const {
  if (active) *active = active_.load();
  if (total) *total = total_.load();
  if (done) *done = done_.load();
}

Downloader::StatusInfo Downloader::GetStatusInfo() const {
  std::lock_guard<std::mutex> guard(status_lock_);
  return status_;
}

void Downloader::GetRunningProgress(bool* active, int64_t* total, int64_t* done) {
  if (active) *active = g_running_active.load();
  if (total) *total = g_running_total.load();
  if (done) *done = g_running_done.load();
}

Downloader::StatusInfo Downloader::LastStatus() {
  std::lock_guard<std::mutex> guard(LastLock());
  return Last();
}

void Downloader::NoteRefusedType(const std::string& content_type) {
  std::lock_guard<std::mutex> guard(LastLock());
  Last().refused_type = content_type;
}

int Downloader::RemoveStalePartials(const std::string& folder,
                                    const std::function<bool(const std::string&)>& wanted,
                                    int64_t max_age_seconds) {
  return PartialFile::RemoveStale(vistrel_host::ResolveDevicePath(folder), wanted, max_age_seconds);
}

}  // namespace utilities
}  // namespace norbel
