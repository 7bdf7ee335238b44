// The Chromium backend on its own, in a real headless Chromium: what a page's main frame goes
// to is reported once and in order, and every way a session can fail ends it in bounded time.
// Runs only in a network namespace that holds nothing but loopback (scripts/test.sh runs it
// under `unshare -n`); anywhere else every test skips.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include "nbutils/browser_authorization.h"
#include "nbutils/chromium_browser.h"
#include "support/chromium_fixture.h"
#include "support/fake_server.h"

namespace {

using norbel::utilities::BrowserAuthorization;
using norbel::utilities::ChromiumOptions;
using vistrel_test::Answer;
using vistrel_test::FakeServer;
using vistrel_test::Recorder;
using vistrel_test::Redirect;
using vistrel_test::Urls;
using Clock = std::chrono::steady_clock;

using ChromiumBrowserTest = vistrel_test::ChromiumTest;

TEST_F(ChromiumBrowserTest, FormsScriptsAndRedirectsOfOtherPagesAreReportedInOrder) {
  FakeServer shop, provider;
  // The provider is another site (localhost, not 127.0.0.1), as real ones are: its pages run in
  // another renderer process.
  const std::string s = shop.base_url(), p = "http://localhost:" + std::to_string(provider.port());
  auto html = [](const std::string& body) { return Answer(body, 200, "text/html"); };
  shop.Set("/pay/start", Redirect(302, p + "/gateway"));
  // A form that posts itself (as 3-D Secure steps do), a refresh, a hash change by script, an
  // assignment to location, then a redirect back to the shop.
  provider.Set("/gateway", html("<form method=post action=/auth><input name=a value=1></form>"
                                "<script>document.forms[0].submit()</script>"));
  provider.Set("/auth", Redirect(303, "/wait"));
  provider.Set("/wait", html("<meta http-equiv=refresh content=\"0; url=/done?x=1\">"));
  provider.Set("/done", html("<script>location.hash = 'ok';"
                             "setTimeout(() => location.assign('/return'), 50)</script>"));
  provider.Set("/return", Redirect(302, s + "/pay/paypal?token=EC-7&PayerID=Q"));

  UseChromium(nullptr);
  Recorder recorder;
  EXPECT_EQ(recorder.Run(s + "/pay/start"), 0);
  EXPECT_EQ(recorder.urls,
            (Urls{s + "/pay/start", p + "/gateway", p + "/auth", p + "/wait", p + "/done?x=1",
                  p + "/done?x=1#ok", p + "/return", s + "/pay/paypal?token=EC-7&PayerID=Q"}));
  ASSERT_EQ(provider.requests("/auth").size(), 1u);
  EXPECT_EQ(provider.requests("/auth")[0].Field("a"), "1");

  // A provider that pays in a pop-up window, opened by the buyer's click, which goes back to
  // the shop on its own while the first page stays.
  provider.Set("/choose", html("<a id=popup href=/window target=_blank>Pay in a window</a>"));
  provider.Set("/window",
               html("<script>setTimeout(() => location.assign('/return'), 50)</script>"));
  vistrel_test::Buyer buyer;
  buyer.on = "/choose";
  buyer.email.clear();
  buyer.click = "#popup";
  UseChromium(&buyer);
  Recorder with_popup;
  EXPECT_EQ(with_popup.Run(p + "/choose"), 0);
  EXPECT_EQ(with_popup.urls, (Urls{p + "/choose", p + "/window", p + "/return",
                                   s + "/pay/paypal?token=EC-7&PayerID=Q"}));
}

TEST_F(ChromiumBrowserTest, APageThatNeverReturnsABrowserThatCrashesOrCannotStartIsBounded) {
  FakeServer shop;
  shop.Set("/pay/form", Answer("<p>Pay here (nobody will)</p>", 200, "text/html"));
  struct Case {
    std::string url;
    ChromiumOptions options;
    std::string logged;
  };
  std::vector<Case> cases(4);
  cases[0] = {shop.base_url() + "/pay/form", {}, "no return address within 2 s"};
  cases[0].options.session_limit = std::chrono::seconds(2);
  cases[1] = {"chrome://crash", {}, "chromium's page crashed"};
  cases[2] = {
      shop.base_url() + "/pay/form", {}, "chromium ended unexpectedly (exited with status 127)"};
  cases[2].options.executable = work_dir_ + "/no-such-browser";
  // A "browser" that starts and never answers.
  const std::string silent = work_dir_ + "/silent-browser";
  std::ofstream(silent) << "#!/bin/sh\nexec sleep 60\n";
  chmod(silent.c_str(), 0755);
  cases[3] = {shop.base_url() + "/pay/form", {}, "chromium did not answer within 1 s"};
  cases[3].options.executable = silent;
  cases[3].options.startup_limit = std::chrono::seconds(1);
  // A "browser" whose first message, a page target 9 MB long, is longer than any the backend
  // takes (8 MiB): it is skipped whole (else the backend would try to attach to that page), and
  // the answer after it is read.
  const std::string chatty = work_dir_ + "/chatty-browser";
  std::ofstream(chatty)
      << "#!/bin/sh\nprintf '{\"method\":\"Target.targetCreated\",\"params\":{\"targetInfo\":"
         "{\"type\":\"page\",\"targetId\":\"T\",\"title\":\"' >&4\n"
         "head -c 9000000 /dev/zero | tr '\\000' a >&4\n"
         "printf '\"}}}\\000{\"id\":1,\"result\":{}}\\000' >&4\nexec sleep 60\n";
  chmod(chatty.c_str(), 0755);
  cases.push_back({shop.base_url() + "/pay/form", {}, "chromium opened no page"});
  cases.back().options.executable = chatty;
  cases.back().options.reply_limit = std::chrono::seconds(1);
  // Nothing listens on port 1: headless, the error page ends the session at once.
  cases.push_back({"http://127.0.0.1:1/pay", {}, "cannot load the payment page: net::ERR_"});
  for (Case& c : cases) {
    SCOPED_TRACE(c.logged);
    c.options.headless = true;
    if (c.options.session_limit.count() == 0) c.options.session_limit = std::chrono::seconds(30);
    BrowserAuthorization::SetBackend(norbel::utilities::CreateChromiumBrowserBackend(c.options));
    Recorder recorder;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(recorder.Run(c.url), -1);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(60));
    EXPECT_EQ(recorder.closed, 1);
    EXPECT_TRUE(Logged(c.logged)) << testing::PrintToString(LogLines());
  }
  EXPECT_EQ(BrowsersUsing(work_dir_), 0);
}

}  // namespace
