// Every persistent file of the library and the device, with each open, write, fsync and rename
// of its save failed in turn below the library (by the preloaded fault injector): the old file
// stays intact, no temporary is left behind, the caller gets the documented result, and the
// next save succeeds.
#include "fault_shim/fault_shim.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "panelkit/panelkit.h"
#include "support/shop_fixture.h"
#include "vistrel_store/cart.h"
#include "vistrel_store/store_manager.h"

namespace {

using norbel::vistrel::Cart;
using norbel::vistrel::StoreManager;

// The injector's controls, when it is preloaded.
struct Injector {
  decltype(&vistrel_fault_arm) arm = nullptr;
  decltype(&vistrel_fault_disarm) disarm = nullptr;
  decltype(&vistrel_fault_fired) fired = nullptr;

  static Injector Find() {
    Injector injector;
    injector.arm = reinterpret_cast<decltype(arm)>(dlsym(RTLD_DEFAULT, "vistrel_fault_arm"));
    injector.disarm =
        reinterpret_cast<decltype(disarm)>(dlsym(RTLD_DEFAULT, "vistrel_fault_disarm"));
    injector.fired = reinterpret_cast<decltype(fired)>(dlsym(RTLD_DEFAULT, "vistrel_fault_fired"));
    return injector;
  }
  bool found() const { return arm && disarm && fired; }
};

// One persistent file and how it is saved. `save` returns what the caller is told: false
// for a save reported as failed; saves that report nothing return true.
struct Subject {
  std::string name;
  std::string file;  // device path
  std::function<bool()> save;
  // True when the caller was told of the save's outcome: then a reported failure must leave
  // the old file and a reported success the new one.
  bool reports = false;
};

class FaultShimTest : public vistrel_test::ShopTest {
 protected:
  void SetUp() override {
    ShopTest::SetUp();
    injector_ = Injector::Find();
    if (!injector_.found()) {
      GTEST_SKIP() << "the fault injector is not preloaded (ctest runs this test with "
                      "LD_PRELOAD set to libvistrel_fault_shim.so)";
    }
  }

  std::set<std::string> Entries(const std::string& device_folder) const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(HostPath(device_folder))) {
      names.insert(entry.path().filename().string());
    }
    return names;
  }

  // Fails the 1st, 2nd, ... call of `op` made by `subject.save` until a save makes no such
  // call any more, checking after each; `version` moves the new content on per round.
  void FailEachInTurn(const Subject& subject, const char* op) {
    const std::string folder = subject.file.substr(0, subject.file.find_last_of('/'));
    int failed_calls = 0;
    for (int nth = 1; nth < 50; ++nth) {
      SCOPED_TRACE(subject.name + ": " + op + " #" + std::to_string(nth));
      ++version_;
      const std::string before = ReadDeviceFile(subject.file);
      const std::set<std::string> entries = Entries(folder);
      injector_.arm(op, nth, std::string(op) == "write" ? ENOSPC : EIO);
      const bool reported_ok = subject.save();
      char what[512];
      const bool fired = injector_.fired(what, sizeof(what)) != 0;
      injector_.disarm();
      const std::string after = ReadDeviceFile(subject.file);

      EXPECT_EQ(Entries(folder), entries) << "a temporary was left behind (" << what << ")";
      // The next save with the same content succeeds, and gives the new file.
      ASSERT_TRUE(subject.save()) << "the save after the fault failed";
      const std::string saved = ReadDeviceFile(subject.file);
      ASSERT_NE(saved, before) << "the save after the fault changed nothing";
      if (!fired) {
        EXPECT_TRUE(after == saved) << "a save without faults wrote something else";
        break;
      }
      ++failed_calls;
      EXPECT_TRUE(after == before || after == saved) << "torn file after failing " << what;
      if (subject.reports) {
        EXPECT_TRUE(after == (reported_ok ? saved : before))
            << "reported " << (reported_ok ? "success" : "failure") << " after failing " << what;
      }
    }
    EXPECT_GT(failed_calls, 0) << subject.name << " makes no " << op << " call to fail";
    RecordProperty(subject.name + " " + op + " calls failed", failed_calls);
  }

  void FailEveryCall(const Subject& subject) {
    ASSERT_TRUE(subject.save());  // the old file that the faults must not harm
    for (const char* op : {"open", "write", "fsync", "rename"}) FailEachInTurn(subject, op);
  }

  Injector injector_;
  int version_ = 0;
};

TEST_F(FaultShimTest, CartFile) {
  Cart cart;
  FailEveryCall({"cart", "/mnt/ext1/system/config/vistrel_cart", [&] {
                   Json::Value json;
                   json["cartPositions"][0]["cartPositionEan"] = std::to_string(version_);
                   json["cart"]["cartID"] = version_;
                   cart.FromJson(json);
                   cart.Save();
                   return true;
                 }});
  Cart loaded;
  loaded.Load();
  EXPECT_EQ(loaded.cart_id(), version_);
}

TEST_F(FaultShimTest, ConfigurationFile) {
  const char kPath[] = "/mnt/ext1/system/config/vistrel_config.cfg";
  iconfig* config = OpenConfig(kPath, nullptr);
  ASSERT_NE(config, nullptr);
  int written = -1;
  Subject subject{"configuration", kPath, [&] {
                    // A failed save keeps the change pending, so saving again writes it.
                    if (written != version_) {
                      const std::string password = "pw" + std::to_string(version_);
                      WriteSecret(config, "password", password.c_str());
                      written = version_;
                    }
                    return SaveConfig(config) == 1;
                  }};
  subject.reports = true;
  FailEveryCall(subject);
  CloseConfigNoSave(config);
  EXPECT_EQ(ConfigValue("password").rfind("$secret$", 0), 0u);
}

TEST_F(FaultShimTest, ConfigurationCache) {
  // Each fetch brings a configuration whose name tells the round.
  server_.Set(
      std::string("/norbel/config/") + kSerial, [this](const vistrel_test::RecordedRequest&) {
        return vistrel_test::Answer(R"({"clientID": "c1", "clientName": "Shop )" +
                                    std::to_string(version_) +
                                    R"(", "clientShopWebserviceUrl": ")" + ShopUrl() + "\"}");
      });
  // Write failures of the cache are not reported: the fetch still counts.
  FailEveryCall({"configuration cache", "/mnt/ext1/system/config/switchboard.json",
                 [] { return StoreManager::Instance()->ConfigFromServer() == 0; }});
  EXPECT_NE(ReadDeviceFile("/mnt/ext1/system/config/switchboard.json")
                .find("Shop " + std::to_string(version_)),
            std::string::npos);
}

TEST_F(FaultShimTest, StandbyPicture) {
  std::vector<unsigned char> pixels(16 * 8);
  ibitmap bitmap{16, 8, 8, 16, pixels.data()};
  size_t installed = 0;
  // Silent on failure. An installed picture is logged as an event, but that log is itself a
  // file whose writes the injector may fail, so the event tells nothing here.
  Subject subject{"standby picture", "/mnt/ext1/system/logo/offlogo_partner.bmp", [&] {
                    std::fill(pixels.begin(), pixels.end(), static_cast<unsigned char>(version_));
                    WritePartnerPowerOffLogo(&bitmap);
                    const size_t events = EventsOfKind("poweroff-logo").size();
                    const bool logged = events > installed;
                    installed = events;
                    return logged;
                  }};
  FailEveryCall(subject);
}

}  // namespace
