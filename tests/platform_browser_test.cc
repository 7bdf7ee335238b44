// Addresses and the browser session with its host backend, which follows redirect chains.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "nbutils/browser_authorization.h"
#include "nbutils/url.h"
#include "support/fake_server.h"

namespace {

using norbel::utilities::BrowserAuthorization;
using norbel::utilities::Url;
using vistrel_test::FakeServer;
using vistrel_test::Reply;
using Urls = std::vector<std::string>;

// A page of the shop; with `location` a redirect there.
Reply Page(int status = 200, const std::string& location = "") {
  Reply reply;
  reply.status = status;
  reply.content_type = "text/html";
  if (!location.empty()) reply.headers = {{"Location", location}};
  return reply;
}

// Records what a session reports, and ends it on the first address containing `stop_at`.
class Recorder : public BrowserAuthorization::IEventHandler {
 public:
  explicit Recorder(const std::string& stop_at = "/pay/paypal") : stop_at_(stop_at) {}
  void UrlChanged(const std::string& url) override {
    urls.push_back(url);
    EXPECT_TRUE(session->IsRunning()) << url;
    if (url.find(stop_at_) != std::string::npos) {
      std::lock_guard<std::mutex> guard(session->lock());
      session->set_running(false);
    }
  }
  void BrowserClosed() override { ++closed; }

  BrowserAuthorization* session = nullptr;
  Urls urls;
  int closed = 0;

 private:
  std::string stop_at_;
};

// Runs one session on `url` with the installed backend.
int RunSession(Recorder* recorder, const std::string& url) {
  BrowserAuthorization session("test", recorder);
  recorder->session = &session;
  int result = session.Start(url, {"--paypal"});
  EXPECT_FALSE(session.IsRunning());
  return result;
}

// Stands in for a real browser: shows the start address and returns `result`.
class ScriptedBackend : public BrowserAuthorization::Backend {
 public:
  explicit ScriptedBackend(int result) : result_(result) {}
  int Run(BrowserAuthorization& session, const std::string&, const std::string& url,
          const std::vector<std::string>&) override {
    session.Visit(url);
    return result_;
  }
  int result_;
};

TEST(UrlTest, PartsOfAddressesAndTheirQueries) {
  Url full("https://shop.example:8443/pay/paypal?token=EC%2D1&PayerID=AB#top");
  ASSERT_TRUE(full.IsValid());
  EXPECT_EQ(full.scheme(), "https");
  EXPECT_EQ(full.host(), "shop.example");
  EXPECT_EQ(full.path(), "/pay/paypal");
  EXPECT_EQ(full.query(), "token=EC%2D1&PayerID=AB");  // still encoded, without "?" and "#"
  EXPECT_EQ(Url("http://shop.example/pay/back").query(), "");
  for (const char* bad : {"", "pay/paypal?token=1", "/pay/paypal?token=1", "http://", "http://[::1",
                          "http://shop example/", "\x01\x02", "://x"}) {
    Url url(bad);
    EXPECT_FALSE(url.IsValid()) << bad;
    EXPECT_EQ(url.query(), "") << bad;
    EXPECT_EQ(url.Resolve("/pay/back"), "") << bad;
  }
  // Relative locations that the redirect tests below do not reach.
  Url base("https://shop.example/pay/start?order=7");
  EXPECT_EQ(base.Resolve("../../top"), "https://shop.example/top");
  EXPECT_EQ(base.Resolve("?order=8"), "https://shop.example/pay/start?order=8");
  EXPECT_EQ(base.Resolve("//other.example/x"), "https://other.example/x");
  EXPECT_EQ(base.Resolve(""), "");

  // Decoded; the first of a repeated name wins; names are case-sensitive; an encoded "+" stays
  // a plus; encoded control characters are left out; a lone "%" stays as it is.
  using Query = std::map<std::string, std::string>;
  EXPECT_EQ(Url::ParseQuery("token=EC%2D1%2B2&PayerID=A+B&%74oken=second&Token=third&empty=&flag&"
                            "%50ay=%C3%A9&k=a=b&=anon&&"),
            (Query{{"token", "EC-1+2"},
                   {"PayerID", "A B"},
                   {"Token", "third"},
                   {"empty", ""},
                   {"flag", ""},
                   {"Pay", "\xC3\xA9"},
                   {"k", "a=b"},
                   {"", "anon"}}));
  EXPECT_EQ(Url::ParseQuery("a=%0A&b%00=1&c=%&d=%4&token=ok"),
            (Query{{"c", "%"}, {"d", "%4"}, {"token", "ok"}}));
  EXPECT_EQ(Url::ParseQuery("&&&"), Query{});
}

TEST(HttpBrowserTest, FollowsARedirectChainHopByHopUntilTheHandlerEndsIt) {
  FakeServer shop;
  FakeServer provider;  // a second host, reached by absolute addresses
  std::string s = shop.base_url();
  std::string p = provider.base_url();
  shop.Set("/pay/start", Page(302, "next?step=2"));
  shop.Set("/pay/next", Page(301, p + "/checkout?cmd=x"));
  provider.Set("/checkout", Page(303, s + "/pay/paypal?token=EC-1&PayerID=AB"));
  shop.Set("/pay/paypal", Page());

  Recorder recorder;
  EXPECT_EQ(RunSession(&recorder, s + "/pay/start?order=7"), 0);
  EXPECT_EQ(recorder.urls, (Urls{s + "/pay/start?order=7", s + "/pay/next?step=2",
                                 p + "/checkout?cmd=x", s + "/pay/paypal?token=EC-1&PayerID=AB"}));
  EXPECT_EQ(recorder.closed, 0);
  // Each hop was loaded once, and the return address not at all: the session ended first.
  ASSERT_EQ(shop.requests().size(), 2u);
  EXPECT_EQ(shop.requests()[0].query, "order=7");
  EXPECT_EQ(shop.requests()[1].path, "/pay/next");
  EXPECT_EQ(provider.requests().size(), 1u);

  Recorder at_once("/pay/start");  // ended on the first address: nothing is loaded
  EXPECT_EQ(RunSession(&at_once, s + "/pay/start"), 0);
  EXPECT_EQ(at_once.urls.size(), 1u);
  EXPECT_EQ(shop.requests().size(), 2u);
}

TEST(HttpBrowserTest, ARedirectLoopStopsAfterTwentyHops) {
  FakeServer shop;
  shop.Set("/loop", Page(302, "/loop"));
  Recorder recorder;
  EXPECT_EQ(RunSession(&recorder, shop.base_url() + "/loop"), -1);
  EXPECT_EQ(recorder.closed, 1);
  EXPECT_EQ(recorder.urls.size(), 21u);           // the first address and twenty hops
  EXPECT_EQ(shop.requests("/loop").size(), 20u);  // the address of the last hop is not loaded

  // A return address reached on the twentieth hop still ends the session.
  for (int i = 0; i < 20; ++i) {
    shop.Set("/hop" + std::to_string(i),
             Page(302, i == 19 ? "/pay/paypal?token=T" : "/hop" + std::to_string(i + 1)));
  }
  Recorder long_chain;
  EXPECT_EQ(RunSession(&long_chain, shop.base_url() + "/hop0"), 0);
  EXPECT_EQ(long_chain.urls.size(), 21u);
  EXPECT_EQ(long_chain.urls.back(), shop.base_url() + "/pay/paypal?token=T");
}

TEST(HttpBrowserTest, AnAddressWithoutAUsableRedirectClosesTheBrowser) {
  // Null puts the host backend back in place of an installed one.
  BrowserAuthorization::SetBackend(std::make_shared<ScriptedBackend>(0));
  BrowserAuthorization::SetBackend(nullptr);
  FakeServer shop;
  std::string s = shop.base_url();
  shop.Set("/pay/start", Page(307, "/pay/form"));
  shop.Set("/pay/form", Page());
  shop.Set("/pay/bare", Page(302));
  shop.Set("/to-ftp", Page(302, "ftp://127.0.0.1/pay/file"));
  shop.Set("/to-script", Page(302, "javascript:alert(1)"));
  shop.Set("/to-malformed", Page(302, "http://[bad"));
  std::string gone;
  {
    FakeServer closed_down;
    gone = closed_down.base_url() + "/pay/start";
  }
  const std::vector<std::pair<std::string, Urls>> cases = {
      {s + "/pay/start", {s + "/pay/start", s + "/pay/form"}},       // a page that stays
      {s + "/pay/bare", {s + "/pay/bare"}},                          // a redirect without Location
      {s + "/nowhere", {s + "/nowhere"}},                            // 404
      {s + "/to-ftp", {s + "/to-ftp", "ftp://127.0.0.1/pay/file"}},  // shown, not loaded
      {s + "/to-script", {s + "/to-script"}},
      {s + "/to-malformed", {s + "/to-malformed"}},
      {gone, {gone}},
      {"", {}},
      {"not an address", {}},
      {"/pay/start", {}}};
  for (const auto& [start, shown] : cases) {
    SCOPED_TRACE(start);
    Recorder recorder;
    EXPECT_EQ(RunSession(&recorder, start), -1);
    EXPECT_EQ(recorder.urls, shown);
    EXPECT_EQ(recorder.closed, 1);
  }
}

TEST(BrowserSessionTest, StartRunsTheInstalledBackendAndOnlyMinusOneMeansClosed) {
  for (int result : {0, -1, 7}) {
    SCOPED_TRACE(result);
    BrowserAuthorization::SetBackend(std::make_shared<ScriptedBackend>(result));
    Recorder recorder;
    EXPECT_EQ(RunSession(&recorder, "https://shop.example/pay"), result);
    EXPECT_EQ(recorder.urls, Urls{"https://shop.example/pay"});
    EXPECT_EQ(recorder.closed, result == -1 ? 1 : 0);
  }
}

}  // namespace
