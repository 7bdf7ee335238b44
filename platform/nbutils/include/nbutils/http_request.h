// HTTP requests of the device utilities: a request description and a runner that performs
// it over libcurl.
#ifndef NBUTILS_HTTP_REQUEST_H_
#define NBUTILS_HTTP_REQUEST_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace norbel {
namespace utilities {

// An HTTP request: method, full address, and ordered lists of form fields and headers.
class HttpRequest {
 public:
  HttpRequest(const std::string& method, const std::string& url);

  // Appends one form field; fields are sent in the order added, url-encoded.
  void AddPostParam(const std::string& name, const std::string& value);
  void AddPostParam(const std::string& name, int value);
  void AddHeader(const std::string& name, const std::string& value);

  const std::string& method() const { return method_; }
  const std::string& url() const { return url_; }
  const std::vector<std::pair<std::string, std::string>>& post_params() const {
    return post_params_;
  }
  const std::vector<std::pair<std::string, std::string>>& headers() const { return headers_; }

 private:
  std::string method_;
  std::string url_;
  std::vector<std::pair<std::string, std::string>> post_params_;
  std::vector<std::pair<std::string, std::string>> headers_;
};

// Performs requests. Redirects are not followed: a 3xx answer comes back with its status.
// TLS peers and host names are verified.
class HttpRequestRunner {
 public:
  // Answers larger than this are a transfer failure, so that a hostile server cannot exhaust
  // the device's memory.
  static constexpr size_t kMaxBodyBytes = 32u << 20;

  HttpRequestRunner();
  ~HttpRequestRunner() = default;
  HttpRequestRunner(const HttpRequestRunner&) = delete;
  HttpRequestRunner& operator=(const HttpRequestRunner&) = delete;

  // Performs `request`; `limit` is the time limit of the whole transfer in seconds (the
  // connection itself must be made within a third of it, at most 10 s). Stores the HTTP status
  // and the whole answer body. Returns 0 on success and a non-zero curl error code on any
  // transfer failure (refused, reset, time-out, TLS, body over kMaxBodyBytes).
  int PerformRequest(const HttpRequest& request, long* http_code, std::vector<char>* body,
                     unsigned int limit);
  // As above, and also stores the answer's header fields (name as sent, value trimmed) in
  // `response_headers` when it is not null; for reading a redirect's Location.
  int PerformRequest(const HttpRequest& request, long* http_code, std::vector<char>* body,
                     unsigned int limit,
                     std::vector<std::pair<std::string, std::string>>* response_headers);

 private:
  // The transfer itself; also reports the status seen, whether the body outgrew the cap, and
  // curl's text for a failure.
  static int Perform(const HttpRequest& request, long* http_code, std::vector<char>* body,
                     unsigned int limit,
                     std::vector<std::pair<std::string, std::string>>* response_headers,
                     long* status_seen, bool* too_large, std::string* error_text);
};

// Reading an answer that came back unfollowed: true for the statuses that carry a Location to
// follow (301, 302, 303, 307, 308).
bool IsRedirectStatus(long http_code);
// The value of the first answer header called `name` (any case); "" when there is none.
std::string FindHeader(const std::vector<std::pair<std::string, std::string>>& headers,
                       const char* name);

// What became of one transfer, for diagnostics. An addition of the host stand-in: the
// library's calls report only success or failure, so a client that wants to tell the user which
// address failed and how reads it here.
struct TransferOutcome {
  std::string method;
  std::string url;
  long http_code = 0;      // 0 when no answer arrived
  int curl_code = 0;       // 0 when the transfer completed
  std::string error_kind;  // "" on success, else a short word: "connection refused",
                           // "timeout", "TLS", "DNS", "answer too large", "connection dropped",
                           // "bad address" or "transfer failed"
  std::string error_text;  // curl's own explanation; "" on success
  int64_t elapsed_ms = 0;  // from the start of the transfer to its end
  // True when the transfer completed with HTTP status 200.
  bool ok() const { return curl_code == 0 && http_code == 200; }
  // One line for people: "refused (Failed to connect ...)", "HTTP status 500", "200".
  std::string Describe() const;
};

// The outcome of the last transfer that any runner of this process finished (an empty
// outcome before the first one).
TransferOutcome LastTransferOutcome();

// Calls `observer` after every transfer of every runner, on the thread that ran it, with that
// transfer's outcome; an empty function removes it. The observer must not throw and must not
// start transfers itself.
void SetTransferObserver(std::function<void(const TransferOutcome&)> observer);

namespace testing {
// Replaces every runner's time limit by `limit` (zero restores the caller's limit). For tests
// that need a stalled server to time out quickly; never used by the library.
void SetRequestTimeLimitOverride(std::chrono::milliseconds limit);
}  // namespace testing

}  // namespace utilities
}  // namespace norbel

#endif  // NBUTILS_HTTP_REQUEST_H_
