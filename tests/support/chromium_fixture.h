// For tests that start a real headless Chromium: a device fixture that lets them run only in a
// network namespace holding nothing but loopback (Chromium talks to the network on its own), a
// buyer that acts on pages through the DevTools protocol, and a session recorder.
#ifndef TESTS_SUPPORT_CHROMIUM_FIXTURE_H_
#define TESTS_SUPPORT_CHROMIUM_FIXTURE_H_

#include <chrono>
#include <string>
#include <vector>

#include "nbutils/browser_authorization.h"
#include "nbutils/chromium_browser.h"
#include "support/device_fixture.h"

namespace vistrel_test {

using Urls = std::vector<std::string>;

// Whether this process sees no network interface but loopback.
bool OnlyLoopback();

// The buyer, acting on each page the browser has loaded as a person would: keys and mouse.
struct Buyer {
  // On a page whose address holds `on`: types `email` into the field "#email" when not empty,
  // then clicks the element `click` (a CSS selector); with `close` "tab" or "browser" it closes
  // the page or the whole browser instead.
  std::string on = "/pay/checkout";
  std::string email = "buyer@example.org";
  std::string click = "#pay";
  std::string close;
  Urls loaded;  // every page loaded, in order

  void OnLoad(norbel::utilities::ChromiumPage& page);
};

// Records what a session reports and ends it on the shop's return addresses ("/pay/paypal",
// "/pay/back"), as the payment session does.
struct Recorder : norbel::utilities::BrowserAuthorization::IEventHandler {
  int Run(const std::string& url);
  void UrlChanged(const std::string& url) override;
  void BrowserClosed() override { ++closed; }

  norbel::utilities::BrowserAuthorization* current = nullptr;
  Urls urls;
  int closed = 0;
};

class ChromiumTest : public DeviceTest {
 protected:
  // Skips the test outside a loopback-only namespace or without Chromium; browser profiles go
  // to the test's folder.
  void SetUp() override;
  // Checks that no profile and no browser process is left; restores the default backend.
  void TearDown() override;

  // Installs a headless Chromium whose pages `buyer` (may be null) acts on.
  void UseChromium(Buyer* buyer,
                   std::chrono::milliseconds session_limit = std::chrono::seconds(60));
  // Processes whose command line names a browser profile under `folder`.
  static int BrowsersUsing(const std::string& folder);
  bool Logged(const std::string& text) const;
};

}  // namespace vistrel_test

#endif  // TESTS_SUPPORT_CHROMIUM_FIXTURE_H_
