#include "support/file_host.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>

namespace vistrel_test {
namespace {

bool SendAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string Trim(const std::string& text) {
  size_t begin = text.find_first_not_of(" \t");
  size_t end = text.find_last_not_of(" \t\r");
  return begin == std::string::npos ? std::string() : text.substr(begin, end - begin + 1);
}

FileRequest ParseHead(const std::string& head) {
  FileRequest request;
  size_t line_end = head.find("\r\n");
  std::string first = head.substr(0, line_end);
  size_t a = first.find(' ');
  size_t b = first.find(' ', a + 1);
  if (a != std::string::npos && b != std::string::npos)
    request.path = first.substr(a + 1, b - a - 1);
  size_t pos = line_end + 2;
  while (pos < head.size()) {
    size_t end = head.find("\r\n", pos);
    if (end == std::string::npos || end == pos) break;
    std::string line = head.substr(pos, end - pos);
    size_t colon = line.find(':');
    if (colon != std::string::npos) {
      request.headers.emplace_back(Lower(line.substr(0, colon)), Trim(line.substr(colon + 1)));
    }
    pos = end + 2;
  }
  return request;
}

}  // namespace

std::string FileRequest::Header(const std::string& name) const {
  for (const auto& [key, value] : headers) {
    if (key == name) return value;
  }
  return std::string();
}

FileAnswer ServeFile(const FileRequest& request, const std::string& content,
                     const std::string& etag, const std::string& last_modified) {
  FileAnswer answer;
  answer.headers = {{"Content-Type", "application/pdf"}, {"Accept-Ranges", "bytes"}};
  if (!etag.empty()) answer.headers.emplace_back("ETag", etag);
  if (!last_modified.empty()) answer.headers.emplace_back("Last-Modified", last_modified);
  const std::string range = request.Header("range");
  const std::string if_range = request.Header("if-range");
  const bool matches = if_range.empty() || (!etag.empty() && if_range == etag) ||
                       (!last_modified.empty() && if_range == last_modified);
  if (range.rfind("bytes=", 0) != 0 || range.back() != '-' || !matches) {
    answer.body = content;
    return answer;
  }
  const size_t from = std::strtoull(range.c_str() + 6, nullptr, 10);
  if (from >= content.size()) {
    answer.status = 416;
    answer.headers.emplace_back("Content-Range", "bytes */" + std::to_string(content.size()));
    return answer;
  }
  answer.status = 206;
  answer.headers.emplace_back("Content-Range", "bytes " + std::to_string(from) + "-" +
                                                   std::to_string(content.size() - 1) + "/" +
                                                   std::to_string(content.size()));
  answer.body = content.substr(from);
  return answer;
}

FileHost::FileHost(Handler handler) : handler_(std::move(handler)) {
  listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      listen(listen_fd_, 16) != 0 ||
      getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("file host cannot listen");
  }
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { AcceptLoop(); });
}

FileHost::~FileHost() {
  stopping_ = true;
  acceptor_.join();
  close(listen_fd_);
  std::vector<std::thread> connections;
  {
    std::lock_guard<std::mutex> guard(lock_);
    connections.swap(connections_);
  }
  for (std::thread& connection : connections) connection.join();
}

std::string FileHost::Url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

void FileHost::SetHandler(Handler handler) {
  std::lock_guard<std::mutex> guard(lock_);
  handler_ = std::move(handler);
}

std::vector<FileRequest> FileHost::requests() const {
  std::lock_guard<std::mutex> guard(lock_);
  return requests_;
}

void FileHost::AcceptLoop() {
  while (!stopping_) {
    pollfd waiting{listen_fd_, POLLIN, 0};
    if (poll(&waiting, 1, 20) <= 0) continue;
    int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    std::lock_guard<std::mutex> guard(lock_);
    connections_.emplace_back([this, fd] {
      Serve(fd);
      close(fd);
    });
  }
}

bool FileHost::Pause(std::chrono::milliseconds time) const {
  auto until = std::chrono::steady_clock::now() + time;
  while (!stopping_ && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return !stopping_;
}

void FileHost::Serve(int fd) {
  std::string head;
  char buffer[4096];
  while (head.find("\r\n\r\n") == std::string::npos && head.size() < 65536) {
    pollfd waiting{fd, POLLIN, 0};
    if (stopping_) return;
    if (poll(&waiting, 1, 20) <= 0) continue;
    ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
    if (n <= 0) return;
    head.append(buffer, static_cast<size_t>(n));
  }
  FileRequest request = ParseHead(head);
  Handler handler;
  {
    std::lock_guard<std::mutex> guard(lock_);
    requests_.push_back(request);
    handler = handler_;
  }
  FileAnswer answer = handler(request);
  std::string out =
      "HTTP/1.1 " + std::to_string(answer.status) + " Answer\r\nConnection: close\r\n";
  for (const auto& [name, value] : answer.headers)
    out.append(name).append(": ").append(value).append("\r\n");
  if (answer.send_length) out += "Content-Length: " + std::to_string(answer.body.size()) + "\r\n";
  out += "\r\n";
  if (!SendAll(fd, out.data(), out.size())) return;
  const size_t end = std::min(answer.stop_after, answer.body.size());
  const size_t piece = answer.piece_bytes > 0 ? answer.piece_bytes : end;
  for (size_t sent = 0; sent < end; sent += piece) {
    if (sent > 0 && !Pause(answer.pause)) return;
    if (!SendAll(fd, answer.body.data() + sent, std::min(piece, end - sent))) return;
  }
  if (answer.hold) Pause(std::chrono::hours(1));
}

}  // namespace vistrel_test
