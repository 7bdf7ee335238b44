// Start-up, configuration fetch and cache, standby picture, session and cart forwarding of the
// store manager, against a fake configuration server and shop on loopback. Every test runs in
// a process of its own: the store manager lives until the process ends.
#include "vistrel_store/store_manager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "panelkit/panelkit.h"
#include "support/shop_fixture.h"

namespace {

using norbel::vistrel::Book;
using norbel::vistrel::Cart;
using norbel::vistrel::ServerApi;
using norbel::vistrel::StoreManager;
using vistrel_test::Answer;
using vistrel_test::ShopOk;

constexpr char kCachePath[] = "/mnt/ext1/system/config/switchboard.json";

Book BookWithEan(const std::string& ean) {
  Book book;
  book.string_props_[Book::Ean] = ean;
  return book;
}

class StoreManagerTest : public vistrel_test::ShopTest {
 protected:
  std::string ConfigPath() const { return std::string("/norbel/config/") + kSerial; }
  size_t ConfigFetches() const { return server_.requests(ConfigPath()).size(); }
  // Waits for the clock's next second, so that a test's own clock reading and the store
  // manager's fall into the same second.
  static void WaitForNextSecond() {
    for (int start = Now(); Now() == start;) usleep(1000);
  }

  StoreManager* store_ = StoreManager::Instance();
};

TEST_F(StoreManagerTest, ColdStartFetchesCachesAndInstallsTheStandbyPicture) {
  unsigned char pixels[12] = {};
  ibitmap picture{2, 2, 24, 6, pixels};
  ASSERT_EQ(SaveBitmap("/tmp/served.bmp", &picture), 1);
  server_.Set("/standby.bmp", Answer(ReadDeviceFile("/tmp/served.bmp"), 200, "image/bmp"));
  server_.Set(ConfigPath(), Answer(ConfigJson(ShopUrl(), server_.base_url() + "/standby.bmp")));

  int before = Now();
  EXPECT_EQ(store_->Init(), 0);
  EXPECT_EQ(ConfigFetches(), 1u);  // the serial number is part of the address
  EXPECT_GE(ConfigInt("switchboard_update_time"), before);
  EXPECT_NE(ReadDeviceFile(kCachePath).find(ShopUrl()), std::string::npos);
  EXPECT_EQ(EventsOfKind("poweroff-logo").at(0).at(1), "2x2");
}

// A configuration fetched 1800 seconds ago is still fresh; 1801 seconds ago, or at a time
// later than the clock, it is fetched again.
class ConfigurationAgeTest : public StoreManagerTest, public ::testing::WithParamInterface<int> {};

TEST_P(ConfigurationAgeTest, DecidesBetweenCacheAndFetch) {
  WriteDeviceFile(kCachePath, R"({"clientName": "Cached Shop", "clientShopWebserviceUrl": ")" +
                                  ShopUrl() + "\"}");
  WaitForNextSecond();
  StoreConfigInt("switchboard_update_time", Now() - GetParam());
  EXPECT_EQ(store_->Init(), 0);
  EXPECT_EQ(ConfigFetches(), GetParam() == 1800 ? 0u : 1u);
}

INSTANTIATE_TEST_SUITE_P(Ages, ConfigurationAgeTest, ::testing::Values(1800, 1801, -3600));

TEST_F(StoreManagerTest, AFreshConfigurationWithoutShopAddressFailsWithMinus7) {
  server_.Set(ConfigPath(), Answer(ConfigJson("")));
  EXPECT_EQ(store_->Init(), -7);
  EXPECT_EQ(ConfigInt("switchboard_update_time"), 0);
}

TEST_F(StoreManagerTest, AnUnparsableCacheIsFetchedAndNotCheckedForTheAddress) {
  WriteDeviceFile(kCachePath, "{ not json");
  StoreConfigInt("switchboard_update_time", Now() - 10);
  server_.Set(ConfigPath(), Answer(ConfigJson("")));
  EXPECT_EQ(store_->Init(), 0);
  EXPECT_EQ(ConfigFetches(), 1u);
}

TEST_F(StoreManagerTest, ADownServerFailsStartUpAndNoSerialAsksTheBaseAlone) {
  server_.Set(ConfigPath(), Answer("", 503));
  StoreConfigInt("switchboard_update_time", 12345);
  EXPECT_EQ(store_->Init(), -1);
  EXPECT_EQ(ConfigInt("switchboard_update_time"), 12345);  // the next start asks again

  unsetenv("VISTREL_SERIAL_NUMBER");
  server_.Set("/norbel/config/", Answer(ConfigJson(ShopUrl())));
  EXPECT_EQ(store_->Init(), 0);
  EXPECT_EQ(server_.requests("/norbel/config/").size(), 1u);
}

TEST_F(StoreManagerTest, AFailedFetchEmptiesTheConfigurationButNotTheClients) {
  ASSERT_EQ(store_->Init(), 0);
  server_.Set(ConfigPath(), Answer("", 500));
  EXPECT_EQ(store_->ConfigFromServer(), -1);
  EXPECT_EQ(store_->GetShopName(), "");
  server_.ClearRequests();
  store_->LoadPurchased();  // the web-service client still has the shop's address
  EXPECT_EQ(server_.requests("/ws/shop/getUserEbook").size(), 1u);
}

TEST_F(StoreManagerTest, AStoredSessionIsRestoredWithoutLoggingIn) {
  StoreConfigValue("session_id", "stored-session");
  StoreConfigValue("user_name", "anna@example.org");
  StoreConfigSecret("password", "pw");
  EXPECT_EQ(store_->Init(), 0);
  EXPECT_TRUE(store_->IsLoggedIn());
  EXPECT_TRUE(server_.requests("/ws/shop/login").empty());
  EXPECT_EQ(server_.requests("/ws/shop/getUserEbook").at(0).Field("sessionID"), "stored-session");
}

TEST_F(StoreManagerTest, WithoutSessionTheStoredCredentialsLogInAgain) {
  StoreConfigValue("user_name", "anna@example.org");
  StoreConfigSecret("password", "secret");
  server_.Set("/ws/shop/login", Answer(ShopOk(R"({"sessionID": "renewed"})")));
  EXPECT_EQ(store_->Init(), 0);
  EXPECT_TRUE(store_->IsLoggedIn());
  EXPECT_EQ(server_.requests("/ws/shop/login").at(0).Field("password"), "secret");
  EXPECT_EQ(ConfigValue("session_id"), "renewed");
}

TEST_F(StoreManagerTest, AnEmptyStoredPasswordDoesNotContactTheShop) {
  StoreConfigValue("user_name", "anna@example.org");
  EXPECT_EQ(store_->Init(), 0);
  EXPECT_FALSE(store_->IsLoggedIn());
  EXPECT_TRUE(server_.requests("/ws/shop/login").empty());
}

TEST_F(StoreManagerTest, LogInStoresTheSessionAndItSurvivesLogOut) {
  ASSERT_EQ(store_->Init(), 0);
  server_.Set("/ws/shop/login", Answer(ShopOk(R"({"sessionID": "s-42"})")));
  EXPECT_EQ(store_->LogIn("anna@example.org", "good").code_, ServerApi::kOk);
  EXPECT_EQ(ConfigValue("session_id"), "s-42");

  store_->AddToCart(BookWithEan("111"));
  store_->LogOut();
  EXPECT_FALSE(store_->IsLoggedIn());
  Cart on_disk;
  on_disk.Load();
  EXPECT_EQ(on_disk.GetSize(), 0u);
  EXPECT_EQ(ConfigValue("session_id"), "s-42");  // a later start restores it
}

TEST_F(StoreManagerTest, LogInWithAnUnopenableConfigurationSucceedsWithoutTheShop) {
  ASSERT_EQ(store_->Init(), 0);
  std::string path = HostPath("/mnt/ext1/system/config/vistrel_config.cfg");
  ASSERT_EQ(std::remove(path.c_str()), 0);
  ASSERT_EQ(mkdir(path.c_str(), 0755), 0);  // a folder where the file should be
  server_.Set("/ws/shop/login", Answer(ShopOk(R"({"sessionID": "x"})")));
  EXPECT_EQ(store_->LogIn("anna@example.org", "pw").code_, ServerApi::kOk);
  EXPECT_FALSE(store_->IsLoggedIn());
  EXPECT_TRUE(server_.requests("/ws/shop/login").empty());
}

TEST_F(StoreManagerTest, RemovalByBookIsNotSavedButByPositionIs) {
  ASSERT_EQ(store_->Init(), 0);
  store_->AddToCart(BookWithEan("111"));
  store_->AddToCart(BookWithEan("222"));
  EXPECT_EQ(store_->RemoveFromCart(BookWithEan("111")), 0);
  Cart restarted;
  restarted.Load();
  EXPECT_EQ(restarted.GetSize(), 2u);  // the file still holds the removed book

  EXPECT_EQ(store_->RemoveFromCart(0u), 0);
  restarted.Load();
  EXPECT_EQ(restarted.GetSize(), 0u);
}

}  // namespace
