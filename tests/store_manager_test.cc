// Start-up, configuration fetch and cache, standby picture, session and cart forwarding of the
// store manager, against a fake configuration server and shop on loopback. Every test runs in
// a process of its own: the store manager lives until the process ends.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cstdlib>
#include <fstream>
#include <thread>

#include <json/reader.h>

#include "panelkit/panelkit.h"
#include "support/shop_fixture.h"
#include "vistrel_store/store_manager.h"

namespace {

using norbel::vistrel::Book;
using norbel::vistrel::Cart;
using norbel::vistrel::ServerApi;
using norbel::vistrel::StoreManager;
using vistrel_test::Reply;
using vistrel_test::ShopError;
using vistrel_test::ShopOk;

constexpr char kCachePath[] = "/mnt/ext1/system/config/switchboard.json";

Reply Body(const std::string& body, int status = 200) {
  Reply reply;
  reply.body = body;
  reply.status = status;
  return reply;
}

Book BookWithEan(const std::string& ean) {
  Book book;
  book.string_props_[Book::Ean] = ean;
  book.string_props_[Book::Title] = "Title " + ean;
  return book;
}

// Sleeps into the first tenth of a second, so that a test's own clock reading and the store
// manager's fall into the same second.
void WaitForFreshSecond() {
  for (;;) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    if (now.tv_usec < 100000) return;
    std::this_thread::sleep_for(std::chrono::microseconds(1000000 - now.tv_usec + 1000));
  }
}

class StoreManagerTest : public vistrel_test::ShopTest {
 protected:
  std::string ConfigPath() const { return std::string("/norbel/config/") + kSerial; }
  size_t ConfigFetches() const { return server_.requests(ConfigPath()).size(); }

  void WriteCache(const std::string& shop_name) {
    WriteDeviceFile(kCachePath, R"({"clientID": "c1", "clientName": ")" + shop_name +
                                    R"(", "clientShopWebserviceUrl": ")" + ShopUrl() + "\"}");
  }

  StoreManager* store_ = StoreManager::Instance();
};

TEST_F(StoreManagerTest, ColdStartFetchesCachesAndInstallsTheStandbyPicture) {
  // A 2x2 24-bit picture served as the standby image.
  ibitmap* picture = static_cast<ibitmap*>(std::calloc(1, sizeof(ibitmap) + 16));
  picture->width = 2;
  picture->height = 2;
  picture->depth = 24;
  picture->scanline = 8;
  picture->data = reinterpret_cast<unsigned char*>(picture + 1);
  ASSERT_EQ(SaveBitmap("/tmp/served.bmp", picture), 1);
  std::free(picture);
  Reply image = Body(ReadDeviceFile("/tmp/served.bmp"));
  image.content_type = "image/bmp";
  server_.Set("/standby.bmp", image);
  server_.Set(ConfigPath(), Body(ConfigJson(ShopUrl(), server_.base_url() + "/standby.bmp")));

  int before = Now();
  EXPECT_EQ(store_->Init(), 0);
  EXPECT_EQ(ConfigFetches(), 1u);
  EXPECT_EQ(store_->GetShopName(), "Fake Shop");
  EXPECT_EQ(store_->GetClientId(), "c1");
  EXPECT_GE(ConfigInt("switchboard_update_time"), before);
  EXPECT_LE(ConfigInt("switchboard_update_time"), Now());

  Json::Value cached;
  ASSERT_TRUE(Json::Reader().parse(ReadDeviceFile(kCachePath), cached));
  EXPECT_EQ(cached["clientShopWebserviceUrl"].asString(), ShopUrl());
  EXPECT_EQ(cached.size(), 14u);

  ASSERT_EQ(store_->languages().size(), 1u);
  EXPECT_EQ(store_->languages()[0].name, "Deutsch");
  EXPECT_TRUE(DeviceFileExists("/tmp/logo_from_vistrel.bmp"));
  auto logos = EventsOfKind("poweroff-logo");
  ASSERT_EQ(logos.size(), 1u);
  EXPECT_EQ(logos[0].at(1), "2x2");
  EXPECT_EQ(server_.requests("/ws/shop/getUserEbook").size(), 1u);
}

TEST_F(StoreManagerTest, ConfigurationFetchedAt1800SecondsIsStillFresh) {
  WriteCache("Cached Shop");
  WaitForFreshSecond();
  StoreConfigInt("switchboard_update_time", Now() - 1800);
  EXPECT_EQ(store_->Init(), 0);
  EXPECT_EQ(ConfigFetches(), 0u);
  EXPECT_EQ(store_->GetShopName(), "Cached Shop");
}

TEST_F(StoreManagerTest, ConfigurationFetchedAt1801SecondsIsFetchedAgain) {
  WriteCache("Cached Shop");
  WaitForFreshSecond();
  StoreConfigInt("switchboard_update_time", Now() - 1801);
  EXPECT_EQ(store_->Init(), 0);
  EXPECT_EQ(ConfigFetches(), 1u);
  EXPECT_EQ(store_->GetShopName(), "Fake Shop");
}

TEST_F(StoreManagerTest, AStoredTimeInTheFutureCountsAsOld) {
  WriteCache("Cached Shop");
  StoreConfigInt("switchboard_update_time", Now() + 3600);
  EXPECT_EQ(store_->Init(), 0);
  EXPECT_EQ(ConfigFetches(), 1u);
  EXPECT_LE(ConfigInt("switchboard_update_time"), Now());
}

TEST_F(StoreManagerTest, AFreshConfigurationWithoutShopAddressFailsWithMinus7) {
  server_.Set(ConfigPath(), Body(ConfigJson("")));
  EXPECT_EQ(store_->Init(), -7);
  EXPECT_EQ(ConfigInt("switchboard_update_time"), 0);
  EXPECT_TRUE(server_.requests("/ws/filter/languages").empty());
}

TEST_F(StoreManagerTest, AnUnparsableCacheIsFetchedAndNotCheckedForTheAddress) {
  WriteDeviceFile(kCachePath, "{ not json");
  int recent = Now() - 10;
  StoreConfigInt("switchboard_update_time", recent);
  server_.Set(ConfigPath(), Body(ConfigJson("")));
  EXPECT_EQ(store_->Init(), 0);
  EXPECT_EQ(ConfigFetches(), 1u);
  EXPECT_GT(ConfigInt("switchboard_update_time"), recent);
}

TEST_F(StoreManagerTest, AConfigurationServerThatIsDownFailsStartUp) {
  server_.Set(ConfigPath(), Body("", 503));
  StoreConfigInt("switchboard_update_time", 12345);
  EXPECT_EQ(store_->Init(), -1);
  EXPECT_EQ(ConfigInt("switchboard_update_time"), 12345);
  EXPECT_FALSE(DeviceFileExists(kCachePath));
}

TEST_F(StoreManagerTest, WithoutSerialNumberTheBaseAddressAloneIsAsked) {
  unsetenv("VISTREL_SERIAL_NUMBER");
  server_.Set("/norbel/config/", Body(ConfigJson(ShopUrl())));
  EXPECT_EQ(store_->Init(), 0);
  EXPECT_EQ(server_.requests("/norbel/config/").size(), 1u);
  EXPECT_EQ(ConfigFetches(), 0u);
}

TEST_F(StoreManagerTest, AFailedFetchEmptiesTheConfigurationButNotTheClients) {
  ASSERT_EQ(store_->Init(), 0);
  server_.Set(ConfigPath(), Body("", 500));
  EXPECT_EQ(store_->ConfigFromServer(), -1);
  EXPECT_EQ(store_->GetShopName(), "");
  // The web-service client still has the shop's address.
  server_.ClearRequests();
  store_->LoadPurchased();
  EXPECT_EQ(server_.requests("/ws/shop/getUserEbook").size(), 1u);
}

TEST_F(StoreManagerTest, AStoredSessionIsRestoredWithoutLoggingIn) {
  StoreConfigValue("session_id", "stored-session");
  StoreConfigValue("user_name", "anna@example.org");
  StoreConfigSecret("password", "pw");
  EXPECT_EQ(store_->Init(), 0);
  EXPECT_TRUE(store_->IsLoggedIn());
  EXPECT_TRUE(server_.requests("/ws/shop/login").empty());
  auto purchases = server_.requests("/ws/shop/getUserEbook");
  ASSERT_EQ(purchases.size(), 1u);
  EXPECT_EQ(purchases[0].Field("sessionID"), "stored-session");
}

TEST_F(StoreManagerTest, WithoutSessionTheStoredCredentialsLogInAgain) {
  StoreConfigValue("user_name", "anna@example.org");
  StoreConfigSecret("password", "secret");
  server_.Set("/ws/shop/login", Body(ShopOk(R"({"sessionID": "renewed"})")));
  EXPECT_EQ(store_->Init(), 0);
  EXPECT_TRUE(store_->IsLoggedIn());
  auto logins = server_.requests("/ws/shop/login");
  ASSERT_EQ(logins.size(), 1u);
  EXPECT_EQ(logins[0].Field("username"), "anna@example.org");
  EXPECT_EQ(logins[0].Field("password"), "secret");
  EXPECT_EQ(ConfigValue("session_id"), "renewed");
}

TEST_F(StoreManagerTest, AnEmptyStoredPasswordDoesNotContactTheShop) {
  StoreConfigValue("user_name", "anna@example.org");
  EXPECT_EQ(store_->Init(), 0);
  EXPECT_FALSE(store_->IsLoggedIn());
  EXPECT_TRUE(server_.requests("/ws/shop/login").empty());
  EXPECT_EQ(store_->NewSession(nullptr), -1);
}

TEST_F(StoreManagerTest, LogInStoresSessionAndAccountAndSurvivesLogOut) {
  ASSERT_EQ(store_->Init(), 0);
  server_.Set("/ws/shop/login", Body(ShopError("Wrong password")));
  ServerApi::Result refused = store_->LogIn("anna@example.org", "bad");
  EXPECT_EQ(refused.code_, ServerApi::kFailed);
  EXPECT_EQ(refused.message_, "Wrong password");
  EXPECT_FALSE(store_->IsLoggedIn());
  EXPECT_EQ(ConfigValue("user_name"), "");

  server_.Set("/ws/shop/login", Body(ShopOk(R"({"sessionID": "s-42"})")));
  EXPECT_EQ(store_->LogIn("anna@example.org", "good").code_, ServerApi::kOk);
  EXPECT_TRUE(store_->IsLoggedIn());
  EXPECT_EQ(ConfigValue("session_id"), "s-42");
  EXPECT_EQ(store_->getLogin(), "anna@example.org");
  EXPECT_EQ(store_->getPassword(), "good");
  EXPECT_EQ(ReadDeviceFile("/mnt/ext1/system/config/vistrel_config.cfg").find("good"),
            std::string::npos);  // the password is not kept as plain text

  store_->AddToCart(BookWithEan("111"));
  store_->LogOut();
  EXPECT_FALSE(store_->IsLoggedIn());
  EXPECT_EQ(store_->cart().GetSize(), 0u);
  EXPECT_TRUE(store_->purchased().empty());
  Cart on_disk;
  on_disk.Load();
  EXPECT_EQ(on_disk.GetSize(), 0u);
  EXPECT_EQ(ConfigValue("session_id"), "s-42");  // a later start restores it
  EXPECT_TRUE(server_.requests("/ws/shop/logout").empty());
}

TEST_F(StoreManagerTest, RegisterLogsTheNewAccountIn) {
  ASSERT_EQ(store_->Init(), 0);
  server_.Set("/ws/shop/registerUser", Body(ShopOk(R"({"sessionID": "fresh"})")));
  EXPECT_EQ(store_->Register("new@example.org", "pw").code_, ServerApi::kOk);
  EXPECT_TRUE(store_->IsLoggedIn());
  EXPECT_EQ(ConfigValue("session_id"), "fresh");
  EXPECT_EQ(store_->getLogin(), "new@example.org");
  auto purchases = server_.requests("/ws/shop/getUserEbook");
  ASSERT_EQ(purchases.size(), 2u);  // start-up, then after registering
  EXPECT_EQ(purchases[1].Field("sessionID"), "fresh");
}

TEST_F(StoreManagerTest, LogInWithAnUnopenableConfigurationSucceedsWithoutTheShop) {
  ASSERT_EQ(store_->Init(), 0);
  std::string path = HostPath("/mnt/ext1/system/config/vistrel_config.cfg");
  ASSERT_EQ(std::remove(path.c_str()), 0);
  ASSERT_EQ(mkdir(path.c_str(), 0755), 0);  // a folder where the file should be
  server_.Set("/ws/shop/login", Body(ShopOk(R"({"sessionID": "x"})")));
  ServerApi::Result result = store_->LogIn("anna@example.org", "pw");
  EXPECT_EQ(result.code_, ServerApi::kOk);
  EXPECT_EQ(result.message_, "");
  EXPECT_FALSE(store_->IsLoggedIn());
  EXPECT_TRUE(server_.requests("/ws/shop/login").empty());
}

TEST_F(StoreManagerTest, RemovalByBookIsNotSavedButByPositionIs) {
  ASSERT_EQ(store_->Init(), 0);
  store_->AddToCart(BookWithEan("111"));
  store_->AddToCart(BookWithEan("222"));
  store_->AddToCart(BookWithEan("111"));  // same title: refused
  EXPECT_EQ(store_->cart().GetSize(), 2u);

  EXPECT_EQ(store_->RemoveFromCart(BookWithEan("111")), 0);
  EXPECT_EQ(store_->cart().GetSize(), 1u);
  Cart restarted;
  restarted.Load();
  EXPECT_EQ(restarted.GetSize(), 2u);  // the file still holds the removed book

  EXPECT_EQ(store_->RemoveFromCart(0u), 0);
  EXPECT_EQ(store_->cart().GetSize(), 0u);
  restarted.Load();
  EXPECT_EQ(restarted.GetSize(), 0u);
  EXPECT_EQ(store_->RegisterPushNotification(), 0);
}

TEST_F(StoreManagerTest, AnUnopenableConfigurationFailsStartUp) {
  ASSERT_EQ(mkdir(HostPath("/mnt/ext1/system/config/vistrel_config.cfg").c_str(), 0755), 0);
  EXPECT_EQ(store_->Init(), -1);
  EXPECT_TRUE(server_.requests().empty());
}

}  // namespace
