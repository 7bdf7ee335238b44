// Background downloads of purchased books and the status of every book, against files served
// on loopback with chosen content types.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "support/shop_fixture.h"
#include "vistrel_store/book_file.h"
#include "vistrel_store/store_manager.h"

namespace {

using norbel::vistrel::Book;
using norbel::vistrel::BookStatus;
using norbel::vistrel::StoreManager;
using vistrel_test::Reply;
using vistrel_test::ShopOk;

Reply File(const std::string& body, const std::string& type, int status = 200) {
  Reply reply;
  reply.body = body;
  reply.content_type = type;
  reply.status = status;
  return reply;
}

// One purchased e-book as the shop lists it.
std::string Ebook(const std::string& ean, const std::string& format, const std::string& link) {
  return R"({"orderPositionEan": ")" + ean + R"(", "orderPositionTitle": "Title )" + ean +
         R"(", "orderPositionAuthor": "Author", "orderPositionEbookFormat": ")" + format +
         R"(", "orderPositionEbookLink": ")" + link + "\"}";
}

class DownloadsTest : public vistrel_test::ShopTest {
 protected:
  void SetUp() override {
    ShopTest::SetUp();
    StoreConfigValue("session_id", "sess");
  }

  // Starts the store with these purchases.
  void Start(const std::vector<std::string>& ebooks) {
    std::string list;
    for (const std::string& e : ebooks) list += (list.empty() ? "" : ", ") + e;
    Reply purchased;
    purchased.body = ShopOk("[" + list + "]");
    server_.Set("/ws/shop/getUserEbook", purchased);
    ASSERT_EQ(store_->Init(), 0);
  }

  std::string Link(const std::string& name) const { return server_.base_url() + "/files/" + name; }

  // Polls until no download task is left (bounded, so a hang fails instead of blocking).
  void DrainDownloads() {
    for (int i = 0; i < 3000; ++i) {
      if (store_->CheckDownloadState() == 0) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    FAIL() << "downloads did not finish";
  }

  void RunScanner() const { WriteDeviceFile("/kelmast/bin/scanner.app", "#!"); }

  StoreManager* store_ = StoreManager::Instance();
};

TEST_F(DownloadsTest, ABookGoesFromPurchasedToDownloadedUnderItsDeclaredType) {
  RunScanner();
  server_.Set("/files/111", File("PK-epub-bytes", "application/epub+zip"));
  Start({Ebook("111", "PDF", Link("111"))});
  EXPECT_EQ(store_->GetBookStatus("111").status_, norbel::vistrel::kPurchased);
  EXPECT_EQ(store_->GetBookStatus("999").status_, norbel::vistrel::kUnknown);

  EXPECT_EQ(store_->DownloadBookById("a/b/111"), 0);
  BookStatus during = store_->GetBookStatus("111");
  EXPECT_TRUE(during.status_ == norbel::vistrel::kDownloading ||
              during.status_ == norbel::vistrel::kDownloaded);
  DrainDownloads();

  // Stored as "Author - Title 111.pdf", renamed after the declared type.
  const std::string path = "/mnt/ext1/Downloads/Author - Title 111.epub";
  BookStatus done = store_->GetBookStatus("111");
  EXPECT_EQ(done.status_, norbel::vistrel::kDownloaded);
  EXPECT_EQ(done.path_, path);
  EXPECT_EQ(done.progress_, 0);
  EXPECT_EQ(ReadDeviceFile(path), "PK-epub-bytes");
  EXPECT_FALSE(DeviceFileExists("/mnt/ext1/Downloads/Author - Title 111.pdf"));
  EXPECT_EQ(store_->GetBookStatus("a/b/111").status_, norbel::vistrel::kUnknown);
  EXPECT_EQ(store_->GetBookStatusById("a/b/111").status_, norbel::vistrel::kDownloaded);

  auto requests = EventsOfKind("request");
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].at(2), "84");
  EXPECT_EQ(requests[0].at(3), "-scan:/mnt/ext1/Downloads");
  EXPECT_TRUE(EventsOfKind("message").empty());
  bool logged = false;
  for (const std::string& line : LogLines()) {
    logged |= line == "5\tvistrel_store/src/data/store_manager\t441\t"
                      "int norbel::vistrel::StoreManager::CheckDownloadState()\t"
                      "filename [/mnt/ext1/Downloads/Author - Title 111.pdf]";
  }
  EXPECT_TRUE(logged);

  // A book that is in the cart again reports the cart first.
  Book again;
  again.string_props_[Book::Ean] = "111";
  store_->AddToCart(again);
  EXPECT_EQ(store_->GetBookStatus("111").status_, norbel::vistrel::kInCart);
}

TEST_F(DownloadsTest, AForcedDownloadKeepsItsNameAndNoScannerMeansNoRequest) {
  server_.Set("/files/222", File("%PDF-1.4", "application/force-download; name=x"));
  Start({Ebook("222", "PDF", Link("222"))});
  store_->DownloadBookById("222");
  DrainDownloads();
  EXPECT_EQ(store_->GetBookStatus("222").path_, "/mnt/ext1/Downloads/Author - Title 222.pdf");
  EXPECT_TRUE(EventsOfKind("request").empty());
  EXPECT_TRUE(EventsOfKind("message").empty());
}

TEST_F(DownloadsTest, HtmlPagesAndUnsupportedFilesAreReportedAndDeleted) {
  RunScanner();
  server_.Set("/files/html", File("<html>login first</html>", "text/html; charset=utf-8"));
  server_.Set("/files/zip", File("PK", "application/zip"));
  Start({Ebook("1", "EPUB", Link("html")), Ebook("2", "ZIP", Link("zip"))});
  store_->DownloadBookById("1");
  DrainDownloads();
  store_->DownloadBookById("2");
  DrainDownloads();

  EXPECT_FALSE(DeviceFileExists("/mnt/ext1/Downloads/Author - Title 1.htm"));
  EXPECT_FALSE(DeviceFileExists("/mnt/ext1/Downloads/Author - Title 1.epub"));
  EXPECT_FALSE(DeviceFileExists("/mnt/ext1/Downloads/Author - Title 2.zip"));
  EXPECT_EQ(store_->GetBookStatus("1").status_, norbel::vistrel::kPurchased);
  auto messages = EventsOfKind("message");
  ASSERT_EQ(messages.size(), 2u);
  for (const auto& m : messages) {
    EXPECT_EQ(m.fields, (std::vector<std::string>{"message", "4", "@DownloadError",
                                                  "@DownloadError", "7000"}));
  }
  EXPECT_TRUE(EventsOfKind("request").empty());
}

TEST_F(DownloadsTest, AFailedDownloadIsReportedAndTheNextOneRuns) {
  server_.Set("/files/bad", File("gone", "text/plain", 500));
  server_.Set("/files/good", File("%PDF-1.4", "application/pdf"));
  Start({Ebook("1", "PDF", Link("bad")), Ebook("2", "PDF", Link("good"))});
  store_->DownloadBookById("1");
  DrainDownloads();
  EXPECT_EQ(EventsOfKind("message").size(), 1u);
  EXPECT_EQ(store_->GetBookStatus("1").status_, norbel::vistrel::kPurchased);
  EXPECT_TRUE(GetBookFile(store_->purchased()[0]).empty());

  store_->DownloadBookById("2");
  DrainDownloads();
  EXPECT_EQ(store_->GetBookStatus("2").status_, norbel::vistrel::kDownloaded);
}

TEST_F(DownloadsTest, ASecondBookAskedForDuringADownloadIsTakenAndLost) {
  Reply slow = File(std::string(200000, 'x'), "application/pdf");
  slow.delay = std::chrono::milliseconds(600);
  server_.Set("/files/slow", slow);
  server_.Set("/files/other", File("%PDF", "application/pdf"));
  Start({Ebook("1", "PDF", Link("slow")), Ebook("2", "PDF", Link("other"))});

  store_->DownloadBookById("1");
  EXPECT_EQ(store_->GetBookStatus("1").status_, norbel::vistrel::kDownloading);
  store_->DownloadBookById("2");  // taken from the queue while the first one runs
  EXPECT_EQ(store_->GetBookStatus("2").status_, norbel::vistrel::kDownloading);
  EXPECT_EQ(store_->GetBookStatus("1").status_, norbel::vistrel::kPurchased);
  DrainDownloads();

  EXPECT_EQ(store_->GetBookStatus("1").status_, norbel::vistrel::kDownloaded);
  EXPECT_EQ(store_->GetBookStatus("2").status_, norbel::vistrel::kPurchased);
  EXPECT_TRUE(server_.requests("/files/other").empty());
}

TEST_F(DownloadsTest, ProgressIsReportedWhileTheFileArrives) {
  // The body arrives in one piece after a pause, so progress is 0 or 100 while it runs.
  Reply slow = File(std::string(1 << 20, 'x'), "application/pdf");
  slow.delay = std::chrono::milliseconds(300);
  server_.Set("/files/big", slow);
  Start({Ebook("1", "PDF", Link("big"))});
  store_->DownloadBookById("1");
  for (int i = 0; i < 3000; ++i) {
    BookStatus status = store_->GetBookStatus("1");
    if (status.status_ != norbel::vistrel::kDownloading) break;
    EXPECT_GE(status.progress_, 0);
    EXPECT_LE(status.progress_, 100);
    EXPECT_EQ(status.path_, "");
    if (store_->CheckDownloadState() == 0) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  DrainDownloads();
  EXPECT_EQ(store_->GetBookStatus("1").status_, norbel::vistrel::kDownloaded);
}

TEST_F(DownloadsTest, UnknownIdsAreIgnored) {
  Start({Ebook("1", "PDF", Link("x"))});
  EXPECT_EQ(store_->DownloadBookById("nope"), 0);
  EXPECT_EQ(store_->CheckDownloadState(), 0);
  EXPECT_TRUE(EventsOfKind("message").empty());
}

}  // namespace
