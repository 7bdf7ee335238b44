// Payment through the store manager in a real headless Chromium on the demo shop's checkout
// page, the test acting as the buyer through the DevTools protocol (types into the form, clicks
// with the mouse). Runs only in a network namespace that holds nothing but loopback
// (scripts/test.sh runs it under `unshare -n`); anywhere else every test skips.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "demo_catalog.h"
#include "demo_shop.h"
#include "support/chromium_fixture.h"
#include "vistrel_store/store_manager.h"

namespace {

using norbel::vistrel::Book;
using norbel::vistrel::ServerApi;
using norbel::vistrel::StoreManager;
using vistrel_test::Buyer;
using vistrel_test::Recorder;
using vistrel_test::Urls;
using Clock = std::chrono::steady_clock;

class ChromiumPaymentTest : public vistrel_test::ChromiumTest {
 protected:
  // The addresses that the payment session logged, in order.
  Urls LoggedAddresses() const {
    Urls urls;
    const std::string mark = "Auth::UrlChanged. url_string = [";
    for (const std::string& line : LogLines()) {
      const size_t at = line.find(mark);
      if (at != std::string::npos) {
        urls.push_back(line.substr(at + mark.size(), line.size() - at - mark.size() - 1));
      }
    }
    return urls;
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

  ASSERT_EQ(store->StartPayment().code_, ServerApi::kOk) << testing::PrintToString(LogLines());
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
  ASSERT_EQ(store->StartPayment().code_, ServerApi::kOk) << testing::PrintToString(LogLines());
  const Urls cancelled = LoggedAddresses();
  ASSERT_EQ(cancelled.size(), 3u);
  EXPECT_EQ(cancelled[2].compare(0, s.size() + 9, s + "/pay/back"), 0) << cancelled[2];
  EXPECT_TRUE(store->payment_data().token_.empty());

  // The order stays committed, and its link opens the checkout page again: closing the browser
  // there, or only its page, fails the payment.
  const std::string& link = cancelled[0];
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

}  // namespace
