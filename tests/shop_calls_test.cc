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
    auto requests = shop_.requests(path);
    EXPECT_EQ(requests.size(), 1u) << path;
    if (requests.empty()) return {};
    EXPECT_EQ(requests.back().method, "POST");
    return requests.back().form;
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

  EXPECT_EQ(FormOf("/ws/shop/getCart"), (Fields{{"sessionID", "sess"}, {"clientID", "c1"}}));
  EXPECT_EQ(FormOf("/ws/shop/addToCart"), (Fields{{"sessionID", "sess"},
                                                  {"clientID", "c1"},
                                                  {"ean", "978-3"},
                                                  {"quantity", "2"}}));
  EXPECT_EQ(FormOf("/ws/shop/prepareEbookOrder"),
            (Fields{{"sessionID", "sess"}, {"cartID", "-1"}, {"clientID", "c1"}}));
  EXPECT_EQ(FormOf("/ws/shop/checkOrder"),
            (Fields{{"orderID", "9007199254740993"}, {"clientID", "c1"}}));
  EXPECT_EQ(FormOf("/ws/shop/commitOrder"), (Fields{{"sessionID", "sess"},
                                                    {"orderID", "-9223372036854775808"},
                                                    {"clientID", "c1"},
                                                    {"webpage", VISTREL_SHOP_WEBPAGE}}));
  EXPECT_EQ(FormOf("/ws/shop/getUserEbook"), (Fields{{"sessionID", "sess"}, {"clientID", "c1"}}));
  EXPECT_EQ(FormOf("/ws/shop/confirmPayPal"),
            (Fields{{"token", "EC-1"}, {"payerID", "PAYER"}, {"clientID", "c1"}}));
  EXPECT_EQ(std::string(VISTREL_SHOP_WEBPAGE).rfind("https://", 0), 0u);
}

TEST_F(ShopCallsTest, RecordsAreBuiltFromTheResponse) {
  shop_.Set("/ws/shop/getCart", Answer(ShopOk(R"({
      "cartPositions": [{"cartPositionEan": "111", "cartPositionPrice": 9.99},
                        {"cartPositionEan": "222", "cartPositionQuantity": 2}],
      "cart": {"cartID": 77, "cartSessionID": "cs", "cartUserID": 5,
               "cartLastChange": "today"}})")));
  auto [cart_result, cart] = api_.GetCart();
  EXPECT_EQ(cart_result.code_, ServerApi::kOk);
  ASSERT_EQ(cart.GetSize(), 2u);
  EXPECT_EQ(cart.GetItem(0).string_props_.at(Book::Ean), "111");
  EXPECT_EQ(cart.GetItem(0).int_props_.at(Book::Price), 999);
  EXPECT_EQ(cart.cart_id(), 77);
  EXPECT_EQ(cart.session_id(), "cs");

  shop_.Set("/ws/shop/prepareEbookOrder", Answer(ShopOk(R"({
      "order": {"orderID": 12, "orderPaymentLink": "http://pay"},
      "positions": [{"orderPositionEan": "111", "orderPositionGizmoPrize": 2.5}, 7]})")));
  auto [order_result, order] = api_.PrepareOrder(77);
  EXPECT_EQ(order_result.code_, ServerApi::kOk);
  EXPECT_EQ(order.order_["orderID"].asInt(), 12);
  ASSERT_EQ(order.positions_.size(), 2u);  // a non-object element is an empty position
  EXPECT_EQ(order.positions_[0].int_props_.at(Book::Price), 250);
  EXPECT_TRUE(order.positions_[1].string_props_.empty());

  shop_.Set("/ws/shop/checkOrder", Answer(ShopOk(R"({"paymentStatus": 3, "ebooks": [
      {"orderPositionEan": "111", "orderPositionEbookLink": "http://f/111.epub",
       "orderPositionEbookDate": "Jan 5, 2015 1:07:09 PM"}]})")));
  auto [check_result, check] = api_.CheckOrder(12);
  EXPECT_EQ(check_result.code_, ServerApi::kOk);
  EXPECT_EQ(check.payment_status_, 3);
  ASSERT_EQ(check.ebooks_.size(), 1u);
  EXPECT_EQ(check.ebooks_[0].string_props_.at(Book::EbookDate), "05.01.2015 | 13:07:09");

  shop_.Set("/ws/shop/getUserEbook",
            Answer(ShopOk(R"([{"orderPosEan": "1"}, {"orderPositionEan": "2"}])")));
  auto [books_result, books] = api_.GetUserEbook();
  EXPECT_EQ(books_result.code_, ServerApi::kOk);
  ASSERT_EQ(books.size(), 2u);
  EXPECT_EQ(books[1].string_props_.at(Book::Ean), "2");

  shop_.Set("/ws/shop/getUserEbook", Answer(ShopOk(R"({"orderPosEan": "1"})")));
  auto [object_result, none] = api_.GetUserEbook();
  EXPECT_EQ(object_result.code_, ServerApi::kOk);
  EXPECT_TRUE(none.empty());
}

TEST_F(ShopCallsTest, FailuresReturnEmptyRecordsNeverPartlyFilled) {
  // A refusal that also carries data: the data is not read.
  shop_.Set("/ws/shop/prepareEbookOrder",
            Answer(R"({"error": true, "response": {"errorMsg": "x",
                       "order": {"orderID": 1}, "positions": [{"orderPositionEan": "1"}]}})"));
  auto [refused, order] = api_.PrepareOrder(1);
  EXPECT_EQ(refused.code_, ServerApi::kFailed);
  EXPECT_EQ(refused.message_, "x");
  EXPECT_TRUE(order.order_.isNull());
  EXPECT_TRUE(order.positions_.empty());

  shop_.Set("/ws/shop/getCart", Answer(ShopOk(R"({"cartPositions": [{}]})"), 404));
  auto [missing, cart] = api_.GetCart();
  EXPECT_EQ(missing.code_, ServerApi::kFailed);
  EXPECT_EQ(missing.message_, "");
  EXPECT_EQ(cart.GetSize(), 0u);

  shop_.Set("/ws/shop/addToCart", Answer(ShopError("unknown EAN")));
  ServerApi::Result add = api_.AddToCart("0", 1);
  EXPECT_EQ(add.code_, ServerApi::kFailed);
  EXPECT_EQ(add.message_, "unknown EAN");
  EXPECT_TRUE(LogLines().empty());
}

TEST_F(ShopCallsTest, RunnerFailuresLogTheirLineAndText) {
  api_.config_.clientShopWebserviceUrl = "http://127.0.0.1:1/ws/shop";
  auto [cart_result, cart] = api_.GetCart();
  api_.AddToCart("1", 1);
  api_.PrepareOrder(1);
  auto [check_result, check] = api_.CheckOrder(1);
  api_.CommitOrder(1);
  api_.GetUserEbook();
  api_.ConfirmPayPal("t", "p");
  EXPECT_EQ(check_result.code_, ServerApi::kFailed);
  EXPECT_TRUE(check.ebooks_.empty());
  EXPECT_EQ(check.payment_status_, 0);

  const std::string head = "2\tvistrel_store/src/data/server_api\t";
  std::vector<std::string> expected = {
      head + "270\tstd::tuple<Result, Cart> norbel::vistrel::ServerApi::GetCart()\t"
             "Condition: \"0 == err\", return(\"make_tuple(Result(kFailed), cart)\")]",
      head + "296\tResult norbel::vistrel::ServerApi::AddToCart(const std::string &, int)\t"
             "Condition: \"0 == err\", return(\"Result(kFailed)\")]",
      head + "323\tstd::tuple<Result, Order> norbel::vistrel::ServerApi::PrepareOrder(int64_t)\t"
             "Condition: \"0 == err\", return(\"make_tuple(Result(kFailed), order)\")]",
      head + "378\tstd::tuple<Result, ChekResult> "
             "norbel::vistrel::ServerApi::CheckOrder(int64_t)\t"
             "Condition: \"0 == err\", return(\"make_tuple(Result(kFailed), check_result)\")]",
      head + "408\tstd::tuple<Result, Order> norbel::vistrel::ServerApi::CommitOrder(int64_t)\t"
             "Condition: \"0 == err\", return(\"make_tuple(Result(kFailed), order)\")]",
      head + "444\tstd::tuple<Result, std::vector<Book>> "
             "norbel::vistrel::ServerApi::GetUserEbook()\t"
             "Condition: \"0 == err\", return(\"make_tuple(Result(kFailed), books)\")]",
      head + "469\tResult norbel::vistrel::ServerApi::ConfirmPayPal(const std::string &, "
             "const std::string)\tCondition: \"0 == err\", return(\"Result(kFailed)\")]",
  };
  EXPECT_EQ(LogLines(), expected);
}

TEST_F(ShopCallsTest, OrderRecordsReplaceRatherThanAppend) {
  norbel::vistrel::Order order;
  Json::Value first;
  first["order"]["orderID"] = 1;
  first["positions"].append(Json::Value(Json::objectValue));
  first["positions"].append(Json::Value(Json::objectValue));
  order.FromJson(first);
  Json::Value second;
  second["positions"].append(Json::Value(Json::objectValue));
  order.FromJson(second);
  EXPECT_EQ(order.positions_.size(), 1u);
  EXPECT_TRUE(order.order_.isNull());

  Json::Value without_positions;
  without_positions["order"]["orderID"] = 5;
  order.FromJson(without_positions);
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
      </languages>)", 200, "text/xml"));
  auto [result, languages] = api_.GetLanguages();
  EXPECT_EQ(result.code_, ServerApi::kOk);
  ASSERT_EQ(languages.size(), 4u);
  EXPECT_EQ(languages[0].code, "de");
  EXPECT_EQ(languages[0].name, "Deutsch");
  EXPECT_EQ(languages[1].code, "fr");
  EXPECT_EQ(languages[1].name, "");
  EXPECT_EQ(languages[2].code, "");
  EXPECT_EQ(languages[2].name, "nested");
  EXPECT_EQ(languages[3].code, "de");  // duplicates are kept
  auto requests = shop_.requests("/ws/filter/languages");
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "GET");

  api_.config_.clientShopWebserviceUrl = shop_.base_url() + "/ws/";  // same list
  EXPECT_EQ(std::get<1>(api_.GetLanguages()).size(), 4u);
}

TEST_F(ShopCallsTest, BrokenOrHostileXmlKeepsWhatWasRead) {
  shop_.Set("/ws/filter/languages",
            Answer(R"(<l><language code="it" name="Italiano"/><language code=)"));
  auto [broken, partial] = api_.GetLanguages();
  EXPECT_EQ(broken.code_, ServerApi::kOk);
  ASSERT_EQ(partial.size(), 1u);
  EXPECT_EQ(partial[0].code, "it");

  shop_.Set("/ws/filter/languages", Answer("this is not xml"));
  auto [not_xml, none] = api_.GetLanguages();
  EXPECT_EQ(not_xml.code_, ServerApi::kOk);
  EXPECT_TRUE(none.empty());

  std::string laughs = "<?xml version=\"1.0\"?><!DOCTYPE l [<!ENTITY a \"aaaaaaaaaa\">";
  char prev = 'a';
  for (char name = 'b'; name <= 'k'; ++name, ++prev) {
    laughs += std::string("<!ENTITY ") + name + " \"";
    for (int i = 0; i < 10; ++i) laughs += std::string("&") + prev + ";";
    laughs += "\">";
  }
  laughs += "]><l><language code=\"&k;\"/></l>";
  shop_.Set("/ws/filter/languages", Answer(laughs));
  auto [bomb, bombed] = api_.GetLanguages();
  EXPECT_EQ(bomb.code_, ServerApi::kOk);
  for (const auto& language : bombed) EXPECT_LT(language.code.size(), 1000000u);
}

TEST_F(ShopCallsTest, LanguageListFailures) {
  shop_.Set("/ws/filter/languages", Answer("<l><language code=\"de\"/></l>", 404));
  auto [missing, none] = api_.GetLanguages();
  EXPECT_EQ(missing.code_, ServerApi::kFailed);
  EXPECT_TRUE(none.empty());
  EXPECT_TRUE(LogLines().empty());

  api_.config_.clientShopWebserviceUrl = "";
  auto [empty, nothing] = api_.GetLanguages();
  EXPECT_EQ(empty.code_, ServerApi::kFailed);
  EXPECT_EQ(shop_.requests().size(), 1u);  // no request without an address

  api_.config_.clientShopWebserviceUrl = "http://127.0.0.1:1/ws/shop";
  api_.GetLanguages();
  auto lines = LogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0],
            "2\tvistrel_store/src/data/server_api\t163\tstd::tuple<Result, std::vector<Language>> "
            "norbel::vistrel::ServerApi::GetLanguages()\tCondition: \"0 == err\", "
            "return(\"make_tuple(Result(kFailed), result)\")]");
}

TEST_F(ShopCallsTest, BaseWithoutSlashGetsTheListNameAppended) {
  // "127.0.0.1:<port>filter/languages" has no valid port: the runner refuses it.
  api_.config_.clientShopWebserviceUrl = "127.0.0.1:" + std::to_string(shop_.port());
  auto [result, none] = api_.GetLanguages();
  EXPECT_EQ(result.code_, ServerApi::kFailed);
  EXPECT_TRUE(shop_.requests().empty());
  auto lines = LogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("\t163\t"), std::string::npos);
}

}  // namespace
