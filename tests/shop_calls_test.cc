// The purchase calls and the language list of the shop client, against a real HTTP server on
// loopback.
#include <gtest/gtest.h>

#include "support/device_fixture.h"
#include "support/fake_server.h"
#include "vistrel_store/server_api.h"

namespace {

using norbel::vistrel::Book;
using norbel::vistrel::ServerApi;
using vistrel_test::Answer;
using vistrel_test::ShopOk;
using Pairs = std::vector<std::pair<std::string, std::string>>;

class ShopCallsTest : public vistrel_test::DeviceTest {
 protected:
  ShopCallsTest() {
    api_.config_.clientShopWebserviceUrl = shop_.base_url() + "/ws/shop";
    api_.config_.clientID = "c1";
    api_.session_id_ = "sess";
  }

  void CallAll() {
    api_.GetCart();
    api_.AddToCart("9-3", 2);
    api_.PrepareOrder(-1);
    api_.CheckOrder(9007199254740993LL);
    api_.CommitOrder(7);
    api_.GetUserEbook();
    api_.ConfirmPayPal("EC-1", "PAYER");
  }

  // "<method> <name>=<value>&..." of the one request for `path`.
  std::string FormText(const std::string& path) {
    auto requests = shop_.requests("/ws/shop" + path);
    if (requests.size() != 1) return std::to_string(requests.size()) + " requests";
    std::string text = requests[0].method + " ";
    for (const auto& [name, value] : requests[0].form) text += name + "=" + value + "&";
    return text;
  }

  // The language list as (code, name) pairs.
  Pairs Languages(ServerApi::Code expected_code) {
    auto [result, languages] = api_.GetLanguages();
    EXPECT_EQ(result.code_, expected_code);
    Pairs pairs;
    for (const auto& language : languages) pairs.emplace_back(language.code, language.name);
    return pairs;
  }

  vistrel_test::FakeServer shop_;
  ServerApi api_;
};

TEST_F(ShopCallsTest, EveryCallSendsItsFieldsInOrder) {
  CallAll();  // unscripted paths answer 404, the requests are recorded all the same
  const std::pair<const char*, std::string> expected[] = {
      {"/getCart", "POST sessionID=sess&clientID=c1&"},
      {"/addToCart", "POST sessionID=sess&clientID=c1&ean=9-3&quantity=2&"},
      {"/prepareEbookOrder", "POST sessionID=sess&cartID=-1&clientID=c1&"},
      {"/checkOrder", "POST orderID=9007199254740993&clientID=c1&"},
      {"/commitOrder",
       "POST sessionID=sess&orderID=7&clientID=c1&webpage=" VISTREL_SHOP_WEBPAGE "&"},
      {"/getUserEbook", "POST sessionID=sess&clientID=c1&"},
      {"/confirmPayPal", "POST token=EC-1&payerID=PAYER&clientID=c1&"}};
  for (const auto& [path, form] : expected) EXPECT_EQ(FormText(path), form);
}

TEST_F(ShopCallsTest, RecordsTakeWhatTheAnswerHolds) {
  shop_.Set("/ws/shop/commitOrder", Answer(ShopOk(R"({"order": {"orderID": 12},
      "positions": [{"orderPositionGizmoPrize": 2.5}, 7]})")));
  auto [order_result, order] = api_.CommitOrder(77);
  EXPECT_EQ(order.order_["orderID"].asInt(), 12);
  ASSERT_EQ(order.positions_.size(), 2u);  // a non-object position is an empty one
  EXPECT_EQ(order.positions_[0].int_props_.at(Book::Price), 250);
  Json::Value again;
  again["positions"].append(Json::Value());
  order.FromJson(again);
  EXPECT_EQ(order.positions_.size(), 1u);  // replaced, never appended to

  shop_.Set("/ws/shop/getUserEbook", Answer(ShopOk(R"({"orderPosEan": "1"})")));
  auto [books_result, books] = api_.GetUserEbook();
  EXPECT_EQ(books_result.code_, ServerApi::kOk);
  EXPECT_TRUE(books.empty());
}

TEST_F(ShopCallsTest, RefusalsAndOtherStatusesGiveEmptyRecordsUnlogged) {
  shop_.Set("/ws/shop/prepareEbookOrder", Answer(R"({"error": true, "response": {
      "errorMsg": "x", "order": {"orderID": 1}, "positions": [{"orderPositionEan": "1"}]}})"));
  auto [refused, order] = api_.PrepareOrder(1);
  EXPECT_EQ(refused.code_, ServerApi::kFailed);
  EXPECT_EQ(refused.message_, "x");
  EXPECT_TRUE(order.order_.isNull() && order.positions_.empty());

  shop_.Set("/ws/shop/getCart", Answer(ShopOk(R"({"cartPositions": [{}]})"), 404));
  auto [missing, cart] = api_.GetCart();
  EXPECT_EQ(missing.code_, ServerApi::kFailed);
  EXPECT_EQ(cart.GetSize(), 0u);
  EXPECT_TRUE(LogLines().empty());
}

TEST_F(ShopCallsTest, RunnerFailuresLogTheirLineAndText) {
  {
    vistrel_test::FakeServer gone;
    api_.config_.clientShopWebserviceUrl = gone.base_url() + "/ws/shop";
  }
  CallAll();
  EXPECT_TRUE(Languages(ServerApi::kFailed).empty());
  const std::string t = "std::tuple<Result, ", api = "norbel::vistrel::ServerApi::";
  const std::string r = "Result(kFailed)", m = "make_tuple(Result(kFailed), ";
  const std::tuple<int, std::string, std::string> expected[] = {
      {270, t + "Cart> " + api + "GetCart()", m + "cart)"},
      {296, "Result " + api + "AddToCart(const std::string &, int)", r},
      {323, t + "Order> " + api + "PrepareOrder(int64_t)", m + "order)"},
      {378, t + "ChekResult> " + api + "CheckOrder(int64_t)", m + "check_result)"},
      {408, t + "Order> " + api + "CommitOrder(int64_t)", m + "order)"},
      {444, t + "std::vector<Book>> " + api + "GetUserEbook()", m + "books)"},
      {469, "Result " + api + "ConfirmPayPal(const std::string &, const std::string)", r},
      {163, t + "std::vector<Language>> " + api + "GetLanguages()", m + "result)"}};
  std::vector<std::string> lines;
  for (const auto& [line, function, returned] : expected) {
    lines.push_back("2\tvistrel_store/src/data/server_api\t" + std::to_string(line) + "\t" +
                    function + "\tCondition: \"0 == err\", return(\"" + returned + "\")]");
  }
  EXPECT_EQ(LogLines(), lines);
}

TEST_F(ShopCallsTest, LanguagesComeFromTheFilterListBesideTheService) {
  shop_.Set("/ws/filter/languages", Answer(R"(<?xml version="1.0" encoding="utf-8"?>
      <languages><language code="de" name="Deutsch" extra="x"/><Language code="xx"/>
        <group><language code="fr"><language name="nested"/></language></group></languages>)"));
  const Pairs expected = {{"de", "Deutsch"}, {"fr", ""}, {"", "nested"}};
  EXPECT_EQ(Languages(ServerApi::kOk), expected);
  api_.config_.clientShopWebserviceUrl = shop_.base_url() + "/ws/";  // same list
  EXPECT_EQ(Languages(ServerApi::kOk), expected);

  shop_.Set("/ws/filter/languages", Answer("this is not xml"));
  EXPECT_TRUE(Languages(ServerApi::kOk).empty());
  std::string laughs = "<?xml version=\"1.0\"?><!DOCTYPE l [<!ENTITY a \"aaaaaaaaaa\">";
  for (char name = 'b'; name <= 'k'; ++name) {
    laughs += std::string("<!ENTITY ") + name + " \"";
    for (int i = 0; i < 10; ++i) laughs += std::string("&") + char(name - 1) + ";";
    laughs += "\">";
  }
  shop_.Set("/ws/filter/languages", Answer(laughs + "]><l><language code=\"&k;\"/></l>"));
  for (const auto& language : Languages(ServerApi::kOk)) EXPECT_LT(language.first.size(), 1000000u);

  shop_.Set("/ws/filter/languages", Answer("<l><language code=\"de\"/></l>", 404));
  EXPECT_TRUE(Languages(ServerApi::kFailed).empty());
  EXPECT_TRUE(LogLines().empty());
}

}  // namespace
