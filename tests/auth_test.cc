// The payment browser session: which addresses end it, what it keeps, what it logs, and how
// it starts the browser.
#include "vistrel_store/auth.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "panelkit/panelkit.h"
#include "support/device_fixture.h"

namespace {

using norbel::utilities::BrowserAuthorization;
using norbel::vistrel::Auth;
using Lines = std::vector<std::string>;
using AuthTest = vistrel_test::DeviceTest;

const std::string kShop = "https://shop.example";

// Plays a browser: shows the addresses in order until the session is ended (then returns 0),
// else returns -1 as if the buyer had closed it. Keeps what it was started with.
struct ScriptedBrowser : BrowserAuthorization::Backend {
  int Run(BrowserAuthorization& session, const std::string& browser_path, const std::string& url,
          const std::vector<std::string>& args) override {
    started = {browser_path, url};
    started.insert(started.end(), args.begin(), args.end());
    for (const std::string& address : addresses) {
      session.Visit(address);
      if (!session.IsRunning()) return 0;
    }
    return -1;
  }
  Lines addresses, started;
};

std::shared_ptr<ScriptedBrowser> Install(Lines addresses) {
  auto browser = std::make_shared<ScriptedBrowser>();
  browser->addresses = std::move(addresses);
  BrowserAuthorization::SetBackend(browser);
  return browser;
}

TEST_F(AuthTest, ReturnAddressesEndTheSessionAndKeepThePayPalParameters) {
  // Each return address with what the session keeps: "success|token|payer id".
  for (const auto& [address, kept] : std::vector<std::pair<std::string, std::string>>{
           {"/pay/paypal?token=EC-1&PayerID=AB", "1|EC-1|AB"},
           {"/pay/paypal?token=EC-2", "1|EC-2|"},
           {"/pay/paypal?Token=EC-3&PayerID=AB", "0||"},
           {"/pay/backup", "0||"},
           {"/pay/back/pay/paypal?token=EC-4", "1|EC-4|"}}) {  // PayPal's return is tried first
    SCOPED_TRACE(address);
    Install({kShop + address, kShop + "/after"});
    Auth auth;
    EXPECT_EQ(auth.Run(kShop + "/start"), 0);  // ended before "/after"
    EXPECT_EQ(std::to_string(auth.success_) + "|" + auth.token_ + "|" + auth.payer_id_, kept);
  }
}

TEST_F(AuthTest, LogsEveryAddressAndTheSessionsOutcome) {
  const std::string paid = kShop + "/pay/paypal?token=EC-1", form = kShop + "/pay/form";
  const std::string trace =
      "4\tvistrel_store/src/data/auth\t62\tvirtual void "
      "norbel::vistrel::Auth::UrlChanged(const std::string &)\t"
      "Auth::UrlChanged. url_string = [";
  const std::string run = "\tint norbel::vistrel::Auth::Run(const std::string &)\t";
  Install({paid});
  EXPECT_EQ(Auth().Run(kShop), 0);
  Install({form});
  EXPECT_EQ(Auth().Run(kShop), -1);  // closed on the payment site
  EXPECT_EQ(
      LogLines(),
      (Lines{trace + paid + "]",
             "2\tvistrel_store/src/data/auth\t36" + run + "err:[0] Authorize - failed",
             trace + form + "]", "2\tvistrel_store/src/data/auth\t41" + run + "Failed to log it"}));
}

TEST_F(AuthTest, StartsTheDeviceBrowserWithTheShopLogoWhenThereIsOne) {
  const std::string url = kShop + "/pay/start?order=7";
  auto browser = Install({kShop + "/pay/back"});
  Auth().Run(url);
  EXPECT_EQ(browser->started, (Lines{"/kelmast/bin/browser.app", url, "--paypal"}));

  unsigned char pixels[12] = {};
  ibitmap logo{2, 2, 24, 6, pixels};
  ASSERT_EQ(SaveBitmap("/kelmast/system/resources/browser_vistrel.bmp", &logo), 1);
  Auth().Run(url);
  EXPECT_EQ(browser->started, (Lines{"/kelmast/bin/browser.app", url, "--paypal", "-img",
                                     "/tmp/vistrel_browser_logo.bmp"}));
}

}  // namespace
