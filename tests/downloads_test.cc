// Background downloads of purchased books and the status of every book, against files served
// on loopback with chosen content types.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "nbutils/downloader.h"
#include "support/file_host.h"
#include "support/shop_fixture.h"
#include "vistrel_store/store_manager.h"

namespace {

using norbel::vistrel::StoreManager;
using vistrel_test::Answer;
using vistrel_test::Reply;
using vistrel_test::ShopOk;

class DownloadsTest : public vistrel_test::ShopTest {
 protected:
  // Starts the store with purchased books 1, 2, ... whose links are these files.
  void Start(const std::vector<std::string>& files) {
    std::string list;
    for (size_t i = 0; i < files.size(); ++i) {
      const std::string ean = std::to_string(i + 1);
      list += (i == 0 ? "" : ", ") + std::string(R"({"orderPositionEan": ")") + ean +
              R"(", "orderPositionTitle": "Title )" + ean +
              R"(", "orderPositionAuthor": "Author", "orderPositionEbookFormat": "PDF", )" +
              R"("orderPositionEbookLink": ")" + server_.base_url() + "/files/" + files[i] + "\"}";
    }
    server_.Set("/ws/shop/getUserEbook", Answer(ShopOk("[" + list + "]")));
    StoreConfigValue("session_id", "sess");
    ASSERT_EQ(store_->Init(), 0);
  }

  // Polls until no download task is left (bounded, so a hang fails instead of blocking).
  void DrainDownloads() {
    for (int i = 0; i < 3000; ++i) {
      if (store_->CheckDownloadState() == 0) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    FAIL() << "downloads did not finish";
  }

  int Status(const std::string& id) const { return store_->GetBookStatus(id).status_; }

  StoreManager* store_ = StoreManager::Instance();
};

TEST_F(DownloadsTest, ABookIsRenamedAfterItsDeclaredTypeAndTheScannerIsTold) {
  WriteDeviceFile("/kelmast/bin/scanner.app", "#!");
  server_.Set("/files/epub", Answer("PK-epub-bytes", 200, "application/epub+zip"));
  Start({"epub"});
  EXPECT_EQ(store_->DownloadBookById("a/b/1"), 0);
  DrainDownloads();

  const std::string path = "/mnt/ext1/Downloads/Author - Title 1.epub";
  EXPECT_EQ(store_->GetBookStatus("1").path_, path);
  EXPECT_EQ(ReadDeviceFile(path), "PK-epub-bytes");
  EXPECT_FALSE(DeviceFileExists("/mnt/ext1/Downloads/Author - Title 1.pdf"));
  EXPECT_EQ(Status("a/b/1"), norbel::vistrel::kUnknown);
  EXPECT_EQ(store_->GetBookStatusById("a/b/1").status_, norbel::vistrel::kDownloaded);

  auto requests = EventsOfKind("request");
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].at(2) + " " + requests[0].at(3), "84 -scan:/mnt/ext1/Downloads");
  auto lines = LogLines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "5\tvistrel_store/src/data/store_manager\t441\t"
                       "int norbel::vistrel::StoreManager::CheckDownloadState()\t"
                       "filename [/mnt/ext1/Downloads/Author - Title 1.pdf]"),
            1);

  // A book that is in the cart again reports the cart first.
  norbel::vistrel::Book again;
  again.string_props_[norbel::vistrel::Book::Ean] = "1";
  store_->AddToCart(again);
  EXPECT_EQ(Status("1"), norbel::vistrel::kInCart);
}

TEST_F(DownloadsTest, AForcedDownloadKeepsItsNameAndNoScannerMeansNoRequest) {
  server_.Set("/files/forced", Answer("%PDF-1.4", 200, "application/force-download; name=x"));
  Start({"forced"});
  store_->DownloadBookById("1");
  DrainDownloads();
  EXPECT_EQ(store_->GetBookStatus("1").path_, "/mnt/ext1/Downloads/Author - Title 1.pdf");
  EXPECT_TRUE(EventsOfKind("request").empty());
}

TEST_F(DownloadsTest, PagesAndFailuresAreReportedAndTheNextDownloadRuns) {
  server_.Set("/files/html", Answer("<html>login first</html>", 200, "text/html; charset=utf-8"));
  server_.Set("/files/bad", Answer("gone", 500, "text/plain"));
  server_.Set("/files/good", Answer("%PDF-1.4", 200, "application/pdf"));
  Start({"html", "bad", "good"});
  for (const char* id : {"1", "2", "3"}) {
    store_->DownloadBookById(id);
    DrainDownloads();
  }
  EXPECT_FALSE(DeviceFileExists("/mnt/ext1/Downloads/Author - Title 1.htm"));
  EXPECT_EQ(Status("1"), norbel::vistrel::kPurchased);
  EXPECT_EQ(Status("3"), norbel::vistrel::kDownloaded);
  auto messages = EventsOfKind("message");
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0].fields,
            (std::vector<std::string>{"message", "4", "@DownloadError", "@DownloadError", "7000"}));
}

TEST_F(DownloadsTest, ASecondBookAskedForDuringADownloadIsTakenAndLost) {
  Reply slow = Answer(std::string(200000, 'x'), 200, "application/pdf");
  slow.delay = std::chrono::milliseconds(600);
  server_.Set("/files/slow", slow);
  server_.Set("/files/other", Answer("%PDF", 200, "application/pdf"));
  Start({"slow", "other"});

  store_->DownloadBookById("1");
  store_->DownloadBookById("2");  // taken from the queue while the first one runs
  EXPECT_EQ(Status("2"), norbel::vistrel::kDownloading);
  DrainDownloads();
  EXPECT_EQ(Status("1"), norbel::vistrel::kDownloaded);
  EXPECT_EQ(Status("2"), norbel::vistrel::kPurchased);
  EXPECT_TRUE(server_.requests("/files/other").empty());
}

TEST_F(DownloadsTest, StatusFindsTheFirstBookOfAnEanAndFollowsAReload) {
  // Two purchases of Ean 1: the first one's name decides where the file is looked for.
  const std::string first = R"({"orderPositionEan": "1", "orderPositionTitle": "First",
      "orderPositionAuthor": "A", "orderPositionEbookFormat": "PDF"})";
  const std::string second = R"({"orderPositionEan": "1", "orderPositionTitle": "Second",
      "orderPositionAuthor": "A", "orderPositionEbookFormat": "PDF"})";
  const std::string no_ean = R"({"orderPositionTitle": "Nameless", "orderPositionAuthor": "A"})";
  server_.Set("/ws/shop/getUserEbook",
              Answer(ShopOk("[" + first + ", " + second + ", " + no_ean + "]")));
  StoreConfigValue("session_id", "sess");
  ASSERT_EQ(store_->Init(), 0);
  WriteDeviceFile("/mnt/ext1/Downloads/A - Second.pdf", "%PDF");
  EXPECT_EQ(Status("1"), norbel::vistrel::kPurchased);
  EXPECT_NE(Status(""), norbel::vistrel::kUnknown);  // a book without Ean matches "" only
  WriteDeviceFile("/mnt/ext1/Downloads/A - First.pdf", "%PDF");
  EXPECT_EQ(store_->GetBookStatus("1").path_, "/mnt/ext1/Downloads/A - First.pdf");

  server_.Set("/ws/shop/getUserEbook", Answer(ShopOk("[" + second + "]")));
  store_->LoadPurchased();
  EXPECT_EQ(store_->GetBookStatus("1").path_, "/mnt/ext1/Downloads/A - Second.pdf");
  EXPECT_EQ(Status(""), norbel::vistrel::kUnknown);
  store_->LogOut();
  EXPECT_EQ(Status("1"), norbel::vistrel::kUnknown);
}

TEST_F(DownloadsTest, DownloadsStartByRemovingPartialsOfBooksNoLongerBoughtAndResume) {
  const std::string content(300000, 'r');
  vistrel_test::FileHost files([&](const vistrel_test::FileRequest& request) {
    return vistrel_test::ServeFile(request, content, "\"r1\"", "");
  });
  // The first book's link is on the file host: a killed download of it left a third.
  Start({"unused"});
  const std::string url = files.Url("/resumed");
  server_.Set("/ws/shop/getUserEbook",
              Answer(ShopOk(R"([{"orderPositionEan": "1", "orderPositionTitle": "Title 1",
                  "orderPositionAuthor": "Author", "orderPositionEbookFormat": "PDF",
                  "orderPositionEbookLink": ")" +
                            url + "\"}]")));
  store_->LoadPurchased();
  const std::string partial = "/mnt/ext1/Downloads/.Author - Title 1.pdf.part";
  WriteDeviceFile(partial, content.substr(0, 100000));
  WriteDeviceFile(partial + ".info", "vistrel-partial 1\nurl " + url +
                                         "\nname Author - Title 1.pdf\n"
                                         "validator \"r1\"\ntotal 300000\n");
  // And one of a book that is no longer among the purchases.
  WriteDeviceFile("/mnt/ext1/Downloads/.Gone - Book.pdf.part", std::string(5000, 'g'));
  WriteDeviceFile("/mnt/ext1/Downloads/.Gone - Book.pdf.part.info",
                  "vistrel-partial 1\nurl " + url +
                      "/gone\nname Gone - Book.pdf\nvalidator \"g\"\ntotal 9000\n");
  store_->DownloadBookById("1");
  DrainDownloads();
  EXPECT_TRUE(ReadDeviceFile("/mnt/ext1/Downloads/Author - Title 1.pdf") == content);
  EXPECT_EQ(DeviceFolderEntries("/mnt/ext1/Downloads"), 1u);
  EXPECT_EQ(files.requests().at(0).Header("range"), "bytes=100000-");
}

TEST_F(DownloadsTest, ARefusedTypeIsKeptForTheCallerAndTheStandbyPictureIsCapped) {
  server_.Set("/files/page", Answer("<html>sign in</html>", 200, "text/html"));
  Start({"page"});
  store_->DownloadBookById("1");
  DrainDownloads();
  const norbel::utilities::Downloader::StatusInfo last =
      norbel::utilities::Downloader::LastStatus();
  EXPECT_EQ(last.error, 0);
  EXPECT_EQ(last.refused_type, "text/html");
  EXPECT_EQ(Status("1"), norbel::vistrel::kPurchased);

  // A standby picture beyond 16 MiB is given up without effect on the configuration fetch.
  Reply huge;
  huge.generated_bytes = (16 << 20) + 1;
  huge.content_type = "image/bmp";
  server_.Set("/huge.bmp", huge);
  server_.Set(std::string("/norbel/config/") + kSerial,
              Answer(ConfigJson(ShopUrl(), server_.base_url() + "/huge.bmp")));
  EXPECT_EQ(store_->ConfigFromServer(), 0);
  EXPECT_TRUE(norbel::utilities::Downloader::LastStatus().too_large);
  EXPECT_TRUE(EventsOfKind("poweroff-logo").empty());
  EXPECT_EQ(DeviceFolderEntries("/tmp"), 0u);
}

}  // namespace
