// The store library against the bare tools underneath it, side by side in one run on loopback,
// followed by one table of ratios:
//   - a 1 GiB download through ResourceDownloader vs the curl command line, and the process's
//     peak memory growth during it;
//   - LoadPurchased of 10,000 bought e-books vs a bare jsoncpp parse of the same answer;
//   - one shop call through the request frame (LogIn) vs a bare libcurl request;
//   - GetBookStatus and CheckDownloadState, 10,000 books, while a download runs.
// The files come from a server in a process of its own; the shop is the tests' fake server.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <json/reader.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "opdsmodel/resource_downloader.h"
#include "panelkit/panelkit.h"
#include "stream_server.h"
#include "support/fake_server.h"
#include "vistrel_store/server_api.h"
#include "vistrel_store/store_manager.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
using norbel::vistrel::ServerApi;
using norbel::vistrel::StoreManager;

constexpr int kBooks = 10000;
constexpr uint64_t kBigFile = 1ull << 30;
constexpr char kSerial[] = "SN-BENCH";
constexpr char kDownloadFolder[] = "/bench";
// The book whose download stays under way while the status calls are timed.
constexpr int kDownloadingBook = kBooks / 2;
// With a charset the fake shop sends its answers as they are: with the bare type it would
// compress them at the brotli encoder's highest quality, a cost of the fake, not of a device.
constexpr char kShopType[] = "application/json; charset=utf-8";

vistrel_bench::StreamServer g_files;
vistrel_test::FakeServer* g_shop = nullptr;
std::string g_device_root;
std::string g_purchased_answer;
std::vector<std::string> g_eans;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

std::string Ean(int i) {
  char text[32];
  std::snprintf(text, sizeof(text), "978%010d", i);
  return text;
}

// One bought e-book as the shop lists it in "/getUserEbook".
std::string PurchasedJson(int i) {
  std::string ean = Ean(i);
  std::string link = i == kDownloadingBook
                         ? g_files.base_url() + "/paced/" + std::to_string(kBigFile)
                         : "https://shop.example/download/" + ean;
  return R"({"orderPositionID": )" + std::to_string(100000 + i) + R"(, "orderID": )" +
         std::to_string(50000 + i / 3) + R"(, "orderPositionGizmoID": )" +
         std::to_string(7000 + i) + R"(, "orderPositionIsEbook": 1, "orderPositionEan": ")" + ean +
         R"(", "orderPositionTitle": "The Collected Works, Volume )" + std::to_string(i) +
         R"(", "orderPositionAuthor": "Author Number )" + std::to_string(i % 977) +
         R"(", "orderPositionEbookCover": "https://cdn.example/covers/)" + ean +
         R"(.jpg", "orderPositionEbookFormat": "EPUB", "orderPositionEbookDate": "Jan 5, 2015 1:07:09 PM", "orderPositionEbookLink": ")" +
         link + R"(", "orderPositionGizmoPrize": 9.99})";
}

long StatusKib(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(field, 0) == 0) return std::stol(line.substr(std::strlen(field)));
  }
  return -1;
}

// Resets the peak to the current size and returns it.
long ResetPeakRssKib() {
  std::ofstream("/proc/self/clear_refs") << "5";
  return StatusKib("VmRSS:");
}

double Percentile(std::vector<double> samples, double fraction) {
  if (samples.empty()) return 0;
  size_t k = static_cast<size_t>(fraction * static_cast<double>(samples.size() - 1));
  std::nth_element(samples.begin(), samples.begin() + static_cast<long>(k), samples.end());
  return samples[k];
}

// --- Downloads ---

void BM_DownloadResourceDownloader(benchmark::State& state) {
  norbel::opds::ResourceDownloader downloader(kDownloadFolder, nullptr);
  std::string url = g_files.base_url() + "/bytes/" + std::to_string(kBigFile);
  long growth = 0;
  for (auto _ : state) {
    long before = ResetPeakRssKib();
    Clock::time_point start = Clock::now();
    int err = downloader.DownloadResource(url, "big.bin", nullptr);
    state.SetIterationTime(Seconds(Clock::now() - start));
    growth = std::max(growth, StatusKib("VmHWM:") - before);
    if (err != 0) state.SkipWithError("download failed");
    std::filesystem::remove(g_device_root + kDownloadFolder + "/big.bin");
  }
  state.counters["peak_rss_growth_kib"] = static_cast<double>(growth);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBigFile));
}

void BM_DownloadCurlCommandLine(benchmark::State& state) {
  std::string url = g_files.base_url() + "/bytes/" + std::to_string(kBigFile);
  std::string out = g_device_root + kDownloadFolder + "/curl.bin";
  std::vector<const char*> argv = {"curl", "-s", "-f", "-o", out.c_str(), url.c_str(), nullptr};
  for (auto _ : state) {
    Clock::time_point start = Clock::now();
    pid_t pid = 0;
    int status = -1;
    if (posix_spawnp(&pid, "curl", nullptr, nullptr, const_cast<char* const*>(argv.data()),
                     environ) == 0) {
      waitpid(pid, &status, 0);
    }
    state.SetIterationTime(Seconds(Clock::now() - start));
    if (status != 0) state.SkipWithError("curl failed");
    std::filesystem::remove(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBigFile));
}

// --- Purchased books ---

void BM_LoadPurchased(benchmark::State& state) {
  StoreManager* store = StoreManager::Instance();
  for (auto _ : state) {
    std::vector<norbel::vistrel::Book> books = store->LoadPurchased();
    if (books.size() != kBooks) state.SkipWithError("wrong number of books");
    benchmark::DoNotOptimize(books.data());
  }
}

void BM_BareJsonParse(benchmark::State& state) {
  for (auto _ : state) {
    Json::Value value;
    Json::Reader reader;
    const char* begin = g_purchased_answer.data();
    reader.parse(begin, begin + g_purchased_answer.size(), value, true);
    if (value["response"].size() != kBooks) state.SkipWithError("wrong number of books");
    benchmark::DoNotOptimize(value);
  }
}

// --- One shop call ---

size_t Collect(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

void BM_FrameLogIn(benchmark::State& state) {
  ServerApi api;
  api.config_.clientShopWebserviceUrl = g_shop->base_url() + "/ws/shop";
  api.config_.clientID = "c1";
  for (auto _ : state) {
    if (api.LogIn("reader@example.com", "secret").code_ != ServerApi::kOk) {
      state.SkipWithError("login failed");
    }
  }
}

// The same POST with a fresh handle, as the frame makes one per call.
void BM_BareCurlLogIn(benchmark::State& state) {
  std::string url = g_shop->base_url() + "/ws/shop/login";
  for (auto _ : state) {
    CURL* curl = curl_easy_init();
    std::string body;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS,
                     "username=reader%40example.com&password=secret&clientID=c1");
    curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");  // as the frame offers
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    CURLcode err = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(curl);
    if (err != CURLE_OK || status != 200) state.SkipWithError("request failed");
  }
}

// --- Book status during a download ---

void BM_StatusDuringDownload(benchmark::State& state) {
  StoreManager* store = StoreManager::Instance();
  store->DownloadBookById(Ean(kDownloadingBook));
  std::mt19937 random(42);
  std::uniform_int_distribution<int> pick(0, kBooks - 1);
  std::vector<double> status_us, check_us;
  for (auto _ : state) {
    const std::string& ean = g_eans[static_cast<size_t>(pick(random))];
    Clock::time_point start = Clock::now();
    norbel::vistrel::BookStatus status = store->GetBookStatus(ean);
    Clock::time_point middle = Clock::now();
    int running = store->CheckDownloadState();
    Clock::time_point end = Clock::now();
    status_us.push_back(Seconds(middle - start) * 1e6);
    check_us.push_back(Seconds(end - middle) * 1e6);
    benchmark::DoNotOptimize(status);
    if (running != 1) state.SkipWithError("the download is no longer running");
  }
  norbel::vistrel::BookStatus downloading = store->GetBookStatus(Ean(kDownloadingBook));
  if (downloading.status_ != norbel::vistrel::kDownloading) {
    state.SkipWithError("the book is not reported as downloading");
  }
  state.counters["status_p50_us"] = Percentile(status_us, 0.5);
  state.counters["status_p99_us"] = Percentile(status_us, 0.99);
  state.counters["check_p50_us"] = Percentile(check_us, 0.5);
  state.counters["check_p99_us"] = Percentile(check_us, 0.99);
  state.counters["progress_pct"] = downloading.progress_;
}

// --- Set-up ---

bool StartShop() {
  g_device_root = std::filesystem::temp_directory_path() / "vistrel-bench-XXXXXX";
  if (mkdtemp(g_device_root.data()) == nullptr) return false;
  setenv("VISTREL_DEVICE_ROOT", g_device_root.c_str(), 1);
  std::filesystem::create_directories(g_device_root + kDownloadFolder);
  std::filesystem::create_directories(g_device_root + "/mnt/ext1/system/config");

  g_shop = new vistrel_test::FakeServer();
  setenv("VISTREL_SWITCHBOARD_URL", (g_shop->base_url() + "/norbel/config/").c_str(), 1);
  setenv("VISTREL_SERIAL_NUMBER", kSerial, 1);
  vistrel_test::Reply config;
  config.body = R"({"clientID": "c1", "clientName": "Bench Shop", "clientShopWebserviceUrl": ")" +
                g_shop->base_url() + "/ws/shop\"}";
  g_shop->Set(std::string("/norbel/config/") + kSerial, config);
  vistrel_test::Reply languages;
  languages.content_type = "text/xml";
  languages.body = R"(<languages><language code="de" name="Deutsch"/></languages>)";
  g_shop->Set("/ws/filter/languages", languages);
  vistrel_test::Reply login;
  login.body = vistrel_test::ShopOk(R"({"sessionID": "s-123"})");
  login.content_type = kShopType;
  g_shop->Set("/ws/shop/login", login);

  std::string list;
  for (int i = 0; i < kBooks; ++i) {
    list += (i == 0 ? "" : ", ") + PurchasedJson(i);
    g_eans.push_back(Ean(i));
  }
  g_purchased_answer = vistrel_test::ShopOk("[" + list + "]");
  vistrel_test::Reply purchased;
  purchased.body = g_purchased_answer;
  purchased.content_type = kShopType;
  g_shop->Set("/ws/shop/getUserEbook", purchased);

  iconfig* stored = OpenConfig("/mnt/ext1/system/config/vistrel_config.cfg", nullptr);
  if (stored == nullptr) return false;
  WriteString(stored, "session_id", "s-123");
  CloseConfig(stored);
  return StoreManager::Instance()->Init() == 0 &&
         StoreManager::Instance()->purchased().size() == static_cast<size_t>(kBooks);
}

// Remembers every run for the table.
class TableReporter : public benchmark::ConsoleReporter {
 public:
  TableReporter() : ConsoleReporter(OO_Tabular) {}  // no colours: the output goes to files
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (!run.error_occurred) runs_[run.benchmark_name()] = run;
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // Seconds per iteration of the run whose name begins with `name`; 0 when it did not run.
  double Seconds(const std::string& name) const {
    const Run* run = Find(name);
    return run && run->iterations > 0 ? run->real_accumulated_time / run->iterations : 0;
  }
  double Counter(const std::string& name, const std::string& counter) const {
    const Run* run = Find(name);
    if (!run) return 0;
    auto it = run->counters.find(counter);
    return it == run->counters.end() ? 0 : it->second.value;
  }

 private:
  const Run* Find(const std::string& name) const {
    for (const auto& [key, run] : runs_) {
      if (key.rfind(name, 0) == 0) return &run;
    }
    return nullptr;
  }
  std::map<std::string, Run> runs_;
};

void PrintTable(const TableReporter& r) {
  auto row = [](const char* what, double value, const char* unit, const char* goal, bool met) {
    std::printf("| %-58s | %10.3f %-4s | %-10s | %-4s |\n", what, value, unit, goal,
                met ? "met" : "MISSED");
  };
  std::printf("\n| %-58s | %15s | %-10s | %-4s |\n", "measure", "value", "goal", "");
  std::printf("|%s|%s|%s|%s|\n", std::string(60, '-').c_str(), std::string(17, '-').c_str(),
              std::string(12, '-').c_str(), std::string(6, '-').c_str());
  double lib = r.Seconds("BM_DownloadResourceDownloader");
  double cli = r.Seconds("BM_DownloadCurlCommandLine");
  if (lib > 0 && cli > 0) {
    row("1 GiB download: ResourceDownloader / curl CLI throughput", cli / lib, "x", ">= 0.95",
        cli / lib >= 0.95);
    double growth = r.Counter("BM_DownloadResourceDownloader", "peak_rss_growth_kib") / 1024;
    row("1 GiB download: peak RSS growth of the process", growth, "MiB", "< 8", growth < 8);
  }
  double load = r.Seconds("BM_LoadPurchased");
  double parse = r.Seconds("BM_BareJsonParse");
  if (load > 0 && parse > 0) {
    row("LoadPurchased (10,000 books) / bare jsoncpp parse", load / parse, "x", "<= 1.5",
        load / parse <= 1.5);
  }
  double frame = r.Seconds("BM_FrameLogIn");
  double bare = r.Seconds("BM_BareCurlLogIn");
  if (frame > 0 && bare > 0) {
    row("one request-frame call (LogIn) / bare libcurl POST", frame / bare, "x", "<= 1.1",
        frame / bare <= 1.1);
  }
  const char* status = "BM_StatusDuringDownload";
  if (r.Seconds(status) > 0) {
    double p99 = r.Counter(status, "status_p99_us");
    row("GetBookStatus during a download, median", r.Counter(status, "status_p50_us"), "us", "",
        true);
    row("GetBookStatus during a download, p99", p99, "us", "< 100", p99 < 100);
    double check_p99 = r.Counter(status, "check_p99_us");
    row("CheckDownloadState during a download, median", r.Counter(status, "check_p50_us"), "us", "",
        true);
    row("CheckDownloadState during a download, p99", check_p99, "us", "< 100", check_p99 < 100);
  }
}

void RegisterAll() {
  benchmark::RegisterBenchmark("BM_DownloadResourceDownloader", BM_DownloadResourceDownloader)
      ->Iterations(3)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("BM_DownloadCurlCommandLine", BM_DownloadCurlCommandLine)
      ->Iterations(3)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("BM_LoadPurchased", BM_LoadPurchased)
      ->MinTime(2)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("BM_BareJsonParse", BM_BareJsonParse)
      ->MinTime(2)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("BM_FrameLogIn", BM_FrameLogIn)
      ->MinTime(2)
      ->UseRealTime()
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("BM_BareCurlLogIn", BM_BareCurlLogIn)
      ->MinTime(2)
      ->UseRealTime()
      ->Unit(benchmark::kMicrosecond);
  // Last: it leaves a download running until the file server stops.
  benchmark::RegisterBenchmark("BM_StatusDuringDownload", BM_StatusDuringDownload)
      ->Iterations(20000)
      ->UseRealTime()
      ->Unit(benchmark::kMicrosecond);
}

}  // namespace

int main(int argc, char** argv) {
  // The file server is forked before any thread exists.
  if (!g_files.Start()) {
    std::fprintf(stderr, "cannot start the file server\n");
    return 1;
  }
  curl_global_init(CURL_GLOBAL_DEFAULT);
  benchmark::Initialize(&argc, argv);
  if (!StartShop()) {
    std::fprintf(stderr, "the store did not start with %d books\n", kBooks);
    return 1;
  }
  RegisterAll();
  TableReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  // Breaks off the download left running, so that the store's exit does not wait for it.
  g_files.Stop();
  while (StoreManager::Instance()->CheckDownloadState() != 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  PrintTable(reporter);
  std::filesystem::remove_all(g_device_root);
  benchmark::Shutdown();
  return 0;
}
