// The device's storage as someone else may have left it: links planted at the names the
// library writes, FIFOs and folders where its files belong, a cart file that cannot be read.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <string>
#include <vector>

#include "panelkit/panelkit.h"
#include "support/shop_fixture.h"
#include "vistrel_store/cart.h"
#include "vistrel_store/store_manager.h"

namespace {

using norbel::vistrel::Book;
using norbel::vistrel::Cart;
using norbel::vistrel::StoreManager;

constexpr char kConfigFolder[] = "/mnt/ext1/system/config";
constexpr char kCartFile[] = "/mnt/ext1/system/config/vistrel_cart";
constexpr char kConfigFile[] = "/mnt/ext1/system/config/vistrel_config.cfg";
constexpr char kCacheFile[] = "/mnt/ext1/system/config/switchboard.json";
constexpr char kLogoFolder[] = "/mnt/ext1/system/logo";

Book BookWithEan(const std::string& ean) {
  Json::Value line;
  line["orderPositionEan"] = ean;
  return Book::FromJson(line);
}

mode_t ModeOf(const std::string& host_path) {
  struct stat st {};
  EXPECT_EQ(lstat(host_path.c_str(), &st), 0) << host_path;
  return st.st_mode;
}

class HostileFilesTest : public vistrel_test::ShopTest {
 protected:
  // A file outside the device folders that planted links point at.
  std::string Outside(const std::string& name) {
    const std::string path = work_dir_ + "/" + name;
    std::filesystem::remove(path);
    {
      std::FILE* file = std::fopen(path.c_str(), "w");
      std::fputs("outside\n", file);
      std::fclose(file);
    }
    chmod(path.c_str(), 0644);
    return path;
  }

  void Plant(const std::string& device_path, const std::string& target) {
    ASSERT_EQ(symlink(target.c_str(), HostPath(device_path).c_str()), 0) << device_path;
  }

  // Runs `call`, which may read the FIFO at `fifo`. Should it still wait after a few seconds,
  // the FIFO is opened for writing and closed, which lets the reader go on, and the test fails.
  void WithoutWaitingOn(const std::vector<std::string>& fifos, const std::function<void()>& call) {
    auto done = std::async(std::launch::async, call);
    if (done.wait_for(std::chrono::seconds(5)) == std::future_status::ready) return;
    ADD_FAILURE() << "blocked on a FIFO";
    while (done.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
      for (const std::string& fifo : fifos) {
        int fd = open(HostPath(fifo).c_str(), O_WRONLY | O_NONBLOCK);
        if (fd >= 0) close(fd);
      }
    }
  }
};

TEST_F(HostileFilesTest, NoSaveWritesThroughALinkAndPrivateFilesStayPrivate) {
  // The names a save used to write through, each a link to a file outside the device.
  const std::string outside = Outside("outside");
  ASSERT_TRUE(std::filesystem::create_directories(HostPath(kLogoFolder)));
  for (const char* temp :
       {"/.vistrel_cart.new", "/.vistrel_config.cfg.new", "/.switchboard.json.new"}) {
    Plant(std::string(kConfigFolder) + temp, outside);
  }
  Plant(std::string(kLogoFolder) + "/.offlogo_partner.bmp.new", outside);
  // The cart's own name a link too.
  const std::string outside_cart = Outside("outside_cart");
  Plant(kCartFile, outside_cart);

  ASSERT_EQ(StoreManager::Instance()->Init(), 0);  // caches the configuration, stores its time
  StoreManager::Instance()->AddToCart(BookWithEan("978"));
  unsigned char pixels[4] = {1, 2, 3, 4};
  ibitmap bitmap{2, 2, 8, 2, pixels};
  WritePartnerPowerOffLogo(&bitmap);

  std::ifstream check(outside);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(check), {}), "outside\n");
  std::ifstream check_cart(outside_cart);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(check_cart), {}), "outside\n");
  EXPECT_EQ(ModeOf(outside) & 0777, 0644u);
  EXPECT_EQ(ModeOf(outside_cart) & 0777, 0644u);

  // Each file is a regular file of its own with what was saved; the cart (which may hold the
  // shop's session) and the configuration (with the password) only for their owner.
  EXPECT_TRUE(S_ISREG(ModeOf(HostPath(kCartFile))));
  EXPECT_NE(ReadDeviceFile(kCartFile).find("978"), std::string::npos);
  EXPECT_EQ(ModeOf(HostPath(kCartFile)) & 0777, 0600u);
  EXPECT_EQ(ModeOf(HostPath(kConfigFile)) & 0777, 0600u);
  EXPECT_NE(ReadDeviceFile(kCacheFile).find("Fake Shop"), std::string::npos);
  EXPECT_EQ(EventsOfKind("poweroff-logo").size(), 1u);
  EXPECT_EQ(ReadDeviceFile(std::string(kLogoFolder) + "/offlogo_partner.bmp").substr(0, 2), "BM");
}

TEST_F(HostileFilesTest, FifosWhereTheFilesBelongDoNotBlockTheStart) {
  StoreConfigInt("switchboard_update_time", Now());  // the cache is due to be read
  const std::vector<std::string> fifos = {kCartFile, kCacheFile, "/tmp/logo_from_vistrel.bmp"};
  for (const std::string& fifo : fifos) {
    ASSERT_EQ(mkfifo(HostPath(fifo).c_str(), 0644), 0) << fifo;
  }
  int result = -2;
  WithoutWaitingOn(fifos, [&] { result = StoreManager::Instance()->Init(); });
  // An unreadable cache is fetched anew; an unreadable cart is an empty one.
  EXPECT_EQ(result, 0);
  EXPECT_EQ(StoreManager::Instance()->GetShopName(), "Fake Shop");
  EXPECT_EQ(StoreManager::Instance()->cart().GetSize(), 0u);
  ibitmap* picture = reinterpret_cast<ibitmap*>(1);
  WithoutWaitingOn(fifos, [&] { picture = LoadBitmap("/tmp/logo_from_vistrel.bmp"); });
  EXPECT_EQ(picture, nullptr);

  // A folder where the cart belongs: read as no cart, and a save leaves it alone.
  std::filesystem::remove(HostPath(kCartFile));
  ASSERT_TRUE(std::filesystem::create_directory(HostPath(kCartFile)));
  StoreManager::Instance()->AddToCart(BookWithEan("1"));
  Cart cart;
  cart.Load();
  EXPECT_EQ(cart.GetSize(), 0u);
  EXPECT_TRUE(std::filesystem::is_directory(HostPath(kCartFile)));
}

TEST_F(HostileFilesTest, AFifoAsTheConfigurationFileFailsTheStartAtOnce) {
  ASSERT_EQ(mkfifo(HostPath(kConfigFile).c_str(), 0600), 0);
  int result = 0;
  WithoutWaitingOn({kConfigFile}, [&] { result = StoreManager::Instance()->Init(); });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(OpenConfig(kConfigFile, nullptr), nullptr);
}

TEST_F(HostileFilesTest, AnUnreadableCartFileIsKeptAsideAndReplacedByAnEmptyCart) {
  std::string kept_as, problem;
  // A good cart file, or none, stays as it is.
  EXPECT_FALSE(Cart::SetAsideUnreadableFile(&kept_as, &problem));
  WriteDeviceFile(kCartFile, R"({"cartPositions": [{"cartPositionEan": "1"}], "cart": {}})");
  EXPECT_FALSE(Cart::SetAsideUnreadableFile(&kept_as, &problem));
  EXPECT_EQ(DeviceFolderEntries(kConfigFolder), 1u);

  const std::vector<std::pair<std::string, std::string>> broken = {
      {"wrong kind", R"({"cartPositions": [{"cartPositionID": [1]}]})"},
      {"not JSON", "{\"cartPositions\": [{\"cartPositionEan\": \"1\"}"},
      {"too deep", std::string(5000, '[')},
  };
  for (const auto& [what, content] : broken) {
    SCOPED_TRACE(what);
    WriteDeviceFile(kCartFile, content);
    ASSERT_TRUE(Cart::SetAsideUnreadableFile(&kept_as, &problem));
    EXPECT_FALSE(problem.empty());
    EXPECT_EQ(kept_as.rfind(std::string(kCartFile) + ".unreadable-", 0), 0u) << kept_as;
    EXPECT_EQ(ReadDeviceFile(kept_as), content);  // kept, not deleted
    Cart cart;
    cart.Load();
    EXPECT_EQ(cart.GetSize(), 0u);
    EXPECT_FALSE(Cart::SetAsideUnreadableFile(&kept_as, &problem));  // the new one reads
  }
  // A FIFO is moved aside too, without being waited on.
  std::filesystem::remove(HostPath(kCartFile));
  ASSERT_EQ(mkfifo(HostPath(kCartFile).c_str(), 0600), 0);
  bool moved = false;
  WithoutWaitingOn({kCartFile}, [&] { moved = Cart::SetAsideUnreadableFile(&kept_as, &problem); });
  EXPECT_TRUE(moved);
  EXPECT_TRUE(S_ISREG(ModeOf(HostPath(kCartFile))));
}

}  // namespace
