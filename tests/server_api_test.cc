// The shop's request frame, the account calls and the configuration server call, against a
// real HTTP server on loopback.
#include <gtest/gtest.h>

#include <memory>

#include "nbutils/http_request.h"
#include "support/device_fixture.h"
#include "support/fake_server.h"
#include "vistrel_store/server_api.h"

namespace {

using norbel::vistrel::ServerApi;
using norbel::vistrel::SwitchboardConfig;
using vistrel_test::Fields;
using vistrel_test::Reply;
using vistrel_test::ShopError;
using vistrel_test::ShopOk;

Reply Json(const std::string& body, int status = 200) {
  Reply reply;
  reply.status = status;
  reply.body = body;
  return reply;
}

class ServerApiTest : public vistrel_test::DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    api_.config_.clientShopWebserviceUrl = shop_.base_url() + "/ws";
    api_.config_.clientID = "client-7";
  }
  void TearDown() override {
    norbel::utilities::testing::SetRequestTimeLimitOverride(std::chrono::milliseconds(0));
    DeviceTest::TearDown();
  }

  vistrel_test::FakeServer shop_;
  ServerApi api_;
};

TEST_F(ServerApiTest, LogInSendsFieldsInOrderAndKeepsTheSession) {
  shop_.Set("/ws/login", Json(ShopOk(R"({"sessionID": "abc"})")));
  ServerApi::Result result = api_.LogIn("anna@example.org", "p&ss=word ü");
  EXPECT_EQ(result.code_, ServerApi::kOk);
  EXPECT_EQ(result.message_, "");
  EXPECT_EQ(api_.session_id_, "abc");

  auto requests = shop_.requests("/ws/login");
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "POST");
  EXPECT_EQ(requests[0].form, (Fields{{"username", "anna@example.org"},
                                      {"password", "p&ss=word ü"},
                                      {"clientID", "client-7"}}));
  EXPECT_TRUE(LogLines().empty());
}

TEST_F(ServerApiTest, RegisterNamesTheAddressEmailAndLogsIn) {
  shop_.Set("/ws/registerUser", Json(ShopOk(R"({"sessionID": "new-1"})")));
  EXPECT_EQ(api_.Register("b@example.org", "pw").code_, ServerApi::kOk);
  EXPECT_EQ(api_.session_id_, "new-1");
  auto requests = shop_.requests("/ws/registerUser");
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].form,
            (Fields{{"email", "b@example.org"}, {"password", "pw"}, {"clientID", "client-7"}}));
}

TEST_F(ServerApiTest, RefusalsCarryTheShopsMessageAndKeepTheSession) {
  api_.session_id_ = "old";
  shop_.Set("/ws/login", Json(ShopError("Wrong password")));
  ServerApi::Result refused = api_.LogIn("a", "b");
  EXPECT_EQ(refused.code_, ServerApi::kFailed);
  EXPECT_EQ(refused.message_, "Wrong password");
  EXPECT_EQ(api_.session_id_, "old");

  shop_.Set("/ws/registerUser", Json(R"({"error": true, "response": {}})"));
  ServerApi::Result silent = api_.Register("a", "b");
  EXPECT_EQ(silent.code_, ServerApi::kFailed);
  EXPECT_EQ(silent.message_, "");
  EXPECT_EQ(api_.session_id_, "old");
  EXPECT_TRUE(LogLines().empty());  // refusals are not logged
}

TEST_F(ServerApiTest, StatusOtherThan200FailsWithoutLogEvenWithAGoodBody) {
  api_.session_id_ = "keep";
  shop_.Set("/ws/login", Json(ShopOk(R"({"sessionID": "x"})"), 500));
  EXPECT_EQ(api_.LogIn("a", "b").code_, ServerApi::kFailed);

  Reply redirect = Json(ShopOk(R"({"sessionID": "x"})"), 302);
  redirect.headers = {{"Location", shop_.base_url() + "/elsewhere"}};
  shop_.Set("/ws/login", redirect);
  ServerApi::Result result = api_.LogIn("a", "b");
  EXPECT_EQ(result.code_, ServerApi::kFailed);
  EXPECT_EQ(result.message_, "");
  EXPECT_EQ(api_.session_id_, "keep");
  EXPECT_TRUE(shop_.requests("/elsewhere").empty());  // redirects are not followed
  EXPECT_TRUE(LogLines().empty());
}

TEST_F(ServerApiTest, AnswersThatAreNotJsonCountAsEmptySuccess) {
  api_.session_id_ = "old";
  shop_.Set("/ws/login", Json("<html>maintenance</html>"));
  EXPECT_EQ(api_.LogIn("a", "b").code_, ServerApi::kOk);
  EXPECT_EQ(api_.session_id_, "");

  api_.session_id_ = "old";
  shop_.Set("/ws/login", Json("{}"));
  EXPECT_EQ(api_.LogIn("a", "b").code_, ServerApi::kOk);
  EXPECT_EQ(api_.session_id_, "");

  // Too deeply nested for the reader: still just not JSON, never an exception.
  shop_.Set("/ws/login", Json(std::string(100000, '[')));
  EXPECT_EQ(api_.LogIn("a", "b").code_, ServerApi::kOk);
}

TEST_F(ServerApiTest, AddressIsTheBaseWithThePathAppendedAsItStands) {
  api_.config_.clientShopWebserviceUrl = shop_.base_url() + "/ws/";
  shop_.Set("/ws//login", Json(ShopOk(R"({"sessionID": "s"})")));
  EXPECT_EQ(api_.LogIn("a", "b").code_, ServerApi::kOk);
  EXPECT_EQ(shop_.requests("/ws//login").size(), 1u);
}

TEST_F(ServerApiTest, LogOutSendsTheSessionAndForgetsItOnlyOnSuccess) {
  EXPECT_EQ(api_.LogOut().code_, ServerApi::kOk);  // no session: nothing sent
  EXPECT_TRUE(shop_.requests().empty());

  api_.session_id_ = "s-1";
  shop_.Set("/ws/logout", Json("", 503));
  EXPECT_EQ(api_.LogOut().code_, ServerApi::kFailed);
  EXPECT_EQ(api_.session_id_, "s-1");

  shop_.Set("/ws/logout", Json(ShopOk("{}")));
  EXPECT_EQ(api_.LogOut().code_, ServerApi::kOk);
  EXPECT_EQ(api_.session_id_, "");
  auto requests = shop_.requests("/ws/logout");
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[1].form, (Fields{{"sessionID", "s-1"}, {"clientID", "client-7"}}));
}

TEST_F(ServerApiTest, TransferFailuresAreLoggedWithTheCallsSignature) {
  int closed_port;
  {
    vistrel_test::FakeServer gone;
    closed_port = gone.port();
  }
  api_.config_.clientShopWebserviceUrl = "http://127.0.0.1:" + std::to_string(closed_port);
  api_.session_id_ = "s";
  EXPECT_EQ(api_.LogIn("a", "b").code_, ServerApi::kFailed);
  EXPECT_EQ(api_.Register("a", "b").code_, ServerApi::kFailed);
  EXPECT_EQ(api_.LogOut().code_, ServerApi::kFailed);
  EXPECT_EQ(api_.session_id_, "s");

  auto lines = LogLines();
  ASSERT_EQ(lines.size(), 3u);
  const std::string text = "Condition: \"0 == err\", return(\"Result(kFailed)\")]";
  const std::string prefix = "2\tvistrel_store/src/data/server_api\t";
  EXPECT_EQ(lines[0].rfind(prefix, 0), 0u);
  EXPECT_NE(lines[0].find("\tResult norbel::vistrel::ServerApi::LogIn(const std::string &, "
                          "const std::string &)\t" + text),
            std::string::npos)
      << lines[0];
  EXPECT_NE(lines[1].find("\tResult norbel::vistrel::ServerApi::Register(const std::string &, "
                          "const std::string &)\t" + text),
            std::string::npos)
      << lines[1];
  EXPECT_NE(lines[2].find("\tResult norbel::vistrel::ServerApi::LogOut()\t" + text),
            std::string::npos)
      << lines[2];
}

TEST_F(ServerApiTest, StalledDroppedAndOversizedAnswersAreTransferFailures) {
  norbel::utilities::testing::SetRequestTimeLimitOverride(std::chrono::milliseconds(300));
  Reply stalled = Json(ShopOk(R"({"sessionID": "late"})"));
  stalled.delay = std::chrono::milliseconds(1500);
  shop_.Set("/ws/login", stalled);
  EXPECT_EQ(api_.LogIn("a", "b").code_, ServerApi::kFailed);
  norbel::utilities::testing::SetRequestTimeLimitOverride(std::chrono::milliseconds(0));

  Reply dropped = Json(ShopOk(R"({"sessionID": "half"})"));
  dropped.drop_mid_body = true;
  shop_.Set("/ws/login", dropped);
  EXPECT_EQ(api_.LogIn("a", "b").code_, ServerApi::kFailed);

  std::string huge = ShopOk(R"({"sessionID": ")" +
                            std::string(norbel::utilities::HttpRequestRunner::kMaxBodyBytes, 'x') +
                            "\"}");
  shop_.Set("/ws/login", Json(huge));
  EXPECT_EQ(api_.LogIn("a", "b").code_, ServerApi::kFailed);

  EXPECT_EQ(api_.session_id_, "");
  EXPECT_EQ(LogLines().size(), 3u);  // one check line per transfer failure
}

TEST_F(ServerApiTest, AnswerThatIsNeitherObjectNorNullRaisesTheJsonError) {
  shop_.Set("/ws/login", Json("[1, 2]"));
  EXPECT_THROW(api_.LogIn("a", "b"), Json::LogicError);
}

// ---- Configuration server ----

TEST(SwitchboardConfigTest, ParseConvertsByTypeAndTrims) {
  Json::Value json;
  json["clientID"] = 42;
  json["clientName"] = true;
  json["clientAddress"] = 1.5;
  json["clientOPDSCatalogUrl"] = "  \thttp://opds.example/\r\n ";
  json["clientShopWebserviceUrl"] = Json::Value::null;
  json["clientImprint"] = Json::Value(Json::arrayValue);
  json["clientTaC"] = -17;
  json["clientHelp"] = Json::Value(Json::UInt64(18446744073709551615ull));
  json["unknownKey"] = "ignored";
  SwitchboardConfig config = SwitchboardConfig::Parse(json);
  EXPECT_EQ(config.clientID, "42");
  EXPECT_EQ(config.clientName, "true");
  EXPECT_EQ(config.clientAddress, "");
  EXPECT_EQ(config.clientOPDSCatalogUrl, "http://opds.example/");
  EXPECT_EQ(config.clientShopWebserviceUrl, "");
  EXPECT_EQ(config.clientImprint, "");
  EXPECT_EQ(config.clientTaC, "-17");
  EXPECT_EQ(config.clientHelp, "");

  EXPECT_EQ(SwitchboardConfig::Parse(Json::Value()).clientID, "");
  EXPECT_EQ(SwitchboardConfig::Parse(Json::Value("text")).clientID, "");
}

TEST(SwitchboardConfigTest, ToJsonWritesAllFourteenKeysAndReadsBackTheSame) {
  SwitchboardConfig config;
  config.clientID = "7";
  config.clientShopWebserviceUrl = "https://shop.example/ws/shop";
  config.clientRevocation = "Widerruf ü";
  Json::Value json = config.ToJson();
  ASSERT_TRUE(json.isObject());
  EXPECT_EQ(json.size(), 14u);
  for (const std::string& key : json.getMemberNames()) EXPECT_TRUE(json[key].isString()) << key;
  SwitchboardConfig back = SwitchboardConfig::Parse(json);
  EXPECT_EQ(back.clientID, "7");
  EXPECT_EQ(back.clientShopWebserviceUrl, config.clientShopWebserviceUrl);
  EXPECT_EQ(back.clientRevocation, config.clientRevocation);
  EXPECT_EQ(back.clientName, "");
}

TEST_F(ServerApiTest, CallSwitchboardGetsTheBareConfiguration) {
  shop_.Set("/norbel/config/SN-1",
            Json(R"({"clientID": 42, "clientName": " Vistrel ", "error": true})"));
  auto [result, config] = api_.CallSwitchboard(shop_.base_url() + "/norbel/config/SN-1");
  EXPECT_EQ(result.code_, ServerApi::kOk);
  EXPECT_EQ(config.clientID, "42");
  EXPECT_EQ(config.clientName, "Vistrel");
  auto requests = shop_.requests("/norbel/config/SN-1");
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "GET");

  shop_.Set("/norbel/config/empty", Json(""));
  auto [empty_result, empty] = api_.CallSwitchboard(shop_.base_url() + "/norbel/config/empty");
  EXPECT_EQ(empty_result.code_, ServerApi::kOk);
  EXPECT_EQ(empty.clientID, "");

  auto [missing, none] = api_.CallSwitchboard(shop_.base_url() + "/norbel/config/unknown");
  EXPECT_EQ(missing.code_, ServerApi::kFailed);
  EXPECT_TRUE(LogLines().empty());
}

TEST_F(ServerApiTest, CallSwitchboardLogsATransferFailure) {
  auto [result, config] = api_.CallSwitchboard("http://127.0.0.1:1/norbel/config/");
  EXPECT_EQ(result.code_, ServerApi::kFailed);
  EXPECT_EQ(config.clientID, "");
  auto lines = LogLines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("\tstd::tuple<Result, SwitchboardConfig> "
                          "norbel::vistrel::ServerApi::CallSwitchboard(const std::string &)\t"
                          "Condition: \"0 == err\", "
                          "return(\"make_tuple(Result(kFailed), SwitchboardConfig())\")]"),
            std::string::npos)
      << lines[0];
}

}  // namespace
