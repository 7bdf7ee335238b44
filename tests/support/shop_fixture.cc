#include "support/shop_fixture.h"

#include <sys/time.h>

#include <cstdlib>

#include "panelkit/panelkit.h"

namespace vistrel_test {
namespace {

constexpr char kConfigPath[] = "/mnt/ext1/system/config/vistrel_config.cfg";

template <typename Fn>
void WithConfig(Fn fn) {
  iconfig* config = OpenConfig(kConfigPath, nullptr);
  ASSERT_NE(config, nullptr);
  fn(config);
  CloseConfig(config);
}

}  // namespace

void ShopTest::SetUp() {
  DeviceTest::SetUp();
  setenv("VISTREL_SWITCHBOARD_URL", (server_.base_url() + "/norbel/config/").c_str(), 1);
  setenv("VISTREL_SERIAL_NUMBER", kSerial, 1);
  Reply config;
  config.body = ConfigJson(ShopUrl());
  server_.Set(std::string("/norbel/config/") + kSerial, config);
  Reply languages;
  languages.content_type = "text/xml";
  languages.body = R"(<languages><language code="de" name="Deutsch"/></languages>)";
  server_.Set("/ws/filter/languages", languages);
  Reply purchased;
  purchased.body = ShopOk("[]");
  server_.Set("/ws/shop/getUserEbook", purchased);
}

std::string ShopTest::ConfigJson(const std::string& shop_url, const std::string& standby) const {
  std::string json = R"({"clientID": "c1", "clientName": "Fake Shop")";
  if (!shop_url.empty()) json += R"(, "clientShopWebserviceUrl": ")" + shop_url + "\"";
  if (!standby.empty()) json += R"(, "clientStandbyImage": ")" + standby + "\"";
  return json + "}";
}

void ShopTest::StoreConfigValue(const std::string& key, const std::string& value) const {
  WithConfig([&](iconfig* c) { WriteString(c, key.c_str(), value.c_str()); });
}

void ShopTest::StoreConfigInt(const std::string& key, int value) const {
  WithConfig([&](iconfig* c) { WriteInt(c, key.c_str(), value); });
}

void ShopTest::StoreConfigSecret(const std::string& key, const std::string& value) const {
  WithConfig([&](iconfig* c) { WriteSecret(c, key.c_str(), value.c_str()); });
}

std::string ShopTest::ConfigValue(const std::string& key) const {
  std::string value;
  iconfig* config = OpenConfig(kConfigPath, nullptr);
  if (config == nullptr) return value;
  value = ReadString(config, key.c_str(), "");
  CloseConfigNoSave(config);
  return value;
}

int ShopTest::ConfigInt(const std::string& key) const {
  iconfig* config = OpenConfig(kConfigPath, nullptr);
  if (config == nullptr) return 0;
  int value = ReadInt(config, key.c_str(), 0);
  CloseConfigNoSave(config);
  return value;
}

int ShopTest::Now() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<int>(now.tv_sec);
}

}  // namespace vistrel_test
