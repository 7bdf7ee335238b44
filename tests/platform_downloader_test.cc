// Downloads against a fake server: files appear whole or not at all, names stay inside the
// folder, and progress can be watched from another thread.
#include <curl/curl.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "nbutils/downloader.h"
#include "opdsmodel/resource_downloader.h"
#include "support/device_fixture.h"
#include "support/fake_server.h"
#include "support/file_host.h"

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

// --- Resuming, and what counts as a whole file, against servers that answer byte for byte ---

using vistrel_test::FileAnswer;
using vistrel_test::FileHost;
using vistrel_test::FileRequest;
using vistrel_test::ServeFile;

constexpr char kBook[] = "/mnt/ext1/Downloads/book.pdf";
constexpr char kPartial[] = "/mnt/ext1/Downloads/.book.pdf.part";

// Distinct bytes at every offset, so that a shifted or repeated piece shows.
std::string Content(size_t size, unsigned seed = 0) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i)
    text[i] = static_cast<char>(vistrel_test::GeneratedByte(i + seed));
  return text;
}

class ResumeDownloadTest : public vistrel_test::DeviceTest {
 protected:
  // The answer of `file` cut after `cut` bytes.
  static FileHost::Handler CutAt(size_t cut, const std::string& content, const std::string& etag,
                                 const std::string& last_modified = "") {
    return [=](const FileRequest& request) {
      FileAnswer answer = ServeFile(request, content, etag, last_modified);
      answer.stop_after = cut;
      return answer;
    };
  }
  static FileHost::Handler Serve(const std::string& content, const std::string& etag,
                                 const std::string& last_modified = "") {
    return [=](const FileRequest& request) {
      return ServeFile(request, content, etag, last_modified);
    };
  }
  std::vector<vistrel_test::Event> Downloads() const { return EventsOfKind("download"); }
};

TEST_F(ResumeDownloadTest, ADroppedConnectionIsContinuedWithRangeAndIfRange) {
  const std::string content = Content(300000);
  // The validator is a strong ETag, else Last-Modified; a weak ETag cannot be sent in If-Range.
  const std::pair<std::string, std::string> validators[] = {
      {"\"v1\"", ""}, {"W/\"weak\"", "Sat, 21 Nov 2026 10:00:00 GMT"}};
  for (const auto& [etag, modified] : validators) {
    FileHost host(CutAt(100000, content, etag, modified));
    Downloader downloader;
    EXPECT_NE(downloader.Download(host.Url("/b"), kBook, nullptr), 0);
    EXPECT_FALSE(DeviceFileExists(kBook));
    EXPECT_EQ(ReadDeviceFile(kPartial).size(), 100000u);
    Downloader::StatusInfo failed = Downloader::LastStatus();
    EXPECT_EQ(failed.bytes, 100000);
    EXPECT_EQ(failed.total, 300000);
    EXPECT_FALSE(failed.error_text.empty());

    host.SetHandler(Serve(content, etag, modified));
    std::vector<int> percents;
    ASSERT_EQ(downloader.Download(host.Url("/b"), kBook, [&](int p) { percents.push_back(p); }), 0)
        << downloader.GetStatusInfo().error_text;
    EXPECT_TRUE(ReadDeviceFile(kBook) == content);
    const FileRequest resumed = host.requests().back();
    EXPECT_EQ(resumed.Header("range"), "bytes=100000-");
    EXPECT_EQ(resumed.Header("if-range"), modified.empty() ? etag : modified);
    EXPECT_EQ(downloader.GetStatusInfo().resumed_from, 100000);
    // Progress counts the bytes kept: it never shows less than a third.
    ASSERT_FALSE(percents.empty());
    EXPECT_GE(percents.front(), 33);
    EXPECT_EQ(percents.back(), 100);
    EXPECT_EQ(DeviceFolderEntries("/mnt/ext1/Downloads"), 1u);  // no partial, no record
    std::filesystem::remove(HostPath(kBook));
  }
  // One line per download in the event log.
  auto lines = Downloads();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0].at(1), "failed");
  EXPECT_EQ(lines[1].at(1) + " " + lines[1].at(2) + " " + lines[1].at(3) + " " + lines[1].at(4) +
                " " + lines[1].at(5) + " " + lines[1].at(7),
            "ok 206 300000 300000 100000 /mnt/ext1/Downloads/book.pdf");
}

TEST_F(ResumeDownloadTest, ServersThatCannotContinueGetTheWholeFileAgain) {
  const std::string content = Content(200000);
  const std::string changed = Content(250000, 7);
  struct Case {
    const char* what;
    FileHost::Handler first;   // cut half way
    FileHost::Handler second;  // what the server then answers
    std::string expected;
    bool asks_range;  // whether the second download asks for the rest at all
    size_t requests;  // in all: a refused or unfit range is asked again without one
  };
  auto wrong_offset = [&](const FileRequest& request) {
    if (request.Header("range").empty()) return ServeFile(request, content, "\"e\"", "");
    FileAnswer answer = ServeFile(request, content, "\"e\"", "");
    answer.status = 206;
    answer.body = content.substr(1000);
    answer.headers.emplace_back("Content-Range", "bytes 1000-199999/200000");
    return answer;
  };
  auto changed_size = [&](const FileRequest& request) {
    FileAnswer answer = ServeFile(request, content, "\"e\"", "");
    if (answer.status == 206) answer.headers.back().second = "bytes 80000-199999/250000";
    return answer;
  };
  auto ignores_ranges = [&](const FileRequest&) {
    FileAnswer answer;
    answer.headers = {{"ETag", "\"e\""}};
    answer.body = content;
    return answer;
  };
  auto past_the_end = [&](const FileRequest& request) {
    if (request.Header("range").empty()) return ServeFile(request, content, "\"e\"", "");
    FileAnswer answer;
    answer.status = 416;
    return answer;
  };
  const Case cases[] = {
      {"ignores ranges", CutAt(80000, content, "\"e\""), ignores_ranges, content, true, 2},
      {"file changed", CutAt(80000, content, "\"e\""), Serve(changed, "\"f\""), changed, true, 2},
      {"206 at the wrong offset", CutAt(80000, content, "\"e\""), wrong_offset, content, true, 3},
      {"range refused", CutAt(80000, content, "\"e\""), past_the_end, content, true, 3},
      {"changed size", CutAt(80000, content, "\"e\""), changed_size, content, true, 3},
      {"no validators", CutAt(80000, content, ""), Serve(content, ""), content, false, 2},
  };
  for (const Case& c : cases) {
    FileHost host(c.first);
    Downloader downloader;
    EXPECT_NE(downloader.Download(host.Url("/b"), kBook, nullptr), 0) << c.what;
    EXPECT_EQ(DeviceFileExists(kPartial), c.asks_range) << c.what;
    host.SetHandler(c.second);
    ASSERT_EQ(downloader.Download(host.Url("/b"), kBook, nullptr), 0)
        << c.what << ": " << downloader.GetStatusInfo().error_text;
    EXPECT_TRUE(ReadDeviceFile(kBook) == c.expected) << c.what;
    EXPECT_EQ(downloader.GetStatusInfo().resumed_from, 0) << c.what;
    auto requests = host.requests();
    EXPECT_EQ(requests[1].Header("range").empty(), !c.asks_range) << c.what;
    ASSERT_EQ(requests.size(), c.requests) << c.what;
    EXPECT_TRUE(requests.back().Header("range").empty() || c.requests == 2) << c.what;
    EXPECT_EQ(DeviceFolderEntries("/mnt/ext1/Downloads"), 1u) << c.what;
    std::filesystem::remove(HostPath(kBook));
  }
}

TEST_F(ResumeDownloadTest, OnlyAWholeBodyCountsAndNothingElseIsLeft) {
  struct Case {
    const char* what;
    FileAnswer answer;
    const char* reason;  // part of the error text
  };
  FileAnswer no_content;
  no_content.status = 204;
  no_content.send_length = false;
  FileAnswer unasked_part;
  unasked_part.status = 206;
  unasked_part.body = "half";
  unasked_part.headers = {{"Content-Range", "bytes 0-3/8"}};
  FileAnswer empty;
  FileAnswer short_body;
  short_body.body = std::string(5000, 'x');
  short_body.stop_after = 2000;
  FileAnswer too_long_for_length;
  too_long_for_length.headers = {{"Content-Length", "3"}};
  too_long_for_length.send_length = false;
  too_long_for_length.body = "abc";
  FileAnswer missing;
  missing.status = 404;
  missing.body = "no such book";
  const Case cases[] = {{"204", no_content, "HTTP 204"},
                        {"unasked 206", unasked_part, "HTTP 206"},
                        {"empty 200", empty, "empty"},
                        {"short body", short_body, ""},
                        {"404", missing, "404"}};
  WriteDeviceFile(kBook, "the old book");
  for (const Case& c : cases) {
    FileHost host([&](const FileRequest&) { return c.answer; });
    Downloader downloader;
    EXPECT_NE(downloader.Download(host.Url("/b"), kBook, nullptr), 0) << c.what;
    EXPECT_EQ(ReadDeviceFile(kBook), "the old book") << c.what;
    EXPECT_EQ(DeviceFolderEntries("/mnt/ext1/Downloads"), 1u) << c.what;
    const Downloader::StatusInfo status = downloader.GetStatusInfo();
    EXPECT_NE(status.error_text.find(c.reason), std::string::npos)
        << c.what << ": " << status.error_text;
    EXPECT_TRUE(status.file_path.empty()) << c.what;
  }
  // The server's Content-Length when given is what the file must come to.
  FileHost host([&](const FileRequest&) { return too_long_for_length; });
  Downloader downloader;
  EXPECT_EQ(downloader.Download(host.Url("/b"), kBook, nullptr), 0);
  EXPECT_EQ(ReadDeviceFile(kBook), "abc");
}

TEST_F(ResumeDownloadTest, PlantedEntriesAtThePartialNamesAreNeverWrittenThrough) {
  const std::string content = Content(50000);
  FileHost host(Serve(content, "\"p\""));
  const std::string outside = work_dir_ + "/outside";
  std::filesystem::create_directories(HostPath("/mnt/ext1/Downloads"));
  std::ofstream(outside) << "precious";
  // A link at the data name and one at the record's name (which claims to continue).
  ASSERT_EQ(symlink(outside.c_str(), HostPath(kPartial).c_str()), 0);
  ASSERT_EQ(symlink(outside.c_str(), HostPath(std::string(kPartial) + ".info").c_str()), 0);
  Downloader downloader;
  ASSERT_EQ(downloader.Download(host.Url("/b"), kBook, nullptr), 0);
  EXPECT_TRUE(ReadDeviceFile(kBook) == content);
  EXPECT_EQ(ReadDeviceFile("/../outside"), "precious");
  EXPECT_TRUE(host.requests().back().Header("range").empty());
  struct stat st;
  ASSERT_EQ(lstat(HostPath(kBook).c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0644u);

  // A folder in the way of the partial file: the download fails and the folder stays.
  std::filesystem::create_directories(HostPath(kPartial));
  EXPECT_NE(downloader.Download(host.Url("/b"), kBook, nullptr), 0);
  EXPECT_TRUE(std::filesystem::is_directory(HostPath(kPartial)));

  // A name longer than a folder entry takes is reported as such.
  const std::string long_name = "/mnt/ext1/Downloads/" + std::string(300, 'n') + ".pdf";
  EXPECT_NE(downloader.Download(host.Url("/b"), long_name, nullptr), 0);
  EXPECT_TRUE(downloader.GetStatusInfo().name_too_long);
}

TEST_F(ResumeDownloadTest, TrickleByteCapAndTimeLimitEndTheDownload) {
  FileAnswer trickle;
  trickle.body = std::string(100000, 't');
  trickle.piece_bytes = 10;
  trickle.pause = std::chrono::milliseconds(50);  // 200 bytes/s
  FileHost host([&](const FileRequest&) { return trickle; });
  Downloader downloader;
  Downloader::Limits floor;
  floor.floor_bytes_per_second = 1000;
  floor.floor_window_milliseconds = 1000;
  downloader.SetLimits(floor);
  EXPECT_EQ(downloader.Download(host.Url("/b"), kBook, nullptr), CURLE_OPERATION_TIMEDOUT);
  EXPECT_TRUE(downloader.GetStatusInfo().too_slow);
  EXPECT_FALSE(DeviceFileExists(kBook));

  Downloader::Limits capped;
  capped.max_bytes = 1000;
  capped.max_milliseconds = 400;
  downloader.SetLimits(capped);
  FileAnswer big;
  big.body = std::string(5000, 'b');
  for (bool announced : {true, false}) {
    big.send_length = announced;
    host.SetHandler([&](const FileRequest&) { return big; });
    EXPECT_EQ(downloader.Download(host.Url("/b"), kBook, nullptr), CURLE_FILESIZE_EXCEEDED);
    EXPECT_TRUE(downloader.GetStatusInfo().too_large);
  }
  FileAnswer held;
  held.body = std::string(500, 'h');
  held.stop_after = 100;
  held.hold = true;
  host.SetHandler([&](const FileRequest&) { return held; });
  EXPECT_EQ(downloader.Download(host.Url("/b"), kBook, nullptr), CURLE_OPERATION_TIMEDOUT);
  EXPECT_TRUE(downloader.GetStatusInfo().timed_out);
  EXPECT_EQ(DeviceFolderEntries("/mnt/ext1/Downloads"), 0u);
}

TEST_F(ResumeDownloadTest, AKilledProcessIsContinuedByTheNextOne) {
  // The child is forked before any thread exists here; it downloads the link it reads.
  int to_child[2];
  ASSERT_EQ(pipe(to_child), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    char url[256] = {0};
    ssize_t n = read(to_child[0], url, sizeof(url) - 1);
    Downloader downloader;
    _exit(n > 0 ? downloader.Download(url, kBook, nullptr) : 99);
  }
  close(to_child[0]);
  const std::string content = Content(1000000);
  FileHost host([&](const FileRequest& request) {
    FileAnswer answer = ServeFile(request, content, "\"k\"", "");
    answer.stop_after = 400000;
    answer.hold = true;
    return answer;
  });
  const std::string url = host.Url("/book");
  ASSERT_EQ(write(to_child[1], url.data(), url.size()), static_cast<ssize_t>(url.size()));
  close(to_child[1]);
  for (int i = 0; i < 2000 && ReadDeviceFile(kPartial).size() < 400000; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status));
  ASSERT_EQ(ReadDeviceFile(kPartial).size(), 400000u);

  host.SetHandler(Serve(content, "\"k\""));
  Downloader downloader;
  ASSERT_EQ(downloader.Download(url, kBook, nullptr), 0) << downloader.GetStatusInfo().error_text;
  EXPECT_EQ(host.requests().back().Header("range"), "bytes=400000-");
  EXPECT_TRUE(ReadDeviceFile(kBook) == content);
}

TEST_F(ResumeDownloadTest, SizesBeyondTwoGibKeepTheirRatio) {
  // A 5 GiB book of which 3 GiB are kept (a sparse file): the progress is 60%.
  const int64_t whole = 5ll << 30, kept = 3ll << 30;
  FileHost host([&](const FileRequest& request) {
    FileAnswer answer;
    answer.headers = {{"ETag", "\"big\""}};
    answer.send_length = false;
    if (request.Header("range").empty()) {
      answer.headers.emplace_back("Content-Length", std::to_string(whole));
      answer.body = "first bytes";
    } else {
      answer.status = 206;
      answer.headers.emplace_back("Content-Length", std::to_string(whole - kept));
      answer.headers.emplace_back("Content-Range", "bytes " + std::to_string(kept) + "-" +
                                                       std::to_string(whole - 1) + "/" +
                                                       std::to_string(whole));
      answer.body = "more bytes";
      answer.hold = true;
    }
    return answer;
  });
  norbel::opds::ResourceDownloader downloader("/mnt/ext1/Downloads", nullptr);
  EXPECT_NE(downloader.DownloadResource(host.Url("/big"), "big.cbz", nullptr), 0);
  ASSERT_EQ(truncate(HostPath("/mnt/ext1/Downloads/.big.cbz.part").c_str(), kept), 0);

  norbel::utilities::Downloader::Limits limits;
  limits.max_milliseconds = 1500;  // ends the held answer
  downloader.SetLimits(limits);
  std::atomic<bool> finished{false};
  std::thread worker([&] {
    downloader.DownloadResource(host.Url("/big"), "big.cbz", nullptr);
    finished = true;
  });
  int seen_total = 0, seen_done = 0;
  while (!finished) {
    bool active = false;
    std::string name;
    int total = 0, done = 0;
    downloader.GetProgress(&active, &name, &total, &done);
    if (active && total > 0) seen_total = total, seen_done = done;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  worker.join();
  ASSERT_GT(seen_total, 0);
  EXPECT_EQ(static_cast<int64_t>(seen_done) * 100 / seen_total, 60);
  EXPECT_GE(static_cast<int64_t>(seen_done) * 5, static_cast<int64_t>(seen_total) * 3);
  EXPECT_EQ(Downloader::LastStatus().resumed_from, kept);
}

TEST_F(ResumeDownloadTest, StalePartialsAreRemoved) {
  const std::string folder = "/mnt/ext1/Downloads";
  FileHost host(CutAt(1000, Content(5000), "\"s\""));
  Downloader downloader;
  for (const char* name : {"wanted.pdf", "unwanted.pdf", "old.pdf", "busy.pdf"}) {
    EXPECT_NE(downloader.Download(host.Url("/b"), folder + "/" + name, nullptr), 0);
  }
  // A partial file without a record of ours is not ours: it stays.
  WriteDeviceFile(folder + "/.not-ours.pdf.part", "x");
  WriteDeviceFile(folder + "/.orphan.pdf.part.info",
                  "vistrel-partial 1\nurl http://x/b\nname orphan.pdf\nvalidator \"s\"\n"
                  "total 5000\n");
  WriteDeviceFile(folder + "/.someone-elses-file", "keep me");
  const std::string old_data = HostPath(folder + "/.old.pdf.part");
  const time_t ten_days_ago = time(nullptr) - time_t{10 * 86400};
  struct timespec times[2] = {{ten_days_ago, 0}, {ten_days_ago, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, old_data.c_str(), times, 0), 0);

  // Another process's download holds this one: it stays although nobody here wants it.
  const int busy = open(HostPath(folder + "/.busy.pdf.part").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(busy, LOCK_EX), 0);

  auto wanted = [](const std::string& name) { return name == "wanted.pdf" || name == "old.pdf"; };
  EXPECT_EQ(Downloader::RemoveStalePartials(folder, wanted, int64_t{3} * 86400), 5);
  close(busy);
  std::vector<std::string> left;
  for (const auto& entry : std::filesystem::directory_iterator(HostPath(folder))) {
    left.push_back(entry.path().filename().string());
  }
  std::sort(left.begin(), left.end());
  EXPECT_EQ(left, (std::vector<std::string>{".busy.pdf.part", ".busy.pdf.part.info",
                                            ".not-ours.pdf.part", ".someone-elses-file",
                                            ".wanted.pdf.part", ".wanted.pdf.part.info"}));
}

}  // namespace
