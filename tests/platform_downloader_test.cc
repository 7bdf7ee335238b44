// Downloads against a fake server: files appear whole or not at all, names stay inside the
// folder, and progress can be watched from another thread.
#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "nbutils/downloader.h"
#include "opdsmodel/resource_downloader.h"
#include "support/device_fixture.h"
#include "support/fake_server.h"

namespace {

using norbel::utilities::Downloader;
using vistrel_test::Fields;
using vistrel_test::Reply;

class DownloaderTest : public vistrel_test::DeviceTest {
 protected:
  // Every entry of a device folder, hidden ones (temporaries) included.
  std::vector<std::string> Entries(const std::string& device_folder) const {
    std::vector<std::string> names;
    DIR* dir = opendir(HostPath(device_folder).c_str());
    if (!dir) return names;
    while (dirent* entry = readdir(dir)) {
      std::string name = entry->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    closedir(dir);
    return names;
  }

  // True when the file holds exactly the generated body of `size` bytes.
  bool HoldsGeneratedBody(const std::string& device_path, uint64_t size) const {
    std::ifstream in(HostPath(device_path), std::ios::binary);
    std::vector<char> chunk(1 << 20);
    uint64_t offset = 0;
    while (in) {
      in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
      for (std::streamsize i = 0; i < in.gcount(); ++i, ++offset) {
        if (static_cast<unsigned char>(chunk[i]) != vistrel_test::GeneratedByte(offset)) {
          return false;
        }
      }
    }
    return offset == size;
  }

  vistrel_test::FakeServer server_;
};

Reply Answer(int status, const std::string& body, Fields headers = {}) {
  Reply reply;
  reply.status = status;
  reply.body = body;
  reply.headers = std::move(headers);
  return reply;
}

TEST_F(DownloaderTest, StoresTheFileAndReportsTypeAndDevicePath) {
  Reply book = Answer(200, "PK\x03\x04 an epub");
  book.content_type = "application/epub+zip";
  server_.Set("/book.epub", book);
  server_.Set("/old", Answer(302, "moved", {{"Location", "/book.epub"}}));

  Downloader downloader;
  std::vector<int> percentages;
  const std::string path = "/mnt/ext1/New/Sub/book.epub";  // the folder does not exist yet
  ASSERT_EQ(downloader.Download(server_.base_url() + "/old", path,
                                [&](int percent) { percentages.push_back(percent); }),
            0);
  EXPECT_EQ(ReadDeviceFile(path), book.body);
  EXPECT_EQ(Entries("/mnt/ext1/New/Sub"), std::vector<std::string>{"book.epub"});
  Downloader::StatusInfo status = downloader.GetStatusInfo();
  EXPECT_EQ(status.http_code, 200);
  EXPECT_EQ(status.error, 0);
  EXPECT_EQ(status.content_type, "application/epub+zip");
  EXPECT_EQ(status.file_path, path);
  ASSERT_FALSE(percentages.empty());
  EXPECT_EQ(percentages.back(), 100);
  bool active = true;
  int64_t total = 0, done = 0;
  downloader.GetProgress(&active, &total, &done);
  EXPECT_FALSE(active);
  EXPECT_EQ(total, static_cast<int64_t>(book.body.size()));
  EXPECT_EQ(done, total);

  // A second download over the same name replaces the file.
  server_.Set("/book.epub", Answer(200, "second"));
  ASSERT_EQ(downloader.Download(server_.base_url() + "/book.epub", path, nullptr), 0);
  EXPECT_EQ(ReadDeviceFile(path), "second");
}

TEST_F(DownloaderTest, FailuresLeaveNoFileAndKeepTheOldOne) {
  server_.Set("/broken", Answer(500, "server error page"));
  Reply cut = Answer(200, std::string(100000, 'x'));
  cut.drop_mid_body = true;
  server_.Set("/cut", cut);
  cut.generated_bytes = 4 << 20;  // streamed in chunks
  server_.Set("/cut_stream", cut);
  server_.Set("/to_file", Answer(302, "", {{"Location", "file:///etc/hostname"}}));
  server_.Set("/empty", Answer(204, ""));

  const std::string folder = "/mnt/ext1/Downloads";
  const std::string fresh = folder + "/fresh.pdf";
  const std::string existing = folder + "/existing.pdf";
  WriteDeviceFile(existing, "the old book");
  const std::string s = server_.base_url();
  const std::vector<std::pair<std::string, long>> cases = {
      {s + "/missing", 404},
      {s + "/broken", 500},
      {s + "/cut", 200},
      {s + "/cut_stream", 200},
      {s + "/to_file", 302},
      {"file:///etc/hostname", 0},
      {"http://127.0.0.1:1/nothing-listens", 0}};
  for (const auto& [url, http_code] : cases) {
    SCOPED_TRACE(url);
    for (const std::string& target : {fresh, existing}) {
      Downloader downloader;
      EXPECT_NE(downloader.Download(url, target, nullptr), 0);
      Downloader::StatusInfo status = downloader.GetStatusInfo();
      EXPECT_NE(status.error, 0);
      EXPECT_EQ(status.http_code, http_code);
      EXPECT_EQ(status.file_path, "");
      EXPECT_EQ(Entries(folder), std::vector<std::string>{"existing.pdf"});
      EXPECT_EQ(ReadDeviceFile(existing), "the old book");
    }
  }
  // A 2xx answer without a body is a complete, empty file.
  Downloader downloader;
  EXPECT_EQ(downloader.Download(s + "/empty", fresh, nullptr), 0);
  EXPECT_TRUE(DeviceFileExists(fresh));
  EXPECT_EQ(ReadDeviceFile(fresh), "");
}

TEST_F(DownloaderTest, ResourceNamesStayInsideTheFolder) {
  Reply file = Answer(200, "content");
  file.content_type = "application/pdf";
  server_.Set("/f", file);
  norbel::opds::ResourceDownloader downloader("/mnt/ext1/Downloads/", nullptr);
  for (const auto& [name, stored] : std::vector<std::pair<std::string, std::string>>{
           {"../x", "/mnt/ext1/Downloads/x"}, {"a/b", "/mnt/ext1/Downloads/b"}, {"..", ""}}) {
    SCOPED_TRACE(name);
    ASSERT_EQ(downloader.DownloadResource(server_.base_url() + "/f", name, nullptr), 0);
    std::string path = downloader.GetStatusInfo().file_path;
    EXPECT_EQ(path.rfind("/mnt/ext1/Downloads/", 0), 0u);
    if (!stored.empty()) {
      EXPECT_EQ(path, stored);
    }
    EXPECT_EQ(ReadDeviceFile(path), "content");
  }
  EXPECT_EQ(downloader.GetStatusInfo().content_type, "application/pdf");
  EXPECT_EQ(Entries("/mnt/ext1").size(), 3u);  // system, Downloads, Digital Editions
}

TEST_F(DownloaderTest, ProgressIsVisibleFromAnotherThread) {
  Reply slow;
  slow.generated_bytes = 2 << 20;
  slow.chunk_bytes = 64 << 10;
  slow.chunk_pause = std::chrono::milliseconds(10);
  server_.Set("/slow", slow);
  norbel::opds::ResourceDownloader downloader("/mnt/ext1/Downloads", nullptr);

  std::atomic<bool> finished{false};
  int result = -1;
  std::vector<int> percentages;
  std::thread worker([&] {
    result = downloader.DownloadResource(server_.base_url() + "/slow", "slow.bin",
                                         [&](int percent) { percentages.push_back(percent); });
    finished = true;
  });
  int partial_samples = 0;
  int last_done = 0;
  while (!finished) {
    bool active = false;
    std::string name;
    int total = 0, done = 0;
    downloader.GetProgress(&active, &name, &total, &done);
    if (active && total == static_cast<int>(slow.generated_bytes) && done > 0 && done < total) {
      ++partial_samples;
      EXPECT_EQ(name, "slow.bin");
    }
    EXPECT_GE(done, last_done);
    last_done = done;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  worker.join();
  ASSERT_EQ(result, 0);
  EXPECT_GT(partial_samples, 0);
  EXPECT_TRUE(HoldsGeneratedBody("/mnt/ext1/Downloads/slow.bin", slow.generated_bytes));
  ASSERT_GT(percentages.size(), 2u);
  EXPECT_TRUE(std::is_sorted(percentages.begin(), percentages.end()));
  EXPECT_EQ(percentages.back(), 100);
}

}  // namespace
