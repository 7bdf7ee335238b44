// A file host on 127.0.0.1 that answers byte for byte as the test says: any status and
// headers, ranges honoured or not, a body cut off, paced or held, so that downloads can be
// tried against the networks and servers a device meets. One request per connection.
#ifndef TESTS_SUPPORT_FILE_HOST_H_
#define TESTS_SUPPORT_FILE_HOST_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace vistrel_test {

struct FileRequest {
  std::string path;
  std::vector<std::pair<std::string, std::string>> headers;  // names in lower case
  // The value of a header (name in lower case), "" when absent.
  std::string Header(const std::string& name) const;
};

struct FileAnswer {
  int status = 200;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  bool send_length = true;  // a Content-Length of the body
  // Send only this many bytes of the body, then close the connection, or, with `hold`, keep
  // it open without sending until the host stops.
  size_t stop_after = std::string::npos;
  bool hold = false;
  // When not 0, the body goes out in pieces of this size with `pause` between them.
  size_t piece_bytes = 0;
  std::chrono::milliseconds pause{0};
};

// What a server that supports ranges answers for `content`: 200 with the validators given
// (none when empty), or a 206 from the asked offset when If-Range is absent or matches, or 416
// past the end. Only "bytes=<from>-" ranges are understood; others get the whole file.
FileAnswer ServeFile(const FileRequest& request, const std::string& content,
                     const std::string& etag, const std::string& last_modified);

class FileHost {
 public:
  using Handler = std::function<FileAnswer(const FileRequest&)>;

  explicit FileHost(Handler handler);
  ~FileHost();
  FileHost(const FileHost&) = delete;
  FileHost& operator=(const FileHost&) = delete;

  // "http://127.0.0.1:<port>" + path
  std::string Url(const std::string& path) const;
  void SetHandler(Handler handler);
  std::vector<FileRequest> requests() const;

 private:
  void AcceptLoop();
  void Serve(int fd);
  // Sleeps up to `time`; false when the host is stopping.
  bool Pause(std::chrono::milliseconds time) const;

  int listen_fd_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread acceptor_;
  mutable std::mutex lock_;
  Handler handler_;
  std::vector<FileRequest> requests_;
  std::vector<std::thread> connections_;
};

}  // namespace vistrel_test

#endif  // TESTS_SUPPORT_FILE_HOST_H_
