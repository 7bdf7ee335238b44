#include "nbutils/http_request.h"

#include <curl/curl.h>
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <memory>
#include <mutex>

#include "curl_handle.h"

namespace norbel {
namespace utilities {
namespace {

std::atomic<int64_t> g_limit_override_ms{0};

// The last outcome and the observer, shared by every runner of the process.
std::mutex g_outcome_lock;
TransferOutcome g_last_outcome;
std::function<void(const TransferOutcome&)> g_observer;

std::string ErrorKind(CURLcode err, bool too_large) {
  switch (err) {
    case CURLE_OK:
      return "";
    case CURLE_COULDNT_CONNECT:
      return "connection refused";
    case CURLE_OPERATION_TIMEDOUT:
      return "timeout";
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return "DNS";
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_USE_SSL_FAILED:
      return "TLS";
    case CURLE_FILESIZE_EXCEEDED:
      return "answer too large";
    case CURLE_WRITE_ERROR:
      return too_large ? "answer too large" : "transfer failed";
    case CURLE_GOT_NOTHING:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_PARTIAL_FILE:
      return "connection dropped";
    case CURLE_URL_MALFORMAT:
    case CURLE_UNSUPPORTED_PROTOCOL:
      return "bad address";
    default:
      return "transfer failed";
  }
}

// Keeps `outcome` as the last one and hands it to the observer, outside the lock so that the
// observer may read LastTransferOutcome().
void Publish(const TransferOutcome& outcome) {
  std::function<void(const TransferOutcome&)> observer;
  {
    std::lock_guard<std::mutex> hold(g_outcome_lock);
    g_last_outcome = outcome;
    observer = g_observer;
  }
  if (observer) observer(outcome);
}

struct SlistDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

struct BodySink {
  std::vector<char>* body;
  bool too_large = false;
};

size_t WriteBody(char* data, size_t size, size_t count, void* user) {
  auto* sink = static_cast<BodySink*>(user);
  size_t bytes = size * count;
  if (sink->body->size() + bytes > HttpRequestRunner::kMaxBodyBytes) {
    sink->too_large = true;
    return 0;  // makes curl fail the transfer with CURLE_WRITE_ERROR
  }
  // Grows by doubling, but never past the cap: a body near it then costs the cap and one
  // smaller old buffer at most, not twice its size.
  size_t needed = sink->body->size() + bytes;
  if (needed > sink->body->capacity()) {
    sink->body->reserve(
        std::min(std::max(needed, 2 * sink->body->capacity()), HttpRequestRunner::kMaxBodyBytes));
  }
  sink->body->insert(sink->body->end(), data, data + bytes);
  return bytes;
}

std::string Escape(CURL* curl, const std::string& text) {
  char* escaped = curl_easy_escape(curl, text.data(), static_cast<int>(text.size()));
  if (escaped == nullptr) return std::string();
  std::string result(escaped);
  curl_free(escaped);
  return result;
}

std::string FormBody(CURL* curl, const HttpRequest& request) {
  std::string form;
  for (const auto& [name, value] : request.post_params()) {
    if (!form.empty()) form += '&';
    form += Escape(curl, name);
    form += '=';
    form += Escape(curl, value);
  }
  return form;
}

// The header fields of the last answer that curl received (curl trims the values).
void CollectHeaders(CURL* curl, std::vector<std::pair<std::string, std::string>>* headers) {
  curl_header* previous = nullptr;
  while (curl_header* field = curl_easy_nextheader(curl, CURLH_HEADER, -1, previous)) {
    headers->emplace_back(field->name ? field->name : "", field->value ? field->value : "");
    previous = field;
  }
}

}  // namespace

HttpRequest::HttpRequest(const std::string& method, const std::string& url)
    : method_(method), url_(url) {}

void HttpRequest::AddPostParam(const std::string& name, const std::string& value) {
  post_params_.emplace_back(name, value);
}

void HttpRequest::AddPostParam(const std::string& name, int value) {
  post_params_.emplace_back(name, std::to_string(value));
}

void HttpRequest::AddHeader(const std::string& name, const std::string& value) {
  headers_.emplace_back(name, value);
}

std::string TransferOutcome::Describe() const {
  if (curl_code != 0) {
    return error_text.empty() || error_text == error_kind ? error_kind
                                                          : error_kind + " (" + error_text + ")";
  }
  if (http_code != 200) return "HTTP status " + std::to_string(http_code);
  return "200";
}

TransferOutcome LastTransferOutcome() {
  std::lock_guard<std::mutex> hold(g_outcome_lock);
  return g_last_outcome;
}

void SetTransferObserver(std::function<void(const TransferOutcome&)> observer) {
  std::lock_guard<std::mutex> hold(g_outcome_lock);
  g_observer = std::move(observer);
}

HttpRequestRunner::HttpRequestRunner() = default;

int HttpRequestRunner::PerformRequest(const HttpRequest& request, long* http_code,
                                      std::vector<char>* body, unsigned int limit) {
  return PerformRequest(request, http_code, body, limit, nullptr);
}

int HttpRequestRunner::PerformRequest(
    const HttpRequest& request, long* http_code, std::vector<char>* body, unsigned int limit,
    std::vector<std::pair<std::string, std::string>>* response_headers) {
  if (response_headers) response_headers->clear();
  TransferOutcome outcome;
  outcome.method = request.method();
  outcome.url = request.url();
  const auto started = std::chrono::steady_clock::now();
  bool too_large = false;
  const int err = Perform(request, http_code, body, limit, response_headers, &outcome.http_code,
                          &too_large, &outcome.error_text);
  outcome.curl_code = err;
  outcome.error_kind = ErrorKind(static_cast<CURLcode>(err), too_large);
  outcome.elapsed_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                           std::chrono::steady_clock::now() - started)
                           .count();
  Publish(outcome);
  return err;
}

int HttpRequestRunner::Perform(const HttpRequest& request, long* http_code, std::vector<char>* body,
                               unsigned int limit,
                               std::vector<std::pair<std::string, std::string>>* response_headers,
                               long* status_seen, bool* too_large, std::string* error_text) {
  char error_buffer[CURL_ERROR_SIZE] = {0};  // outlives the handle that writes to it
  CurlHandle curl = NewCurlHandle();
  if (!curl) return CURLE_FAILED_INIT;
  CURL* c = curl.get();
  curl_easy_setopt(c, CURLOPT_ERRORBUFFER, error_buffer);

  int64_t limit_ms = g_limit_override_ms.load();
  if (limit_ms <= 0) limit_ms = static_cast<int64_t>(limit) * 1000;
  // curl takes a long, 32 bits on the device: a longer limit would wrap negative.
  limit_ms = std::min<int64_t>(limit_ms, std::numeric_limits<long>::max());
  int64_t connect_ms = std::clamp<int64_t>(limit_ms / 3, 1, 10000);

  curl_easy_setopt(c, CURLOPT_URL, request.url().c_str());
  curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, static_cast<long>(limit_ms));
  curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(connect_ms));
  curl_easy_setopt(c, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(c, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(kMaxBodyBytes));

  std::string form;
  if (request.method() == "GET") {
    curl_easy_setopt(c, CURLOPT_HTTPGET, 1L);
  } else {
    form = FormBody(c, request);
    curl_easy_setopt(c, CURLOPT_POST, 1L);
    curl_easy_setopt(c, CURLOPT_POSTFIELDS, form.c_str());
    curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(form.size()));
    if (request.method() != "POST") {
      curl_easy_setopt(c, CURLOPT_CUSTOMREQUEST, request.method().c_str());
    }
  }

  std::unique_ptr<curl_slist, SlistDeleter> headers;
  for (const auto& [name, value] : request.headers()) {
    std::string line = name;
    line += ": ";
    line += value;
    curl_slist* longer = curl_slist_append(headers.get(), line.c_str());
    if (longer == nullptr) return CURLE_OUT_OF_MEMORY;
    if (longer != headers.get()) headers.reset(longer);  // the first entry starts the list
  }
  if (headers) curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());

  std::vector<char> received;
  BodySink sink{&received};
  curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, WriteBody);
  curl_easy_setopt(c, CURLOPT_WRITEDATA, &sink);

  CURLcode err = curl_easy_perform(c);
  long status = 0;
  curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
  if (http_code) *http_code = status;
  *status_seen = status;
  *too_large = sink.too_large;
  if (err != CURLE_OK) {
    *error_text = error_buffer[0] != '\0' ? error_buffer : curl_easy_strerror(err);
    if (body) body->clear();
    return static_cast<int>(err);
  }
  if (body) body->swap(received);
  if (response_headers) CollectHeaders(c, response_headers);
  return 0;
}

namespace testing {

void SetRequestTimeLimitOverride(std::chrono::milliseconds limit) {
  g_limit_override_ms.store(limit.count());
}

}  // namespace testing
bool IsRedirectStatus(long http_code) {
  return http_code == 301 || http_code == 302 || http_code == 303 || http_code == 307 ||
         http_code == 308;
}

std::string FindHeader(const std::vector<std::pair<std::string, std::string>>& headers,
                       const char* name) {
  for (const auto& [field, value] : headers) {
    if (strcasecmp(field.c_str(), name) == 0) return value;
  }
  return std::string();
}

}  // namespace utilities
}  // namespace norbel
