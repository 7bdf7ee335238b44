// Checkout and payment through the store manager: the shop's cart, the order, the payment page
// in the emulated browser, the confirmation and the wait for download links.
#include <gtest/gtest.h>

#include <atomic>
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

Book BookWithEan(const std::string& ean) {
  Book book;
  book.string_props_[Book::Ean] = ean;
  return book;
}

std::string CartReply(const std::string& eans_json) {
  return ShopOk(R"({"cartPositions": [)" + eans_json + R"(], "cart": {"cartID": 31}})");
}

class PaymentTest : public vistrel_test::ShopTest {
 protected:
  void SetUp() override {
    ShopTest::SetUp();
    StoreConfigValue("session_id", "sess");
    ASSERT_EQ(store_->Init(), 0);
  }

  // A shop that prepares order 12 and sends the buyer through two redirects to PayPal's return.
  void ScriptOrder(const std::string& order_id_json = "12") {
    server_.Set("/ws/shop/prepareEbookOrder",
                Answer(ShopOk(R"({"order": {"orderID": )" + order_id_json + "}}")));
    server_.Set("/ws/shop/commitOrder",
                Answer(ShopOk(R"({"order": {"orderID": 12, "orderPaymentLink": ")" +
                              server_.base_url() + R"(/pay/start"}})")));
    server_.Set("/pay/start", Redirect(302, "/pay/gateway?step=1"));
    server_.Set("/pay/gateway",
                Redirect(302, server_.base_url() + "/pay/paypal?token=EC-9&PayerID=P7"));
  }

  // Whether a check of the store manager failed at `line` with `text` in its log line.
  bool HasLine(int line, const std::string& text) const {
    const std::string at = "\tvistrel_store/src/data/store_manager\t" + std::to_string(line) + "\t";
    for (const std::string& l : LogLines())
      if (l.find(at) != std::string::npos && l.find(text) != std::string::npos) return true;
    return false;
  }

  StoreManager* store_ = StoreManager::Instance();
};

TEST_F(PaymentTest, CheckOutReturnsTheBooksTheShopDroppedAndTakesTheShopsCart) {
  server_.Set("/ws/shop/getCart", Answer(CartReply("")));
  store_->CheckOut();  // an empty cart only reads the shop's twice
  EXPECT_EQ(server_.requests("/ws/shop/getCart").size(), 2u);
  EXPECT_TRUE(server_.requests("/ws/shop/addToCart").empty());

  store_->AddToCart(BookWithEan("111"));
  store_->AddToCart(BookWithEan("222"));
  server_.Set("/ws/shop/addToCart", Answer(ShopOk("{}")));
  server_.Set("/ws/shop/getCart", Answer(CartReply(R"({"cartPositionEan": "111"},
                                                    {"cartPositionEan": "333"})")));
  auto [result, dropped] = store_->CheckOut();
  EXPECT_EQ(result.code_, ServerApi::kOk);
  ASSERT_EQ(dropped.size(), 1u);
  EXPECT_EQ(dropped[0].string_props_.at(Book::Ean), "222");
  EXPECT_TRUE(store_->cart().IsContain("333"));
}

TEST_F(PaymentTest, APaidOrderIsConfirmedAndWaitsForEveryLink) {
  ScriptOrder();
  store_->AddToCart(BookWithEan("111"));
  ASSERT_EQ(store_->StartPayment().code_, ServerApi::kOk);

  // The first check has no link yet; the second has one.
  server_.Set("/ws/shop/confirmPayPal", Answer(ShopOk("{}")));
  std::atomic<int> checks{0};
  server_.Set("/ws/shop/checkOrder", [&](const auto&) {
    std::string link = checks++ == 0 ? "" : "http://files/111.epub";
    return Answer(
        ShopOk(R"({"paymentStatus": 1, "ebooks": [{"orderPositionEbookLink": ")" + link + "\"}]}"));
  });
  auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(store_->CheckPaymentResult().code_, ServerApi::kOk);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  EXPECT_EQ(checks.load(), 2);
  EXPECT_EQ(store_->cart().GetSize(), 0u);
  EXPECT_EQ(server_.requests("/ws/shop/confirmPayPal").at(0).form,
            (vistrel_test::Fields{{"token", "EC-9"}, {"payerID", "P7"}, {"clientID", "c1"}}));
  EXPECT_EQ(server_.requests("/ws/shop/checkOrder")[0].Field("orderID"), "12");
  EXPECT_EQ(store_->CheckOrderIfNeeded(), 0);
  server_.Set("/ws/shop/checkOrder", Answer("", 502));
  EXPECT_EQ(store_->CheckOrderIfNeeded(), -1);
  EXPECT_TRUE(HasLine(657, "Condition: \"ServerApi::kOk == result.code_\", return(\"-1\")]"));
}

TEST_F(PaymentTest, AnOrderIdThatIsNotA32BitIntegerStopsBeforeCommitting) {
  for (const char* id : {"\"12\"", "2147483648"}) {
    ScriptOrder(id);
    EXPECT_EQ(store_->StartPayment().code_, ServerApi::kFailed) << id;
  }
  EXPECT_TRUE(server_.requests("/ws/shop/commitOrder").empty());
  EXPECT_TRUE(HasLine(593, "Condition: \"-1 == order_id\""));
}

TEST_F(PaymentTest, WithoutPaymentLinkOrWithTheBrowserClosedThePaymentFails) {
  ScriptOrder();
  server_.Set("/ws/shop/commitOrder", Answer(ShopOk(R"({"order": {"orderID": 12}})")));
  EXPECT_EQ(store_->StartPayment().code_, ServerApi::kFailed);
  EXPECT_TRUE(server_.requests("/pay/start").empty());
  EXPECT_TRUE(HasLine(603, "Condition: \"url.empty()\""));

  // A payment page that never returns to the shop: the buyer closed the browser.
  ScriptOrder();
  server_.Set("/pay/start", Answer("<html>pay here</html>"));
  EXPECT_EQ(store_->StartPayment().code_, ServerApi::kFailed);
  EXPECT_TRUE(HasLine(609, "Condition: \"NB_OK == err\""));
}

TEST_F(PaymentTest, TheCartGoesOnceThePaymentIsConfirmed) {
  EXPECT_EQ(store_->CheckOrderIfNeeded(), -1);  // no order yet: nothing is sent
  store_->AddToCart(BookWithEan("111"));
  server_.Set("/ws/shop/confirmPayPal", Answer(vistrel_test::ShopError("token expired")));
  EXPECT_EQ(store_->CheckPaymentResult().message_, "token expired");
  EXPECT_EQ(store_->cart().GetSize(), 1u);
  EXPECT_TRUE(HasLine(625, "return(\"result\")]"));
  EXPECT_TRUE(server_.requests("/ws/shop/checkOrder").empty());

  server_.Set("/ws/shop/confirmPayPal", Answer(ShopOk("{}")));
  server_.Set("/ws/shop/checkOrder", Answer("", 500));
  EXPECT_EQ(store_->CheckPaymentResult().code_, ServerApi::kFailed);
  EXPECT_TRUE(HasLine(633, "return(\"result\")]"));
  EXPECT_EQ(store_->cart().GetSize(), 0u);

  // An order without books still waits one pass.
  server_.Set("/ws/shop/checkOrder", Answer(ShopOk(R"({"paymentStatus": 1})")));
  auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(store_->CheckPaymentResult().code_, ServerApi::kOk);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

}  // namespace
