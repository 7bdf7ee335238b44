// The purchase calls and the language list of the shop client, against a real HTTP server on
// loopback.
#include <gtest/gtest.h>

#include "support/device_fixture.h"
#include "support/fake_server.h"
#include "vistrel_store/server_api.h"

namespace {

using norbel::vistrel::Book;
using norbel::vistrel::ServerApi;
using vistrel_test::Fields;
using vistrel_test::Reply;
using vistrel_test::ShopError;
using vistrel_test::ShopOk;

Reply Answer(const std::string& body, int status = 200,
             const std::string& type = "application/json") {
  Reply reply;
  reply.status = status;
  reply.body = body;
  reply.content_type = type;
  return reply;
}

class ShopCallsTest : public vistrel_test::DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    api_.config_.clientShopWebserviceUrl = shop_.base_url() + "/ws/shop";
    api_.config_.clientID = "c1";
    api_.session_id_ = "sess";
  }

  Fields FormOf(const std::string& path) {
    auto requests = shop_.requests("/ws/shop" + path);
    EXPECT_EQ(requests.size(), 1u) << path;
    if (requests.empty()) return {};
    EXPECT_EQ(requests.back().method, "POST");
    return requests.back().form;
  }

  // The language list as (code, name) pairs.
  std::vector<std::pair<std::string, std::string>> Languages(ServerApi::Code expected_code) {
    auto [result, languages] = api_.GetLanguages();
    EXPECT_EQ(result.code_, expected_code);
    std::vector<std::pair<std::string, std::string>> pairs;
    for (const auto& language : languages) pairs.emplace_back(language.code, language.name);
    return pairs;
  }

  vistrel_test::FakeServer shop_;
  ServerApi api_;
};

TEST_F(ShopCallsTest, EveryCallSendsItsFieldsInOrder) {
  for (const char* path : {"/getCart", "/addToCart", "/prepareEbookOrder", "/checkOrder",
                           "/commitOrder", "/getUserEbook", "/confirmPayPal"}) {
    shop_.Set(std::string("/ws/shop") + path, Answer(ShopOk("{}")));
  }
  api_.GetCart();
  api_.AddToCart("978-3", 2);
  api_.PrepareOrder(-1);
  api_.CheckOrder(9007199254740993LL);
  api_.CommitOrder(std::numeric_limits<int64_t>::min());
  api_.GetUserEbook();
  api_.ConfirmPayPal("EC-1", "PAYER");

  EXPECT_EQ(FormOf("/getCart"), (Fields{{"sessionID", "sess"}, {"clientID", "c1"}}));
  EXPECT_EQ(
      FormOf("/addToCart"),
      (Fields{{"sessionID", "sess"}, {"clientID", "c1"}, {"ean", "978-3"}, {"quantity", "2"}}));
  EXPECT_EQ(FormOf("/prepareEbookOrder"),
            (Fields{{"sessionID", "sess"}, {"cartID", "-1"}, {"clientID", "c1"}}));
  EXPECT_EQ(FormOf("/checkOrder"), (Fields{{"orderID", "9007199254740993"}, {"clientID", "c1"}}));
  EXPECT_EQ(FormOf("/commitOrder"), (Fields{{"sessionID", "sess"},
                                            {"orderID", "-9223372036854775808"},
                                            {"clientID", "c1"},
                                            {"webpage", VISTREL_SHOP_WEBPAGE}}));
  EXPECT_EQ(FormOf("/getUserEbook"), (Fields{{"sessionID", "sess"}, {"clientID", "c1"}}));
  EXPECT_EQ(FormOf("/confirmPayPal"),
            (Fields{{"token", "EC-1"}, {"payerID", "PAYER"}, {"clientID", "c1"}}));
}

TEST_F(ShopCallsTest, RecordsAreBuiltFromTheResponse) {
  shop_.Set("/ws/shop/getCart", Answer(ShopOk(R"({"cart": {"cartID": 77},
      "cartPositions": [{"cartPositionEan": "111", "cartPositionPrice": 9.99}, {}]})")));
  auto [cart_result, cart] = api_.GetCart();
  EXPECT_EQ(cart_result.code_, ServerApi::kOk);
  ASSERT_EQ(cart.GetSize(), 2u);
  EXPECT_EQ(cart.GetItem(0).int_props_.at(Book::Price), 999);
  EXPECT_EQ(cart.cart_id(), 77);

  shop_.Set("/ws/shop/commitOrder", Answer(ShopOk(R"({"order": {"orderID": 12},
      "positions": [{"orderPositionEan": "111", "orderPositionGizmoPrize": 2.5}, 7]})")));
  auto [order_result, order] = api_.CommitOrder(77);
  EXPECT_EQ(order_result.code_, ServerApi::kOk);
  EXPECT_EQ(order.order_["orderID"].asInt(), 12);
  ASSERT_EQ(order.positions_.size(), 2u);  // a non-object element is an empty position
  EXPECT_EQ(order.positions_[0].int_props_.at(Book::Price), 250);
  EXPECT_TRUE(order.positions_[1].string_props_.empty());

  shop_.Set("/ws/shop/checkOrder", Answer(ShopOk(R"({"paymentStatus": 3, "ebooks": [
      {"orderPositionEan": "111", "orderPositionEbookDate": "Jan 5, 2015 1:07:09 PM"}]})")));
  auto [check_result, check] = api_.CheckOrder(12);
  EXPECT_EQ(check_result.code_, ServerApi::kOk);
  EXPECT_EQ(check.payment_status_, 3);
  ASSERT_EQ(check.ebooks_.size(), 1u);
  EXPECT_EQ(check.ebooks_[0].string_props_.at(Book::EbookDate), "05.01.2015 | 13:07:09");

  shop_.Set("/ws/shop/getUserEbook", Answer(ShopOk(R"([{"orderPosEan": "1"}, {}])")));
  auto [books_result, books] = api_.GetUserEbook();
  EXPECT_EQ(books_result.code_, ServerApi::kOk);
  EXPECT_EQ(books.size(), 2u);
  shop_.Set("/ws/shop/getUserEbook", Answer(ShopOk(R"({"orderPosEan": "1"})")));
  auto [object_result, none] = api_.GetUserEbook();
  EXPECT_EQ(object_result.code_, ServerApi::kOk);
  EXPECT_TRUE(none.empty());
}

TEST_F(ShopCallsTest, FailuresReturnEmptyRecordsNeverPartlyFilled) {
  // A refusal that also carries data: the data is not read.
  shop_.Set("/ws/shop/prepareEbookOrder", Answer(R"({"error": true, "response": {"errorMsg": "x",
                       "order": {"orderID": 1}, "positions": [{"orderPositionEan": "1"}]}})"));
  auto [refused, order] = api_.PrepareOrder(1);
  EXPECT_EQ(refused.code_, ServerApi::kFailed);
  EXPECT_EQ(refused.message_, "x");
  EXPECT_TRUE(order.order_.isNull() && order.positions_.empty());

  shop_.Set("/ws/shop/getCart", Answer(ShopOk(R"({"cartPositions": [{}]})"), 404));
  auto [missing, cart] = api_.GetCart();
  EXPECT_EQ(missing.code_, ServerApi::kFailed);
  EXPECT_EQ(missing.message_, "");
  EXPECT_EQ(cart.GetSize(), 0u);
  EXPECT_TRUE(LogLines().empty());
}

TEST_F(ShopCallsTest, RunnerFailuresLogTheirLineAndText) {
  {
    vistrel_test::FakeServer gone;
    api_.config_.clientShopWebserviceUrl = gone.base_url() + "/ws/shop";
  }
  api_.GetCart();
  api_.AddToCart("1", 1);
  api_.PrepareOrder(1);
  auto [check_result, check] = api_.CheckOrder(1);
  api_.CommitOrder(1);
  api_.GetUserEbook();
  api_.ConfirmPayPal("t", "p");
  EXPECT_TRUE(Languages(ServerApi::kFailed).empty());
  EXPECT_EQ(check_result.code_, ServerApi::kFailed);
  EXPECT_TRUE(check.ebooks_.empty());
  EXPECT_EQ(check.payment_status_, 0);

  const std::string head = "2\tvistrel_store/src/data/server_api\t";
  std::vector<std::string> expected = {
      head +
          "270\tstd::tuple<Result, Cart> norbel::vistrel::ServerApi::GetCart()\t"
          "Condition: \"0 == err\", return(\"make_tuple(Result(kFailed), cart)\")]",
      head +
          "296\tResult norbel::vistrel::ServerApi::AddToCart(const std::string &, int)\t"
          "Condition: \"0 == err\", return(\"Result(kFailed)\")]",
      head +
          "323\tstd::tuple<Result, Order> norbel::vistrel::ServerApi::PrepareOrder(int64_t)\t"
          "Condition: \"0 == err\", return(\"make_tuple(Result(kFailed), order)\")]",
      head +
          "378\tstd::tuple<Result, ChekResult> "
          "norbel::vistrel::ServerApi::CheckOrder(int64_t)\t"
          "Condition: \"0 == err\", return(\"make_tuple(Result(kFailed), check_result)\")]",
      head +
          "408\tstd::tuple<Result, Order> norbel::vistrel::ServerApi::CommitOrder(int64_t)\t"
          "Condition: \"0 == err\", return(\"make_tuple(Result(kFailed), order)\")]",
      head +
          "444\tstd::tuple<Result, std::vector<Book>> "
          "norbel::vistrel::ServerApi::GetUserEbook()\t"
          "Condition: \"0 == err\", return(\"make_tuple(Result(kFailed), books)\")]",
      head +
          "469\tResult norbel::vistrel::ServerApi::ConfirmPayPal(const std::string &, "
          "const std::string)\tCondition: \"0 == err\", return(\"Result(kFailed)\")]",
      head +
          "163\tstd::tuple<Result, std::vector<Language>> "
          "norbel::vistrel::ServerApi::GetLanguages()\tCondition: \"0 == err\", "
          "return(\"make_tuple(Result(kFailed), result)\")]",
  };
  EXPECT_EQ(LogLines(), expected);
}

TEST_F(ShopCallsTest, OrderRecordsReplaceRatherThanAppend) {
  norbel::vistrel::Order order;
  Json::Value json;
  json["order"]["orderID"] = 5;
  json["positions"].append(Json::Value(Json::objectValue));
  json["positions"].append(Json::Value(Json::objectValue));
  order.FromJson(json);
  order.FromJson(json);
  EXPECT_EQ(order.positions_.size(), 2u);
  json.removeMember("positions");
  order.FromJson(json);
  EXPECT_TRUE(order.positions_.empty());
  EXPECT_EQ(order.order_["orderID"].asInt(), 5);
}

// ---- Language list ----

TEST_F(ShopCallsTest, LanguagesComeFromTheFilterListBesideTheService) {
  shop_.Set("/ws/filter/languages", Answer(R"(<?xml version="1.0" encoding="utf-8"?>
      <languages>
        <language code="de" name="Deutsch" extra="x"/>
        <Language code="xx" name="ignored"/>
        <group><language code="fr"><language name="nested"/></language></group>
        <language code="de" name="Deutsch"/>
      </languages>)",
                                           200, "text/xml"));
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"de", "Deutsch"}, {"fr", ""}, {"", "nested"}, {"de", "Deutsch"}};
  EXPECT_EQ(Languages(ServerApi::kOk), expected);
  auto requests = shop_.requests("/ws/filter/languages");
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "GET");
  api_.config_.clientShopWebserviceUrl = shop_.base_url() + "/ws/";  // same list
  EXPECT_EQ(Languages(ServerApi::kOk), expected);
}

TEST_F(ShopCallsTest, BrokenOrHostileXmlKeepsWhatWasRead) {
  shop_.Set("/ws/filter/languages",
            Answer(R"(<l><language code="it" name="Italiano"/><language code=)"));
  EXPECT_EQ(Languages(ServerApi::kOk).size(), 1u);
  shop_.Set("/ws/filter/languages", Answer("this is not xml"));
  EXPECT_TRUE(Languages(ServerApi::kOk).empty());

  std::string laughs = "<?xml version=\"1.0\"?><!DOCTYPE l [<!ENTITY a \"aaaaaaaaaa\">";
  char prev = 'a';
  for (char name = 'b'; name <= 'k'; ++name, ++prev) {
    laughs += std::string("<!ENTITY ") + name + " \"";
    for (int i = 0; i < 10; ++i) laughs += std::string("&") + prev + ";";
    laughs += "\">";
  }
  laughs += "]><l><language code=\"&k;\"/></l>";
  shop_.Set("/ws/filter/languages", Answer(laughs));
  for (const auto& language : Languages(ServerApi::kOk)) EXPECT_LT(language.first.size(), 1000000u);
}

TEST_F(ShopCallsTest, LanguageListFailures) {
  shop_.Set("/ws/filter/languages", Answer("<l><language code=\"de\"/></l>", 404));
  EXPECT_TRUE(Languages(ServerApi::kFailed).empty());
  EXPECT_TRUE(LogLines().empty());
  api_.config_.clientShopWebserviceUrl = "";
  EXPECT_TRUE(Languages(ServerApi::kFailed).empty());
  EXPECT_EQ(shop_.requests().size(), 1u);  // no request without an address

  // "127.0.0.1:<port>filter/languages" has no valid port: the runner refuses it.
  api_.config_.clientShopWebserviceUrl = "127.0.0.1:" + std::to_string(shop_.port());
  EXPECT_TRUE(Languages(ServerApi::kFailed).empty());
  EXPECT_EQ(shop_.requests().size(), 1u);
  auto lines = LogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("\t163\t"), std::string::npos);
}

}  // namespace
