// Downloads against a fake server: files appear whole or not at all, names stay inside the
// folder, and progress can be watched from another thread.
#include <dirent.h>

#include <atomic>
#include <cstdio>
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

TEST_F(DownloaderTest, StoresTheFileAndReportsTypeAndDevicePath) {
  Reply book;
  book.body = "PK\x03\x04 an epub";
  book.content_type = "application/epub+zip";
  server_.Set("/book.epub", book);
  Reply moved;
  moved.status = 302;
  moved.headers = {{"Location", "/book.epub"}};
  moved.body = "moved";
  server_.Set("/old", moved);

  Downloader downloader;
  std::vector<int> percentages;
  // The target folder does not exist yet.
  const std::string path = "/mnt/ext1/New/Sub/book.epub";
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
  EXPECT_EQ(server_.requests("/book.epub").size(), 1u);
  ASSERT_FALSE(percentages.empty());
  EXPECT_EQ(percentages.back(), 100);

  bool active = true;
  int64_t total = 0, done = 0;
  downloader.GetProgress(&active, &total, &done);
  EXPECT_FALSE(active);
  EXPECT_EQ(total, static_cast<int64_t>(book.body.size()));
  EXPECT_EQ(done, static_cast<int64_t>(book.body.size()));

  // A second download over the same name replaces the file.
  book.body = "second";
  server_.Set("/book.epub", book);
  ASSERT_EQ(downloader.Download(server_.base_url() + "/book.epub", path, nullptr), 0);
  EXPECT_EQ(ReadDeviceFile(path), "second");
}

TEST_F(DownloaderTest, FailuresLeaveNoFileAndKeepTheOldOne) {
  Reply error;
  error.status = 500;
  error.body = "server error page";
  server_.Set("/broken", error);
  Reply cut;
  cut.body.assign(100000, 'x');
  cut.drop_mid_body = true;
  server_.Set("/cut", cut);
  Reply cut_stream;
  cut_stream.generated_bytes = 4 << 20;
  cut_stream.drop_mid_body = true;
  server_.Set("/cut_stream", cut_stream);
  Reply to_file;
  to_file.status = 302;
  to_file.headers = {{"Location", "file:///etc/hostname"}};
  server_.Set("/to_file", to_file);
  Reply no_body;
  no_body.status = 204;
  no_body.body = "";
  server_.Set("/empty", no_body);

  const std::string folder = "/mnt/ext1/Downloads";
  const std::string fresh = folder + "/fresh.pdf";
  const std::string existing = folder + "/existing.pdf";
  WriteDeviceFile(existing, "the old book");
  struct Case {
    std::string path;
    long http_code;
  };
  for (const Case& c : {Case{"/missing", 404}, Case{"/broken", 500}, Case{"/cut", 200},
                        Case{"/cut_stream", 200}, Case{"/to_file", 302}}) {
    SCOPED_TRACE(c.path);
    for (const std::string& target : {fresh, existing}) {
      Downloader downloader;
      EXPECT_NE(downloader.Download(server_.base_url() + c.path, target, nullptr), 0);
      Downloader::StatusInfo status = downloader.GetStatusInfo();
      EXPECT_NE(status.error, 0);
      EXPECT_EQ(status.http_code, c.http_code);
      EXPECT_EQ(status.file_path, "");
      EXPECT_EQ(Entries(folder), std::vector<std::string>{"existing.pdf"});
      EXPECT_EQ(ReadDeviceFile(existing), "the old book");
    }
  }
  Downloader downloader;
  EXPECT_NE(downloader.Download("file:///etc/hostname", fresh, nullptr), 0);
  EXPECT_NE(downloader.Download("http://127.0.0.1:1/nothing-listens", fresh, nullptr), 0);
  EXPECT_EQ(Entries(folder), std::vector<std::string>{"existing.pdf"});
  // A 2xx answer without a body is a complete, empty file.
  EXPECT_EQ(downloader.Download(server_.base_url() + "/empty", fresh, nullptr), 0);
  EXPECT_TRUE(DeviceFileExists(fresh));
  EXPECT_EQ(ReadDeviceFile(fresh), "");
}

TEST_F(DownloaderTest, ResourceNamesStayInsideTheFolder) {
  Reply file;
  file.body = "content";
  file.content_type = "application/pdf";
  server_.Set("/f", file);
  norbel::opds::ResourceDownloader downloader("/mnt/ext1/Downloads/", nullptr);
  const std::string url = server_.base_url() + "/f";
  ASSERT_EQ(downloader.DownloadResource(url, "../x", nullptr), 0);
  EXPECT_TRUE(DeviceFileExists("/mnt/ext1/Downloads/x"));
  EXPECT_FALSE(DeviceFileExists("/mnt/ext1/x"));
  EXPECT_EQ(downloader.GetStatusInfo().file_path, "/mnt/ext1/Downloads/x");
  ASSERT_EQ(downloader.DownloadResource(url, "a/b", nullptr), 0);
  EXPECT_TRUE(DeviceFileExists("/mnt/ext1/Downloads/b"));
  EXPECT_EQ(downloader.GetStatusInfo().file_path, "/mnt/ext1/Downloads/b");
  EXPECT_EQ(downloader.GetStatusInfo().content_type, "application/pdf");
  ASSERT_EQ(downloader.DownloadResource(url, "..", nullptr), 0);
  EXPECT_EQ(downloader.GetStatusInfo().file_path.rfind("/mnt/ext1/Downloads/", 0), 0u);
  EXPECT_EQ(Entries("/mnt/ext1").size(), 3u);  // system, Downloads, Digital Editions
}

TEST_F(DownloaderTest, ProgressIsVisibleFromAnotherThread) {
  Reply slow;
  slow.generated_bytes = 2 << 20;
  slow.chunk_bytes = 64 << 10;
  slow.chunk_pause = std::chrono::milliseconds(10);
  slow.content_type = "application/octet-stream";
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
  bool went_back = false;
  while (!finished) {
    bool active = false;
    std::string name;
    int total = 0, done = 0;
    downloader.GetProgress(&active, &name, &total, &done);
    if (active && total == static_cast<int>(slow.generated_bytes) && done > 0 && done < total) {
      ++partial_samples;
      EXPECT_EQ(name, "slow.bin");
    }
    went_back = went_back || done < last_done;
    last_done = done;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  worker.join();
  ASSERT_EQ(result, 0);
  EXPECT_GT(partial_samples, 0);
  EXPECT_FALSE(went_back);
  EXPECT_TRUE(HoldsGeneratedBody("/mnt/ext1/Downloads/slow.bin", slow.generated_bytes));
  ASSERT_GT(percentages.size(), 2u);
  for (size_t i = 1; i < percentages.size(); ++i) EXPECT_GE(percentages[i], percentages[i - 1]);
  EXPECT_EQ(percentages.back(), 100);
}

// Peak resident memory in KiB since the last reset, and the reset (Linux' clear_refs 5).
long PeakRssKib() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}
long ResetPeakRssKib() {
  std::ofstream("/proc/self/clear_refs") << "5";
  return PeakRssKib();
}

void DownloadLargeBody(DownloaderTest* test, vistrel_test::FakeServer* server, uint64_t size,
                       const std::function<bool(const std::string&, uint64_t)>& check) {
  Reply large;
  large.generated_bytes = size;
  large.chunk_bytes = 256 << 10;
  server->Set("/large", large);
  Downloader downloader;
  long before = ResetPeakRssKib();
  ASSERT_EQ(
      downloader.Download(server->base_url() + "/large", "/mnt/ext1/Downloads/large.bin", nullptr),
      0);
  long growth = PeakRssKib() - before;
  // Reported, not asserted: the figure depends on the allocator and the kernel.
  std::printf("peak RSS growth while downloading %llu MiB: %ld KiB\n",
              static_cast<unsigned long long>(size >> 20), growth);
  test->RecordProperty("peak_rss_growth_kib", std::to_string(growth));
  EXPECT_TRUE(check("/mnt/ext1/Downloads/large.bin", size));
}

TEST_F(DownloaderTest, LargeBodiesAreStreamedToDisk) {
  DownloadLargeBody(this, &server_, 64ull << 20, [this](const std::string& path, uint64_t size) {
    return HoldsGeneratedBody(path, size);
  });
}

// Run by hand (--gtest_also_run_disabled_tests) to measure memory on a larger file.
TEST_F(DownloaderTest, DISABLED_MeasureMemoryOfA256MiBDownload) {
  DownloadLargeBody(this, &server_, 256ull << 20, [this](const std::string& path, uint64_t size) {
    return HoldsGeneratedBody(path, size);
  });
}

}  // namespace
