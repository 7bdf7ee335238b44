// vistrel demo: one whole purchase against the embedded demo shop, narrated.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "catalog_client.h"
#include "cli.h"
#include "commands.h"
#include "demo_shop.h"
#include "host/environment.h"

namespace vistrel_cli {

using norbel::vistrel::Book;
using norbel::vistrel::BookStatus;
using norbel::vistrel::ServerApi;
using norbel::vistrel::StoreManager;

namespace {

constexpr int kSteps = 9;
const char kEmail[] = "reader@vistrel-demo.example";
const char kPassword[] = "correct horse";

void Step(int number, const std::string& text) {
  std::printf("[%d/%d] %s\n", number, kSteps, text.c_str());
  std::fflush(stdout);
}

void Detail(const std::string& text) { std::printf("      %s\n", text.c_str()); }

int DemoFailed(const std::string& step, const std::string& text, int code = kExitFailed) {
  return Fail(code, "demo failed at " + step + ": " + text);
}

std::string ReadHead(const std::string& path, size_t length) {
  std::ifstream in(path, std::ios::binary);
  std::string head(length, '\0');
  in.read(&head[0], static_cast<std::streamsize>(length));
  head.resize(static_cast<size_t>(in.gcount()));
  return head;
}

long FileSize(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? static_cast<long>(info.st_size) : -1;
}

// What the file looks like from its first bytes: "EPUB", "PDF", or "" when neither.
std::string Sniff(const std::string& path) {
  const std::string head = ReadHead(path, 58);
  if (head.size() == 58 && head.compare(0, 4, "PK\x03\x04") == 0 &&
      head.compare(30, 8, "mimetype") == 0 && head.compare(38, 20, "application/epub+zip") == 0) {
    return "EPUB";
  }
  if (head.compare(0, 5, "%PDF-") == 0) return "PDF";
  return "";
}

// The first EPUB, the first PDF, and the last book of the catalogue's list of all books (the
// file host sends that one as "application/force-download").
std::vector<CatalogEntry> ChooseBooks(const std::vector<CatalogEntry>& catalog) {
  std::vector<CatalogEntry> chosen;
  auto add = [&chosen](const CatalogEntry& entry) {
    for (const CatalogEntry& c : chosen) {
      if (c.ean == entry.ean) return;
    }
    chosen.push_back(entry);
  };
  for (const std::string format : {"EPUB", "PDF"}) {
    for (const CatalogEntry& entry : catalog) {
      if (entry.format == format) {
        add(entry);
        break;
      }
    }
  }
  if (!catalog.empty()) add(catalog.back());
  return chosen;
}

std::string Trail(const std::vector<int>& states) {
  std::string text;
  for (int state : states) text += (text.empty() ? "" : " -> ") + StateName(state);
  return text;
}

}  // namespace

int RunDemo(const std::vector<std::string>& words) {
  Args args;
  std::string error;
  if (!ParseArgs(words, {"--file-chunk-delay", "--link-delay"}, {}, &args, &error)) {
    return Fail(kExitUsage, error + " (see --help)");
  }
  if (!args.positional.empty()) return Fail(kExitUsage, "demo takes no arguments (see --help)");

  vistrel_demo::DemoShop shop;
  // Pieces of 1 KiB with a short pause, so that the progress of the small books can be seen.
  shop.SetFileChunkDelay(std::chrono::milliseconds(
      args.Has("--file-chunk-delay") ? std::atoi(args.Get("--file-chunk-delay").c_str()) : 80));
  if (args.Has("--link-delay")) {
    shop.SetLinkDelay(std::chrono::milliseconds(std::atoi(args.Get("--link-delay").c_str())));
  }
  if (!shop.Start(0)) return Fail(kExitFailed, "cannot start the demo shop");

  // A fresh device unless one was given; the library reads these when it starts.
  const char* given_root = std::getenv("VISTREL_DEVICE_ROOT");
  std::string device_root;
  std::string log_file;
  if (given_root != nullptr && *given_root != '\0') {
    device_root = given_root;
    log_file = device_root + ".events.log";
  } else {
    const char* tmpdir = std::getenv("TMPDIR");
    std::string work = std::string(tmpdir != nullptr && *tmpdir == '/' ? tmpdir : "/tmp");
    while (work.size() > 1 && work.back() == '/') work.pop_back();
    work += "/vistrel-demo-XXXXXX";
    if (mkdtemp(&work[0]) == nullptr) {
      return Fail(kExitFailed,
                  "cannot make a temporary folder in " + work.substr(0, work.rfind('/')));
    }
    device_root = work + "/device";
    log_file = work + "/events.log";
    setenv("VISTREL_DEVICE_ROOT", device_root.c_str(), 1);
  }
  if (std::getenv("VISTREL_LOG_FILE") == nullptr) {
    setenv("VISTREL_LOG_FILE", log_file.c_str(), 1);
  } else {
    log_file = std::getenv("VISTREL_LOG_FILE");
  }
  setenv("VISTREL_SWITCHBOARD_URL", shop.switchboard_url().c_str(), 1);
  if (std::getenv("VISTREL_SERIAL_NUMBER") == nullptr) {
    setenv("VISTREL_SERIAL_NUMBER", "VD-2026-000042", 1);
  }
  if (!vistrel_host::PrepareDeviceRoot()) {
    return Fail(kExitFailed, "cannot prepare the device folder " + device_root);
  }
  // The book scanner counts as running when it is installed; it is told about new books.
  std::ofstream scanner(vistrel_host::ResolveDevicePath("/kelmast/bin/scanner.app"), std::ios::app);

  std::printf("vistrel demo: demo shop at %s\n", shop.base_url().c_str());
  std::printf("      device root %s (serial %s)\n", device_root.c_str(),
              std::getenv("VISTREL_SERIAL_NUMBER"));
  std::printf("      device event log %s\n", log_file.c_str());

  // 1. Start-up: configuration from the configuration server, standby picture.
  StoreManager* store = StoreManager::Instance();
  Step(1, "Init: shop configuration from " + shop.switchboard_url() +
              std::getenv("VISTREL_SERIAL_NUMBER"));
  const int init = store->Init();
  if (init != 0) return DemoFailed("Init", "returned " + std::to_string(init), kExitUnreachable);
  if (store->config().clientShopWebserviceUrl.compare(0, shop.base_url().size(), shop.base_url()) !=
      0) {
    // A reused device may hold an earlier demo shop's cached configuration: fetch it anew
    // and start again on it, so that languages, session and purchases come from this shop.
    if (store->ConfigFromServer() != 0 || store->Init() != 0) {
      return DemoFailed("Init", "no configuration from the demo shop", kExitUnreachable);
    }
    Detail("replaced the cached configuration of an earlier shop");
  }
  Detail("shop \"" + store->GetShopName() + "\", client " + store->GetClientId() +
         ", web service " + store->config().clientShopWebserviceUrl);
  const std::string logo = vistrel_host::ResolveDevicePath("/tmp/logo_from_vistrel.bmp");
  if (FileSize(logo) <= 0) return DemoFailed("Init", "no standby picture at " + logo);
  Detail("standby picture " + logo + " (" + std::to_string(FileSize(logo)) + " bytes)");

  // 2. Account.
  Step(2, std::string("Register ") + kEmail);
  ServerApi::Result result = store->Register(kEmail, kPassword);
  if (result.code_ != ServerApi::kOk) {
    result = store->LogIn(kEmail, kPassword);  // a reused device may know the account
  }
  if (result.code_ != ServerApi::kOk || !store->IsLoggedIn()) {
    return DemoFailed("Register", result.message_.empty() ? "no session" : result.message_);
  }
  Detail("logged in; the session is kept in the device configuration");

  // 3. Languages (loaded by Init).
  Step(3, "Languages of the shop's catalogue");
  std::string languages;
  for (const auto& language : store->languages()) {
    languages += (languages.empty() ? "" : ", ") + language.code + " " + language.name;
  }
  if (languages.empty()) return DemoFailed("Languages", "the shop listed none");
  Detail(languages);

  // 4. Cart.
  Step(4, "Cart: books from the catalogue " + store->config().clientOPDSCatalogUrl);
  std::vector<CatalogEntry> catalog;
  if (!FetchCatalog(store->config().clientOPDSCatalogUrl, &catalog, &error)) {
    return DemoFailed("Cart", error);
  }
  Detail(std::to_string(catalog.size()) +
         " books in the shop's OPDS catalogue (navigation and every page walked)");
  while (store->cart().GetSize() > 0) store->RemoveFromCart(0u);
  const std::vector<CatalogEntry> chosen = ChooseBooks(catalog);
  std::vector<std::vector<int>> trails(chosen.size());
  for (size_t i = 0; i < chosen.size(); ++i) {
    store->AddToCart(chosen[i].ToBook());
    const BookStatus status = store->GetBookStatus(chosen[i].ean);
    trails[i].push_back(status.status_);
    Detail(chosen[i].ean + "  " + FormatCents(chosen[i].price_cents) + "  " + chosen[i].author +
           " - " + chosen[i].title + " [" + chosen[i].format + "]: " + StateName(status.status_));
    if (status.status_ != norbel::vistrel::kInCart) return DemoFailed("Cart", "not in the cart");
  }

  // 5. Checkout.
  Step(5, "CheckOut: the cart goes to the shop");
  std::vector<Book> dropped;
  std::tie(result, dropped) = store->CheckOut();
  if (!dropped.empty()) {
    return DemoFailed("CheckOut", "the shop dropped " + Prop(dropped[0], Book::Ean));
  }
  if (store->cart().GetSize() != chosen.size()) {
    return DemoFailed("CheckOut",
                      "the shop's cart has " + std::to_string(store->cart().GetSize()) + " books");
  }
  Detail("shop cart " + std::to_string(store->cart().cart_id()) + ": " +
         std::to_string(store->cart().GetSize()) + " books, " +
         store->cart().GetTotalPriceFormatted());

  // 6. Payment in the browser.
  Step(6, "StartPayment: order, commit, PayPal in the browser");
  result = store->StartPayment();
  if (result.code_ != ServerApi::kOk) {
    return DemoFailed("StartPayment",
                      result.message_.empty() ? "the payment was not completed" : result.message_);
  }
  const auto& payment = store->payment_data();
  if (payment.token_.empty()) return DemoFailed("StartPayment", "the buyer went back");
  Detail("order " + std::to_string(payment.order_id_) + " processed " +
         store->order_date_processed() + "; PayPal token " + payment.token_ + ", payer " +
         payment.payer_id_);

  // 7. Confirmation and delivery.
  Step(7, "CheckPaymentResult: confirm, then wait for the download links (5 s passes)");
  const auto started = std::chrono::steady_clock::now();
  result = store->CheckPaymentResult();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  if (result.code_ != ServerApi::kOk) {
    return DemoFailed("CheckPaymentResult",
                      result.message_.empty() ? "no answer" : result.message_);
  }
  char took[32];
  std::snprintf(took, sizeof took, "%.1f", seconds);
  Detail(std::string("confirmed and delivered after ") + took + " s; " +
         std::to_string(store->purchased().size()) + " purchased books, cart " +
         std::to_string(store->cart().GetSize()));
  for (size_t i = 0; i < chosen.size(); ++i) {
    const int state = store->GetBookStatus(chosen[i].ean).status_;
    if (trails[i].back() != state) trails[i].push_back(state);
    if (state != norbel::vistrel::kPurchased && state != norbel::vistrel::kDownloaded) {
      return DemoFailed("CheckPaymentResult", chosen[i].ean + " is " + StateName(state));
    }
  }

  // 8. Downloads, one at a time.
  Step(8, "Downloads into /mnt/ext1/Downloads");
  std::vector<std::string> paths(chosen.size());
  for (size_t i = 0; i < chosen.size(); ++i) {
    const Book* purchased = nullptr;
    for (const Book& book : store->purchased()) {
      if (Prop(book, Book::Ean) == chosen[i].ean) purchased = &book;
    }
    if (purchased == nullptr) return DemoFailed("Downloads", chosen[i].ean + " not purchased");
    std::vector<int> seen;
    const BookStatus status = DownloadWithProgress(store, *purchased, &seen);
    for (int state : seen) {
      if (trails[i].back() != state) trails[i].push_back(state);
    }
    if (status.status_ != norbel::vistrel::kDownloaded) {
      return DemoFailed("Downloads", chosen[i].ean + " is " + StateName(status.status_));
    }
    paths[i] = status.path_;
  }

  // 9. What is on the device now.
  Step(9, "Books on the device");
  int bad = 0;
  for (size_t i = 0; i < chosen.size(); ++i) {
    const std::string host = vistrel_host::ResolveDevicePath(paths[i]);
    const std::string kind = Sniff(host);
    Detail(chosen[i].title + ": " + Trail(trails[i]));
    Detail("  " + host + " (" + (kind.empty() ? "NOT A BOOK" : kind) + ", " +
           std::to_string(FileSize(host)) + " bytes)");
    if (kind.empty()) ++bad;
  }
  if (bad != 0) return DemoFailed("Books on the device", std::to_string(bad) + " bad files");
  std::printf("vistrel demo: done, %s bought and downloaded\n",
              Count(chosen.size(), "book").c_str());
  std::printf("      device folder %s (kept; remove it when done)\n", device_root.c_str());
  return kExitOk;
}

}  // namespace vistrel_cli
