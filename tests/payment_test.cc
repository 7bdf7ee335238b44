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
using vistrel_test::RecordedRequest;
using vistrel_test::Reply;
using vistrel_test::ShopOk;

constexpr char kSource[] = "vistrel_store/src/data/store_manager";
constexpr char kStartPayment[] = "ServerApi::Result norbel::vistrel::StoreManager::StartPayment()";

Reply Body(const std::string& body, int status = 200) {
  Reply reply;
  reply.body = body;
  reply.status = status;
  return reply;
}

Reply Redirect(const std::string& location) {
  Reply reply;
  reply.status = 302;
  reply.headers = {{"Location", location}};
  return reply;
}

Book BookWithEan(const std::string& ean) {
  Book book;
  book.string_props_[Book::Ean] = ean;
  return book;
}

std::string CartReply(const std::vector<std::string>& eans) {
  std::string positions;
  for (const std::string& ean : eans) {
    positions += (positions.empty() ? "" : ", ") + std::string(R"({"cartPositionEan": ")") + ean +
                 R"(", "cartPositionPrice": 4.5})";
  }
  return ShopOk(R"({"cartPositions": [)" + positions + R"(], "cart": {"cartID": 31}})");
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
    server_.Set("/ws/shop/getCart", Body(CartReply({"111", "222"})));
    server_.Set("/ws/shop/prepareEbookOrder",
                Body(ShopOk(R"({"order": {"orderID": )" + order_id_json + "}}")));
    server_.Set("/ws/shop/commitOrder",
                Body(ShopOk(R"({"order": {"orderID": 12, "orderPaymentLink": ")" +
                            server_.base_url() +
                            R"(/pay/start", "orderDateProcessed": "Jan 5, 2015"}})")));
    server_.Set("/pay/start", Redirect("/pay/gateway?step=1"));
    server_.Set("/pay/gateway", Redirect(server_.base_url() + "/pay/paypal?token=EC-9&PayerID=P7"));
    server_.Set("/pay/paypal", Body("<html>thanks</html>"));
  }

  bool HasLine(int line, const std::string& text) const {
    for (const std::string& l : LogLines()) {
      if (l.find(std::string("\t") + kSource + "\t" + std::to_string(line) + "\t") !=
              std::string::npos &&
          l.find(text) != std::string::npos) {
        return true;
      }
    }
    return false;
  }

  StoreManager* store_ = StoreManager::Instance();
};

TEST_F(PaymentTest, CheckOutOfAnEmptyCartOnlyReadsTheShopsCartTwice) {
  server_.Set("/ws/shop/getCart", Body(CartReply({})));
  auto [result, dropped] = store_->CheckOut();
  EXPECT_EQ(result.code_, ServerApi::kOk);
  EXPECT_TRUE(dropped.empty());
  EXPECT_EQ(server_.requests("/ws/shop/getCart").size(), 2u);
  EXPECT_TRUE(server_.requests("/ws/shop/addToCart").empty());
}

TEST_F(PaymentTest, CheckOutReturnsTheBooksTheShopDroppedAndTakesTheShopsCart) {
  store_->AddToCart(BookWithEan("111"));
  store_->AddToCart(BookWithEan("222"));
  store_->AddToCart(Book());  // no EAN: sent as ""
  server_.Set("/ws/shop/addToCart", Body(ShopOk("{}")));
  server_.Set("/ws/shop/getCart", Body(CartReply({"111", "333"})));

  auto [result, dropped] = store_->CheckOut();
  EXPECT_EQ(result.code_, ServerApi::kOk);
  ASSERT_EQ(dropped.size(), 2u);
  EXPECT_EQ(dropped[0].string_props_.at(Book::Ean), "222");
  EXPECT_TRUE(dropped[1].string_props_.empty());

  auto adds = server_.requests("/ws/shop/addToCart");
  ASSERT_EQ(adds.size(), 3u);
  EXPECT_EQ(adds[0].Field("ean"), "111");
  EXPECT_EQ(adds[1].Field("ean"), "222");
  EXPECT_EQ(adds[2].Field("ean"), "");
  for (const RecordedRequest& add : adds) EXPECT_EQ(add.Field("quantity"), "1");
  EXPECT_TRUE(store_->cart().IsContain("333"));
  EXPECT_FALSE(store_->cart().IsContain("222"));
  EXPECT_EQ(store_->cart().cart_id(), 31);
}

TEST_F(PaymentTest, APaidOrderIsConfirmedAndWaitsForEveryLink) {
  ScriptOrder();
  store_->AddToCart(BookWithEan("111"));
  store_->CheckOut();

  ServerApi::Result started = store_->StartPayment();
  ASSERT_EQ(started.code_, ServerApi::kOk);
  EXPECT_EQ(store_->payment_data().order_id_, 12);
  EXPECT_EQ(store_->payment_data().token_, "EC-9");
  EXPECT_EQ(store_->payment_data().payer_id_, "P7");
  EXPECT_EQ(store_->order_date_processed(), "Jan 5, 2015");
  auto prepared = server_.requests("/ws/shop/prepareEbookOrder");
  ASSERT_EQ(prepared.size(), 1u);
  EXPECT_EQ(prepared[0].Field("cartID"), "31");
  EXPECT_EQ(server_.requests("/pay/gateway").size(), 1u);
  EXPECT_TRUE(HasLine(588, "Starting PrepareOrder"));
  EXPECT_TRUE(HasLine(595, "Starting CommitOrder"));
  EXPECT_TRUE(HasLine(605, "Starting browser auth"));

  // The first check has no link yet; the second has one.
  server_.Set("/ws/shop/confirmPayPal", Body(ShopOk("{}")));
  std::atomic<int> checks{0};
  server_.Set("/ws/shop/checkOrder", [&](const RecordedRequest&) {
    std::string link = checks++ == 0 ? "" : "http://files/111.epub";
    return Body(ShopOk(R"({"paymentStatus": 1, "ebooks": [{"orderPositionEan": "111",
                           "orderPositionEbookLink": ")" + link + "\"}]}"));
  });
  server_.Set("/ws/shop/getUserEbook", Body(ShopOk(R"([{"orderPositionEan": "111"}])")));
  auto begin = std::chrono::steady_clock::now();
  ServerApi::Result paid = store_->CheckPaymentResult();
  auto waited = std::chrono::steady_clock::now() - begin;

  EXPECT_EQ(paid.code_, ServerApi::kOk);
  EXPECT_EQ(checks.load(), 2);
  EXPECT_GE(waited, std::chrono::seconds(10));  // one 5-second pause per check
  EXPECT_EQ(store_->cart().GetSize(), 0u);
  ASSERT_EQ(store_->purchased().size(), 1u);
  auto confirm = server_.requests("/ws/shop/confirmPayPal");
  ASSERT_EQ(confirm.size(), 1u);
  EXPECT_EQ(confirm[0].form, (vistrel_test::Fields{{"token", "EC-9"}, {"payerID", "P7"},
                                                   {"clientID", "c1"}}));
  EXPECT_EQ(server_.requests("/ws/shop/checkOrder")[0].Field("orderID"), "12");

  EXPECT_EQ(store_->CheckOrderIfNeeded(), 0);
}

TEST_F(PaymentTest, AnOrderIdThatIsNotA32BitIntegerStopsBeforeCommitting) {
  for (const char* id : {"\"12\"", "2147483648", "null"}) {
    ScriptOrder(id);
    ServerApi::Result result = store_->StartPayment();
    EXPECT_EQ(result.code_, ServerApi::kFailed) << id;
    EXPECT_EQ(store_->payment_data().order_id_, -1);
  }
  EXPECT_TRUE(server_.requests("/ws/shop/commitOrder").empty());
  EXPECT_TRUE(HasLine(593, std::string(kStartPayment) +
                               "\tCondition: \"-1 == order_id\", "
                               "return(\"ServerApi::Result(ServerApi::kFailed)\")]"));
}

TEST_F(PaymentTest, ACommittedOrderWithoutPaymentLinkOpensNoBrowser) {
  ScriptOrder();
  server_.Set("/ws/shop/commitOrder", Body(ShopOk(R"({"order": {"orderID": 12}})")));
  EXPECT_EQ(store_->StartPayment().code_, ServerApi::kFailed);
  EXPECT_TRUE(server_.requests("/pay/start").empty());
  EXPECT_TRUE(HasLine(603, "Condition: \"url.empty()\", "
                           "return(\"ServerApi::Result(ServerApi::kFailed)\")]"));
}

TEST_F(PaymentTest, RefusedStepsReturnTheShopsResult) {
  ScriptOrder();
  server_.Set("/ws/shop/prepareEbookOrder", Body(vistrel_test::ShopError("cart empty")));
  ServerApi::Result prepare = store_->StartPayment();
  EXPECT_EQ(prepare.code_, ServerApi::kFailed);
  EXPECT_EQ(prepare.message_, "cart empty");
  EXPECT_TRUE(HasLine(590, "Condition: \"ServerApi::kOk == result.code_\", return(\"result\")]"));

  ScriptOrder();
  server_.Set("/ws/shop/commitOrder", Body("", 500));
  EXPECT_EQ(store_->StartPayment().code_, ServerApi::kFailed);
  EXPECT_TRUE(HasLine(598, "return(\"result\")]"));

  // A payment page that never returns to the shop: the buyer closed the browser.
  ScriptOrder();
  server_.Set("/pay/start", Body("<html>pay here</html>"));
  EXPECT_EQ(store_->StartPayment().code_, ServerApi::kFailed);
  EXPECT_TRUE(HasLine(609, "Condition: \"NB_OK == err\", "
                           "return(\"ServerApi::Result(ServerApi::kFailed)\")]"));
  EXPECT_EQ(store_->payment_data().order_id_, -1);
}

TEST_F(PaymentTest, NoFailureClearsTheCart) {
  store_->AddToCart(BookWithEan("111"));
  server_.Set("/ws/shop/confirmPayPal", Body(vistrel_test::ShopError("token expired")));
  ServerApi::Result refused = store_->CheckPaymentResult();
  EXPECT_EQ(refused.code_, ServerApi::kFailed);
  EXPECT_EQ(refused.message_, "token expired");
  EXPECT_EQ(store_->cart().GetSize(), 1u);
  EXPECT_TRUE(HasLine(625, "return(\"result\")]"));
  EXPECT_TRUE(server_.requests("/ws/shop/checkOrder").empty());

  server_.Set("/ws/shop/confirmPayPal", Body(ShopOk("{}")));
  server_.Set("/ws/shop/checkOrder", Body("", 500));
  EXPECT_EQ(store_->CheckPaymentResult().code_, ServerApi::kFailed);
  EXPECT_TRUE(HasLine(633, "return(\"result\")]"));
}

TEST_F(PaymentTest, AnOrderWithoutBooksTakesOnePass) {
  server_.Set("/ws/shop/confirmPayPal", Body(ShopOk("{}")));
  server_.Set("/ws/shop/checkOrder", Body(ShopOk(R"({"paymentStatus": 1})")));
  auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(store_->CheckPaymentResult().code_, ServerApi::kOk);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  EXPECT_EQ(server_.requests("/ws/shop/checkOrder").size(), 1u);
  EXPECT_EQ(server_.requests("/ws/shop/getUserEbook").size(), 2u);  // start-up and reload
}

TEST_F(PaymentTest, CheckOrderIfNeededNeedsAPendingOrder) {
  EXPECT_EQ(store_->CheckOrderIfNeeded(), -1);
  EXPECT_TRUE(server_.requests("/ws/shop/checkOrder").empty());

  ScriptOrder();
  ASSERT_EQ(store_->StartPayment().code_, ServerApi::kOk);
  server_.Set("/ws/shop/checkOrder", Body("", 502));
  EXPECT_EQ(store_->CheckOrderIfNeeded(), -1);
  EXPECT_TRUE(HasLine(657, "\tint norbel::vistrel::StoreManager::CheckOrderIfNeeded()\t"
                           "Condition: \"ServerApi::kOk == result.code_\", return(\"-1\")]"));
}

}  // namespace
