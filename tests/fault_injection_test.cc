// The world breaking the way a device meets it: an untrusted certificate, redirect loops,
// answers of gigabytes, downloads cut off or out of disk space, the process killed while it
// saves the cart, and long bursts of calls.
#include <curl/curl.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <json/reader.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "nbutils/http_request.h"
#include "opdsmodel/resource_downloader.h"
#include "support/shop_fixture.h"
#include "vistrel_store/server_api.h"
#include "vistrel_store/store_manager.h"

namespace {

using norbel::opds::ResourceDownloader;
using norbel::vistrel::Book;
using norbel::vistrel::ServerApi;
using norbel::vistrel::StoreManager;
using vistrel_test::Reply;
using vistrel_test::ShopOk;

constexpr char kDownloads[] = "/mnt/ext1/Downloads";
constexpr char kCartFile[] = "/mnt/ext1/system/config/vistrel_cart";

long ResidentKib() {
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

long PeakKib() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

// Resets the peak to the present size (Linux 4.0 and later) and returns the present size.
long ResetPeakKib() {
  std::ofstream("/proc/self/clear_refs") << "5";
  return ResidentKib();
}

int OpenFileCount() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
  closedir(dir);
  return count;
}

// A key and a certificate for 127.0.0.1 signed by that key: right name, no trusted issuer.
struct SelfSigned {
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key{nullptr, EVP_PKEY_free};
  std::unique_ptr<X509, decltype(&X509_free)> cert{nullptr, X509_free};

  SelfSigned() {
    key.reset(EVP_EC_gen("P-256"));
    cert.reset(X509_new());
    X509* c = cert.get();
    X509_set_version(c, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(c), 1);
    X509_gmtime_adj(X509_getm_notBefore(c), -3600);
    X509_gmtime_adj(X509_getm_notAfter(c), 3600);
    X509_NAME* name = X509_get_subject_name(c);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
    X509_set_issuer_name(c, name);
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, c, c, nullptr, nullptr, 0);
    X509_EXTENSION* san = X509V3_EXT_conf_nid(nullptr, &ctx, NID_subject_alt_name, "IP:127.0.0.1");
    X509_add_ext(c, san, -1);
    X509_EXTENSION_free(san);
    X509_set_pubkey(c, key.get());
    X509_sign(c, key.get(), EVP_sha256());
  }
};

// Serves a shop answer and a book over TLS with a self-signed certificate.
class TlsServer {
 public:
  TlsServer() : server_(identity_.cert.get(), identity_.key.get()) {
    server_.Post("/ws/shop/login", [](const httplib::Request&, httplib::Response& res) {
      res.set_content(ShopOk(R"({"sessionID": "over-tls"})"), "application/json");
    });
    server_.Get("/book.epub", [](const httplib::Request&, httplib::Response& res) {
      res.set_content("PK-book", "application/epub+zip");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~TlsServer() {
    server_.stop();
    thread_.join();
  }
  bool valid() { return server_.is_valid() && port_ > 0; }
  std::string base_url() const { return "https://127.0.0.1:" + std::to_string(port_); }

 private:
  SelfSigned identity_;
  httplib::SSLServer server_;
  int port_ = 0;
  std::thread thread_;
};

// Without verification the server answers: so a refusal below is the certificate's doing.
long UnverifiedStatus(const std::string& url) {
  CURL* curl = curl_easy_init();
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, "");
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION,
                   +[](char*, size_t size, size_t count, void*) { return size * count; });
  long status = 0;
  if (curl_easy_perform(curl) == CURLE_OK) curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  curl_easy_cleanup(curl);
  return status;
}

class FaultTest : public vistrel_test::ShopTest {
 protected:
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

  ServerApi Api() const {
    ServerApi api;
    api.config_.clientShopWebserviceUrl = ShopUrl();
    api.config_.clientID = "c1";
    return api;
  }
};

TEST_F(FaultTest, SelfSignedCertificatesAreRefused) {
  TlsServer tls;
  ASSERT_TRUE(tls.valid());
  ASSERT_EQ(UnverifiedStatus(tls.base_url() + "/ws/shop/login"), 200);

  ServerApi api;
  api.config_.clientShopWebserviceUrl = tls.base_url() + "/ws/shop";
  EXPECT_EQ(api.LogIn("a@b.c", "pw").code_, ServerApi::kFailed);
  EXPECT_EQ(api.session_id_, "");

  ResourceDownloader downloader(kDownloads, nullptr);
  EXPECT_NE(downloader.DownloadResource(tls.base_url() + "/book.epub", "book.epub", nullptr), 0);
  EXPECT_TRUE(Entries(kDownloads).empty());
}

TEST_F(FaultTest, ARedirectLoopEndsTheDownloadAfterABoundedNumberOfHops) {
  Reply loop;
  loop.status = 302;
  loop.headers = {{"Location", "/loop"}};
  server_.Set("/loop", loop);
  ResourceDownloader downloader(kDownloads, nullptr);
  EXPECT_NE(downloader.DownloadResource(server_.base_url() + "/loop", "book.pdf", nullptr), 0);
  size_t hops = server_.requests("/loop").size();
  EXPECT_GE(hops, 2u);
  EXPECT_LE(hops, 21u);
  EXPECT_TRUE(Entries(kDownloads).empty());
}

TEST_F(FaultTest, AnAnswerOfGigabytesFailsAtTheCapWithoutKeepingMemory) {
  ServerApi api = Api();
  const long cap_kib = static_cast<long>(norbel::utilities::HttpRequestRunner::kMaxBodyBytes >> 10);
  for (bool chunked : {false, true}) {
    SCOPED_TRACE(chunked ? "chunked, no length" : "with its length");
    Reply huge;
    huge.generated_bytes = 4ull << 30;
    huge.chunk_bytes = 1 << 20;
    huge.chunked = chunked;
    // A type that the fake server does not compress: the memory measured is the client's.
    huge.content_type = "application/octet-stream";
    server_.Set("/ws/shop/addToCart", huge);
    long before = ResetPeakKib();
    EXPECT_EQ(api.AddToCart("978", 1).code_, ServerApi::kFailed);
    // A small multiple of the cap (the body, the buffer it grew from, the allocator's slack),
    // not gigabytes.
    EXPECT_LT(PeakKib() - before, 3 * cap_kib);
    // Nothing kept per call: a leaked body would add the cap each time. (The allocator keeps
    // freed memory for reuse, up to twice the cap.)
    long after_first = ResidentKib();
    for (int i = 0; i < 8; ++i) EXPECT_EQ(api.AddToCart("978", 1).code_, ServerApi::kFailed);
    EXPECT_LT(ResidentKib() - after_first, 4 * cap_kib);
  }
  EXPECT_EQ(LogLines().size(), 18u);  // one transfer failure each
}

TEST_F(FaultTest, ADownloadCutHalfWayLeavesNoFileAndTheNextOneRuns) {
  StoreConfigValue("session_id", "sess");
  int attempts = 0;
  server_.Set("/files/book", [&attempts](const vistrel_test::RecordedRequest&) {
    Reply file;
    file.content_type = "application/pdf";
    file.generated_bytes = 8 << 20;
    file.drop_mid_body = ++attempts == 1;
    return file;
  });
  Reply purchased;
  purchased.body = ShopOk(R"([{"orderPositionEan": "1", "orderPositionTitle": "T",
      "orderPositionAuthor": "A", "orderPositionEbookFormat": "PDF",
      "orderPositionEbookLink": ")" + server_.base_url() + "/files/book\"}]");
  server_.Set("/ws/shop/getUserEbook", purchased);
  StoreManager* store = StoreManager::Instance();
  ASSERT_EQ(store->Init(), 0);

  auto drain = [store] {
    for (int i = 0; i < 2000 && store->CheckDownloadState() != 0; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  };
  store->DownloadBookById("1");
  drain();
  EXPECT_EQ(EventsOfKind("message").size(), 1u);
  EXPECT_TRUE(Entries(kDownloads).empty());
  EXPECT_EQ(store->GetBookStatus("1").status_, norbel::vistrel::kPurchased);

  store->DownloadBookById("1");
  drain();
  EXPECT_EQ(EventsOfKind("message").size(), 1u);
  norbel::vistrel::BookStatus status = store->GetBookStatus("1");
  ASSERT_EQ(status.status_, norbel::vistrel::kDownloaded);
  EXPECT_EQ(ReadDeviceFile(status.path_).size(), 8u << 20);
  EXPECT_EQ(Entries(kDownloads).size(), 1u);
}

TEST_F(FaultTest, AFullDiskFailsTheDownloadAndLeavesNoPartialFile) {
  Reply file;
  file.content_type = "application/pdf";
  file.generated_bytes = 8 << 20;
  server_.Set("/files/book", file);
  std::string url = server_.base_url() + "/files/book";

  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The disk is full after 1 MiB of this process's writes.
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{1 << 20, 1 << 20};
    setrlimit(RLIMIT_FSIZE, &limit);
    ResourceDownloader downloader(kDownloads, nullptr);
    int result = downloader.DownloadResource(url, "book.pdf", nullptr);
    _exit(result == 0 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1) << "the download did not report the full disk";
  EXPECT_TRUE(Entries(kDownloads).empty());
}

TEST_F(FaultTest, TheCartFileStaysReadableWhenTheProcessIsKilledWhileSaving) {
  std::mt19937 random(std::random_device{}());
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE(round);
    std::filesystem::remove(HostPath(kCartFile));
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      // Each addition saves the whole cart.
      for (int i = 0;; ++i) {
        Json::Value line;
        line["orderPositionEan"] = std::to_string(i);
        line["orderPositionTitle"] = "Book " + std::to_string(i);
        StoreManager::Instance()->AddToCart(Book::FromJson(line));
      }
    }
    // Waits for the first save, then kills at a random moment of the saves that follow.
    for (int i = 0; i < 2000 && !DeviceFileExists(kCartFile); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);

    ASSERT_TRUE(DeviceFileExists(kCartFile));
    Json::Value file;
    ASSERT_TRUE(Json::Reader().parse(ReadDeviceFile(kCartFile), file));
    const Json::Value& lines = file["cartPositions"];
    ASSERT_TRUE(lines.isArray());
    ASSERT_GE(lines.size(), 1u);
    for (Json::ArrayIndex i = 0; i < lines.size(); ++i) {
      ASSERT_EQ(lines[i]["cartPositionEan"].asString(), std::to_string(i));
    }
  }
  // Killed saves leave at most one temporary, and the next save takes it over.
  EXPECT_LE(Entries("/mnt/ext1/system/config").size(), 2u);
  Json::Value line;
  line["orderPositionEan"] = "last";
  StoreManager::Instance()->AddToCart(Book::FromJson(line));
  EXPECT_EQ(Entries("/mnt/ext1/system/config"), std::vector<std::string>{"vistrel_cart"});
}

TEST_F(FaultTest, AThousandCallsLeakNoFileDescriptorsAndNoMemory) {
  Reply ok;
  ok.body = ShopOk("{}");
  server_.Set("/ws/shop/addToCart", ok);
  Reply refused;
  refused.body = vistrel_test::ShopError("not in stock");
  server_.Set("/ws/shop/login", refused);
  Reply broken;
  broken.status = 500;
  server_.Set("/ws/shop/logout", broken);
  ServerApi api = Api();
  api.session_id_ = "s";
  auto burst = [&api](int calls) {
    int failed = 0;
    for (int i = 0; i < calls; ++i) {
      switch (i % 4) {
        case 0:
        case 1:
          failed += api.AddToCart(std::to_string(i), 1).code_ != ServerApi::kOk;
          break;
        case 2:
          failed += api.LogIn("a", "b").code_ == ServerApi::kOk;
          break;
        default:
          failed += api.LogOut().code_ == ServerApi::kOk;
          break;
      }
    }
    return failed;
  };
  ASSERT_EQ(burst(40), 0);  // warms up the libraries' one-time state

  int files_before = OpenFileCount();
  long resident_before = ResidentKib();
  EXPECT_EQ(burst(1000), 0);
  // The fake server closes its side of the last connections on its own thread.
  int files_after = OpenFileCount();
  for (int i = 0; i < 200 && files_after > files_before; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    files_after = OpenFileCount();
  }
  EXPECT_LE(files_after, files_before + 2);
  EXPECT_LT(ResidentKib() - resident_before, 8 * 1024);
  EXPECT_EQ(api.session_id_, "s");
}

}  // namespace
