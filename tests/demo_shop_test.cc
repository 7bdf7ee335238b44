// The demo shop on its own, over HTTP: configuration, the shop calls of a whole purchase, the
// payment redirects, the book files and the misbehaviour switches.
#include "demo_shop.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <json/reader.h>
#include <json/value.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <regex>
#include <thread>

#include "demo_catalog.h"
#include "support/ebook_check.h"

namespace {

using vistrel_demo::DemoShop;
using vistrel_demo::Failure;

Json::Value Parse(const std::string& text) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string error;
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &error)) << text;
  return value;
}

class DemoShopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(shop_.Start(0));
    client_.reset(new httplib::Client("127.0.0.1", shop_.port()));
  }

  // A shop call; the answer's envelope is checked to be there.
  Json::Value Call(const std::string& call, httplib::Params params) {
    params.emplace("clientID", DemoShop::kClientId);
    auto result = client_->Post(("/ws/shop/" + call).c_str(), params);
    EXPECT_TRUE(result) << call;
    if (!result) return Json::Value();
    EXPECT_EQ(200, result->status) << call;
    Json::Value answer = Parse(result->body);
    EXPECT_TRUE(answer["error"].isBool()) << result->body;
    EXPECT_TRUE(answer.isMember("response")) << result->body;
    return answer;
  }
  Json::Value Ok(const std::string& call, const httplib::Params& params) {
    Json::Value answer = Call(call, params);
    EXPECT_FALSE(answer["error"].asBool()) << call << ": " << answer.toStyledString();
    return answer["response"];
  }
  std::string Refusal(const std::string& call, const httplib::Params& params) {
    Json::Value answer = Call(call, params);
    EXPECT_TRUE(answer["error"].asBool()) << call << ": " << answer.toStyledString();
    return answer["response"]["errorMsg"].asString();
  }

  // Follows a payment link hop by hop as the device browser does; the visited addresses.
  std::vector<std::string> FollowPayment(const std::string& link) {
    std::vector<std::string> visited = {link};
    while (visited.size() < 10) {
      const std::string path = visited.back().substr(shop_.base_url().size());
      auto result = client_->Get(path.c_str());
      if (!result || result->status != 302) break;
      visited.push_back(result->get_header_value("Location"));
    }
    return visited;
  }

  DemoShop shop_;
  std::unique_ptr<httplib::Client> client_;
};

TEST_F(DemoShopTest, ConfigurationPointsAtThisServer) {
  auto result = client_->Get("/norbel/config/SN-0815");
  ASSERT_TRUE(result);
  ASSERT_EQ(200, result->status);
  EXPECT_EQ("SN-0815", shop_.last_serial());
  const Json::Value config = Parse(result->body);
  const char* const kKeys[] = {"clientID",
                               "clientName",
                               "clientAddress",
                               "clientOPDSCatalogUrl",
                               "clientShopWebserviceUrl",
                               "clientImprint",
                               "clientTaC",
                               "clientPaymentInfo",
                               "clientInfo",
                               "clientHelp",
                               "clientStandbyImage",
                               "clientSalesPermission",
                               "clientPrivacyPolicy",
                               "clientRevocation"};
  EXPECT_EQ(14u, config.size());
  for (const char* key : kKeys) {
    EXPECT_TRUE(config[key].isString() && !config[key].asString().empty()) << key;
  }
  EXPECT_EQ(DemoShop::kClientId, config["clientID"].asString());
  EXPECT_EQ(shop_.base_url() + "/ws/shop", config["clientShopWebserviceUrl"].asString());

  // Without a serial number the base address alone answers too.
  result = client_->Get("/norbel/config/");
  ASSERT_TRUE(result);
  EXPECT_EQ(200, result->status);
  EXPECT_EQ("", shop_.last_serial());

  // The language list sits beside the web service, where the library looks for it.
  result = client_->Get("/ws/filter/languages");
  ASSERT_TRUE(result);
  EXPECT_NE(std::string::npos, result->body.find("<language code=\"de\" name=\"Deutsch\"/>"));

  // The standby picture is a 24-bit BMP whose header agrees with its size.
  const std::string image = config["clientStandbyImage"].asString();
  result = client_->Get(image.substr(shop_.base_url().size()).c_str());
  ASSERT_TRUE(result);
  const std::string& bmp = result->body;
  ASSERT_GE(bmp.size(), 54u);
  EXPECT_EQ("BM", bmp.substr(0, 2));
  EXPECT_EQ(bmp.size(), vistrel_test::Le(bmp, 2, 4));
  EXPECT_EQ(200u, vistrel_test::Le(bmp, 18, 4));
  EXPECT_EQ(100u, vistrel_test::Le(bmp, 22, 4));
  EXPECT_EQ(24u, vistrel_test::Le(bmp, 28, 2));
  EXPECT_EQ(54u + 200 * 3 * 100, bmp.size());
}

TEST_F(DemoShopTest, PurchaseFromRegistrationToDelivery) {
  shop_.SetLinkDelay(std::chrono::milliseconds(1500));
  const std::string ean1 = vistrel_demo::DemoCatalog()[0].ean;
  const std::string ean2 = vistrel_demo::DemoCatalog()[2].ean;

  // Accounts.
  const std::string session =
      Ok("registerUser", {{"email", "a@example.org"}, {"password", "pw"}})["sessionID"].asString();
  EXPECT_EQ(32u, session.size());
  EXPECT_EQ("This e-mail address is already registered",
            Refusal("registerUser", {{"email", "a@example.org"}, {"password", "x"}}));
  EXPECT_EQ("Wrong e-mail address or password",
            Refusal("login", {{"username", "a@example.org"}, {"password", "wrong"}}));
  EXPECT_FALSE(Ok("login", {{"username", "a@example.org"}, {"password", "pw"}})["sessionID"]
                   .asString()
                   .empty());
  EXPECT_EQ("Unknown session, please log in again", Refusal("getCart", {{"sessionID", "nope"}}));
  auto bad_client = client_->Post("/ws/shop/getCart", httplib::Params{{"sessionID", session}});
  ASSERT_TRUE(bad_client);
  EXPECT_EQ("Unknown client ID", Parse(bad_client->body)["response"]["errorMsg"].asString());

  // Cart.
  EXPECT_EQ("Unknown EAN 123",
            Refusal("addToCart", {{"sessionID", session}, {"ean", "123"}, {"quantity", "1"}}));
  Ok("addToCart", {{"sessionID", session}, {"ean", ean1}, {"quantity", "1"}});
  Ok("addToCart", {{"sessionID", session}, {"ean", ean2}, {"quantity", "1"}});
  Ok("addToCart", {{"sessionID", session}, {"ean", ean2}, {"quantity", "1"}});  // no second line
  Json::Value cart = Ok("getCart", {{"sessionID", session}});
  ASSERT_EQ(2u, cart["cartPositions"].size());
  const Json::Value& line = cart["cartPositions"][0];
  EXPECT_EQ(ean1, line["cartPositionEan"].asString());
  EXPECT_TRUE(line["cartPositionID"].isIntegral());
  EXPECT_TRUE(line["cartPositionPrice"].isDouble());
  EXPECT_DOUBLE_EQ(4.99, line["cartPositionPrice"].asDouble());
  EXPECT_EQ("EPUB", line["cartPositionEbookType"].asString());
  EXPECT_FALSE(line["cartPositionTitle"].asString().empty());
  const Json::Value& header = cart["cart"];
  EXPECT_EQ(session, header["cartSessionID"].asString());
  EXPECT_TRUE(header["cartID"].isIntegral());
  EXPECT_TRUE(header["cartUserID"].isIntegral());
  EXPECT_TRUE(header["cartLastChange"].isString());
  const std::string cart_id = std::to_string(header["cartID"].asInt64());

  // Order.
  EXPECT_EQ("Unknown cart 1",
            Refusal("prepareEbookOrder", {{"sessionID", session}, {"cartID", "1"}}));
  Json::Value order = Ok("prepareEbookOrder", {{"sessionID", session}, {"cartID", cart_id}});
  ASSERT_TRUE(order["order"]["orderID"].isInt());
  const std::string order_id = std::to_string(order["order"]["orderID"].asInt64());
  ASSERT_EQ(2u, order["positions"].size());
  EXPECT_EQ(ean2, order["positions"][1]["orderPositionEan"].asString());
  EXPECT_DOUBLE_EQ(3.49, order["positions"][1]["orderPositionGizmoPrize"].asDouble());
  order = Ok("commitOrder", {{"sessionID", session}, {"orderID", order_id}, {"webpage", "x"}});
  const std::string link = order["order"]["orderPaymentLink"].asString();
  EXPECT_EQ(shop_.base_url() + "/pay/start/" + order_id, link);
  EXPECT_FALSE(order["order"]["orderDateProcessed"].asString().empty());
  EXPECT_EQ(0u, Ok("getCart", {{"sessionID", session}})["cartPositions"].size());
  EXPECT_EQ("The order has been committed already",
            Refusal("commitOrder", {{"sessionID", session}, {"orderID", order_id}}));

  // Not paid yet: no links.
  Json::Value check = Ok("checkOrder", {{"orderID", order_id}});
  EXPECT_EQ(0, check["paymentStatus"].asInt());
  ASSERT_EQ(2u, check["ebooks"].size());
  EXPECT_EQ("", check["ebooks"][0]["orderPositionEbookLink"].asString());

  // Payment: start, gateway, PayPal return with token and payer.
  const std::vector<std::string> visited = FollowPayment(link);
  ASSERT_EQ(3u, visited.size());
  EXPECT_EQ(0u, visited[1].find(shop_.base_url() + "/pay/gateway?"));
  std::smatch match;
  ASSERT_TRUE(std::regex_match(visited[2], match,
                               std::regex(".*/pay/paypal\\?token=(EC-[0-9A-Z]+)&PayerID=(\\w+)")))
      << visited[2];
  const std::string token = match[1];
  const std::string payer = match[2];
  auto page = client_->Get(visited[2].substr(shop_.base_url().size()).c_str());
  ASSERT_TRUE(page);
  EXPECT_EQ(200, page->status);

  EXPECT_EQ("Unknown PayPal token",
            Refusal("confirmPayPal", {{"token", "EC-X"}, {"payerID", payer}}));
  EXPECT_EQ("The PayPal payer does not match the payment",
            Refusal("confirmPayPal", {{"token", token}, {"payerID", "someone"}}));
  Ok("confirmPayPal", {{"token", token}, {"payerID", payer}});

  // Paid; the links follow after the link delay.
  check = Ok("checkOrder", {{"orderID", order_id}});
  EXPECT_EQ(1, check["paymentStatus"].asInt());
  EXPECT_EQ("", check["ebooks"][0]["orderPositionEbookLink"].asString());
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (check["ebooks"][1]["orderPositionEbookLink"].asString().empty() &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    check = Ok("checkOrder", {{"orderID", order_id}});
  }
  const Json::Value& ebook = check["ebooks"][1];
  EXPECT_EQ(shop_.base_url() + "/files/" + ean2 + ".pdf",
            ebook["orderPositionEbookLink"].asString());
  EXPECT_EQ("PDF", ebook["orderPositionEbookFormat"].asString());
  EXPECT_FALSE(ebook["orderPositionTitle"].asString().empty());
  EXPECT_FALSE(ebook["orderPositionAuthor"].asString().empty());
  EXPECT_TRUE(std::regex_match(ebook["orderPositionEbookDate"].asString(),
                               std::regex("[A-Z][a-z]{2} [0-9]{1,2}, [0-9]{4} "
                                          "(1[0-2]|[1-9]):[0-5][0-9]:[0-5][0-9] (AM|PM)")))
      << ebook["orderPositionEbookDate"].asString();

  // The library: every book of every paid order.
  const Json::Value books = Ok("getUserEbook", {{"sessionID", session}});
  ASSERT_TRUE(books.isArray());
  ASSERT_EQ(2u, books.size());
  EXPECT_EQ(ean1, books[0]["orderPositionEan"].asString());
  EXPECT_EQ(ebook["orderPositionEbookLink"], books[1]["orderPositionEbookLink"]);
}

TEST_F(DemoShopTest, GivingUpEndsAtTheBackAddress) {
  const std::string session =
      Ok("registerUser", {{"email", "b@example.org"}, {"password", "pw"}})["sessionID"].asString();
  const std::string cart_id = Ok("addToCart", {{"sessionID", session},
                                               {"ean", vistrel_demo::DemoCatalog()[1].ean},
                                               {"quantity", "1"}})["cartID"]
                                  .asString();
  const std::string order_id = std::to_string(
      Ok("prepareEbookOrder", {{"sessionID", session}, {"cartID", cart_id}})["order"]["orderID"]
          .asInt64());
  const std::string link = Ok("commitOrder", {{"sessionID", session},
                                              {"orderID", order_id}})["order"]["orderPaymentLink"]
                               .asString();

  std::vector<std::string> visited = FollowPayment(link + "?cancel=1");
  ASSERT_EQ(3u, visited.size());
  EXPECT_NE(std::string::npos, visited[2].find("/pay/back"));
  shop_.SetCancelPayment(true);
  visited = FollowPayment(link);
  EXPECT_NE(std::string::npos, visited.back().find("/pay/back"));
  shop_.SetCancelPayment(false);
  visited = FollowPayment(link);
  EXPECT_NE(std::string::npos, visited.back().find("/pay/paypal?token=EC-"));
  // An order that is not waiting for payment has no payment page.
  auto result = client_->Get("/pay/start/1");
  ASSERT_TRUE(result);
  EXPECT_EQ(404, result->status);
}

TEST_F(DemoShopTest, BookFilesAreValidEpubsAndPdfs) {
  int epubs = 0;
  int pdfs = 0;
  for (const auto& book : vistrel_demo::DemoCatalog()) {
    auto result = client_->Get(("/files/" + book.ean + "." + book.extension).c_str());
    ASSERT_TRUE(result) << book.ean;
    ASSERT_EQ(200, result->status) << book.ean;
    EXPECT_EQ(book.content_type, result->get_header_value("Content-Type"));
    EXPECT_EQ(shop_.BookFile(book.ean), result->body);
    if (book.format == "PDF") {
      EXPECT_EQ("", vistrel_test::PdfProblem(result->body)) << book.ean;
      EXPECT_NE(std::string::npos, result->body.find("/BaseFont /Helvetica"));
      ++pdfs;
    } else {
      EXPECT_EQ("", vistrel_test::EpubProblem(result->body)) << book.ean;
      EXPECT_NE(std::string::npos, result->body.find("<dc:title>"));
      EXPECT_NE(std::string::npos, result->body.find("<spine toc=\"ncx\">"));
      ++epubs;
    }
  }
  EXPECT_GE(epubs, 2);
  EXPECT_GE(pdfs, 1);
  auto headers = client_->Get(("/files/" + vistrel_demo::DemoCatalog()[3].ean + ".epub").c_str());
  ASSERT_TRUE(headers);
  EXPECT_EQ("application/force-download", headers->get_header_value("Content-Type"));

  // An independent reader agrees, where one is installed.
  if (std::system("unzip -v >/dev/null 2>&1") == 0) {
    const std::string path = ::testing::TempDir() + "demo_shop_test_book.epub";
    std::ofstream(path, std::ios::binary) << shop_.BookFile(vistrel_demo::DemoCatalog()[0].ean);
    EXPECT_EQ(0, std::system(("unzip -tq '" + path + "' >/dev/null").c_str()));
    std::remove(path.c_str());
  }

  // A wrong extension or EAN is not found.
  auto missing = client_->Get(("/files/" + vistrel_demo::DemoCatalog()[0].ean + ".pdf").c_str());
  ASSERT_TRUE(missing);
  EXPECT_EQ(404, missing->status);
}

TEST_F(DemoShopTest, MisbehaviourSwitches) {
  const std::string epub_path = "/files/" + vistrel_demo::DemoCatalog()[0].ean + ".epub";
  shop_.SetFailure("/ws/shop/login", Failure::kHttp500);
  auto result = client_->Post("/ws/shop/login", httplib::Params{});
  ASSERT_TRUE(result);
  EXPECT_EQ(500, result->status);

  shop_.SetFailure("/ws/shop/login", Failure::kShopError);
  Json::Value answer = Call("login", {{"username", "x"}, {"password", "y"}});
  EXPECT_TRUE(answer["error"].asBool());
  EXPECT_NE(std::string::npos, answer["response"]["errorMsg"].asString().find("injected"));

  shop_.SetFailure("/ws/shop/login", Failure::kNone);
  EXPECT_EQ("Wrong e-mail address or password",
            Refusal("login", {{"username", "x"}, {"password", "y"}}));

  // A dropped answer arrives short of its announced length, which the client takes as an error.
  shop_.SetFailure("/files/", Failure::kDrop);
  result = client_->Get(epub_path.c_str());
  EXPECT_TRUE(!result ||
              result->body.size() < shop_.BookFile(vistrel_demo::DemoCatalog()[0].ean).size());
  shop_.SetFailure("/files/", Failure::kNone);

  // Sent in pieces with pauses, a file still arrives whole.
  shop_.SetFileChunkDelay(std::chrono::milliseconds(5));
  result = client_->Get(epub_path.c_str());
  ASSERT_TRUE(result);
  EXPECT_EQ(shop_.BookFile(vistrel_demo::DemoCatalog()[0].ean), result->body);

  // Slow answers are at least as slow as told.
  shop_.SetAnswerDelay(std::chrono::milliseconds(300));
  const auto start = std::chrono::steady_clock::now();
  result = client_->Get("/ws/filter/languages");
  ASSERT_TRUE(result);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));

  // A call the shop does not have.
  shop_.SetAnswerDelay(std::chrono::milliseconds(0));
  result = client_->Post("/ws/shop/sellEverything", httplib::Params{});
  ASSERT_TRUE(result);
  EXPECT_EQ(404, result->status);
}

}  // namespace
