// The world breaking the way a device meets it: an untrusted certificate, a full disk, the process
// killed while it saves the cart, and long bursts of calls.
#include <gtest/gtest.h>
#include <httplib.h>
#include <json/reader.h>
#include <malloc.h>
#include <openssl/x509v3.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <string>
#include <thread>

#include "opdsmodel/resource_downloader.h"
#include "support/shop_fixture.h"
#include "vistrel_store/server_api.h"
#include "vistrel_store/store_manager.h"

namespace {

using norbel::vistrel::ServerApi;

constexpr char kDownloads[] = "/mnt/ext1/Downloads";
constexpr char kConfigDir[] = "/mnt/ext1/system/config";
constexpr char kCartFile[] = "/mnt/ext1/system/config/vistrel_cart";

// The process's open file descriptors.
size_t OpenFiles() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// Bytes in use on the heap, large blocks included.
size_t Heap() { return mallinfo2().uordblks + mallinfo2().hblkhd; }

using FaultTest = vistrel_test::ShopTest;

TEST_F(FaultTest, SelfSignedCertificatesAreRefused) {
  // A certificate for 127.0.0.1 (no subject, so the issuer is itself) signed by its own key: the
  // right name, no trusted issuer.
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  std::unique_ptr<X509, decltype(&X509_free)> cert(X509_new(), X509_free);
  X509* c = cert.get();
  X509_set_version(c, 2);
  X509_gmtime_adj(X509_getm_notBefore(c), -3600);
  X509_gmtime_adj(X509_getm_notAfter(c), 3600);
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, c, c, nullptr, nullptr, 0);
  X509_EXTENSION* san = X509V3_EXT_conf_nid(nullptr, &ctx, NID_subject_alt_name, "IP:127.0.0.1");
  X509_add_ext(c, san, -1);
  X509_EXTENSION_free(san);
  X509_set_pubkey(c, key.get());
  X509_sign(c, key.get(), EVP_sha256());

  httplib::SSLServer server(c, key.get());
  auto answer = [](const httplib::Request&, httplib::Response& res) {
    res.set_content(vistrel_test::ShopOk(R"({"sessionID": "over-tls"})"), "application/json");
  };
  server.Post("/ws/shop/login", answer);
  server.Get("/ws/shop/login", answer);  // as a book file
  const int port = server.bind_to_any_port("127.0.0.1");
  std::thread thread([&server] { server.listen_after_bind(); });
  while (!server.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  const std::string base = "https://127.0.0.1:" + std::to_string(port);

  // Without verification the server answers: so the refusals are the certificate's doing.
  httplib::SSLClient probe("127.0.0.1", port);
  probe.enable_server_certificate_verification(false);
  auto probed = probe.Post("/ws/shop/login");
  EXPECT_TRUE(probed && probed->status == 200);
  ServerApi api;
  api.config_.clientShopWebserviceUrl = base + "/ws/shop";
  EXPECT_EQ(api.LogIn("a@b.c", "pw").code_, ServerApi::kFailed);
  norbel::opds::ResourceDownloader downloader(kDownloads, nullptr);
  EXPECT_NE(downloader.DownloadResource(base + "/ws/shop/login", "book.epub", nullptr), 0);
  EXPECT_EQ(DeviceFolderEntries(kDownloads), 0u);
  server.stop();
  thread.join();
}

TEST_F(FaultTest, AFullDiskFailsTheDownloadAndLeavesNoPartialFile) {
  vistrel_test::Reply file;
  file.generated_bytes = 8 << 20;
  server_.Set("/files/book", file);
  // The disk is full past the first MiB of any file this process writes. Only the soft limit is
  // lowered, so it can be raised again.
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  ASSERT_TRUE(saved.rlim_max == RLIM_INFINITY || saved.rlim_max > (8u << 20));
  auto old_handler = signal(SIGXFSZ, SIG_IGN);
  rlimit full{1 << 20, saved.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
  norbel::opds::ResourceDownloader downloader(kDownloads, nullptr);
  const int result =
      downloader.DownloadResource(server_.base_url() + "/files/book", "b.pdf", nullptr);
  setrlimit(RLIMIT_FSIZE, &saved);
  signal(SIGXFSZ, old_handler);
  EXPECT_NE(result, 0) << "the full disk went unreported";
  EXPECT_EQ(DeviceFolderEntries(kDownloads), 0u);
}

// Without a shop: the process must have no other threads when it forks, or the child could
// inherit a lock that one of them held.
using CartKillTest = vistrel_test::DeviceTest;

TEST_F(CartKillTest, TheCartFileStaysReadableWhenTheProcessIsKilledWhileSaving) {
  auto add = [](const std::string& ean) {  // each addition saves the whole cart
    Json::Value line;
    line["orderPositionEan"] = ean;
    norbel::vistrel::StoreManager::Instance()->AddToCart(norbel::vistrel::Book::FromJson(line));
  };
  std::mt19937 random(std::random_device{}());
  for (int round = 0; round < 6; ++round) {
    std::filesystem::remove(HostPath(kCartFile));
    int saved[2];
    ASSERT_EQ(pipe(saved), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      close(saved[0]);
      add("0");
      if (write(saved[1], "x", 1) != 1) _exit(1);
      for (int i = 1;; ++i) add(std::to_string(i));
    }
    close(saved[1]);
    // Waits for the first save, however long a loaded machine takes, then kills at a random
    // moment of the saves that follow.
    char byte;
    const bool first_saved = read(saved[0], &byte, 1) == 1;
    close(saved[0]);
    if (first_saved) std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    ASSERT_TRUE(first_saved) << "the saving child ended before its first save";

    Json::Value file;
    ASSERT_TRUE(Json::Reader().parse(ReadDeviceFile(kCartFile), file)) << "round " << round;
    const Json::Value& lines = file["cartPositions"];
    ASSERT_GE(lines.size(), 1u);
    for (Json::ArrayIndex i = 0; i < lines.size(); ++i) {
      ASSERT_EQ(lines[i]["cartPositionEan"].asString(), std::to_string(i));
    }
  }
  // What killed saves left behind is removed by the next save.
  add("last");
  EXPECT_EQ(DeviceFolderEntries(kConfigDir), 1u);
}

TEST_F(FaultTest, AnAnswerOfGigabytesFailsAtTheCap) {
  vistrel_test::Reply huge;
  huge.generated_bytes = 4ull << 30;
  huge.chunk_bytes = 1 << 20;
  huge.chunked = true;  // no length to refuse it by: the cap has to stop the transfer
  huge.content_type = "application/octet-stream";
  server_.Set("/ws/shop/addToCart", huge);
  ServerApi api;
  api.config_.clientShopWebserviceUrl = ShopUrl();
  const size_t heap_before = Heap();
  EXPECT_EQ(api.AddToCart("978", 1).code_, ServerApi::kFailed);
  EXPECT_LT(Heap(), heap_before + (8 << 20));  // what was received is given back
  EXPECT_EQ(LogLines().size(), 1u);            // logged as a transfer failure
}

TEST_F(FaultTest, AThousandCallsLeakNoFileDescriptorsAndNoMemory) {
  int answers = 0;  // by turns a success, a shop's refusal, a success and a 500
  server_.Set("/ws/shop/addToCart", [&answers](const vistrel_test::RecordedRequest&) {
    vistrel_test::Reply reply;
    reply.body = ++answers % 2 ? vistrel_test::ShopOk("{}") : vistrel_test::ShopError("no");
    reply.status = answers % 4 == 0 ? 500 : 200;
    return reply;
  });
  ServerApi api;
  api.config_.clientShopWebserviceUrl = ShopUrl();
  auto burst = [&api](int calls) {
    int ok = 0;
    for (int i = 0; i < calls; ++i) ok += api.AddToCart("978", 1).code_ == ServerApi::kOk;
    return ok;
  };
  ASSERT_EQ(burst(40), 20);  // warms up the libraries' one-time state

  const size_t files_before = OpenFiles();
  const size_t heap_before = Heap();
  EXPECT_EQ(burst(1000), 500);
  // The fake server closes its side of the last connections on its own thread.
  for (int i = 0; i < 200 && OpenFiles() > files_before; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_LE(OpenFiles(), files_before + 2);
  EXPECT_LT(Heap(), heap_before + (8 << 20));
}

}  // namespace
