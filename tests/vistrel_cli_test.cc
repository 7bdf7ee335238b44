// The vistrel tool as a user runs it: separate processes against a demo shop, checked by
// exit code, stderr line and the files left on the emulated device.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "demo_catalog.h"
#include "demo_shop.h"
#include "support/device_fixture.h"
#include "support/ebook_check.h"
#include "support/fake_server.h"

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
  // Runs the tool with `args` (none of which holds a quote), `input` on its stdin. The
  // configuration file is looked for in the test's folder, never the user's.
  Outcome Run(const std::vector<std::string>& args, const std::string& input = "") {
    std::ofstream(work_dir_ + "/stdin") << input << "\n";
    std::string command = "XDG_CONFIG_HOME='" + work_dir_ + "' " + VISTREL_CLI;
    for (const std::string& arg : args) command += " '" + arg + "'";
    const std::string out = work_dir_ + "/stdout", err = work_dir_ + "/stderr";
    const int status =
        std::system((command + " <" + work_dir_ + "/stdin >" + out + " 2>" + err).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(out), ReadFile(err)};
  }
  // The tool on this test's device, talking to `shop`.
  Outcome Vistrel(const vistrel_demo::DemoShop& shop, std::vector<std::string> args,
                  const std::string& input = "") {
    args.insert(args.begin(), {"--device-root", device_root_, "--switchboard-url",
                               shop.switchboard_url(), "--log-file", log_file_});
    return Run(args, input);
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
  ASSERT_EQ("0 ", Vistrel(shop, {"register", "me@example.org", "--password-stdin"}, "pw").Said());
  ASSERT_EQ("0 ", Vistrel(shop, {"cart", "add", ean}).Said());
  ASSERT_EQ("0 ", Vistrel(shop, {"checkout"}).Said());
  EXPECT_EQ("2 vistrel: unknown browser 'lynx' (chromium or http) (see --help)\n",
            Vistrel(shop, {"pay", "--yes", "--browser", "lynx"}).Said());
  ASSERT_EQ("0 ", Vistrel(shop, {"pay", "--yes", "--browser", "http"}).Said());
  ASSERT_EQ("0 ", Vistrel(shop, {"download", "--all"}).Said());
  const std::string book = "/mnt/ext1/Downloads/Ida Vance - A Field Guide to Quiet Machines.pdf";
  EXPECT_EQ(ean + ": downloaded " + book + " (on this host: " + HostPath(book) + ")\n",
            Vistrel(shop, {"status", ean}).out);
}

TEST_F(VistrelCliTest, ErrorsAreOneLineWithTheirExitCode) {
  vistrel_demo::DemoShop shop;
  ASSERT_TRUE(shop.Start(0));
  EXPECT_EQ("1 vistrel: login refused: Wrong e-mail address or password\n",
            Vistrel(shop, {"login", "nobody@example.org", "--password-stdin"}, "wrong").Said());
  EXPECT_EQ("5 vistrel: unknown book: 4000000000006 is not in the shop's catalogue\n",
            Vistrel(shop, {"cart", "add", "4000000000006"}).Said());
  // Nothing listens there any more, and the other device has no cached configuration.
  shop.Stop();
  const Outcome down = Run({"--device-root", work_dir_ + "/other-device", "--switchboard-url",
                            shop.switchboard_url(), "--log-file", log_file_, "init"});
  EXPECT_EQ(3, down.exit_code);
  EXPECT_EQ(0u, down.err.find("vistrel: cannot reach the configuration server: GET " +
                              shop.switchboard_url()))
      << down.err;
}

// Browsing, walking, searching and buying through the demo shop's OPDS catalogues.
TEST_F(VistrelCliTest, BrowsesWalksSearchesAndBuysThroughOpds) {
  vistrel_demo::DemoShop shop;
  ASSERT_TRUE(shop.Start(0));
  ASSERT_EQ("0 ", Vistrel(shop, {"init"}).Said());
  const std::string almanac =
      "9783980000109    4,99 EUR  Mara Ellison - The Lighthouse Keeper's Almanac [EPUB]  ";
  const std::string machines =
      "9783980000123    3,49 EUR  Ida Vance - A Field Guide to Quiet Machines [PDF]  ";
  const std::string salt =
      "9783980000130    1,99 EUR  Tom\xc3\xa1s Reyes - Letters from the Salt Road [EPUB]  ";
  Outcome root = Vistrel(shop, {"catalog"});
  EXPECT_EQ("Vistrel Demo Shop  (" + shop.catalog_url() +
                ")\n  1  All books\n  2  EPUB books\n  3  PDF books\n",
            root.out);
  Outcome page = Vistrel(shop, {"catalog", "1"});
  EXPECT_NE(std::string::npos, page.out.find(almanac + "(unknown)\n")) << page.out;
  EXPECT_NE(std::string::npos, page.out.find("next page: vistrel catalog --feed '" +
                                             shop.catalog_url() + "books?page=2'\n"))
      << page.out;
  EXPECT_EQ("2 vistrel: no navigation entry 4 in " + shop.catalog_url() + " (it has 3)\n",
            Vistrel(shop, {"catalog", "4"}).Said());

  // The walk lists every book once, the list's pages in order, with its count on stderr.
  Outcome all = Vistrel(shop, {"catalog", "--all"});
  EXPECT_EQ("0 read 5 feeds, 4 books\n", all.Said());
  EXPECT_EQ(4, std::count(all.out.begin(), all.out.end(), '\n')) << all.out;
  EXPECT_EQ(0u, all.out.find(almanac)) << all.out;
  EXPECT_NE(std::string::npos, all.out.find(salt)) << all.out;

  EXPECT_EQ("Search results  (" + shop.catalog_url() + "search?q=quiet%20machines&page=)\n" +
                machines + "(unknown)\n",
            Vistrel(shop, {"catalog", "--search", "quiet machines"}).out);
  EXPECT_EQ("Search  (" + shop.catalog2_url() + "search?query=salt)\n" + salt + "(unknown)\n",
            Vistrel(shop, {"catalog", "--feed", shop.catalog2_url(), "--search", "salt"}).out);
  EXPECT_EQ("0 read 2 feeds, 4 books\n",
            Vistrel(shop, {"catalog", "--all", "--feed", shop.catalog2_url()}).Said());

  // Bought by EAN alone: the catalogue gives title, author, format, price and thumbnail.
  ASSERT_EQ("0 ", Vistrel(shop, {"cart", "add", "9783980000123"}).Said());
  EXPECT_NE(std::string::npos, Vistrel(shop, {"catalog", "3"}).out.find(machines + "(in cart)"));
  const std::string cart = ReadDeviceFile("/mnt/ext1/system/config/vistrel_cart");
  EXPECT_NE(std::string::npos, cart.find("\"cartPositionThumbnail\" : \"" + shop.base_url() +
                                         "/opds/cover/9783980000123.bmp\""))
      << cart;
  EXPECT_NE(std::string::npos, cart.find("\"cartPositionEbookType\" : \"PDF\"")) << cart;
}

// A catalogue whose pages never end and whose entries lead back: the walk remembers what it
// read and stops at its limit. Not a feed at all: exit 1; nothing there: exit 3.
TEST_F(VistrelCliTest, CatalogueWalksStayBounded) {
  vistrel_demo::DemoShop shop;
  ASSERT_TRUE(shop.Start(0));
  vistrel_test::FakeServer catalogue;
  const std::string atom = "application/atom+xml;profile=opds-catalog";
  auto nav = [&atom](const std::string& title, const std::string& href) {
    return "<entry><title>" + title + "</title><link rel=\"subsection\" href=\"" + href +
           "\" type=\"" + atom + "\"/></entry>";
  };
  catalogue.Set("/root",
                vistrel_test::Answer("<feed xmlns=\"http://www.w3.org/2005/Atom\">" +
                                         nav("Library", "/root") + nav("Pages", "/page?n=1") +
                                         nav("Pages again", "page?n=1#top") + "</feed>",
                                     200, atom));
  catalogue.Set("/page", [&](const vistrel_test::RecordedRequest& request) {
    const int n = std::atoi(request.query.substr(2).c_str());
    const std::string ean = std::to_string(9790000000000LL + n);
    return vistrel_test::Answer(
        "<feed xmlns=\"http://www.w3.org/2005/Atom\"><link rel=\"next\" href=\"page?n=" +
            std::to_string(n + 1) + "\"/><link rel=\"start\" href=\"/root\"/>" +
            nav("Home", "/root") + "<entry><title>B" + std::to_string(n) + "</title><id>urn:isbn:" +
            ean + "</id><dc:identifier xmlns:dc=\"http://purl.org/dc/terms/\">" + ean +
            "</dc:identifier><link rel=\"http://opds-spec.org/acquisition\" href=\"/f\" "
            "type=\"application/epub+zip\"/></entry></feed>",
        200, atom);
  });
  catalogue.Set("/html",
                vistrel_test::Answer("<html><body>Sign in</body></html>", 200, "text/html"));
  ASSERT_EQ("0 ", Vistrel(shop, {"init"}).Said());
  const Outcome walk = Vistrel(
      shop, {"catalog", "--all", "--max-feeds", "40", "--feed", catalogue.base_url() + "/root"});
  EXPECT_EQ("0 read 40 feeds, 39 books (stopped at the walk's limit)\n", walk.Said());
  EXPECT_EQ(39, std::count(walk.out.begin(), walk.out.end(), '\n'));
  EXPECT_EQ(1u, catalogue.requests("/root").size());
  EXPECT_EQ(39u, catalogue.requests("/page").size());

  // Texts reach the terminal without their control characters.
  catalogue.Set("/json", vistrel_test::Answer(
                             R"({"metadata": {"title": "\u001b]0;owned\u0007"}, "publications": [
                                  {"metadata": {"title": "Red\u001b[31m", "identifier": "x1"},
                                   "links": [{"rel": "http://opds-spec.org/acquisition",
                                              "href": "/f", "type": "application/pdf"}]}]})",
                             200, "application/opds+json"));
  EXPECT_EQ("?]0;owned?  (" + catalogue.base_url() +
                "/json)\nx1                      -   - Red?[31m [PDF]  (unknown)\n",
            Vistrel(shop, {"catalog", "--feed", catalogue.base_url() + "/json"}).out);

  const Outcome html = Vistrel(shop, {"catalog", "--feed", catalogue.base_url() + "/html"});
  EXPECT_EQ("1 vistrel: catalogue unreadable: " + catalogue.base_url() +
                "/html is not an OPDS feed (the document is <html>, not an Atom feed)\n",
            html.Said());
  EXPECT_EQ(3, Vistrel(shop, {"catalog", "--feed", catalogue.base_url() + "/nothing"}).exit_code);
}

// A shop whose catalogue publishes no ISBN and whose search finds nothing: cart add finds the
// book by its identifier with a walk after the search, and takes its data from the entry.
TEST_F(VistrelCliTest, CartAddFindsABookByItsIdentifier) {
  vistrel_demo::DemoShop shop;
  ASSERT_TRUE(shop.Start(0));
  vistrel_test::FakeServer server;
  const std::string base = server.base_url();
  server.Set("/norbel/config/",
             vistrel_test::Answer(R"({"clientID": "x", "clientOPDSCatalogUrl": ")" + base +
                                  R"(/plain/", "clientShopWebserviceUrl": ")" + shop.base_url() +
                                  R"(/ws/shop"})"));
  const std::string atom = "application/atom+xml;profile=opds-catalog";
  server.Set("/plain/", vistrel_test::Answer(
                            R"(<feed xmlns="http://www.w3.org/2005/Atom">
      <link rel="search" href="search?q={searchTerms}" type="application/atom+xml"/>
      <entry><title>Everything</title>
        <link rel="subsection" href="list" type=")" +
                                atom + R"(;kind=acquisition"/></entry></feed>)",
                            200, atom));
  server.Set("/plain/search",
             vistrel_test::Answer(R"(<feed xmlns="http://www.w3.org/2005/Atom"/>)", 200, atom));
  server.Set("/plain/list", vistrel_test::Answer(
                                R"(<feed xmlns="http://www.w3.org/2005/Atom"
          xmlns:opds="http://opds-spec.org/2010/catalog">
      <entry><title>Plain Book</title><id>urn:uuid:4f1c</id><author><name>Ann Author</name></author>
        <link rel="http://opds-spec.org/image/thumbnail" href="/t/1.png" type="image/png"/>
        <link rel="http://opds-spec.org/acquisition/buy" href="/b/1" type="application/epub+zip">
          <opds:price currencycode="EUR">2.50</opds:price></link></entry></feed>)",
                                200, atom));
  const std::vector<std::string> options = {"--device-root",     device_root_,
                                            "--switchboard-url", base + "/norbel/config/",
                                            "--log-file",        log_file_};
  auto run = [&](std::vector<std::string> args) {
    args.insert(args.begin(), options.begin(), options.end());
    return Run(args);
  };
  ASSERT_EQ("0 ", run({"init"}).Said());
  const Outcome added = run({"cart", "add", "urn:uuid:4f1c"});
  EXPECT_EQ("0 ", added.Said());
  EXPECT_EQ(0u, added.out.find("added: Ann Author - Plain Book\n")) << added.out;
  EXPECT_EQ(1u, server.requests("/plain/search").size());
  EXPECT_EQ("q=urn%3Auuid%3A4f1c", server.requests("/plain/search")[0].query);
  const std::string cart = ReadDeviceFile("/mnt/ext1/system/config/vistrel_cart");
  EXPECT_NE(std::string::npos, cart.find("\"cartPositionEbookType\" : \"EPUB\"")) << cart;
  EXPECT_NE(std::string::npos, cart.find("\"cartPositionPrice\" : 2.5")) << cart;
  EXPECT_NE(std::string::npos, cart.find(base + "/t/1.png")) << cart;
  EXPECT_EQ("5 vistrel: unknown book: urn:uuid:0000 is not in the shop's catalogue\n",
            run({"cart", "add", "urn:uuid:0000"}).Said());
}

}  // namespace
