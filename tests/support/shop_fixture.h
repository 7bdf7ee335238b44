// A device with a configuration server and a shop on loopback (one fake server plays both),
// for tests of the store manager. Each test runs in a process of its own, so the store
// manager starts fresh.
#ifndef TESTS_SUPPORT_SHOP_FIXTURE_H_
#define TESTS_SUPPORT_SHOP_FIXTURE_H_

#include <string>

#include "support/device_fixture.h"
#include "support/fake_server.h"

namespace vistrel_test {

class ShopTest : public DeviceTest {
 protected:
  static constexpr char kSerial[] = "SN-1";

  // Points the device at the fake server: serial number kSerial, a configuration with the shop
  // at base + "/ws/shop", a language list, and an empty purchase list.
  void SetUp() override;

  // The configuration answer as JSON text (objects of string members); empty `shop_url`
  // leaves the web-service address out.
  std::string ConfigJson(const std::string& shop_url, const std::string& standby = "") const;
  std::string ShopUrl() const { return server_.base_url() + "/ws/shop"; }

  // Device configuration file values, through the device's configuration functions.
  void StoreConfigValue(const std::string& key, const std::string& value) const;
  void StoreConfigInt(const std::string& key, int value) const;
  void StoreConfigSecret(const std::string& key, const std::string& value) const;
  std::string ConfigValue(const std::string& key) const;
  int ConfigInt(const std::string& key) const;

  static int Now();

  FakeServer server_;
};

}  // namespace vistrel_test

#endif  // TESTS_SUPPORT_SHOP_FIXTURE_H_
