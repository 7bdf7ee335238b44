#include "stream_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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

// The request line's path; the rest of the head is read and ignored.
std::string ReadPath(int fd) {
  std::string head;
  char buffer[4096];
  while (head.find("\r\n\r\n") == std::string::npos && head.size() < 65536) {
    ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return std::string();
    head.append(buffer, static_cast<size_t>(n));
  }
  size_t start = head.find(' ');
  size_t end = start == std::string::npos ? start : head.find(' ', start + 1);
  if (end == std::string::npos) return std::string();
  return head.substr(start + 1, end - start - 1);
}

void Serve(int fd) {
  std::string path = ReadPath(fd);
  bool paced = path.rfind("/paced/", 0) == 0;
  if (!paced && path.rfind("/bytes/", 0) != 0) {
    const char kNotFound[] = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n";
    SendAll(fd, kNotFound, sizeof(kNotFound) - 1);
    return;
  }
  uint64_t size = std::strtoull(path.c_str() + 7, nullptr, 10);
  std::string head = "HTTP/1.1 200 OK\r\nContent-Type: application/pdf\r\nContent-Length: " +
                     std::to_string(size) + "\r\nConnection: close\r\n\r\n";
  if (!SendAll(fd, head.data(), head.size())) return;
  std::vector<char> buffer(kBufferBytes);
  for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = static_cast<char>(i * 31 + 7);
  size_t chunk = paced ? kPacedChunk : kBufferBytes;
  for (uint64_t sent = 0; sent < size;) {
    size_t n = static_cast<size_t>(std::min<uint64_t>(chunk, size - sent));
    if (!SendAll(fd, buffer.data(), n)) return;
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
