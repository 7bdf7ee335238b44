// The shop's request frame, the account calls and the configuration server call, against a
// real HTTP server on loopback.
#include "vistrel_store/server_api.h"

#include <gtest/gtest.h>

#include "nbutils/http_request.h"
#include "support/device_fixture.h"
#include "support/fake_server.h"

namespace {

using norbel::vistrel::ServerApi;
using norbel::vistrel::SwitchboardConfig;
using vistrel_test::Answer;
using vistrel_test::Fields;
using vistrel_test::Reply;
using vistrel_test::ShopOk;

class ServerApiTest : public vistrel_test::DeviceTest {
 protected:
  ServerApiTest() {
    api_.config_.clientShopWebserviceUrl = shop_.base_url() + "/ws/";  // the slash doubles
    api_.config_.clientID = "client-7";
  }

  vistrel_test::FakeServer shop_;
  ServerApi api_;
};

TEST_F(ServerApiTest, AccountCallsSendFieldsInOrderAndKeepTheSession) {
  shop_.Set("/ws//login", Answer(ShopOk(R"({"sessionID": "abc"})")));
  EXPECT_EQ(api_.LogIn("anna@example.org", "p&ss=word ü").code_, ServerApi::kOk);
  EXPECT_EQ(api_.session_id_, "abc");
  api_.Register("b@example.org", "pw");
  auto requests = shop_.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].form, (Fields{{"username", "anna@example.org"},
                                      {"password", "p&ss=word ü"},
                                      {"clientID", "client-7"}}));
  EXPECT_EQ(requests[1].form,
            (Fields{{"email", "b@example.org"}, {"password", "pw"}, {"clientID", "client-7"}}));
}

// Refusals carry the shop's message; other statuses fail even with a good body, and redirects
// are not followed; an answer that is not JSON is an empty success.
TEST_F(ServerApiTest, AnswersOtherThanASessionAreNotLogged) {
  const struct {
    int status;
    std::string body;
    ServerApi::Code code;
    const char *message, *session;
  } cases[] = {{200, R"({"error": true, "response": {"errorMsg": "Wrong"}})", ServerApi::kFailed,
                "Wrong", "old"},
               {200, R"({"error": true, "response": {}})", ServerApi::kFailed, "", "old"},
               {500, ShopOk(R"({"sessionID": "x"})"), ServerApi::kFailed, "", "old"},
               {302, ShopOk(R"({"sessionID": "x"})"), ServerApi::kFailed, "", "old"},
               {200, "<html>maintenance</html>", ServerApi::kOk, "", ""},
               {200, "{}", ServerApi::kOk, "", ""}};
  for (const auto& c : cases) {
    Reply reply = Answer(c.body, c.status);
    reply.headers = {{"Location", shop_.base_url() + "/elsewhere"}};
    shop_.Set("/ws//registerUser", reply);
    api_.session_id_ = "old";
    ServerApi::Result result = api_.Register("a", "b");
    EXPECT_EQ(result.code_, c.code) << c.body;
    EXPECT_EQ(result.message_ + "|" + api_.session_id_, std::string(c.message) + "|" + c.session);
  }
  EXPECT_TRUE(shop_.requests("/elsewhere").empty());
  EXPECT_TRUE(LogLines().empty());
}

TEST_F(ServerApiTest, LogOutSendsTheSessionAndForgetsItOnlyOnSuccess) {
  EXPECT_EQ(api_.LogOut().code_, ServerApi::kOk);  // no session: nothing sent
  EXPECT_TRUE(shop_.requests().empty());
  api_.session_id_ = "s-1";
  EXPECT_EQ(api_.LogOut().code_, ServerApi::kFailed);  // unscripted: 404
  EXPECT_EQ(api_.session_id_, "s-1");
  shop_.Set("/ws//logout", Answer(ShopOk("{}")));
  EXPECT_EQ(api_.LogOut().code_, ServerApi::kOk);
  EXPECT_EQ(api_.session_id_, "");
  EXPECT_EQ(shop_.requests("/ws//logout")[1].form,
            (Fields{{"sessionID", "s-1"}, {"clientID", "client-7"}}));
}

TEST_F(ServerApiTest, ClosedStalledAndDroppedAnswersAreLoggedTransferFailures) {
  norbel::utilities::testing::SetRequestTimeLimitOverride(std::chrono::milliseconds(300));
  Reply stalled = Answer(ShopOk(R"({"sessionID": "late"})"));
  stalled.delay = std::chrono::milliseconds(1500);
  shop_.Set("/ws//login", stalled);
  EXPECT_EQ(api_.LogIn("a", "b").code_, ServerApi::kFailed);
  norbel::utilities::testing::SetRequestTimeLimitOverride(std::chrono::milliseconds(0));
  Reply dropped = Answer(ShopOk(R"({"sessionID": "half"})"));
  dropped.drop_mid_body = true;
  shop_.Set("/ws//login", dropped);
  EXPECT_EQ(api_.LogIn("a", "b").code_, ServerApi::kFailed);
  {
    vistrel_test::FakeServer gone;
    api_.config_.clientShopWebserviceUrl = gone.base_url();
  }
  EXPECT_EQ(api_.LogIn("a", "b").code_, ServerApi::kFailed);
  EXPECT_EQ(api_.session_id_, "");
  const std::string line = "2\tvistrel_store/src/data/server_api\t";
  const std::string login =
      "\tResult norbel::vistrel::ServerApi::LogIn(const std::string &, "
      "const std::string &)\tCondition: \"0 == err\", return(\"Result(kFailed)\")]";
  auto lines = LogLines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[2].substr(0, line.size()) + lines[2].substr(lines[2].find("\tResult ")),
            line + login);
}

TEST_F(ServerApiTest, AnswerThatIsNeitherObjectNorNullRaisesTheJsonError) {
  shop_.Set("/ws//login", Answer("[1, 2]"));
  EXPECT_THROW(api_.LogIn("a", "b"), Json::LogicError);
}

TEST_F(ServerApiTest, CallSwitchboardConvertsByTypeAndTrims) {
  shop_.Set("/c/SN-1", Answer(R"({"clientID": 42, "clientName": true, "clientAddress": 1.5,
      "clientOPDSCatalogUrl": " \thttp://opds.example/\r\n ", "error": true})"));
  auto [result, config] = api_.CallSwitchboard(shop_.base_url() + "/c/SN-1");
  EXPECT_EQ(result.code_, ServerApi::kOk);
  EXPECT_EQ(config.clientID, "42");
  EXPECT_EQ(config.clientName, "true");
  EXPECT_EQ(config.clientAddress, "");
  EXPECT_EQ(config.clientOPDSCatalogUrl, "http://opds.example/");
  Json::Value json = config.ToJson();  // the cache file's form
  EXPECT_EQ(json.size(), 14u);
  EXPECT_EQ(SwitchboardConfig::Parse(json).ToJson(), json);

  shop_.Set("/c/empty", Answer(""));
  auto [empty_result, empty] = api_.CallSwitchboard(shop_.base_url() + "/c/empty");
  EXPECT_EQ(empty_result.code_, ServerApi::kOk);
  EXPECT_EQ(empty.ToJson(), SwitchboardConfig().ToJson());
  EXPECT_TRUE(LogLines().empty());
}

}  // namespace
