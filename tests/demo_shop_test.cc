// The demo shop on its own, over HTTP: configuration, a whole purchase with its payment
// redirects, the book files and the misbehaviour switches.
#include "demo_shop.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <json/reader.h>

#include <memory>
#include <regex>

#include "demo_catalog.h"
#include "payment_pages.h"
#include "support/ebook_check.h"

namespace {

using vistrel_demo::DemoCatalog;
using vistrel_demo::DemoShop;
using vistrel_demo::Failure;

class DemoShopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(shop_.Start(0));
    client_ = std::make_unique<httplib::Client>("127.0.0.1", shop_.port());
  }

  // The "response" of a shop call; `refused` tells whether the shop must refuse it.
  Json::Value Call(const std::string& call, httplib::Params params, bool refused = false) {
    params.emplace("clientID", DemoShop::kClientId);
    auto result = client_->Post(("/ws/shop/" + call).c_str(), params);
    Json::Value answer;
    EXPECT_TRUE(result && Json::Reader().parse(result->body, answer)) << call;
    EXPECT_EQ(refused, answer["error"].asBool()) << call << ": " << answer.toStyledString();
    return answer["response"];
  }
  std::string Refusal(const std::string& call, const httplib::Params& params) {
    return Call(call, params, true)["errorMsg"].asString();
  }
  // GETs a URL of this shop.
  httplib::Result Get(const std::string& url) {
    return client_->Get(url.substr(url.find('/', sizeof("http://"))).c_str());
  }
  std::string Location(const std::string& url) {
    auto result = Get(url);
    return result ? result->get_header_value("Location") : "";
  }

  DemoShop shop_;
  std::unique_ptr<httplib::Client> client_;
};

TEST_F(DemoShopTest, ConfigurationPointsAtThisServer) {
  auto result = Get(shop_.switchboard_url() + "SN-0815");
  ASSERT_TRUE(result);
  EXPECT_EQ("SN-0815", shop_.last_serial());
  Json::Value config;
  ASSERT_TRUE(Json::Reader().parse(result->body, config));
  EXPECT_EQ(DemoShop::kClientId, config["clientID"].asString());
  EXPECT_EQ(shop_.base_url() + "/ws/shop", config["clientShopWebserviceUrl"].asString());
  // The standby picture is a 200x100 24-bit BMP whose header agrees with its size.
  const std::string bmp = Get(config["clientStandbyImage"].asString())->body;
  ASSERT_EQ(54u + 200 * 3 * 100, bmp.size());
  EXPECT_EQ("BM", bmp.substr(0, 2));
  EXPECT_EQ(bmp.size(), vistrel_test::Le(bmp, 2, 4));
}

TEST_F(DemoShopTest, PurchaseFromRegistrationToDelivery) {
  shop_.SetLinkDelay(std::chrono::milliseconds(0));
  const std::string ean2 = DemoCatalog()[2].ean;
  const std::string session =
      Call("registerUser", {{"email", "a@b.org"}, {"password", "pw"}})["sessionID"].asString();
  Call("addToCart", {{"sessionID", session}, {"ean", DemoCatalog()[0].ean}, {"quantity", "1"}});
  Call("addToCart", {{"sessionID", session}, {"ean", ean2}, {"quantity", "1"}});
  const Json::Value cart = Call("getCart", {{"sessionID", session}});
  ASSERT_EQ(2u, cart["cartPositions"].size());
  EXPECT_DOUBLE_EQ(4.99, cart["cartPositions"][0]["cartPositionPrice"].asDouble());
  const std::string order_id =
      Call("prepareEbookOrder", {{"sessionID", session},
                                 {"cartID", cart["cart"]["cartID"].asString()}})["order"]["orderID"]
          .asString();
  const Json::Value order = Call("commitOrder", {{"sessionID", session}, {"orderID", order_id}});

  // The payment page leads through the gateway to the PayPal return.
  const std::string gateway = Location(order["order"]["orderPaymentLink"].asString());
  EXPECT_EQ(0u, gateway.find(shop_.base_url() + "/pay/gateway?"));
  const std::string paypal = Location(gateway);
  std::smatch match;
  ASSERT_TRUE(
      std::regex_match(paypal, match, std::regex(".*/pay/paypal\\?token=(EC-\\w+)&PayerID=(\\w+)")))
      << paypal;
  Call("confirmPayPal", {{"token", match[1]}, {"payerID", match[2]}});

  const Json::Value check = Call("checkOrder", {{"orderID", order_id}});
  const Json::Value& ebook = check["ebooks"][1];
  EXPECT_EQ(shop_.base_url() + "/files/" + ean2 + ".pdf",
            ebook["orderPositionEbookLink"].asString());
  const std::string date = ebook["orderPositionEbookDate"].asString();  // "Mar 5, 2024 9:07:02 PM"
  EXPECT_TRUE(
      std::regex_match(date, std::regex("\\w{3} \\d{1,2}, \\d{4} \\d{1,2}(:\\d\\d){2} [AP]M")))
      << date;
  EXPECT_EQ(2u, Call("getUserEbook", {{"sessionID", session}}).size());
}

TEST_F(DemoShopTest, BookFilesAreValidEpubsAndPdfs) {
  for (const auto& book : DemoCatalog()) {
    auto result = Get(shop_.base_url() + "/files/" + book.ean + "." + book.extension);
    ASSERT_TRUE(result && result->status == 200) << book.ean;
    EXPECT_EQ(book.content_type, result->get_header_value("Content-Type"));
    EXPECT_EQ(shop_.BookFile(book.ean), result->body);
    EXPECT_EQ("", book.format == "PDF" ? vistrel_test::PdfProblem(result->body)
                                       : vistrel_test::EpubProblem(result->body))
        << book.ean;
  }
  EXPECT_EQ(404, Get(shop_.base_url() + "/files/" + DemoCatalog()[0].ean + ".pdf")->status);
}

TEST_F(DemoShopTest, MisbehaviourSwitches) {
  shop_.SetFailure("/ws/shop/login", Failure::kHttp500);
  EXPECT_EQ(500, client_->Post("/ws/shop/login", httplib::Params{})->status);
  shop_.SetFailure("/ws/shop/login", Failure::kNone);
  EXPECT_EQ("Wrong e-mail address or password", Refusal("login", {{"username", "x"}}));

  // A dropped answer arrives short of its announced length, which the client takes as an error.
  const std::string url = shop_.base_url() + "/files/" + DemoCatalog()[0].ean + ".epub";
  shop_.SetFailure("/files/", Failure::kDrop);
  auto result = Get(url);
  EXPECT_TRUE(!result || result->body.size() < shop_.BookFile(DemoCatalog()[0].ean).size());
}

TEST_F(DemoShopTest, PaymentPagesLeadFromTheCheckoutFormToTheReturnAddresses) {
  shop_.SetPaymentStyle(vistrel_demo::PaymentStyle::kPage);
  const std::string session =
      Call("registerUser", {{"email", "a@b.org"}, {"password", "pw"}})["sessionID"].asString();
  Call("addToCart", {{"sessionID", session}, {"ean", DemoCatalog()[0].ean}, {"quantity", "1"}});
  Call("addToCart", {{"sessionID", session}, {"ean", DemoCatalog()[2].ean}, {"quantity", "1"}});
  const std::string cart = Call("getCart", {{"sessionID", session}})["cart"]["cartID"].asString();
  const std::string order_id =
      Call("prepareEbookOrder", {{"sessionID", session}, {"cartID", cart}})["order"]["orderID"]
          .asString();
  const Json::Value order = Call("commitOrder", {{"sessionID", session}, {"orderID", order_id}});

  // The link leads to a checkout page: the order with its total, a form, a cancel link.
  const std::string checkout = Location(order["order"]["orderPaymentLink"].asString());
  std::smatch match;
  ASSERT_TRUE(std::regex_match(checkout, match, std::regex(".*/pay/checkout\\?token=(EC-\\w+)")))
      << checkout;
  const std::string token = match[1];
  auto page = Get(checkout);
  ASSERT_TRUE(page && page->status == 200);
  // Titles are escaped: "Keeper's" appears as "Keeper&apos;s".
  const std::vector<std::string> parts = {vistrel_demo::EscapeHtml(DemoCatalog()[0].title),
                                          DemoCatalog()[2].title,
                                          "Pay 8.48 EUR",
                                          "<form method=\"post\" action=\"/pay/authorize\">",
                                          "name=\"token\" value=\"" + token + "\"",
                                          "name=\"email\"",
                                          "href=\"/pay/back?order=" + order_id + "\""};
  for (const std::string& part : parts) {
    EXPECT_NE(page->body.find(part), std::string::npos) << part;
  }

  // The form refuses a missing address and shows the page again; a good one moves on.
  auto refused = client_->Post("/pay/authorize", httplib::Params{{"token", token}, {"email", ""}});
  ASSERT_TRUE(refused);
  EXPECT_EQ(400, refused->status);
  EXPECT_NE(refused->body.find("Please enter your e-mail address."), std::string::npos);
  auto posted =
      client_->Post("/pay/authorize", httplib::Params{{"token", token}, {"email", "a@b.org"}});
  ASSERT_TRUE(posted);
  EXPECT_EQ(303, posted->status);
  const std::string processing = posted->get_header_value("Location");
  EXPECT_EQ(shop_.base_url() + "/pay/processing?token=" + token, processing);
  // Its script goes on to the step that sends the buyer back to the shop.
  EXPECT_NE(Get(processing)->body.find("location.replace('/pay/complete?token=" + token + "')"),
            std::string::npos);
  const std::string paypal = Location(shop_.base_url() + "/pay/complete?token=" + token);
  EXPECT_TRUE(std::regex_match(
      paypal, std::regex(".*/pay/paypal\\?token=" + token + "&PayerID=DEMOPAYER\\d+")))
      << paypal;
  shop_.SetCancelPayment(true);
  EXPECT_EQ(shop_.base_url() + "/pay/back?order=" + order_id,
            Location(shop_.base_url() + "/pay/complete?token=" + token));

  // Unknown tokens find nothing on any of the pages.
  EXPECT_EQ(404, Get(shop_.base_url() + "/pay/checkout?token=EC-NOPE")->status);
  EXPECT_EQ(
      404,
      client_->Post("/pay/authorize", httplib::Params{{"token", "EC-NOPE"}, {"email", "a@b.org"}})
          ->status);
  EXPECT_EQ(404, Get(shop_.base_url() + "/pay/complete?token=")->status);
}

}  // namespace
