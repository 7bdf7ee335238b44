#include "nbutils/browser_authorization.h"

#include <utility>

#include "host/environment.h"
#include "nbutils/chromium_browser.h"
#include "nbutils/http_request.h"
#include "nbutils/url.h"

namespace norbel {
namespace utilities {
namespace {

constexpr int kEndedByHandler = 0;
constexpr int kClosed = -1;

// The backend of later sessions; null means the host default.
struct BackendSlot {
  std::mutex lock;
  std::shared_ptr<BrowserAuthorization::Backend> backend;
};

BackendSlot& Slot() {
  static BackendSlot slot;
  return slot;
}

// The backend the host emulation names (VISTREL_BROWSER); the redirect follower unless it
// names Chromium.
std::shared_ptr<BrowserAuthorization::Backend> HostDefaultBackend() {
  if (vistrel_host::BrowserSetting() != vistrel_host::Browser::kChromium) {
    return CreateHttpBrowserBackend();
  }
  ChromiumOptions options;
  options.headless = vistrel_host::BrowserHeadless();
  return CreateChromiumBrowserBackend(options);
}

std::shared_ptr<BrowserAuthorization::Backend> CurrentBackend() {
  BackendSlot& slot = Slot();
  std::lock_guard<std::mutex> guard(slot.lock);
  if (!slot.backend) slot.backend = HostDefaultBackend();
  return slot.backend;
}

// Stands in for a browser on a host without one: loads each address over HTTP(S) and takes
// the redirect it answers with, one hop at a time, as a browser would on a payment site whose
// pages all redirect. A page without a redirect is where a buyer would have to act, which a
// host cannot, so it counts as the buyer closing the browser.
class HttpBrowserBackend : public BrowserAuthorization::Backend {
 public:
  int Run(BrowserAuthorization& session, const std::string& browser_path, const std::string& url,
          const std::vector<std::string>& args) override;

 private:
  static constexpr int kMaxHops = 20;
  static constexpr unsigned int kPageLimitSeconds = 30;

  // The absolute address `address` redirects to; "" when it answers with a page of its own or
  // cannot be loaded.
  static std::string NextAddress(const Url& address, const std::string& text);
};

int HttpBrowserBackend::Run(BrowserAuthorization& session, const std::string& /*browser_path*/,
                            const std::string& url, const std::vector<std::string>& /*args*/) {
  std::string text = url;
  for (int hops = 0;; ++hops) {
    Url address(text);
    if (!address.IsValid()) return kClosed;
    session.Visit(text);
    if (!session.IsRunning()) return kEndedByHandler;
    if (hops == kMaxHops) return kClosed;
    text = NextAddress(address, text);
    if (text.empty()) return kClosed;
  }
}

std::string HttpBrowserBackend::NextAddress(const Url& address, const std::string& text) {
  if (address.scheme() != "http" && address.scheme() != "https") return std::string();
  HttpRequest request("GET", text);
  HttpRequestRunner runner;
  long status = 0;
  std::vector<std::pair<std::string, std::string>> headers;
  if (runner.PerformRequest(request, &status, nullptr, kPageLimitSeconds, &headers) != 0) {
    return std::string();
  }
  if (!IsRedirectStatus(status)) return std::string();
  return address.Resolve(FindHeader(headers, "Location"));
}

}  // namespace

BrowserAuthorization::BrowserAuthorization(const std::string& name, IEventHandler* handler)
    : name_(name), handler_(handler) {}

BrowserAuthorization::~BrowserAuthorization() = default;

int BrowserAuthorization::Start(const std::string& url, const std::vector<std::string>& args) {
  {
    std::lock_guard<std::mutex> guard(lock_);
    running_ = true;
  }
  std::shared_ptr<Backend> backend = CurrentBackend();
  int result = backend->Run(*this, browser_path_, url, args);
  {
    std::lock_guard<std::mutex> guard(lock_);
    running_ = false;
  }
  if (result == kClosed && handler_ != nullptr) handler_->BrowserClosed();
  return result;
}

void BrowserAuthorization::SetFocus() { CurrentBackend()->Focus(*this); }

void BrowserAuthorization::SetBrowserPath(const std::string& path) { browser_path_ = path; }

void BrowserAuthorization::Visit(const std::string& url) {
  if (handler_ != nullptr) handler_->UrlChanged(url);
}

bool BrowserAuthorization::IsRunning() {
  std::lock_guard<std::mutex> guard(lock_);
  return running_;
}

void BrowserAuthorization::SetBackend(std::shared_ptr<Backend> backend) {
  BackendSlot& slot = Slot();
  std::lock_guard<std::mutex> guard(slot.lock);
  slot.backend = std::move(backend);
}

std::shared_ptr<BrowserAuthorization::Backend> CreateHttpBrowserBackend() {
  return std::make_shared<HttpBrowserBackend>();
}

}  // namespace utilities
}  // namespace norbel
