// The whole request frame fed arbitrary HTTP answers. A raw TCP server on a loopback port
// that the OS picks answers every request with the input bytes as they are (status line,
// headers, body), so malformed HTTP reaches curl; then the shop calls and the configuration
// call run against it.
#include <arpa/inet.h>
#include <json/value.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include "fuzz_support.h"
#include "vistrel_store/server_api.h"

namespace {

class RawServer {
 public:
  // Listens on 127.0.0.1; aborts when it cannot, since no input could then be tried.
  RawServer() {
    listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(listen_fd_, 16) != 0 ||
        getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      std::perror("loopback server");
      std::abort();
    }
    port_ = ntohs(address.sin_port);
    std::thread([this] { Serve(); }).detach();
  }

  int port() const { return port_; }

  void SetAnswer(std::string answer) {
    std::lock_guard<std::mutex> guard(lock_);
    answer_ = std::move(answer);
  }

 private:
  void Serve() {
    for (;;) {
      int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) {
        if (errno == EINTR || errno == ECONNABORTED) continue;
        std::perror("accept");
        std::abort();
      }
      timeval limit{2, 0};  // a client that stalls cannot stop the server
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
      setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
      ReadRequest(fd);
      std::string answer;
      {
        std::lock_guard<std::mutex> guard(lock_);
        answer = answer_;
      }
      SendAll(fd, answer);
      // Closing with unread bytes would reset the connection and lose the answer, so the
      // server ends its side and waits for the client to close.
      shutdown(fd, SHUT_WR);
      char buffer[4096];
      while (recv(fd, buffer, sizeof(buffer), 0) > 0) {
      }
      close(fd);
    }
  }

  // Reads the header block and as many body bytes as Content-Length announces.
  static void ReadRequest(int fd) {
    std::string request;
    char buffer[4096];
    size_t header_end = std::string::npos;
    size_t body_length = 0;
    for (;;) {
      if (header_end != std::string::npos && request.size() >= header_end + 4 + body_length) {
        return;
      }
      ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
      if (n <= 0) return;
      request.append(buffer, static_cast<size_t>(n));
      if (header_end == std::string::npos) {
        header_end = request.find("\r\n\r\n");
        if (header_end != std::string::npos) body_length = ContentLength(request, header_end);
      }
    }
  }

  static size_t ContentLength(const std::string& request, size_t header_end) {
    const std::string name = "\r\ncontent-length:";
    std::string headers = request.substr(0, header_end);
    for (char& c : headers) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    size_t found = headers.find(name);
    if (found == std::string::npos) return 0;
    return std::strtoul(headers.c_str() + found + name.size(), nullptr, 10);
  }

  static void SendAll(int fd, const std::string& data) {
    size_t sent = 0;
    while (sent < data.size()) {
      ssize_t n = send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return;
      sent += static_cast<size_t>(n);
    }
  }

  int listen_fd_ = -1;
  int port_ = 0;
  std::mutex lock_;
  std::string answer_;
};

// Lives for the whole process: its thread waits in accept until exit.
RawServer* g_server = nullptr;

template <typename Call>
void Run(Call call) {
  try {
    call();
  } catch (const Json::LogicError&) {
    // An answer whose root or "response" has the wrong kind: the documented conversion error.
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  vistrel_fuzz::UsePrivateDevice();
  g_server = new RawServer;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  g_server->SetAnswer(std::string(reinterpret_cast<const char*>(data), size));
  std::string base = "http://127.0.0.1:" + std::to_string(g_server->port());

  norbel::vistrel::ServerApi api;
  api.config_.clientShopWebserviceUrl = base + "/ws";
  api.config_.clientID = "fuzz";
  Run([&] { api.LogIn("reader@example.org", "secret"); });
  api.session_id_ = "session";
  Run([&] { api.GetCart(); });
  Run([&] { api.GetUserEbook(); });
  Run([&] { api.CheckOrder(42); });
  Run([&] { api.CommitOrder(42); });
  Run([&] { api.GetLanguages(); });
  Run([&] { api.CallSwitchboard(base + "/norbel/config/PB0000000001"); });
  return 0;
}
