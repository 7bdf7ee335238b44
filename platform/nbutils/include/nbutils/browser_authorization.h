// A browser session for web sign-ins and payments: the device browser is shown on an
// address and every address it visits is reported to a handler, until the handler ends the
// session by clearing the running flag (under the lock) or the buyer closes the browser.
#ifndef NBUTILS_BROWSER_AUTHORIZATION_H_
#define NBUTILS_BROWSER_AUTHORIZATION_H_

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace norbel {
namespace utilities {

class BrowserAuthorization {
 public:
  // What the session reports. Calls may come from the session's own thread.
  class IEventHandler {
   public:
    virtual ~IEventHandler() = default;
    virtual void UrlChanged(const std::string& url) = 0;
    virtual void BrowserError() {}
    virtual void BrowserClosed() {}
    virtual void TimePassed(int /*seconds*/) {}
  };

  // How a session is shown. The host default loads addresses over HTTP(S) and follows their
  // redirects (see CreateHttpBrowserBackend), or shows them in a real Chromium when the host
  // emulation says so (see nbutils/chromium_browser.h); any browser can be plugged in instead.
  class Backend {
   public:
    virtual ~Backend() = default;
    // Shows `url` with the browser at `browser_path` and `args`; reports every visited
    // address through session.Visit() until session.IsRunning() turns false or the browser
    // closes. Returns 0 when the session was ended by the handler, -1 when it closed.
    virtual int Run(BrowserAuthorization& session, const std::string& browser_path,
                    const std::string& url, const std::vector<std::string>& args) = 0;
    // Brings the session's browser to the front; a backend without a window does nothing.
    virtual void Focus(BrowserAuthorization& /*session*/) {}
  };

  // `handler` is not owned and must outlive the session.
  BrowserAuthorization(const std::string& name, IEventHandler* handler);
  ~BrowserAuthorization();
  BrowserAuthorization(const BrowserAuthorization&) = delete;
  BrowserAuthorization& operator=(const BrowserAuthorization&) = delete;

  // Runs one session on `url`; returns when it has ended: 0 when the handler ended it, -1 when
  // the browser closed or could not be started (the handler's BrowserClosed() is called then).
  // Any other value of the backend is returned as it is.
  int Start(const std::string& url, const std::vector<std::string>& args);
  // Brings the browser to the front.
  void SetFocus();

  void SetBrowserPath(const std::string& path);
  const std::string& browser_path() const { return browser_path_; }
  const std::string& name() const { return name_; }

  // The session's lock; the running flag is read and written only while holding it.
  std::mutex& lock() { return lock_; }
  bool running() const { return running_; }
  void set_running(bool running) { running_ = running; }

  // For backends: reports a visited address to the handler.
  void Visit(const std::string& url);
  // For backends: the running flag, read under the lock.
  bool IsRunning();
  IEventHandler* handler() const { return handler_; }

  // Replaces the backend of every later session (null: the host default, chosen again at the
  // next session).
  static void SetBackend(std::shared_ptr<Backend> backend);

 private:
  std::string name_;
  IEventHandler* handler_;
  std::string browser_path_;
  std::mutex lock_;
  bool running_ = false;
};

// The host backend: follows the redirect chain of `url` one hop at a time (at most 20 hops),
// reporting each absolute address; a page that answers without a redirect, or cannot be
// loaded, counts as the buyer closing the browser.
std::shared_ptr<BrowserAuthorization::Backend> CreateHttpBrowserBackend();

}  // namespace utilities
}  // namespace norbel

#endif  // NBUTILS_BROWSER_AUTHORIZATION_H_
