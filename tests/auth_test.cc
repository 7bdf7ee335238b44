// The payment browser session: which addresses end it, what it keeps, what it logs, and how
// it starts the browser.
#include "vistrel_store/auth.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "panelkit/panelkit.h"
#include "support/device_fixture.h"
#include "support/fake_server.h"

namespace {

using norbel::utilities::BrowserAuthorization;
using norbel::vistrel::Auth;
using Lines = std::vector<std::string>;

std::string TraceLine(const std::string& url) {
  return "4\tvistrel_store/src/data/auth\t62\tvirtual void norbel::vistrel::Auth::UrlChanged("
         "const std::string &)\tAuth::UrlChanged. url_string = [" +
         url + "]";
}
std::string RunLine(int line, const std::string& text) {
  return "2\tvistrel_store/src/data/auth\t" + std::to_string(line) +
         "\tint norbel::vistrel::Auth::Run(const std::string &)\t" + text;
}

// Plays a browser: shows the addresses in order until the session is ended (then returns
// `ended_result`), else returns `closed_result` as if the buyer had closed it.
class ScriptedBrowser : public BrowserAuthorization::Backend {
 public:
  ScriptedBrowser(Lines addresses, int closed_result, int ended_result)
      : addresses_(std::move(addresses)), closed_(closed_result), ended_(ended_result) {}
  int Run(BrowserAuthorization& session, const std::string& browser_path, const std::string& url,
          const std::vector<std::string>& args) override {
    started_ = {browser_path, url};
    started_.insert(started_.end(), args.begin(), args.end());
    if (probe_) {  // as the device browser's side would
      running_inside_ = probe_->IsRunning();
      probe_->SetFocus();
    }
    for (const std::string& address : addresses_) {
      ++shown_;
      session.Visit(address);
      if (!session.IsRunning()) return ended_;
    }
    return closed_;
  }
  void Focus(BrowserAuthorization& session) override { focused_ = session.name(); }

  Lines addresses_;
  int closed_, ended_;
  Lines started_;
  size_t shown_ = 0;
  Auth* probe_ = nullptr;
  bool running_inside_ = false;
  std::string focused_;
};

class AuthTest : public vistrel_test::DeviceTest {
 protected:
  void TearDown() override {
    BrowserAuthorization::SetBackend(nullptr);
    DeviceTest::TearDown();
  }
  std::shared_ptr<ScriptedBrowser> Install(Lines addresses, int closed = -1, int ended = 0) {
    auto browser = std::make_shared<ScriptedBrowser>(std::move(addresses), closed, ended);
    BrowserAuthorization::SetBackend(browser);
    return browser;
  }
};

// One Auth for every case: a new Run clears success_ but keeps the parameters found before.
TEST_F(AuthTest, ReturnAddressesEndTheSessionAndKeepThePayPalParameters) {
  struct Case {
    std::string address;
    bool ends, success;
    std::string token, payer_id;
  };
  const std::string shop = "https://shop.example";
  const std::vector<Case> cases = {
      {shop + "/pay/paypal?token=EC-1&PayerID=AB", true, true, "EC-1", "AB"},
      {shop + "/pay/paypal?token=EC-2", true, true, "EC-2", ""},
      {shop + "/pay/paypal?token=EC%2D3&PayerID=A+B&token=EC-4", true, true, "EC-3", "A B"},
      {shop + "/pay/paypal?Token=EC-5&PayerID=AB", true, false, "EC-3", "A B"},
      {shop + "/pay/paypal?PayerID=ZZ", true, false, "EC-3", "A B"},
      {shop + "/pay/back", true, false, "EC-3", "A B"},
      {shop + "/pay/back/pay/paypal?token=EC-6", true, true, "EC-6", ""},  // PayPal first
      {"/pay/pa", false, false, "EC-6", ""},
      {shop + "/pay/backup", true, false, "EC-6", ""},
      {shop + "/x?next=/pay/back", true, false, "EC-6", ""},
      {"", false, false, "EC-6", ""},
      {shop + "/PAY/PAYPAL?token=EC-7", false, false, "EC-6", ""},  // case-sensitive
      {shop + "/checkout?token=EC-8", false, false, "EC-6", ""},
  };
  Auth auth;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.address);
    auto browser = Install({shop + "/start", c.address, shop + "/after"});
    EXPECT_EQ(auth.Run(shop + "/start"), c.ends ? 0 : -1);
    EXPECT_EQ(browser->shown_, c.ends ? 2u : 3u);
    EXPECT_EQ(auth.success_, c.success);
    EXPECT_EQ(auth.token_, c.token);
    EXPECT_EQ(auth.payer_id_, c.payer_id);
    EXPECT_FALSE(auth.IsRunning());
  }
}

TEST_F(AuthTest, LogsEveryAddressAndTheSessionsOutcome) {
  const std::string paid = "https://shop.example/pay/paypal?token=EC-1&PayerID=AB";
  const std::string form = "https://shop.example/pay/form";
  const std::string ok = RunLine(36, "err:[0] Authorize - failed");
  struct Case {
    Lines addresses;
    int closed_result, ended_result, err;
    Lines lines;
  };
  const std::vector<Case> cases = {
      {{"", paid}, -1, 0, 0, {TraceLine(""), TraceLine(paid), ok}},
      {{form}, -1, 0, -1, {TraceLine(form), RunLine(41, "Failed to log it")}},
      {{}, 5, 0, 5, {RunLine(36, "err:[5] Authorize - failed")}},
      {{paid}, -1, -1, -1, {TraceLine(paid)}},  // closed after a PayPal return: no failure line
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.err);
    size_t before = LogLines().size();
    Install(c.addresses, c.closed_result, c.ended_result);
    Auth auth;
    EXPECT_EQ(auth.Run("https://shop.example/start"), c.err);
    Lines lines = LogLines();
    EXPECT_EQ(Lines(lines.begin() + before, lines.end()), c.lines);
  }
}

TEST_F(AuthTest, StartsAndFocusesTheDeviceBrowserWithTheShopLogoWhenThereIsOne) {
  const std::string url = "https://shop.example/pay/start?order=7";
  auto plain = Install({"https://shop.example/pay/back"});
  Auth auth;
  plain->probe_ = &auth;
  EXPECT_FALSE(auth.IsRunning());
  auth.Run(url);
  EXPECT_TRUE(plain->running_inside_);
  EXPECT_EQ(plain->focused_, "vistrel");
  EXPECT_EQ(plain->started_, (Lines{"/kelmast/bin/browser.app", url, "--paypal"}));
  EXPECT_FALSE(DeviceFileExists("/tmp/vistrel_browser_logo.bmp"));

  unsigned char pixels[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  ibitmap logo{2, 2, 24, 6, pixels};
  ASSERT_EQ(SaveBitmap("/kelmast/system/resources/browser_vistrel.bmp", &logo), 1);
  auto with_logo = Install({"https://shop.example/pay/back"});
  auth.Run(url);
  EXPECT_EQ(with_logo->started_, (Lines{"/kelmast/bin/browser.app", url, "--paypal", "-img",
                                        "/tmp/vistrel_browser_logo.bmp"}));
  EXPECT_TRUE(DeviceFileExists("/tmp/vistrel_browser_logo.bmp"));
}

TEST_F(AuthTest, PaysThroughARedirectChainWithTheHostBrowser) {
  vistrel_test::FakeServer shop;
  auto redirect = [](const std::string& location) {
    vistrel_test::Reply reply;
    reply.status = 302;
    reply.headers = {{"Location", location}};
    return reply;
  };
  shop.Set("/order/pay", redirect("/approve"));
  shop.Set("/approve", redirect(shop.base_url() + "/pay/paypal?token=EC-1&PayerID=AB"));
  Auth auth;
  EXPECT_EQ(auth.Run(shop.base_url() + "/order/pay"), 0);
  EXPECT_TRUE(auth.success_);
  EXPECT_EQ(auth.token_, "EC-1");
  EXPECT_EQ(auth.payer_id_, "AB");
  EXPECT_TRUE(shop.requests("/pay/paypal").empty());
  EXPECT_EQ(LogLines().size(), 4u);  // three addresses and the outcome
}

}  // namespace
