// A hostile shop's answers that the JSON reader gives up on: nested deeper than it goes. What
// the reader had read before it stopped counts, as for every other broken answer, so a
// refusal in front of the deep part stays a refusal.
#include <gtest/gtest.h>

#include <string>

#include "support/device_fixture.h"
#include "support/fake_server.h"
#include "vistrel_store/server_api.h"

namespace {

using norbel::vistrel::ServerApi;
using vistrel_test::Answer;

// A member nested far deeper than the JSON reader's limit of 1000 levels.
std::string DeepMember() { return R"("pad": )" + std::string(5000, '[') + std::string(5000, ']'); }

class HostileAnswersTest : public vistrel_test::DeviceTest {
 protected:
  HostileAnswersTest() { api_.config_.clientShopWebserviceUrl = shop_.base_url() + "/ws/shop"; }

  vistrel_test::FakeServer shop_;
  ServerApi api_;
};

TEST_F(HostileAnswersTest, WhatCameBeforeADeepMemberCounts) {
  // A refused login stays refused, with the shop's text, and keeps the session.
  api_.session_id_ = "kept";
  shop_.Set("/ws/shop/login",
            Answer(R"({"error": true, "response": {"errorMsg": "x"}, )" + DeepMember() + "}"));
  ServerApi::Result login = api_.LogIn("a@b.c", "pw");
  EXPECT_EQ(login.code_, ServerApi::kFailed);
  EXPECT_EQ(login.message_, "x");
  EXPECT_EQ(api_.session_id_, "kept");

  // A list in front of the deep member stays a list.
  shop_.Set("/ws/shop/getUserEbook",
            Answer(R"({"error": false, "response": [{"orderPositionEan": "978"}], )" +
                   DeepMember() + "}"));
  auto [listed, books] = api_.GetUserEbook();
  EXPECT_EQ(listed.code_, ServerApi::kOk);
  ASSERT_EQ(books.size(), 1u);
  EXPECT_EQ(books[0].string_props_.at(norbel::vistrel::Book::Ean), "978");

  // So does a configuration.
  shop_.Set("/c/SN-1", Answer(R"({"clientID": "c1", "clientName": "Shop", )" + DeepMember() +
                              ", \"clientOPDSCatalogUrl\": \"after\"}"));
  auto [fetched, config] = api_.CallSwitchboard(shop_.base_url() + "/c/SN-1");
  EXPECT_EQ(fetched.code_, ServerApi::kOk);
  EXPECT_EQ(config.clientID, "c1");
  EXPECT_EQ(config.clientName, "Shop");
  EXPECT_EQ(config.clientOPDSCatalogUrl, "");  // behind the point where the reader stopped
}

}  // namespace
