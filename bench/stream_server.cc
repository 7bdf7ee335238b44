#include "stream_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace vistrel_bench {
namespace {

constexpr size_t kBufferBytes = 1 << 20;
constexpr size_t kPacedChunk = 16 << 10;
constexpr useconds_t kPacedPause = 20000;
constexpr char kEtag[] = "\"bench\"";

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

// The request's path and the start of its "Range: bytes=<from>-" (0 without one, or when its
// If-Range is not the one validator this server has).
struct Head {
  std::string path;
  uint64_t from = 0;
};

Head ReadHead(int fd) {
  std::string head;
  char buffer[4096];
  while (head.find("\r\n\r\n") == std::string::npos && head.size() < 65536) {
    ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return Head();
    head.append(buffer, static_cast<size_t>(n));
  }
  Head result;
  size_t start = head.find(' ');
  size_t end = start == std::string::npos ? start : head.find(' ', start + 1);
  if (end == std::string::npos) return result;
  result.path = head.substr(start + 1, end - start - 1);
  for (char& c : head) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  size_t range = head.find("\r\nrange: bytes=");
  size_t if_range = head.find("\r\nif-range: ");
  bool matches = if_range == std::string::npos || head.compare(if_range + 12, 7, kEtag) == 0;
  if (range != std::string::npos && matches) {
    result.from = std::strtoull(head.c_str() + range + 15, nullptr, 10);
  }
  return result;
}

void Serve(int fd) {
  Head request = ReadHead(fd);
  const std::string& path = request.path;
  bool paced = path.rfind("/paced/", 0) == 0;
  if (!paced && path.rfind("/bytes/", 0) != 0) {
    const char kNotFound[] = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n";
    SendAll(fd, kNotFound, sizeof(kNotFound) - 1);
    return;
  }
  uint64_t size = std::strtoull(path.c_str() + 7, nullptr, 10);
  uint64_t from = request.from < size ? request.from : 0;
  std::string head =
      std::string(from > 0 ? "HTTP/1.1 206 Partial Content\r\n" : "HTTP/1.1 200 OK\r\n") +
      "Content-Type: application/pdf\r\nETag: " + kEtag +
      "\r\nContent-Length: " + std::to_string(size - from) + "\r\n";
  if (from > 0) {
    head += "Content-Range: bytes " + std::to_string(from) + "-" + std::to_string(size - 1) + "/" +
            std::to_string(size) + "\r\n";
  }
  head += "Connection: close\r\n\r\n";
  if (!SendAll(fd, head.data(), head.size())) return;
  // The body repeats every buffer, so that any offset has the same byte in every answer.
  std::vector<char> buffer(2 * kBufferBytes);
  for (size_t i = 0; i < buffer.size(); ++i)
    buffer[i] = static_cast<char>((i % kBufferBytes) * 31 + 7);
  size_t chunk = paced ? kPacedChunk : kBufferBytes;
  for (uint64_t sent = from; sent < size;) {
    size_t n = static_cast<size_t>(std::min<uint64_t>(chunk, size - sent));
    if (!SendAll(fd, buffer.data() + sent % kBufferBytes, n)) return;
    sent += n;
    if (paced) usleep(kPacedPause);
  }
}

[[noreturn]] void AcceptLoop(int listener) {
  signal(SIGCHLD, SIG_IGN);  // connection processes are reaped by the kernel
  for (;;) {
    int fd = accept(listener, nullptr, nullptr);
    if (fd < 0) continue;
    if (fork() == 0) {
      close(listener);
      Serve(fd);
      shutdown(fd, SHUT_WR);
      close(fd);
      _exit(0);
    }
    close(fd);
  }
}

}  // namespace

bool StreamServer::Start() {
  int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener, 64) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    close(listener);
    return false;
  }
  port_ = ntohs(address.sin_port);
  pid_ = fork();
  if (pid_ == 0) {
    setpgid(0, 0);
    AcceptLoop(listener);
  }
  setpgid(pid_, pid_);  // also here, so that Stop() cannot race the child's own call
  close(listener);
  return pid_ > 0;
}

void StreamServer::Stop() {
  if (pid_ <= 0) return;
  kill(-pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

std::string StreamServer::base_url() const { return "http://127.0.0.1:" + std::to_string(port_); }

}  // namespace vistrel_bench
