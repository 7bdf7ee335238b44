// The browser session with its host backend, which follows redirect chains, and the query
// decoding that reads the payment return.
#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "nbutils/browser_authorization.h"
#include "nbutils/url.h"
#include "support/fake_server.h"

namespace {

using norbel::utilities::BrowserAuthorization;
using norbel::utilities::Url;
using vistrel_test::Answer;
using vistrel_test::FakeServer;
using vistrel_test::Redirect;
using Urls = std::vector<std::string>;

// A page of the shop; with `location` a redirect there.
// Runs one session on `url` with the host backend; records what it reports, and ends it on
// the first address containing "/pay/paypal".
struct Recorder : BrowserAuthorization::IEventHandler {
  int Run(const std::string& url) {
    BrowserAuthorization session("test", this);
    current = &session;
    return session.Start(url, {"--paypal"});
  }
  void UrlChanged(const std::string& url) override {
    urls.push_back(url);
    if (url.find("/pay/paypal") != std::string::npos) {
      std::lock_guard<std::mutex> guard(current->lock());
      current->set_running(false);
    }
  }
  void BrowserClosed() override { ++closed; }

  BrowserAuthorization* current = nullptr;
  Urls urls;
  int closed = 0;
};

TEST(HttpBrowserTest, FollowsARedirectChainHopByHopUntilTheHandlerEndsIt) {
  FakeServer shop, provider;  // the provider is a second host, reached by absolute addresses
  const std::string s = shop.base_url(), p = provider.base_url();
  shop.Set("/pay/start", Redirect(302, "next?step=2"));
  shop.Set("/pay/next", Redirect(301, p + "/checkout"));
  provider.Set("/checkout", Redirect(303, s + "/pay/paypal?token=EC-1"));

  Recorder recorder;
  EXPECT_EQ(recorder.Run(s + "/pay/start"), 0);
  EXPECT_EQ(recorder.urls, (Urls{s + "/pay/start", s + "/pay/next?step=2", p + "/checkout",
                                 s + "/pay/paypal?token=EC-1"}));
  EXPECT_EQ(recorder.closed, 0);
  // Each hop was loaded once, and the return address not at all: the session ended first.
  EXPECT_EQ(shop.requests().size(), 2u);
  EXPECT_EQ(provider.requests().size(), 1u);
}

TEST(HttpBrowserTest, ARedirectLoopStopsAfterTwentyHops) {
  FakeServer shop;
  shop.Set("/loop", Redirect(302, "/loop"));
  Recorder recorder;
  EXPECT_EQ(recorder.Run(shop.base_url() + "/loop"), -1);
  EXPECT_EQ(recorder.closed, 1);
  EXPECT_EQ(recorder.urls.size(), 21u);           // the first address and twenty hops
  EXPECT_EQ(shop.requests("/loop").size(), 20u);  // the address of the last hop is not loaded
}

TEST(HttpBrowserTest, AnAddressWithoutAUsableRedirectClosesTheBrowser) {
  FakeServer shop;
  std::string s = shop.base_url();
  shop.Set("/pay/start", Redirect(307, "/pay/form"));
  shop.Set("/pay/form", Answer("", 200, "text/html"));
  shop.Set("/to-ftp", Redirect(302, "ftp://127.0.0.1/pay/file"));
  for (const auto& [start, shown] : std::vector<std::pair<std::string, Urls>>{
           {s + "/pay/start", {s + "/pay/start", s + "/pay/form"}},       // a page that stays
           {s + "/to-ftp", {s + "/to-ftp", "ftp://127.0.0.1/pay/file"}},  // shown, not loaded
           {s + "/nowhere", {s + "/nowhere"}}}) {                         // 404
    SCOPED_TRACE(start);
    Recorder recorder;
    EXPECT_EQ(recorder.Run(start), -1);
    EXPECT_EQ(recorder.urls, shown);
    EXPECT_EQ(recorder.closed, 1);
  }
}

TEST(UrlTest, QueriesAreDecodedAndTheFirstOfARepeatedNameWins) {
  EXPECT_EQ(Url::ParseQuery("token=EC%2D1&PayerID=A+B&token=second&Token=third"),
            (std::map<std::string, std::string>{
                {"token", "EC-1"}, {"PayerID", "A B"}, {"Token", "third"}}));
}

}  // namespace
