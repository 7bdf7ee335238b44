// Payment in a real headless Chromium: the test plays the buyer through the DevTools protocol
// (types into the form, clicks with the mouse) on the demo shop's checkout page and on pages
// that navigate by forms, scripts and redirects.
//
// Chromium talks to the network on its own, so these tests start it only inside a network
// namespace that holds nothing but loopback (scripts/test.sh runs them under `unshare -n`);
// anywhere else every test skips.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "demo_catalog.h"
#include "demo_shop.h"
#include "nbutils/browser_authorization.h"
#include "nbutils/chromium_browser.h"
#include "support/device_fixture.h"
#include "support/fake_server.h"
#include "vistrel_store/store_manager.h"

namespace {

using norbel::utilities::BrowserAuthorization;
using norbel::utilities::ChromiumOptions;
using norbel::utilities::ChromiumPage;
using norbel::vistrel::Book;
using norbel::vistrel::ServerApi;
using norbel::vistrel::StoreManager;
using vistrel_test::Answer;
using vistrel_test::FakeServer;
using vistrel_test::Redirect;
using Urls = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

// Whether this process sees no network interface but loopback.
bool OnlyLoopback() {
  std::ifstream dev("/proc/self/net/dev");
  std::string line;
  std::set<std::string> names;
  for (int number = 0; std::getline(dev, line); ++number) {
    const size_t colon = line.find(':');
    if (number < 2 || colon == std::string::npos) continue;  // two header lines
    const size_t begin = line.find_first_not_of(' ');
    names.insert(line.substr(begin, colon - begin));
  }
  return names == std::set<std::string>{"lo"};
}

Json::Value ParseJson(const std::string& text) {
  Json::Value value;
  Json::Reader().parse(text, value);
  return value;
}

std::string JsonText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

// The buyer, acting through the DevTools protocol on each page the browser has loaded.
struct Buyer {
  // On a page whose address holds `on`: types `email` into the e-mail field when not empty, then
  // clicks the element `click` (a CSS selector) with the mouse; `close` instead closes the "tab"
  // or the whole "browser".
  std::string on = "/pay/checkout";
  std::string email = "buyer@example.org";
  std::string click = "#pay";
  std::string close;
  Urls loaded;  // every page loaded, in order

  void OnLoad(ChromiumPage& page) {
    loaded.push_back(page.url());
    if (page.url().find(on) == std::string::npos) return;
    if (close == "browser") {
      page.Call("Browser.close", "{}", true);
      return;
    }
    if (close == "tab") {
      page.Call("Page.close", "{}");
      return;
    }
    if (!email.empty()) {
      Evaluate(page, "document.querySelector('#email').focus()");
      Json::Value text;
      text["text"] = email;
      page.Call("Input.insertText", JsonText(text));
    }
    const Json::Value at = Evaluate(
        page,
        "(() => { const r = document.querySelector('" + click +
            "').getBoundingClientRect(); return [r.x + r.width / 2, r.y + r.height / 2]; })()");
    for (const char* type : {"mousePressed", "mouseReleased"}) {
      Json::Value event;
      event["type"] = type;
      event["x"] = at[0];
      event["y"] = at[1];
      event["button"] = "left";
      event["clickCount"] = 1;
      page.Call("Input.dispatchMouseEvent", JsonText(event));
    }
  }

  static Json::Value Evaluate(ChromiumPage& page, const std::string& expression) {
    Json::Value params;
    params["expression"] = expression;
    params["returnByValue"] = true;
    return ParseJson(page.Call("Runtime.evaluate", JsonText(params)))["result"]["value"];
  }
};

// Records what a session reports and ends it on the shop's return addresses, as the payment
// session does.
struct Recorder : BrowserAuthorization::IEventHandler {
  int Run(const std::string& url) {
    BrowserAuthorization session("test", this);
    current = &session;
    return session.Start(url, {"--paypal"});
  }
  void UrlChanged(const std::string& url) override {
    urls.push_back(url);
    if (url.find("/pay/paypal") != std::string::npos ||
        url.find("/pay/back") != std::string::npos) {
      std::lock_guard<std::mutex> guard(current->lock());
      current->set_running(false);
    }
  }
  void BrowserClosed() override { ++closed; }

  BrowserAuthorization* current = nullptr;
  Urls urls;
  int closed = 0;
};

class ChromiumPaymentTest : public vistrel_test::DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    if (!OnlyLoopback()) {
      GTEST_SKIP() << "starts Chromium only in a network namespace that holds nothing but "
                      "loopback: run under `unshare -n` (scripts/test.sh does)";
    }
    if (!norbel::utilities::ChromiumInstalled()) GTEST_SKIP() << "Chromium is not installed";
    setenv("TMPDIR", work_dir_.c_str(), 1);  // the browser profile goes here
  }

  void TearDown() override {
    if (!IsSkipped()) {
      // No profile and no process of the browser is left.
      for (const auto& entry : std::filesystem::directory_iterator(work_dir_)) {
        EXPECT_EQ(entry.path().filename().string().find("vistrel-chromium-"), std::string::npos)
            << entry.path();
      }
      EXPECT_EQ(ProcessesUsing(work_dir_), 0);
    }
    BrowserAuthorization::SetBackend(nullptr);
    unsetenv("TMPDIR");
    DeviceTest::TearDown();
  }

  static int ProcessesUsing(const std::string& path) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      std::ifstream in(entry.path() / "cmdline", std::ios::binary);
      const std::string command_line((std::istreambuf_iterator<char>(in)), {});
      if (command_line.find("--user-data-dir=" + path) != std::string::npos) ++count;
    }
    return count;
  }

  // Installs a headless Chromium whose pages `buyer` acts on.
  void UseChromium(Buyer* buyer,
                   std::chrono::milliseconds session_limit = std::chrono::seconds(60)) {
    ChromiumOptions options;
    options.headless = true;
    options.session_limit = session_limit;
    if (buyer != nullptr) options.on_load = [buyer](ChromiumPage& page) { buyer->OnLoad(page); };
    BrowserAuthorization::SetBackend(norbel::utilities::CreateChromiumBrowserBackend(options));
  }

  // The addresses that the payment session logged, in order.
  Urls LoggedAddresses() const {
    Urls urls;
    const std::string mark = "Auth::UrlChanged. url_string = [";
    for (const std::string& line : LogLines()) {
      const size_t at = line.find(mark);
      if (at != std::string::npos)
        urls.push_back(line.substr(at + mark.size(), line.size() - at - mark.size() - 1));
    }
    return urls;
  }

  bool Logged(const std::string& text) const {
    for (const std::string& line : LogLines()) {
      if (line.find(text) != std::string::npos) return true;
    }
    return false;
  }

  // Through the store manager up to the payment: an account, one book in the cart, checked out.
  StoreManager* ReadyToPay(vistrel_demo::DemoShop& shop) {
    shop.SetPaymentStyle(vistrel_demo::PaymentStyle::kPage);
    shop.SetLinkDelay(std::chrono::milliseconds(0));
    EXPECT_TRUE(shop.Start(0));
    setenv("VISTREL_SWITCHBOARD_URL", shop.switchboard_url().c_str(), 1);
    setenv("VISTREL_SERIAL_NUMBER", "SN-1", 1);
    StoreManager* store = StoreManager::Instance();
    EXPECT_EQ(store->Init(), 0);
    EXPECT_EQ(store->Register("reader@example.org", "secret").code_, ServerApi::kOk);
    Book book;
    book.string_props_[Book::Ean] = vistrel_demo::DemoCatalog()[0].ean;
    store->AddToCart(book);
    store->CheckOut();
    return store;
  }
};

TEST_F(ChromiumPaymentTest, TheBuyerPaysOnTheCheckoutPageAndThePaymentIsConfirmed) {
  vistrel_demo::DemoShop shop;
  StoreManager* store = ReadyToPay(shop);
  Buyer buyer;
  UseChromium(&buyer);

  ASSERT_EQ(store->StartPayment().code_, ServerApi::kOk);
  const StoreManager::PaymentData& paid = store->payment_data();
  EXPECT_EQ(paid.token_.compare(0, 3, "EC-"), 0) << paid.token_;
  EXPECT_EQ(paid.payer_id_.compare(0, 9, "DEMOPAYER"), 0) << paid.payer_id_;
  // Every address the page went to, once and in order: the payment link, its redirect to the
  // checkout page, the form's post and its redirect, the script's in-page step, the script's
  // navigation and its redirect to the PayPal return.
  const std::string s = shop.base_url(), order = std::to_string(paid.order_id_),
                    token = "?token=" + paid.token_;
  const std::string processing = s + "/pay/processing" + token;
  EXPECT_EQ(LoggedAddresses(),
            (Urls{s + "/pay/start/" + order, s + "/pay/checkout" + token, s + "/pay/authorize",
                  processing, processing + "#confirming", s + "/pay/complete" + token,
                  s + "/pay/paypal" + token + "&PayerID=" + paid.payer_id_}));
  EXPECT_EQ(buyer.loaded, (Urls{s + "/pay/checkout" + token, processing + "#confirming"}));

  // The shop takes the token and payer from the return address and delivers.
  EXPECT_EQ(store->CheckPaymentResult().code_, ServerApi::kOk);
  EXPECT_EQ(store->purchased().size(), 1u);
}

TEST_F(ChromiumPaymentTest, TheBuyerCancelsOrClosesTheBrowser) {
  vistrel_demo::DemoShop shop;
  StoreManager* store = ReadyToPay(shop);
  const std::string s = shop.base_url();

  // The cancel link leads to the shop's back address, which ends the session without a payment.
  Buyer cancels;
  cancels.email.clear();
  cancels.click = "#cancel";
  UseChromium(&cancels);
  ASSERT_EQ(store->StartPayment().code_, ServerApi::kOk);
  const Urls cancelled = LoggedAddresses();
  ASSERT_EQ(cancelled.size(), 3u);
  EXPECT_EQ(cancelled[2].compare(0, s.size() + 9, s + "/pay/back"), 0) << cancelled[2];
  EXPECT_TRUE(store->payment_data().token_.empty());

  // The order stays committed, and its link opens the checkout page again: closing the browser
  // there, or only its page, fails the payment.
  const std::string link = cancelled[0];
  for (const char* what : {"browser", "tab"}) {
    SCOPED_TRACE(what);
    Buyer closes;
    closes.close = what;
    UseChromium(&closes);
    Recorder recorder;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(recorder.Run(link), -1);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(30));
    EXPECT_EQ(recorder.closed, 1);
    EXPECT_EQ(recorder.urls.size(), 2u);  // the link and the checkout page
    EXPECT_EQ(closes.loaded.size(), 1u);
  }
}

TEST_F(ChromiumPaymentTest, FormsScriptsAndRedirectsOfOtherPagesAreReportedInOrder) {
  FakeServer shop, provider;
  const std::string s = shop.base_url(), p = provider.base_url();
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
}

TEST_F(ChromiumPaymentTest, APageThatNeverReturnsABrowserThatCrashesOrCannotStartIsBounded) {
  FakeServer shop;
  shop.Set("/pay/form", Answer("<p>Pay here (nobody will)</p>", 200, "text/html"));
  shop.Set("/pay/slow", Answer("late", 200, "text/html"));
  struct Case {
    std::string url;
    ChromiumOptions options;
    std::string logged;
  };
  std::vector<Case> cases(4);
  cases[0] = {shop.base_url() + "/pay/form", {}, "no return address within 2 s"};
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
  for (Case& c : cases) {
    SCOPED_TRACE(c.logged);
    c.options.headless = true;
    c.options.session_limit = std::chrono::seconds(2);
    BrowserAuthorization::SetBackend(norbel::utilities::CreateChromiumBrowserBackend(c.options));
    Recorder recorder;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(recorder.Run(c.url), -1);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(20));
    EXPECT_EQ(recorder.closed, 1);
    EXPECT_TRUE(Logged(c.logged)) << ::testing::PrintToString(LogLines());
  }
  EXPECT_EQ(ProcessesUsing(work_dir_), 0);
}

}  // namespace
