// The additions beside the purchase flow: a delivery wait that the caller can stop, the
// pending order kept on the device for a later check, and forgetting the stored account.
#include <gtest/gtest.h>

#include <chrono>

#include "support/shop_fixture.h"
#include "vistrel_store/store_manager.h"

namespace {

using norbel::vistrel::Book;
using norbel::vistrel::ServerApi;
using norbel::vistrel::StoreManager;
using vistrel_test::Answer;
using vistrel_test::Redirect;
using vistrel_test::ShopOk;

constexpr char kPending[] = "/mnt/ext1/system/config/vistrel_pending_order";

class PendingOrderTest : public vistrel_test::ShopTest {
 protected:
  void SetUp() override {
    ShopTest::SetUp();
    StoreConfigValue("session_id", "sess");
    ASSERT_EQ(store_->Init(), 0);
  }

  // Order 12, paid through two redirects to PayPal's return.
  void PayOrder() {
    server_.Set("/ws/shop/prepareEbookOrder", Answer(ShopOk(R"({"order": {"orderID": 12}})")));
    server_.Set("/ws/shop/commitOrder",
                Answer(ShopOk(R"({"order": {"orderID": 12, "orderPaymentLink": ")" +
                              server_.base_url() + R"(/pay/start"}})")));
    server_.Set("/pay/start", Redirect(302, "/pay/paypal?token=EC-9&PayerID=P7"));
    server_.Set("/ws/shop/confirmPayPal", Answer(ShopOk("{}")));
    Book book;
    book.string_props_[Book::Ean] = "111";
    store_->AddToCart(book);
    ASSERT_EQ(store_->StartPayment().code_, ServerApi::kOk);
  }

  void Links(const std::string& link) {
    server_.Set("/ws/shop/checkOrder",
                Answer(ShopOk(R"({"paymentStatus": 1, "ebooks": [{"orderPositionEbookLink": ")" +
                              link + "\"}]}")));
  }

  StoreManager* store_ = StoreManager::Instance();
};

TEST_F(PendingOrderTest, AStoppedWaitKeepsTheOrderForALaterCheck) {
  PayOrder();
  Links("");
  int asked = 0;
  auto begin = std::chrono::steady_clock::now();
  ServerApi::Result result = store_->WaitForPaymentResult([&asked] {
    ++asked;
    return false;
  });
  EXPECT_EQ(result.code_, ServerApi::kFailed);
  EXPECT_EQ(result.message_, "");
  EXPECT_EQ(asked, 1);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));  // no pause
  EXPECT_EQ(store_->cart().GetSize(), 0u);  // confirmed, so paid
  const std::string kept = ReadDeviceFile(kPending);
  EXPECT_NE(kept.find("\"orderID\" : 12"), std::string::npos) << kept;
  EXPECT_NE(kept.find("\"confirmed\" : true"), std::string::npos) << kept;

  // A failed payment forgets the order in memory, as after a restart; the device has it.
  server_.Set("/ws/shop/prepareEbookOrder", Answer("", 500));
  EXPECT_EQ(store_->StartPayment().code_, ServerApi::kFailed);
  EXPECT_EQ(store_->payment_data().order_id_, -1);
  ASSERT_EQ(store_->RestorePendingOrder(), 1);
  EXPECT_EQ(store_->payment_data().order_id_, 12);
  EXPECT_EQ(store_->payment_data().token_, "EC-9");
  EXPECT_EQ(store_->payment_data().payer_id_, "P7");

  // Delivered now: not confirmed a second time, no pause after the last check, file gone.
  Links("http://files/111.epub");
  const size_t purchase_loads = server_.requests("/ws/shop/getUserEbook").size();
  begin = std::chrono::steady_clock::now();
  EXPECT_EQ(store_->WaitForPaymentResult([] { return true; }).code_, ServerApi::kOk);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
  EXPECT_EQ(server_.requests("/ws/shop/confirmPayPal").size(), 1u);
  EXPECT_EQ(server_.requests("/ws/shop/getUserEbook").size(), purchase_loads + 1);
  EXPECT_FALSE(DeviceFileExists(kPending));
  EXPECT_EQ(store_->RestorePendingOrder(), 0);
}

TEST_F(PendingOrderTest, AFailedConfirmationIsRetriedAndAnUnreadableFileSetAside) {
  PayOrder();
  server_.Set("/ws/shop/confirmPayPal", Answer("", 503));
  EXPECT_EQ(store_->WaitForPaymentResult([] { return true; }).code_, ServerApi::kFailed);
  EXPECT_EQ(store_->cart().GetSize(), 1u);  // not paid yet as far as the shop said
  EXPECT_NE(ReadDeviceFile(kPending).find("\"confirmed\" : false"), std::string::npos);

  server_.Set("/ws/shop/confirmPayPal", Answer(ShopOk("{}")));
  Links("http://files/111.epub");
  EXPECT_EQ(store_->WaitForPaymentResult([] { return true; }).code_, ServerApi::kOk);
  EXPECT_EQ(server_.requests("/ws/shop/confirmPayPal").size(), 2u);
  EXPECT_EQ(store_->cart().GetSize(), 0u);

  const std::vector<std::string> broken = {
      "[1, 2", "{\"orderID\": \"12\", \"token\": \"t\", \"payerID\": \"p\"}"};
  for (const std::string& text : broken) {
    WriteDeviceFile(kPending, text);
    EXPECT_EQ(store_->RestorePendingOrder(), -1) << text;
    EXPECT_FALSE(DeviceFileExists(kPending));
  }
  // Both are kept: the second does not replace the first.
  EXPECT_EQ(KeptAside(kPending), broken);

  // An order the shop no longer knows is given up, its record kept.
  const std::string order = R"({"orderID": 12, "token": "t", "payerID": "p"})";
  WriteDeviceFile(kPending, order);
  std::string kept;
  EXPECT_EQ(store_->ForgetPendingOrder(&kept), 1);
  EXPECT_FALSE(DeviceFileExists(kPending));
  EXPECT_EQ(KeptAside(kPending, "forgotten"), std::vector<std::string>{order});
  EXPECT_EQ(ReadDeviceFile(kept), order);
  EXPECT_EQ(store_->payment_data().order_id_, -1);
  EXPECT_EQ(store_->ForgetPendingOrder(&kept), 0);
}

TEST_F(PendingOrderTest, ForgetAccountRemovesWhatLogOutKeeps) {
  StoreConfigValue("user_name", "me@example.org");
  StoreConfigSecret("password", "pw");
  store_->LogOut();
  EXPECT_EQ(ConfigValue("session_id"), "sess");
  EXPECT_EQ(store_->getPassword(), "pw");
  EXPECT_EQ(store_->ForgetAccount(), 0);
  EXPECT_FALSE(store_->IsLoggedIn());
  EXPECT_EQ(ConfigValue("session_id"), "");
  EXPECT_EQ(store_->getLogin(), "");
  EXPECT_EQ(store_->getPassword(), "");
}

}  // namespace
