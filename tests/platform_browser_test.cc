// Addresses and the browser session with its host backend, which follows redirect chains.
#include <gtest/gtest.h>

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

Reply Redirect(int status, const std::string& location) {
  Reply reply;
  reply.status = status;
  reply.content_type = "text/html";
  reply.headers = {{"Location", location}};
  return reply;
}

Reply Page() {
  Reply reply;
  reply.content_type = "text/html";
  reply.body = "<html><body>Pay now</body></html>";
  return reply;
}

// Records what a session reports, and ends it on the first address containing `stop_at`.
class Recorder : public BrowserAuthorization::IEventHandler {
 public:
  explicit Recorder(const std::string& stop_at = "") : stop_at_(stop_at) {}

  void UrlChanged(const std::string& url) override {
    urls.push_back(url);
    running_seen.push_back(session->IsRunning());
    if (!stop_at_.empty() && url.find(stop_at_) != std::string::npos) {
      std::lock_guard<std::mutex> guard(session->lock());
      session->set_running(false);
    }
  }
  void BrowserClosed() override { ++closed; }

  BrowserAuthorization* session = nullptr;
  std::vector<std::string> urls;
  std::vector<bool> running_seen;
  int closed = 0;

 private:
  std::string stop_at_;
};

// Runs one session on `url` with the host backend.
int RunSession(Recorder* recorder, const std::string& url) {
  BrowserAuthorization session("test", recorder);
  recorder->session = &session;
  int result = session.Start(url, {"--paypal"});
  EXPECT_FALSE(session.IsRunning());
  recorder->session = nullptr;
  return result;
}

TEST(UrlTest, PartsOfValidAndInvalidAddresses) {
  Url full("https://shop.example:8443/pay/paypal?token=EC%2D1&PayerID=AB#top");
  ASSERT_TRUE(full.IsValid());
  EXPECT_EQ(full.scheme(), "https");
  EXPECT_EQ(full.host(), "shop.example");
  EXPECT_EQ(full.path(), "/pay/paypal");
  EXPECT_EQ(full.query(), "token=EC%2D1&PayerID=AB");  // still encoded, without "?" and "#"

  Url plain("http://shop.example/pay/back");
  ASSERT_TRUE(plain.IsValid());
  EXPECT_EQ(plain.query(), "");

  for (const char* bad : {"", "pay/paypal?token=1", "/pay/paypal?token=1", "http://", "http://[::1",
                          "http://shop example/", "\x01\x02", "://x"}) {
    Url url(bad);
    EXPECT_FALSE(url.IsValid()) << bad;
    EXPECT_EQ(url.query(), "") << bad;
    EXPECT_EQ(url.Resolve("/pay/back"), "") << bad;
  }
}

TEST(UrlTest, ParseQueryDecodesAndKeepsTheFirstOfARepeatedName) {
  auto query = Url::ParseQuery(
      "token=EC%2D1%2B2&PayerID=A+B&token=second&empty=&flag&%50ay=%C3%A9&k=a=b&=anon&&");
  EXPECT_EQ(query["token"], "EC-1+2");  // an encoded "+" stays a plus
  EXPECT_EQ(query["PayerID"], "A B");
  EXPECT_EQ(query["empty"], "");
  EXPECT_EQ(query.count("flag"), 1u);
  EXPECT_EQ(query["Pay"], "\xC3\xA9");
  EXPECT_EQ(query["k"], "a=b");  // split at the first "=" only
  EXPECT_EQ(query[""], "anon");
  EXPECT_EQ(query.size(), 7u);

  // Names are case-sensitive, and a repeated token keeps its first value even when encoded.
  auto repeated = Url::ParseQuery("%74oken=first&token=second&Token=third");
  EXPECT_EQ(repeated["token"], "first");
  EXPECT_EQ(repeated["Token"], "third");

  // Encoded control characters do not decode and are left out; lone "%" stays as it is.
  auto odd = Url::ParseQuery("a=%0A&b%00=1&c=%&d=%4&token=ok");
  EXPECT_EQ(odd.count("a"), 0u);
  EXPECT_EQ(odd.count("b"), 0u);
  EXPECT_EQ(odd["c"], "%");
  EXPECT_EQ(odd["d"], "%4");
  EXPECT_EQ(odd["token"], "ok");

  EXPECT_TRUE(Url::ParseQuery("").empty());
  EXPECT_TRUE(Url::ParseQuery("&&&").empty());
}

TEST(UrlTest, ResolveRelativeAndAbsoluteLocations) {
  Url base("https://shop.example/pay/start?order=7");
  EXPECT_EQ(base.Resolve("next?step=2"), "https://shop.example/pay/next?step=2");
  EXPECT_EQ(base.Resolve("/pay/paypal?token=EC-1"), "https://shop.example/pay/paypal?token=EC-1");
  EXPECT_EQ(base.Resolve("../../top"), "https://shop.example/top");
  EXPECT_EQ(base.Resolve("?order=8"), "https://shop.example/pay/start?order=8");
  EXPECT_EQ(base.Resolve("//other.example/x"), "https://other.example/x");
  EXPECT_EQ(base.Resolve("http://127.0.0.1:8080/a?b=c"), "http://127.0.0.1:8080/a?b=c");
  EXPECT_EQ(base.Resolve(""), "");
  EXPECT_EQ(base.Resolve("http://[bad"), "");
  EXPECT_EQ(base.Resolve("javascript:alert(1)"), "");
}

TEST(HttpBrowserTest, FollowsARedirectChainHopByHopUntilTheHandlerEndsIt) {
  FakeServer shop;
  FakeServer provider;  // a second host, reached by absolute addresses
  std::string s = shop.base_url();
  std::string p = provider.base_url();
  shop.Set("/pay/start", Redirect(302, "next?step=2"));
  shop.Set("/pay/next", Redirect(301, p + "/checkout?cmd=x"));
  provider.Set("/checkout", Redirect(303, s + "/pay/paypal?token=EC-1&PayerID=AB"));
  shop.Set("/pay/paypal", Page());

  Recorder recorder("/pay/paypal");
  EXPECT_EQ(RunSession(&recorder, s + "/pay/start?order=7"), 0);
  EXPECT_EQ(recorder.urls, (std::vector<std::string>{s + "/pay/start?order=7",
                                                     s + "/pay/next?step=2", p + "/checkout?cmd=x",
                                                     s + "/pay/paypal?token=EC-1&PayerID=AB"}));
  EXPECT_EQ(recorder.running_seen, (std::vector<bool>{true, true, true, true}));
  EXPECT_EQ(recorder.closed, 0);
  // Each hop was loaded once, and the return address not at all: the session ended first.
  EXPECT_EQ(shop.requests("/pay/start").size(), 1u);
  EXPECT_EQ(shop.requests("/pay/start")[0].query, "order=7");
  EXPECT_EQ(shop.requests("/pay/next").size(), 1u);
  EXPECT_EQ(provider.requests("/checkout").size(), 1u);
  EXPECT_TRUE(shop.requests("/pay/paypal").empty());

  // Ended on the first address: nothing is loaded.
  Recorder at_once("/pay/start");
  EXPECT_EQ(RunSession(&at_once, s + "/pay/start"), 0);
  EXPECT_EQ(at_once.urls.size(), 1u);
  EXPECT_EQ(shop.requests("/pay/start").size(), 1u);
}

TEST(HttpBrowserTest, APageWithoutRedirectClosesTheBrowser) {
  FakeServer shop;
  std::string s = shop.base_url();
  shop.Set("/pay/start", Redirect(307, "/pay/form"));
  shop.Set("/pay/form", Page());
  Reply no_location;
  no_location.status = 302;
  shop.Set("/pay/bare", no_location);

  Recorder recorder("/pay/paypal");
  EXPECT_EQ(RunSession(&recorder, s + "/pay/start"), -1);
  EXPECT_EQ(recorder.urls, (std::vector<std::string>{s + "/pay/start", s + "/pay/form"}));
  EXPECT_EQ(recorder.closed, 1);

  Recorder bare;
  EXPECT_EQ(RunSession(&bare, s + "/pay/bare"), -1);
  EXPECT_EQ(bare.closed, 1);

  Recorder missing;  // 404
  EXPECT_EQ(RunSession(&missing, s + "/nowhere"), -1);
  EXPECT_EQ(missing.urls, (std::vector<std::string>{s + "/nowhere"}));
  EXPECT_EQ(missing.closed, 1);
}

TEST(HttpBrowserTest, ARedirectLoopStopsAfterTwentyHops) {
  FakeServer shop;
  shop.Set("/loop", Redirect(302, "/loop"));
  Recorder recorder("/pay/paypal");
  EXPECT_EQ(RunSession(&recorder, shop.base_url() + "/loop"), -1);
  EXPECT_EQ(recorder.closed, 1);
  EXPECT_EQ(recorder.urls.size(), 21u);           // the first address and twenty hops
  EXPECT_EQ(shop.requests("/loop").size(), 20u);  // the address of the last hop is not loaded

  // A return address reached on the twentieth hop still ends the session.
  FakeServer chain;
  for (int i = 0; i < 20; ++i) {
    std::string next = i == 19 ? "/pay/paypal?token=T" : "/hop" + std::to_string(i + 1);
    chain.Set("/hop" + std::to_string(i), Redirect(302, next));
  }
  Recorder long_chain("/pay/paypal");
  EXPECT_EQ(RunSession(&long_chain, chain.base_url() + "/hop0"), 0);
  EXPECT_EQ(long_chain.urls.size(), 21u);
  EXPECT_EQ(long_chain.urls.back(), chain.base_url() + "/pay/paypal?token=T");
}

TEST(HttpBrowserTest, AddressesThatCannotBeLoadedCloseTheBrowser) {
  FakeServer shop;
  std::string s = shop.base_url();
  shop.Set("/to-ftp", Redirect(302, "ftp://127.0.0.1/pay/file"));
  shop.Set("/to-script", Redirect(302, "javascript:alert(1)"));
  shop.Set("/to-malformed", Redirect(302, "http://[bad"));

  Recorder ftp;
  EXPECT_EQ(RunSession(&ftp, s + "/to-ftp"), -1);
  // The address is shown, but not loaded.
  EXPECT_EQ(ftp.urls, (std::vector<std::string>{s + "/to-ftp", "ftp://127.0.0.1/pay/file"}));
  EXPECT_EQ(ftp.closed, 1);

  for (const char* path : {"/to-script", "/to-malformed"}) {
    Recorder recorder;
    EXPECT_EQ(RunSession(&recorder, s + path), -1) << path;
    EXPECT_EQ(recorder.urls, (std::vector<std::string>{s + path})) << path;
    EXPECT_EQ(recorder.closed, 1) << path;
  }

  for (const char* url : {"", "not an address", "/pay/start"}) {
    Recorder recorder;
    EXPECT_EQ(RunSession(&recorder, url), -1) << url;
    EXPECT_TRUE(recorder.urls.empty()) << url;
    EXPECT_EQ(recorder.closed, 1) << url;
  }

  std::string gone;
  {
    FakeServer closed_down;
    gone = closed_down.base_url() + "/pay/start";
  }
  Recorder refused;
  EXPECT_EQ(RunSession(&refused, gone), -1);
  EXPECT_EQ(refused.urls, (std::vector<std::string>{gone}));
  EXPECT_EQ(refused.closed, 1);
}

// A backend that stands in for a real browser: reports what it was given and returns `result`.
class ScriptedBackend : public BrowserAuthorization::Backend {
 public:
  explicit ScriptedBackend(int result) : result_(result) {}
  int Run(BrowserAuthorization& session, const std::string& browser_path, const std::string& url,
          const std::vector<std::string>& args) override {
    browser_path_ = browser_path;
    args_ = args;
    running_ = session.IsRunning();
    session.Visit(url);
    return result_;
  }
  void Focus(BrowserAuthorization&) override { ++focused_; }

  int result_;
  std::string browser_path_;
  std::vector<std::string> args_;
  bool running_ = false;
  int focused_ = 0;
};

TEST(BrowserSessionTest, StartRunsTheInstalledBackend) {
  for (int result : {0, -1, 7}) {
    auto backend = std::make_shared<ScriptedBackend>(result);
    BrowserAuthorization::SetBackend(backend);
    Recorder recorder;
    BrowserAuthorization session("test", &recorder);
    recorder.session = &session;
    session.SetBrowserPath("/kelmast/bin/browser.app");
    EXPECT_EQ(session.browser_path(), "/kelmast/bin/browser.app");
    EXPECT_EQ(session.name(), "test");
    EXPECT_EQ(session.Start("https://shop.example/pay", {"--paypal", "-img", "x"}), result);
    session.SetFocus();
    EXPECT_EQ(backend->browser_path_, "/kelmast/bin/browser.app");
    EXPECT_EQ(backend->args_, (std::vector<std::string>{"--paypal", "-img", "x"}));
    EXPECT_TRUE(backend->running_);
    EXPECT_EQ(backend->focused_, 1);
    EXPECT_EQ(recorder.urls, (std::vector<std::string>{"https://shop.example/pay"}));
    EXPECT_EQ(recorder.closed, result == -1 ? 1 : 0) << result;
    EXPECT_FALSE(session.IsRunning());
  }
  // Null restores the host backend, which cannot load this address.
  BrowserAuthorization::SetBackend(nullptr);
  Recorder recorder;
  EXPECT_EQ(RunSession(&recorder, "https://127.0.0.1:1/unreachable"), -1);
  EXPECT_EQ(recorder.closed, 1);
}

}  // namespace
