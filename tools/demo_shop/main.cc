// vistrel-demo-shop: runs the demo shop until interrupted.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "demo_shop.h"

namespace {

const char kUsage[] =
    "usage: vistrel-demo-shop [PORT] [options]\n"
    "\n"
    "Serves the demo shop (configuration server, shop web service, payment pages, book files)\n"
    "on 127.0.0.1:PORT (default 0: a free port) until interrupted, and prints its addresses.\n"
    "\n"
    "options:\n"
    "  --delay MS             every answer waits MS milliseconds\n"
    "  --link-delay MS        e-book links appear MS ms after payment (default 1000)\n"
    "  --file-chunk-delay MS  book files are sent in 1 KiB pieces, MS ms apart\n"
    "  --fail PATH=KIND       requests whose path begins with PATH fail; KIND is 500 (HTTP\n"
    "                         status 500), error (the shop refuses) or drop (connection closed\n"
    "                         half-way through the answer); may be repeated\n"
    "  --cancel-payment       the payment pages end at /pay/back (the buyer gives up)\n"
    "  --payment-style STYLE  page (default): a checkout page to fill in a browser;\n"
    "                         redirect: a redirect chain that needs no browser\n"
    "  -h, --help             this text\n";

bool ParseMs(const char* text, std::chrono::milliseconds* out) {
  char* end = nullptr;
  long value = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || value < 0) return false;
  *out = std::chrono::milliseconds(value);
  return true;
}

int Usage(const char* problem) {
  std::fprintf(stderr, "vistrel-demo-shop: %s\n%s", problem, kUsage);
  return 2;
}

// The server's socket shares its port with other sockets that ask to (SO_REUSEPORT), so a
// second shop on a port in use would start and take half the connections. A plain socket
// bound first (without SO_REUSEPORT) finds the port taken. False with errno set when it is in use.
bool PortFree(int port) {
  const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (probe < 0) return false;
  // SO_REUSEADDR only lets it past connections of an earlier run waiting to close.
  const int on = 1;
  setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool bound = bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  const int error = errno;
  close(probe);
  errno = error;
  return bound;
}

}  // namespace

int main(int argc, char** argv) {
  // Block the stop signals before any thread starts, so that only sigwait sees them.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  vistrel_demo::DemoShop shop;
  shop.SetPaymentStyle(vistrel_demo::PaymentStyle::kPage);
  int port = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool has_value = i + 1 < argc;
    std::chrono::milliseconds ms;
    if (arg == "-h" || arg == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--delay" && has_value && ParseMs(argv[i + 1], &ms)) {
      shop.SetAnswerDelay(ms);
      ++i;
    } else if (arg == "--link-delay" && has_value && ParseMs(argv[i + 1], &ms)) {
      shop.SetLinkDelay(ms);
      ++i;
    } else if (arg == "--file-chunk-delay" && has_value && ParseMs(argv[i + 1], &ms)) {
      shop.SetFileChunkDelay(ms);
      ++i;
    } else if (arg == "--payment-style" && has_value &&
               (argv[i + 1] == std::string("page") || argv[i + 1] == std::string("redirect"))) {
      shop.SetPaymentStyle(argv[++i] == std::string("page")
                               ? vistrel_demo::PaymentStyle::kPage
                               : vistrel_demo::PaymentStyle::kRedirect);
    } else if (arg == "--cancel-payment") {
      shop.SetCancelPayment(true);
    } else if (arg == "--fail" && has_value) {
      const std::string rule = argv[++i];
      const size_t equals = rule.rfind('=');
      const std::string kind = equals == std::string::npos ? "" : rule.substr(equals + 1);
      vistrel_demo::Failure failure;
      if (kind == "500") {
        failure = vistrel_demo::Failure::kHttp500;
      } else if (kind == "error") {
        failure = vistrel_demo::Failure::kShopError;
      } else if (kind == "drop") {
        failure = vistrel_demo::Failure::kDrop;
      } else {
        return Usage(("bad --fail rule: " + rule).c_str());
      }
      shop.SetFailure(rule.substr(0, equals), failure);
    } else if (!arg.empty() && arg.find_first_not_of("0123456789") == std::string::npos &&
               arg.size() < 6 && std::stoi(arg) < 65536) {
      port = std::stoi(arg);
    } else {
      return Usage(("bad argument: " + arg).c_str());
    }
  }

  if ((port != 0 && !PortFree(port)) || !shop.Start(port)) {
    std::fprintf(stderr, "vistrel-demo-shop: cannot listen on 127.0.0.1:%d: %s\n", port,
                 std::strerror(errno));
    return 1;
  }
  std::printf("vistrel-demo-shop: serving on %s\n", shop.base_url().c_str());
  std::printf("port: %d\n", shop.port());
  std::printf("switchboard: %s\n", shop.switchboard_url().c_str());
  std::printf("try: vistrel --switchboard-url %s --device-root /tmp/vistrel-device init\n",
              shop.switchboard_url().c_str());
  std::fflush(stdout);

  int signal_number = 0;
  sigwait(&stop_signals, &signal_number);
  std::printf("vistrel-demo-shop: stopping\n");
  shop.Stop();
  return 0;
}
