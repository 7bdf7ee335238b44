// What one shop answer may cost in memory: a few bytes of JSON or XML that each become a
// value, a book or a language would make the 32 MiB body cap worth gigabytes. Legitimate large
// libraries pass untouched; amplifying answers fail as transfers. Every test runs in a process
// of its own, so the process's peak resident size tells what one call cost.
#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/resource.h>

#include <cstdint>
#include <string>
#include <thread>

#include "nbutils/http_request.h"
#include "support/device_fixture.h"
#include "vistrel_store/server_api.h"

namespace {

using norbel::vistrel::ServerApi;

constexpr int64_t kMiB = 1 << 20;
// The bound on what any answer may cost. A sanitizer's own bookkeeping (shadow memory,
// quarantine) multiplies every allocation, so there only the outcomes are checked.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int64_t kMaxGrowth = INT64_MAX;
#else
constexpr int64_t kMaxGrowth = 128 * kMiB;
#endif

// The process's peak resident size so far.
int64_t PeakRss() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<int64_t>(usage.ru_maxrss) * 1024;
}

// An answer of `head`, then `count` times `unit` (`unit_of(i)` when set), then `tail`, made
// while it is sent, so that the server holds one chunk at a time and the process's peak is
// the client's alone.
struct Pattern {
  std::string head;
  std::string unit;
  int64_t count = 0;
  std::string tail;
  std::function<std::string(int64_t)> unit_of;
  std::string content_type = "application/json";
};

Pattern Repeat(std::string head, std::string unit, int64_t count, std::string tail) {
  Pattern pattern;
  pattern.head = std::move(head);
  pattern.unit = std::move(unit);
  pattern.count = count;
  pattern.tail = std::move(tail);
  return pattern;
}

Pattern Listed(std::string head, int64_t count, std::string tail,
               std::function<std::string(int64_t)> unit_of) {
  Pattern pattern = Repeat(std::move(head), "", count, std::move(tail));
  pattern.unit_of = std::move(unit_of);
  return pattern;
}

class StreamingShop {
 public:
  StreamingShop() {
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~StreamingShop() {
    server_.stop();
    thread_.join();
  }
  std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }

  void Serve(const std::string& path, Pattern pattern) {
    auto handler = [pattern](const httplib::Request&, httplib::Response& res) {
      uint64_t length = pattern.head.size() + pattern.tail.size();
      for (int64_t i = 0; i < pattern.count; ++i) {
        length += pattern.unit_of ? pattern.unit_of(i).size() : pattern.unit.size();
      }
      // Made in order, one piece after the other; `pending` holds what the sink did not take.
      auto state = std::make_shared<std::pair<int64_t, std::string>>(-1, "");
      res.set_content_provider(
          length, pattern.content_type, [pattern, state](size_t, size_t, httplib::DataSink& sink) {
            auto& [next, pending] = *state;
            if (next < 0) {
              pending = pattern.head;
              next = 0;
            }
            while (pending.size() < 256 * 1024 && next < pattern.count) {
              pending += pattern.unit_of ? pattern.unit_of(next) : pattern.unit;
              ++next;
            }
            if (next == pattern.count) {
              pending += pattern.tail;
              ++next;
            }
            std::string chunk;
            chunk.swap(pending);
            return sink.write(chunk.data(), chunk.size());
          });
    };
    server_.Post(path, handler);
    server_.Get(path, handler);
  }

 private:
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
};

// A purchased book as a shop lists it, with every field the library reads.
std::string FullBook(int64_t i) {
  std::string n = std::to_string(i);
  std::string ean = "978" + std::string(10 - std::min<size_t>(10, n.size()), '0') + n;
  return R"({"orderPositionID": )" + std::to_string(100000 + i) + R"(, "orderID": )" +
         std::to_string(50000 + i / 3) + R"(, "orderPositionGizmoID": )" +
         std::to_string(7000 + i) + R"(, "orderPositionIsEbook": 1, "orderPositionEan": ")" + ean +
         R"(", "orderPositionTitle": "The Collected Works, Volume )" + n +
         R"(", "orderPositionAuthor": "Author Number )" + std::to_string(i % 977) +
         R"(", "orderPositionEbookCover": "https://cdn.example/covers/)" + ean +
         R"(.jpg", "orderPositionEbookFormat": "EPUB", "orderPositionEbookDate": "Jan 5, 2015 1:07:09 PM", "orderPositionEbookLink": "https://shop.example/download/)" +
         ean + R"(", "orderPositionGizmoPrize": 9.99})";
}

// A purchased book with the few fields a status list needs.
std::string FewFieldsBook(int64_t i) {
  std::string n = std::to_string(i);
  return R"({"orderPositionID": )" + n + R"(, "orderPositionEan": "978)" + n +
         R"(", "orderPositionEbookFormat": "EPUB", "orderPositionEbookLink": "https://s.example/d/)" +
         n + "\"}";
}

class AnswerMemoryTest : public vistrel_test::DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    api_.config_.clientShopWebserviceUrl = shop_.base() + "/ws/shop";
    // The libraries' one-time set-up is not the answer's cost.
    shop_.Serve("/ws/shop/warm", Repeat("{}", "", 0, ""));
    norbel::utilities::HttpRequestRunner runner;
    long status = 0;
    std::vector<char> body;
    runner.PerformRequest(norbel::utilities::HttpRequest("GET", shop_.base() + "/ws/shop/warm"),
                          &status, &body, 30);
  }

  // Runs `call` and returns how much the process's peak grew, recorded for the report.
  template <typename Call>
  int64_t Growth(const char* name, Call call) {
    const int64_t before = PeakRss();
    call();
    const int64_t growth = PeakRss() - before;
    RecordProperty(std::string(name) + "_peak_rss_growth_kib", std::to_string(growth / 1024));
    std::printf("%s: peak RSS grew by %lld KiB\n", name, static_cast<long long>(growth / 1024));
    return growth;
  }

  // The answer cost too much: a failed transfer, logged as one.
  void ExpectTransferFailure(const char* function_part) {
    auto lines = LogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("Condition: \"0 == err\""), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find(function_part), std::string::npos) << lines[0];
  }

  StreamingShop shop_;
  ServerApi api_;
};

std::string ShopList(const std::string& inner_head) {
  return R"({"error": false, "response": [)" + inner_head;
}

TEST_F(AnswerMemoryTest, TwentyThousandBooksWithAllFieldsPass) {
  shop_.Serve("/ws/shop/getUserEbook", Listed(ShopList(FullBook(0)), 19999, "]}",
                                              [](int64_t i) { return ", " + FullBook(i + 1); }));
  std::tuple<ServerApi::Result, std::vector<norbel::vistrel::Book>> got;
  int64_t growth = Growth("books_20000_full", [&] { got = api_.GetUserEbook(); });
  EXPECT_EQ(std::get<0>(got).code_, ServerApi::kOk);
  ASSERT_EQ(std::get<1>(got).size(), 20000u);
  EXPECT_EQ(std::get<1>(got)[19999].string_props_.at(norbel::vistrel::Book::Title),
            "The Collected Works, Volume 19999");
  EXPECT_LE(growth, kMaxGrowth);
  EXPECT_TRUE(LogLines().empty());
}

TEST_F(AnswerMemoryTest, FiftyThousandBooksWithFewFieldsPass) {
  shop_.Serve("/ws/shop/getUserEbook",
              Listed(ShopList(FewFieldsBook(0)), 49999, "]}",
                     [](int64_t i) { return ", " + FewFieldsBook(i + 1); }));
  std::tuple<ServerApi::Result, std::vector<norbel::vistrel::Book>> got;
  int64_t growth = Growth("books_50000_few", [&] { got = api_.GetUserEbook(); });
  EXPECT_EQ(std::get<0>(got).code_, ServerApi::kOk);
  EXPECT_EQ(std::get<1>(got).size(), 50000u);
  EXPECT_LE(growth, kMaxGrowth);
}

// Just under the 32 MiB body cap: 16.7 million one-digit elements.
TEST_F(AnswerMemoryTest, MillionsOfTinyElementsFailAsATransfer) {
  shop_.Serve("/ws/shop/getUserEbook", Repeat(ShopList("0"), ",0", 16777190, "]}"));
  std::tuple<ServerApi::Result, std::vector<norbel::vistrel::Book>> got;
  int64_t growth = Growth("tiny_elements", [&] { got = api_.GetUserEbook(); });
  EXPECT_EQ(std::get<0>(got).code_, ServerApi::kFailed);
  EXPECT_TRUE(std::get<1>(got).empty());
  EXPECT_LE(growth, kMaxGrowth);
  ExpectTransferFailure("GetUserEbook");
}

// 1.34 million small objects, each a book of its own.
TEST_F(AnswerMemoryTest, MillionsOfSmallObjectsFailAsATransfer) {
  shop_.Serve("/ws/shop/getUserEbook",
              Repeat(ShopList(R"({"orderID":1})"), R"(,{"orderID":1})", 1340000, "]}"));
  std::tuple<ServerApi::Result, std::vector<norbel::vistrel::Book>> got;
  int64_t growth = Growth("small_objects", [&] { got = api_.GetUserEbook(); });
  EXPECT_EQ(std::get<0>(got).code_, ServerApi::kFailed);
  EXPECT_LE(growth, kMaxGrowth);
  ExpectTransferFailure("GetUserEbook");
}

// 32 MiB of empty language elements, each one entry of the list.
TEST_F(AnswerMemoryTest, MillionsOfLanguagesFailAsATransfer) {
  Pattern xml = Repeat("<languages>", "<language/>", 3000000, "</languages>");
  xml.content_type = "text/xml";
  shop_.Serve("/ws/filter/languages", xml);
  std::tuple<ServerApi::Result, std::vector<norbel::vistrel::Language>> got;
  int64_t growth = Growth("languages", [&] { got = api_.GetLanguages(); });
  EXPECT_EQ(std::get<0>(got).code_, ServerApi::kFailed);
  EXPECT_TRUE(std::get<1>(got).empty());
  EXPECT_LE(growth, kMaxGrowth);
  ExpectTransferFailure("GetLanguages");
}

// The dearest shape per byte, an array of empty objects (each a tree node and a whole Book),
// just inside the bound: it is read, and stays within what any answer may cost.
TEST_F(AnswerMemoryTest, TheDearestAnswerJustInsideTheBoundStaysUnderIt) {
  shop_.Serve("/ws/shop/getUserEbook", Repeat(ShopList("{}"), ",{}", 355000, "]}"));
  std::tuple<ServerApi::Result, std::vector<norbel::vistrel::Book>> got;
  int64_t growth = Growth("dearest_inside_bound", [&] { got = api_.GetUserEbook(); });
  EXPECT_EQ(std::get<0>(got).code_, ServerApi::kOk);
  EXPECT_EQ(std::get<1>(got).size(), 355001u);
  EXPECT_LE(growth, kMaxGrowth);
}

}  // namespace
