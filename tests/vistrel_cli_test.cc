// The vistrel tool as a user runs it: separate processes against a demo shop, checked by
// exit code, stderr line and the files left on the emulated device.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "demo_catalog.h"
#include "demo_shop.h"
#include "support/device_fixture.h"
#include "support/ebook_check.h"

namespace {

using vistrel_demo::DemoCatalog;

struct Outcome {
  int exit_code;
  std::string out;
  std::string err;
  // The exit code and stderr, as "<code> <text>".
  std::string Said() const { return std::to_string(exit_code) + " " + err; }
};

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class VistrelCliTest : public vistrel_test::DeviceTest {
 protected:
  // Runs the tool with `args` (none of which holds a quote).
  Outcome Run(const std::vector<std::string>& args) {
    std::string command = VISTREL_CLI;
    for (const std::string& arg : args) command += " '" + arg + "'";
    const std::string out = work_dir_ + "/stdout", err = work_dir_ + "/stderr";
    const int status = std::system((command + " >" + out + " 2>" + err).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(out), ReadFile(err)};
  }
  // The tool on this test's device, talking to `shop`.
  Outcome Vistrel(const vistrel_demo::DemoShop& shop, std::vector<std::string> args) {
    args.insert(args.begin(), {"--device-root", device_root_, "--switchboard-url",
                               shop.switchboard_url(), "--log-file", log_file_});
    return Run(args);
  }
};

TEST_F(VistrelCliTest, DemoBuysAndDeliversValidBooks) {
  const Outcome demo = Run({"--device-root", device_root_, "--log-file", log_file_, "demo",
                            "--file-chunk-delay", "0", "--link-delay", "0"});
  EXPECT_EQ(0, demo.exit_code) << demo.out << demo.err;
  // The last was sent as "application/force-download": kept under the name the store asked for.
  const std::pair<int, std::string> delivered[] = {
      {0, "Mara Ellison - The Lighthouse Keepers Almanac.epub"},
      {2, "Ida Vance - A Field Guide to Quiet Machines.pdf"},
      {3, "Tom\xc3\xa1s Reyes - Letters from the Salt Road.epub"}};
  for (const auto& [index, name] : delivered) {
    const vistrel_demo::CatalogBook& book = DemoCatalog()[index];
    const std::string content = ReadDeviceFile("/mnt/ext1/Downloads/" + name);
    EXPECT_EQ(vistrel_demo::DemoShop().BookFile(book.ean), content) << name;
    EXPECT_EQ("", book.format == "PDF" ? vistrel_test::PdfProblem(content)
                                       : vistrel_test::EpubProblem(content))
        << name;
  }
  EXPECT_EQ(3u, DeviceFolderEntries("/mnt/ext1/Downloads"));
}

TEST_F(VistrelCliTest, ASessionCarriesAcrossCommands) {
  vistrel_demo::DemoShop shop;
  shop.SetLinkDelay(std::chrono::milliseconds(0));
  ASSERT_TRUE(shop.Start(0));
  const std::string ean = DemoCatalog()[2].ean;
  // "0 " is a success with nothing on stderr.
  ASSERT_EQ("0 ", Vistrel(shop, {"init"}).Said());
  ASSERT_EQ("0 ", Vistrel(shop, {"register", "me@example.org", "pw"}).Said());
  ASSERT_EQ("0 ", Vistrel(shop, {"cart", "add", ean}).Said());
  ASSERT_EQ("0 ", Vistrel(shop, {"checkout"}).Said());
  EXPECT_EQ("2 vistrel: unknown browser 'lynx' (chromium or http) (see --help)\n",
            Vistrel(shop, {"pay", "--browser", "lynx"}).Said());
  ASSERT_EQ("0 ", Vistrel(shop, {"pay", "--browser", "http"}).Said());
  ASSERT_EQ("0 ", Vistrel(shop, {"download", "--all"}).Said());
  EXPECT_EQ(
      ean + ": downloaded /mnt/ext1/Downloads/Ida Vance - A Field Guide to Quiet Machines.pdf\n",
      Vistrel(shop, {"status", ean}).out);
}

TEST_F(VistrelCliTest, ErrorsAreOneLineWithTheirExitCode) {
  vistrel_demo::DemoShop shop;
  ASSERT_TRUE(shop.Start(0));
  EXPECT_EQ("1 vistrel: login refused: Wrong e-mail address or password\n",
            Vistrel(shop, {"login", "nobody@example.org", "wrong"}).Said());
  EXPECT_EQ("5 vistrel: unknown book: 4000000000006 is not in the shop's catalogue\n",
            Vistrel(shop, {"cart", "add", "4000000000006"}).Said());
  // Nothing listens there any more, and the other device has no cached configuration.
  shop.Stop();
  EXPECT_EQ("3 vistrel: shop unreachable: no configuration from " + shop.switchboard_url() + "\n",
            Run({"--device-root", work_dir_ + "/other-device", "--switchboard-url",
                 shop.switchboard_url(), "--log-file", log_file_, "init"})
                .Said());
}

}  // namespace
