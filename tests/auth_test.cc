// The payment browser session: which addresses end it, what it keeps, what it logs, and how
// it starts the browser.
#include "vistrel_store/auth.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/device_fixture.h"
#include "support/fake_server.h"

namespace {

using norbel::utilities::BrowserAuthorization;
using norbel::vistrel::Auth;
using vistrel_test::FakeServer;
using vistrel_test::Reply;

constexpr char kSource[] = "vistrel_store/src/data/auth";
constexpr char kRunFunction[] = "int norbel::vistrel::Auth::Run(const std::string &)";
constexpr char kUrlChangedFunction[] =
    "virtual void norbel::vistrel::Auth::UrlChanged(const std::string &)";

std::string TraceLine(const std::string& url) {
  return std::string("4\t") + kSource + "\t62\t" + kUrlChangedFunction +
         "\tAuth::UrlChanged. url_string = [" + url + "]";
}
std::string RunLine(int line, const std::string& text) {
  return std::string("2\t") + kSource + "\t" + std::to_string(line) + "\t" + kRunFunction + "\t" +
         text;
}

// Plays a browser: shows the addresses in order until the session is ended, and otherwise
// returns `closed_result` as if the buyer had closed it. Records how it was started.
class ScriptedBrowser : public BrowserAuthorization::Backend {
 public:
  ScriptedBrowser(std::vector<std::string> addresses, int closed_result = -1)
      : addresses_(std::move(addresses)), closed_result_(closed_result) {}

  int Run(BrowserAuthorization& session, const std::string& browser_path, const std::string& url,
          const std::vector<std::string>& args) override {
    browser_path_ = browser_path;
    url_ = url;
    args_ = args;
    for (const std::string& address : addresses_) {
      ++shown_;
      session.Visit(address);
      if (!session.IsRunning()) return 0;
    }
    return closed_result_;
  }

  std::vector<std::string> addresses_;
  int closed_result_;
  std::string browser_path_;
  std::string url_;
  std::vector<std::string> args_;
  size_t shown_ = 0;
};

class AuthTest : public vistrel_test::DeviceTest {
 protected:
  void TearDown() override {
    BrowserAuthorization::SetBackend(nullptr);
    DeviceTest::TearDown();
  }

  std::shared_ptr<ScriptedBrowser> Install(std::vector<std::string> addresses,
                                           int closed_result = -1) {
    auto browser = std::make_shared<ScriptedBrowser>(std::move(addresses), closed_result);
    BrowserAuthorization::SetBackend(browser);
    return browser;
  }

  // A 2x2 24-bit BMP as the device's "browser_vistrel" resource.
  void WriteLogoResource() {
    std::string bmp = "BM";
    auto put = [&bmp](uint32_t value, int bytes) {
      for (int i = 0; i < bytes; ++i) bmp += static_cast<char>((value >> (8 * i)) & 0xff);
    };
    for (uint32_t v : {70, 0, 54}) put(v, 4);  // file size, reserved, pixel offset
    // Info header: size, width, height, planes, bits, no compression, pixel bytes, dpi, colours.
    for (uint32_t v : {40, 2, 2}) put(v, 4);
    put(1, 2);
    put(24, 2);
    for (uint32_t v : {0, 16, 2835, 2835, 0, 0}) put(v, 4);
    for (int row = 0; row < 2; ++row) bmp += std::string("\x10\x20\x30\x40\x50\x60\0\0", 8);
    WriteDeviceFile("/kelmast/system/resources/browser_vistrel.bmp", bmp);
  }
};

TEST_F(AuthTest, ReturnAddressesEndTheSessionAndKeepThePayPalParameters) {
  struct Case {
    std::string address;
    bool ends;
    bool success;
    std::string token;
    std::string payer_id;
  };
  const std::string shop = "https://shop.example";
  const std::vector<Case> cases = {
      {shop + "/pay/paypal?token=EC-1&PayerID=AB", true, true, "EC-1", "AB"},
      {shop + "/pay/paypal?token=EC-2", true, true, "EC-2", ""},
      {shop + "/pay/paypal?token=EC%2D3&PayerID=A+B&token=EC-4", true, true, "EC-3", "A B"},
      {shop + "/pay/paypal?Token=EC-5&PayerID=AB", true, false, "", ""},
      {shop + "/pay/paypal", true, false, "", ""},
      {shop + "/pay/back", true, false, "", ""},
      {shop + "/pay/backup", true, false, "", ""},
      {shop + "/pay/back/pay/paypal?token=EC-6", true, true, "EC-6", ""},  // PayPal first
      {shop + "/x?next=/pay/back", true, false, "", ""},
      {"/pay/pa", false, false, "", ""},
      {"", false, false, "", ""},
      {shop + "/PAY/PAYPAL?token=EC-7", false, false, "", ""},  // case-sensitive
      {shop + "/checkout?token=EC-8", false, false, "", ""},
  };
  for (const Case& c : cases) {
    auto browser = Install({shop + "/start", c.address, shop + "/after"});
    Auth auth;
    int err = auth.Run(shop + "/start");
    EXPECT_EQ(err, c.ends ? 0 : -1) << c.address;
    EXPECT_EQ(browser->shown_, c.ends ? 2u : 3u) << c.address;
    EXPECT_EQ(auth.success_, c.success) << c.address;
    EXPECT_EQ(auth.token_, c.token) << c.address;
    EXPECT_EQ(auth.payer_id_, c.payer_id) << c.address;
    EXPECT_FALSE(auth.IsRunning()) << c.address;
  }
}

TEST_F(AuthTest, ANewRunClearsSuccessButKeepsTheParameters) {
  Install({"https://shop.example/pay/paypal?token=EC-1&PayerID=AB"});
  Auth auth;
  EXPECT_EQ(auth.Run("https://shop.example/start"), 0);
  ASSERT_TRUE(auth.success_);

  // A PayPal return without a token, then the give-up address: both leave success_ false.
  Install({"https://shop.example/pay/paypal?PayerID=ZZ"});
  EXPECT_EQ(auth.Run("https://shop.example/start"), 0);
  EXPECT_FALSE(auth.success_);
  EXPECT_EQ(auth.token_, "EC-1");
  EXPECT_EQ(auth.payer_id_, "AB");

  auto closed = Install({"https://shop.example/pay/form"});
  EXPECT_EQ(auth.Run("https://shop.example/start"), -1);
  EXPECT_FALSE(auth.success_);
  EXPECT_EQ(auth.token_, "EC-1");
}

TEST_F(AuthTest, LogsEveryAddressAndTheSessionsOutcome) {
  Install({"", "https://shop.example/pay/paypal?token=EC-1&PayerID=AB"});
  Auth ended;
  EXPECT_EQ(ended.Run("https://shop.example/start"), 0);
  EXPECT_EQ(LogLines(), (std::vector<std::string>{
                            TraceLine(""),
                            TraceLine("https://shop.example/pay/paypal?token=EC-1&PayerID=AB"),
                            RunLine(36, "err:[0] Authorize - failed"),
                        }));

  DeviceTest::TearDown();
  DeviceTest::SetUp();
  Install({"https://shop.example/pay/form"});
  Auth closed;
  EXPECT_EQ(closed.Run("https://shop.example/start"), -1);
  EXPECT_EQ(LogLines(), (std::vector<std::string>{
                            TraceLine("https://shop.example/pay/form"),
                            RunLine(41, "Failed to log it"),
                        }));

  // Any other result of the browser is logged as it is.
  DeviceTest::TearDown();
  DeviceTest::SetUp();
  Install({}, 5);
  Auth odd;
  EXPECT_EQ(odd.Run("https://shop.example/start"), 5);
  EXPECT_EQ(LogLines(), (std::vector<std::string>{RunLine(36, "err:[5] Authorize - failed")}));
}

// A browser that reports a PayPal return but ignores the ended session and closes.
class StubbornBrowser : public BrowserAuthorization::Backend {
 public:
  int Run(BrowserAuthorization& session, const std::string&, const std::string&,
          const std::vector<std::string>&) override {
    session.Visit("https://shop.example/pay/paypal?token=EC-9");
    return -1;
  }
};

TEST_F(AuthTest, AClosedBrowserAfterAPayPalReturnLogsNoFailure) {
  BrowserAuthorization::SetBackend(std::make_shared<StubbornBrowser>());
  Auth auth;
  EXPECT_EQ(auth.Run("https://shop.example/start"), -1);
  EXPECT_TRUE(auth.success_);
  EXPECT_EQ(LogLines(),
            (std::vector<std::string>{TraceLine("https://shop.example/pay/paypal?token=EC-9")}));
}

TEST_F(AuthTest, StartsTheDeviceBrowserWithTheShopLogoWhenThereIsOne) {
  auto plain = Install({"https://shop.example/pay/back"});
  Auth auth;
  auth.Run("https://shop.example/pay/start?order=7");
  EXPECT_EQ(plain->browser_path_, "/kelmast/bin/browser.app");
  EXPECT_EQ(plain->url_, "https://shop.example/pay/start?order=7");
  EXPECT_EQ(plain->args_, (std::vector<std::string>{"--paypal"}));
  EXPECT_FALSE(DeviceFileExists("/tmp/vistrel_browser_logo.bmp"));

  WriteLogoResource();
  auto with_logo = Install({"https://shop.example/pay/back"});
  auth.Run("https://shop.example/pay/start?order=7");
  EXPECT_EQ(with_logo->args_,
            (std::vector<std::string>{"--paypal", "-img", "/tmp/vistrel_browser_logo.bmp"}));
  EXPECT_TRUE(DeviceFileExists("/tmp/vistrel_browser_logo.bmp"));
}

// Checks the running flag from inside the session, as the device browser's side would.
class ProbingBrowser : public BrowserAuthorization::Backend {
 public:
  explicit ProbingBrowser(Auth* auth) : auth_(auth) {}
  int Run(BrowserAuthorization& session, const std::string&, const std::string&,
          const std::vector<std::string>&) override {
    before_ = auth_->IsRunning();
    auth_->SetFocus();
    session.Visit("https://shop.example/pay/back");
    after_ = auth_->IsRunning();
    return 0;
  }
  void Focus(BrowserAuthorization& session) override { focused_ = session.name(); }

  Auth* auth_;
  bool before_ = false;
  bool after_ = true;
  std::string focused_;
};

TEST_F(AuthTest, IsRunningFollowsTheSessionAndSetFocusReachesTheBrowser) {
  Auth auth;
  EXPECT_FALSE(auth.IsRunning());
  auto browser = std::make_shared<ProbingBrowser>(&auth);
  BrowserAuthorization::SetBackend(browser);
  EXPECT_EQ(auth.Run("https://shop.example/start"), 0);
  EXPECT_TRUE(browser->before_);
  EXPECT_FALSE(browser->after_);
  EXPECT_EQ(browser->focused_, "vistrel");
}

Reply Redirect(const std::string& location) {
  Reply reply;
  reply.status = 302;
  reply.content_type = "text/html";
  reply.headers = {{"Location", location}};
  return reply;
}

TEST_F(AuthTest, PaysThroughARedirectChainWithTheHostBrowser) {
  FakeServer shop;
  FakeServer provider;
  shop.Set("/order/pay", Redirect(provider.base_url() + "/checkout?cmd=express"));
  provider.Set("/checkout", Redirect("/approve"));
  provider.Set("/approve", Redirect(shop.base_url() + "/pay/paypal?token=EC-1&PayerID=AB"));
  shop.Set("/pay/paypal", Reply{});

  Auth auth;
  EXPECT_EQ(auth.Run(shop.base_url() + "/order/pay"), 0);
  EXPECT_TRUE(auth.success_);
  EXPECT_EQ(auth.token_, "EC-1");
  EXPECT_EQ(auth.payer_id_, "AB");
  EXPECT_TRUE(shop.requests("/pay/paypal").empty());
  std::vector<std::string> lines = LogLines();
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[2], TraceLine(provider.base_url() + "/approve"));
  EXPECT_EQ(lines[4], RunLine(36, "err:[0] Authorize - failed"));

  // The buyer gives up on the provider's page: no redirect, the browser counts as closed.
  shop.Set("/order/pay", Redirect(provider.base_url() + "/login"));
  provider.Set("/login", Reply{});
  EXPECT_EQ(auth.Run(shop.base_url() + "/order/pay"), -1);
  EXPECT_FALSE(auth.success_);
  EXPECT_EQ(LogLines().back(), RunLine(41, "Failed to log it"));
}

}  // namespace
