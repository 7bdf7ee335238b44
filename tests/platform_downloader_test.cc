// Downloads against a fake server: files appear whole or not at all, names stay inside the
// folder, and progress can be watched from another thread.
#include <atomic>
#include <string>
#include <thread>

#include "nbutils/downloader.h"
#include "opdsmodel/resource_downloader.h"
#include "support/device_fixture.h"
#include "support/fake_server.h"

namespace {

using norbel::utilities::Downloader;
using vistrel_test::Answer;
using vistrel_test::Redirect;
using vistrel_test::Reply;

class DownloaderTest : public vistrel_test::DeviceTest {
 protected:
  vistrel_test::FakeServer server_;
};

// An answer of `status` with `body`, redirecting to `location` when one is given.
TEST_F(DownloaderTest, FollowsRedirectsAndReportsTypeAndDevicePath) {
  Reply book = Answer("PK\x03\x04 an epub");
  book.content_type = "application/epub+zip";
  server_.Set("/book.epub", book);
  server_.Set("/old", Redirect(302, "/book.epub", "moved"));
  Downloader downloader;
  const std::string path = "/mnt/ext1/New/Sub/book.epub";  // the folder does not exist yet
  ASSERT_EQ(downloader.Download(server_.base_url() + "/old", path, nullptr), 0);
  EXPECT_EQ(ReadDeviceFile(path), "PK\x03\x04 an epub");
  EXPECT_EQ(downloader.GetStatusInfo().content_type, "application/epub+zip");
  EXPECT_EQ(downloader.GetStatusInfo().file_path, path);
}

TEST_F(DownloaderTest, FailuresLeaveNoFileAndKeepTheOldOne) {
  Reply cut;
  cut.generated_bytes = 4 << 20;
  cut.drop_mid_body = true;
  server_.Set("/cut", cut);
  server_.Set("/to_file", Redirect(302, "file:///etc/hostname"));
  server_.Set("/loop", Redirect(302, "/loop"));
  const std::string existing = "/mnt/ext1/Downloads/existing.pdf";
  WriteDeviceFile(existing, "the old book");
  for (const std::string path : {"/missing", "/cut", "/to_file", "/loop"}) {  // a 404 is unscripted
    Downloader downloader;
    EXPECT_NE(downloader.Download(server_.base_url() + path, existing, nullptr), 0) << path;
    EXPECT_EQ(DeviceFolderEntries("/mnt/ext1/Downloads"), 1u) << path;
    EXPECT_EQ(ReadDeviceFile(existing), "the old book");
  }
}

TEST_F(DownloaderTest, ResourceNamesStayInsideTheFolder) {
  server_.Set("/f", Answer("content"));
  norbel::opds::ResourceDownloader downloader("/mnt/ext1/Downloads/", nullptr);
  for (const std::string name : {"../x", ".."}) {
    ASSERT_EQ(downloader.DownloadResource(server_.base_url() + "/f", name, nullptr), 0);
    EXPECT_EQ(ReadDeviceFile(downloader.GetStatusInfo().file_path), "content");
  }
  EXPECT_EQ(DeviceFolderEntries("/mnt/ext1/Downloads"), 2u);
  EXPECT_EQ(DeviceFolderEntries("/mnt/ext1"), 3u);  // system, Downloads, Digital Editions
}

TEST_F(DownloaderTest, ProgressIsVisibleFromAnotherThread) {
  Reply slow;
  slow.generated_bytes = 2 << 20;
  slow.chunk_pause = std::chrono::milliseconds(10);
  server_.Set("/slow", slow);
  norbel::opds::ResourceDownloader downloader("/mnt/ext1/Downloads", nullptr);
  std::atomic<bool> finished{false};
  std::thread worker([&] {
    downloader.DownloadResource(server_.base_url() + "/slow", "slow.bin", nullptr);
    finished = true;
  });
  int partial_samples = 0;
  while (!finished) {
    bool active = false;
    std::string name;
    int total = 0, done = 0;
    downloader.GetProgress(&active, &name, &total, &done);
    partial_samples += active && name == "slow.bin" && done > 0 && done < total;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  worker.join();
  EXPECT_GT(partial_samples, 0);
  EXPECT_EQ(ReadDeviceFile("/mnt/ext1/Downloads/slow.bin").size(), 2u << 20);
}

}  // namespace
