// The store library against the bare tools underneath it, side by side in one run on loopback,
// followed by one table of ratios:
//   - a 1 GiB download through ResourceDownloader vs the curl command line followed by an fsync
//     of its file (the downloader's file is on the disk when it returns; curl's would still be
//     in the page cache), time and CPU, and the process's peak memory growth during it;
//   - the second half of that download resumed from a partial file, against the whole;
//   - GetBookStatus with 10,000 and with 50,000 purchased books;
//   - LoadPurchased of 10,000 bought e-books vs a bare jsoncpp parse of the same answer;
//   - one shop call through the request frame (LogIn) vs a bare libcurl request;
//   - GetBookStatus and CheckDownloadState, 10,000 books, while a download runs.
// The files come from a server in a process of its own; the shop is the tests' fake server.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <json/reader.h>
#include <spawn.h>
#include <sys/resource.h>
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
#include "vistrel_store/book_file.h"
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

// CPU seconds (user + system) of this process, or of its waited-for children.
double CpuSeconds(int who) {
  rusage usage{};
  getrusage(who, &usage);
  auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double Gib(uint64_t bytes) { return static_cast<double>(bytes) / (1ull << 30); }

void BM_DownloadResourceDownloader(benchmark::State& state) {
  norbel::opds::ResourceDownloader downloader(kDownloadFolder, nullptr);
  std::string url = g_files.base_url() + "/bytes/" + std::to_string(kBigFile);
  long growth = 0;
  double cpu = 0;
  for (auto _ : state) {
    long before = ResetPeakRssKib();
    double cpu_before = CpuSeconds(RUSAGE_SELF);
    Clock::time_point start = Clock::now();
    int err = downloader.DownloadResource(url, "big.bin", nullptr);
    state.SetIterationTime(Seconds(Clock::now() - start));
    cpu += CpuSeconds(RUSAGE_SELF) - cpu_before;
    growth = std::max(growth, StatusKib("VmHWM:") - before);
    if (err != 0) state.SkipWithError("download failed");
    std::filesystem::remove(g_device_root + kDownloadFolder + "/big.bin");
  }
  state.counters["peak_rss_growth_kib"] = static_cast<double>(growth);
  state.counters["cpu_s_per_gib"] = cpu / Gib(state.iterations() * kBigFile);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBigFile));
}

// curl -o FILE, then an fsync of FILE: what it takes to have the book on the disk.
void BM_DownloadCurlAndFsync(benchmark::State& state) {
  std::string url = g_files.base_url() + "/bytes/" + std::to_string(kBigFile);
  std::string out = g_device_root + kDownloadFolder + "/curl.bin";
  std::vector<const char*> argv = {"curl", "-s", "-f", "-o", out.c_str(), url.c_str(), nullptr};
  double cpu = 0;
  for (auto _ : state) {
    double cpu_before = CpuSeconds(RUSAGE_CHILDREN) + CpuSeconds(RUSAGE_SELF);
    Clock::time_point start = Clock::now();
    pid_t pid = 0;
    int status = -1;
    if (posix_spawnp(&pid, "curl", nullptr, nullptr, const_cast<char* const*>(argv.data()),
                     environ) == 0) {
      waitpid(pid, &status, 0);
    }
    int fd = open(out.c_str(), O_RDONLY | O_CLOEXEC);
    bool synced = fd >= 0 && fsync(fd) == 0;
    if (fd >= 0) close(fd);
    state.SetIterationTime(Seconds(Clock::now() - start));
    cpu += CpuSeconds(RUSAGE_CHILDREN) + CpuSeconds(RUSAGE_SELF) - cpu_before;
    if (status != 0 || !synced) state.SkipWithError("curl failed");
    std::filesystem::remove(out);
  }
  state.counters["cpu_s_per_gib"] = cpu / Gib(state.iterations() * kBigFile);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBigFile));
}

// The rest of the file after a first attempt was broken off (by a time limit) part way: the
// time counts only the resumed attempt, the bytes only the rest it fetched.
void BM_DownloadResumedRest(benchmark::State& state) {
  norbel::opds::ResourceDownloader downloader(kDownloadFolder, nullptr);
  std::string url = g_files.base_url() + "/bytes/" + std::to_string(kBigFile);
  norbel::utilities::Downloader::Limits broken_off;
  broken_off.max_milliseconds = 300;  // well before the end on any loopback
  int64_t fetched = 0;
  for (auto _ : state) {
    state.PauseTiming();
    downloader.SetLimits(broken_off);
    if (downloader.DownloadResource(url, "big.bin", nullptr) == 0) {
      state.SkipWithError("the first attempt was not broken off");
      break;  // the timer must not be resumed after an error
    }
    downloader.SetLimits(norbel::utilities::Downloader::Limits());
    // A retry comes after the kernel has written the kept bytes back (within 30 s by default);
    // here they would still be in flight, and the timed attempt would pay for the broken one.
    sync();
    state.ResumeTiming();
    Clock::time_point start = Clock::now();
    int err = downloader.DownloadResource(url, "big.bin", nullptr);
    state.SetIterationTime(Seconds(Clock::now() - start));
    int64_t kept = downloader.GetStatusInfo().resumed_from;
    if (err != 0 || kept <= 0) {
      state.SkipWithError("the download was not resumed");
      break;
    }
    fetched += static_cast<int64_t>(kBigFile) - kept;
    std::filesystem::remove(g_device_root + kDownloadFolder + "/big.bin");
  }
  state.SetBytesProcessed(fetched);
  state.counters["rest_bytes"] =
      static_cast<double>(fetched) / static_cast<double>(state.iterations());
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

// --- Book status by Ean ---

// A purchase list of `count` books with a few fields each.
std::string SmallPurchasedAnswer(int count) {
  std::string list;
  for (int i = 0; i < count; ++i) {
    list += (i == 0 ? "" : ", ") + std::string(R"({"orderPositionEan": ")") + Ean(i) +
            R"(", "orderPositionTitle": "Volume )" + std::to_string(i) +
            R"(", "orderPositionAuthor": "Author", "orderPositionEbookFormat": "EPUB", )" +
            R"("orderPositionEbookLink": "https://shop.example/d/)" + Ean(i) + "\"}";
  }
  return vistrel_test::ShopOk("[" + list + "]");
}

void ServePurchased(const std::string& answer) {
  vistrel_test::Reply purchased;
  purchased.body = answer;
  purchased.content_type = kShopType;
  g_shop->Set("/ws/shop/getUserEbook", purchased);
}

// GetBookStatus of random bought books (none on the device, none downloading), as a library
// screen asks for every book it shows.
void BM_BookStatus(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  StoreManager* store = StoreManager::Instance();
  ServePurchased(SmallPurchasedAnswer(count));
  if (store->LoadPurchased().size() != static_cast<size_t>(count)) {
    state.SkipWithError("wrong number of books");
  }
  std::mt19937 random(7);
  std::uniform_int_distribution<int> pick(0, count - 1);
  std::vector<std::string> eans;
  std::vector<size_t> positions;
  for (int i = 0; i < 4096; ++i) {
    positions.push_back(static_cast<size_t>(pick(random)));
    eans.push_back(Ean(static_cast<int>(positions.back())));
  }
  std::vector<double> status_us, file_us;
  status_us.reserve(static_cast<size_t>(state.max_iterations));
  file_us.reserve(static_cast<size_t>(state.max_iterations));
  size_t next = 0;
  for (auto _ : state) {
    const size_t i = next++ % eans.size();
    Clock::time_point start = Clock::now();
    norbel::vistrel::BookStatus status = store->GetBookStatus(eans[i]);
    Clock::time_point middle = Clock::now();
    // What the status cannot do without: the file tests of the same book alone.
    std::string path = GetBookFile(store->purchased()[positions[i]]);
    Clock::time_point end = Clock::now();
    status_us.push_back(Seconds(middle - start) * 1e6);
    file_us.push_back(Seconds(end - middle) * 1e6);
    benchmark::DoNotOptimize(status);
    benchmark::DoNotOptimize(path);
    if (status.status_ != norbel::vistrel::kPurchased) state.SkipWithError("not purchased");
  }
  state.counters["status_p50_us"] = Percentile(status_us, 0.5);
  state.counters["status_p99_us"] = Percentile(status_us, 0.99);
  state.counters["file_p50_us"] = Percentile(file_us, 0.5);
  state.counters["file_p99_us"] = Percentile(file_us, 0.99);
  // The other benchmarks work on the full 10,000-book list.
  ServePurchased(g_purchased_answer);
  store->LoadPurchased();
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
  double cli = r.Seconds("BM_DownloadCurlAndFsync");
  if (lib > 0 && cli > 0) {
    row("1 GiB download: ResourceDownloader / (curl + fsync) speed", cli / lib, "x", ">= 1.2",
        cli / lib >= 1.2);
    double cpu = r.Counter("BM_DownloadResourceDownloader", "cpu_s_per_gib") /
                 r.Counter("BM_DownloadCurlAndFsync", "cpu_s_per_gib");
    row("1 GiB download: CPU per GiB, ResourceDownloader / curl", cpu, "x", "<= 1.0", cpu <= 1.0);
    double growth = r.Counter("BM_DownloadResourceDownloader", "peak_rss_growth_kib") / 1024;
    row("1 GiB download: peak RSS growth of the process", growth, "MiB", "< 8", growth < 8);
  }
  double resumed = r.Seconds("BM_DownloadResumedRest");
  if (lib > 0 && resumed > 0) {
    double whole = static_cast<double>(kBigFile) / lib;
    double rest = r.Counter("BM_DownloadResumedRest", "rest_bytes") / resumed;
    row("resumed download: speed of the rest / of a whole download", rest / whole, "x", ">= 0.95",
        rest / whole >= 0.95);
  }
  double p99_10k = r.Counter("BM_BookStatus/10000", "status_p99_us");
  double p99_50k = r.Counter("BM_BookStatus/50000", "status_p99_us");
  if (p99_10k > 0) {
    row("GetBookStatus, 10,000 books, median", r.Counter("BM_BookStatus/10000", "status_p50_us"),
        "us", "", true);
    row("GetBookStatus, 10,000 books, p99", p99_10k, "us", "< 10", p99_10k < 10);
    row("  of which GetBookFile's file tests alone, median",
        r.Counter("BM_BookStatus/10000", "file_p50_us"), "us", "", true);
    row("  of which GetBookFile's file tests alone, p99",
        r.Counter("BM_BookStatus/10000", "file_p99_us"), "us", "", true);
  }
  if (p99_10k > 0 && p99_50k > 0) {
    row("GetBookStatus, 50,000 books, p99", p99_50k, "us", "", true);
    row("GetBookStatus p99, 50,000 / 10,000 books", p99_50k / p99_10k, "x", "<= 1.5",
        p99_50k / p99_10k <= 1.5);
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
  benchmark::RegisterBenchmark("BM_DownloadCurlAndFsync", BM_DownloadCurlAndFsync)
      ->Iterations(3)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("BM_DownloadResumedRest", BM_DownloadResumedRest)
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
  benchmark::RegisterBenchmark("BM_BookStatus", BM_BookStatus)
      ->Arg(10000)
      ->Arg(50000)
      ->Iterations(20000)
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
