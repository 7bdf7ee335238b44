// The vistrel tool as a user runs it: separate processes against a demo shop, checked by
// exit code, stderr line and the files left on the emulated device.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "demo_catalog.h"
#include "demo_shop.h"
#include "support/device_fixture.h"
#include "support/ebook_check.h"

namespace {

struct Outcome {
  int exit_code = -1;
  std::string out;
  std::string err;
};

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

class VistrelCliTest : public vistrel_test::DeviceTest {
 protected:
  // Runs the tool with `args`; stdout and stderr are collected through files.
  Outcome Run(const std::vector<std::string>& args) {
    const std::string out_path = work_dir_ + "/stdout";
    const std::string err_path = work_dir_ + "/stderr";
    std::vector<std::string> words = {VISTREL_CLI};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
      const int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      const int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(out, 1);
      dup2(err, 2);
      execv(argv[0], argv.data());
      _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    Outcome outcome;
    outcome.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    outcome.out = ReadFile(out_path);
    outcome.err = ReadFile(err_path);
    return outcome;
  }

  // The tool on this test's device, talking to `shop`.
  Outcome Vistrel(const vistrel_demo::DemoShop& shop, std::vector<std::string> args) {
    std::vector<std::string> all = {"--device-root",        device_root_, "--switchboard-url",
                                    shop.switchboard_url(), "--log-file", log_file_};
    all.insert(all.end(), args.begin(), args.end());
    return Run(all);
  }

  // Each downloaded book is the shop's file, valid for its kind.
  void ExpectDelivered(const vistrel_demo::CatalogBook& book, const std::string& file_name) {
    const std::string path = device_root_ + "/mnt/ext1/Downloads/" + file_name;
    ASSERT_TRUE(std::filesystem::exists(path)) << path;
    const std::string content = ReadFile(path);
    EXPECT_EQ(vistrel_demo::DemoShop().BookFile(book.ean), content) << file_name;
    EXPECT_EQ("", book.format == "PDF" ? vistrel_test::PdfProblem(content)
                                       : vistrel_test::EpubProblem(content))
        << file_name;
  }
};

TEST_F(VistrelCliTest, DemoBuysAndDeliversValidBooks) {
  const Outcome demo = Run({"--device-root", device_root_, "--log-file", log_file_, "demo",
                            "--file-chunk-delay", "0", "--link-delay", "0"});
  EXPECT_EQ(0, demo.exit_code) << demo.out << demo.err;
  EXPECT_EQ("", demo.err);
  EXPECT_NE(std::string::npos, demo.out.find("[9/9] Books on the device")) << demo.out;
  EXPECT_NE(std::string::npos, demo.out.find("in cart -> purchased -> downloading -> downloaded"))
      << demo.out;

  const auto& catalog = vistrel_demo::DemoCatalog();
  ExpectDelivered(catalog[0], "Mara Ellison - The Lighthouse Keepers Almanac.epub");
  ExpectDelivered(catalog[2], "Ida Vance - A Field Guide to Quiet Machines.pdf");
  // Sent as "application/force-download": kept under the name the store asked for.
  ExpectDelivered(catalog[3], "Tom\xc3\xa1s Reyes - Letters from the Salt Road.epub");
  EXPECT_EQ(3,
            std::distance(std::filesystem::directory_iterator(device_root_ + "/mnt/ext1/Downloads"),
                          std::filesystem::directory_iterator()));
  // The standby picture was installed and the scanner told about every book.
  EXPECT_EQ(1u, EventsOfKind("poweroff-logo").size());
  EXPECT_EQ(3u, EventsOfKind("request").size());
}

TEST_F(VistrelCliTest, ManualSessionAcrossCommands) {
  vistrel_demo::DemoShop shop;
  shop.SetLinkDelay(std::chrono::milliseconds(0));
  ASSERT_TRUE(shop.Start(0));
  const auto& catalog = vistrel_demo::DemoCatalog();

  Outcome step = Vistrel(shop, {"init"});
  ASSERT_EQ(0, step.exit_code) << step.err;
  EXPECT_NE(std::string::npos, step.out.find("shop: Vistrel Demo Shop")) << step.out;
  EXPECT_EQ(4, Vistrel(shop, {"checkout"}).exit_code);  // not logged in yet
  ASSERT_EQ(0, Vistrel(shop, {"register", "me@example.org", "pw"}).exit_code);
  step = Vistrel(shop, {"languages"});
  EXPECT_EQ(0, step.exit_code);
  EXPECT_NE(std::string::npos, step.out.find("de   Deutsch")) << step.out;

  ASSERT_EQ(0, Vistrel(shop, {"cart", "add", catalog[1].ean}).exit_code);
  ASSERT_EQ(0, Vistrel(shop, {"cart", "add", catalog[2].ean}).exit_code);
  ASSERT_EQ(0, Vistrel(shop, {"cart", "add", catalog[0].ean}).exit_code);
  ASSERT_EQ(0, Vistrel(shop, {"cart", "remove", catalog[0].ean}).exit_code);
  step = Vistrel(shop, {"cart", "list"});
  EXPECT_NE(std::string::npos, step.out.find("2 books, total 6,48 EUR")) << step.out;
  step = Vistrel(shop, {"status", catalog[1].ean});
  EXPECT_EQ(catalog[1].ean + ": in cart\n", step.out);

  // A payment the buyer gives up keeps the cart; the next one goes through.
  ASSERT_EQ(0, Vistrel(shop, {"checkout"}).exit_code);
  shop.SetCancelPayment(true);
  step = Vistrel(shop, {"pay"});
  EXPECT_EQ(1, step.exit_code);
  EXPECT_EQ("vistrel: payment failed: the payment was not completed\n", step.err);
  shop.SetCancelPayment(false);
  step = Vistrel(shop, {"pay"});
  ASSERT_EQ(0, step.exit_code) << step.out << step.err;
  EXPECT_NE(std::string::npos, step.out.find("delivered; 2 purchased books")) << step.out;

  step = Vistrel(shop, {"download", "--all"});
  ASSERT_EQ(0, step.exit_code) << step.out << step.err;
  ExpectDelivered(catalog[1], "Jonas Berg - Seven Small Rivers.epub");
  ExpectDelivered(catalog[2], "Ida Vance - A Field Guide to Quiet Machines.pdf");
  step = Vistrel(shop, {"status", "books/" + catalog[2].ean});
  EXPECT_EQ(
      "books/" + catalog[2].ean +
          ": downloaded /mnt/ext1/Downloads/Ida Vance - A Field Guide to Quiet Machines.pdf\n",
      step.out);
  step = Vistrel(shop, {"purchased"});
  EXPECT_NE(std::string::npos, step.out.find("2 purchased books")) << step.out;

  // Logging out empties the cart file; the stored session stays, as the library keeps it.
  ASSERT_EQ(0, Vistrel(shop, {"cart", "add", catalog[3].ean}).exit_code);
  ASSERT_EQ(0, Vistrel(shop, {"logout"}).exit_code);
  step = Vistrel(shop, {"cart", "list"});
  EXPECT_NE(std::string::npos, step.out.find("0 books")) << step.out;
}

TEST_F(VistrelCliTest, ErrorsAreOneLineWithTheirExitCode) {
  vistrel_demo::DemoShop shop;
  ASSERT_TRUE(shop.Start(0));

  Outcome step = Vistrel(shop, {"login", "nobody@example.org", "wrong"});
  EXPECT_EQ(1, step.exit_code);
  EXPECT_EQ("vistrel: login refused: Wrong e-mail address or password\n", step.err);

  step = Vistrel(shop, {"cart", "add", "4000000000006"});
  EXPECT_EQ(5, step.exit_code);
  EXPECT_EQ("vistrel: unknown book: 4000000000006 is not in the shop's catalogue\n", step.err);

  ASSERT_EQ(0, Vistrel(shop, {"register", "me@example.org", "pw"}).exit_code);
  step = Vistrel(shop, {"download", "4000000000006"});
  EXPECT_EQ(5, step.exit_code);
  EXPECT_EQ("vistrel: not a purchased book: 4000000000006\n", step.err);

  // A book outside the catalogue can be put in the local cart; the shop drops it at checkout.
  ASSERT_EQ(0, Vistrel(shop, {"cart", "add", "4000000000006", "--title", "Ghost"}).exit_code);
  step = Vistrel(shop, {"checkout"});
  EXPECT_EQ(1, step.exit_code);
  EXPECT_EQ("vistrel: the shop dropped 4000000000006 ( - Ghost) from the cart\n", step.err);

  // Usage errors.
  step = Run({"frobnicate"});
  EXPECT_EQ(2, step.exit_code);
  EXPECT_EQ("vistrel: unknown command frobnicate (see vistrel --help)\n", step.err);
  EXPECT_EQ(2, Vistrel(shop, {"login", "only-one-argument"}).exit_code);
  step = Run({"login", "--help"});
  EXPECT_EQ(0, step.exit_code);
  EXPECT_EQ(0u, step.out.find("usage: vistrel login EMAIL PASSWORD"));

  // An unreachable configuration server, on a device that has no cached configuration.
  const std::string dead = shop.switchboard_url();
  shop.Stop();
  step = Run({"--device-root", work_dir_ + "/other-device", "--switchboard-url", dead, "--log-file",
              log_file_, "init"});
  EXPECT_EQ(3, step.exit_code);
  EXPECT_EQ("vistrel: shop unreachable: no configuration from " + dead + "\n", step.err);
}

}  // namespace
