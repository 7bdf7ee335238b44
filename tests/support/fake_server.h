// A scriptable HTTP server on 127.0.0.1 for tests: plays the shop, the configuration server
// and file hosts. Every request is recorded with its form fields in the order sent.
#ifndef TESTS_SUPPORT_FAKE_SERVER_H_
#define TESTS_SUPPORT_FAKE_SERVER_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace httplib {
class Server;
}

namespace vistrel_test {

using Fields = std::vector<std::pair<std::string, std::string>>;

struct RecordedRequest {
  std::string method;
  std::string path;
  std::string query;  // raw, without "?"
  Fields form;        // url-decoded form fields of the body, in order
  std::string body;
  std::string Field(const std::string& name) const;
};

struct Reply {
  int status = 200;
  std::string body;
  std::string content_type = "application/json";
  Fields headers;
  std::chrono::milliseconds delay{0};  // before answering
  bool drop_mid_body = false;          // send half the body, then close the connection
  // When not 0: instead of `body`, a body of this many bytes (GeneratedByte of each offset)
  // made while it is sent, in chunks of `chunk_bytes` with `chunk_pause` between them, so
  // that the server holds no more than one chunk however large the body is.
  uint64_t generated_bytes = 0;
  size_t chunk_bytes = 64 * 1024;
  std::chrono::milliseconds chunk_pause{0};
  bool chunked = false;  // send the generated body in chunked encoding, without a length
};

// The byte at `offset` of a generated body; differs between nearby offsets, so that lost,
// repeated or shifted data shows.
unsigned char GeneratedByte(uint64_t offset);

// A reply of `body` with `status` and `content_type`.
Reply Answer(const std::string& body, int status = 200,
             const std::string& content_type = "application/json");
// A `status` reply (a redirect when 3xx) whose Location is `location`.
Reply Redirect(int status, const std::string& location, const std::string& body = "");

// {"error": false, "response": <response>} as the shop answers.
std::string ShopOk(const std::string& response_json);
// {"error": true, "response": {"errorMsg": <message>}}.
std::string ShopError(const std::string& message);

class FakeServer {
 public:
  using Handler = std::function<Reply(const RecordedRequest&)>;

  // Starts listening on a port that the OS picks.
  FakeServer();
  ~FakeServer();
  FakeServer(const FakeServer&) = delete;
  FakeServer& operator=(const FakeServer&) = delete;

  int port() const { return port_; }
  // "http://127.0.0.1:<port>"
  std::string base_url() const;

  // Answers every request for `path` (any method) with `reply`, or by calling `handler`.
  // Unscripted paths answer 404.
  void Set(const std::string& path, Reply reply);
  void Set(const std::string& path, Handler handler);

  std::vector<RecordedRequest> requests() const;
  std::vector<RecordedRequest> requests(const std::string& path) const;
  void ClearRequests();

 private:
  void Handle(const std::string& method, const void* request, void* response);

  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  int port_ = 0;
  mutable std::mutex lock_;
  std::vector<std::pair<std::string, Handler>> routes_;
  std::vector<RecordedRequest> requests_;
};

}  // namespace vistrel_test

#endif  // TESTS_SUPPORT_FAKE_SERVER_H_
