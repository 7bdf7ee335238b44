// A host backend for browser sessions that shows the page in a real Chromium (Debian's
// `chromium`), for payment pages that a buyer fills in: forms, scripts and redirects.
//
// The browser is started for each session with a fresh temporary profile, the flags that keep
// it from talking to the network on its own, and the DevTools protocol on two pipes. Every
// address that the page's main frame goes to (redirect hops, form posts, script navigations,
// in-page history changes) is reported once, in order, to session.Visit(). The browser is closed
// as soon as the session stops running (Run returns 0); a buyer who closes the window or the tab
// ends it with -1, and so does a browser that cannot be started, crashes, stops answering, cannot
// load the payment page (headless only: a window leaves the buyer to reload), or shows pages for
// longer than the session limit, each with a log line (level 2) that says so. Pop-ups that the
// page opens are followed as well. No browser process outlives Run.
//
// Install it with BrowserAuthorization::SetBackend(CreateChromiumBrowserBackend(options)); on a
// host, VISTREL_BROWSER=chromium does the same for every session.
#ifndef NBUTILS_CHROMIUM_BROWSER_H_
#define NBUTILS_CHROMIUM_BROWSER_H_

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "nbutils/browser_authorization.h"

namespace norbel {
namespace utilities {

// The page of a running session, as the optional on_load hook sees it.
class ChromiumPage {
 public:
  virtual ~ChromiumPage() = default;
  // The main frame's address.
  virtual const std::string& url() const = 0;
  // Sends a DevTools command (`params_json` a JSON object) to the page, or with `to_browser` to
  // the browser, and waits for its answer. Returns the "result" object as JSON text; "" when the
  // command failed or was not answered in time.
  virtual std::string Call(const std::string& method, const std::string& params_json,
                           bool to_browser = false) = 0;
};

struct ChromiumOptions {
  static constexpr const char* kDefaultExecutable = "/usr/bin/chromium";

  std::string executable = kDefaultExecutable;
  // No window: for tests, CI and unattended use.
  bool headless = false;
  // Until the browser answers its first command.
  std::chrono::milliseconds startup_limit{30000};
  // For each later command.
  std::chrono::milliseconds reply_limit{10000};
  // The whole session; zero means 15 minutes with a window and 3 minutes headless.
  std::chrono::milliseconds session_limit{0};
  // Called on the session's thread whenever the main frame has loaded a page, for an automated
  // buyer (tests, kiosk set-ups). May call page.Call().
  std::function<void(ChromiumPage& page)> on_load;
};

std::shared_ptr<BrowserAuthorization::Backend> CreateChromiumBrowserBackend(
    ChromiumOptions options = ChromiumOptions());

// Whether `executable` exists and may be run.
bool ChromiumInstalled(const std::string& executable = ChromiumOptions::kDefaultExecutable);

}  // namespace utilities
}  // namespace norbel

#endif  // NBUTILS_CHROMIUM_BROWSER_H_
