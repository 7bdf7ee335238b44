// shop_app: the steps of an e-reader's shop screen, one after the other, on the library's
// StoreManager: start-up, login, catalogue, cart, checkout, payment, the wait for delivery and
// the downloads with their statuses and progress. What a screen would draw is printed.
//
//   shop_app [--switchboard-url URL] [--device-root DIR] [--email E --password P [--register]]
//            EAN...
//
// On a host the device is emulated (host/environment.h); a device build drops those lines.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "catalogue.h"
#include "host/environment.h"
#include "vistrel_store/vistrel_store.h"

namespace {

using norbel::vistrel::Book;
using norbel::vistrel::BookStatus;
using norbel::vistrel::ServerApi;
using norbel::vistrel::StoreManager;

// Exit codes: 0 every book is on the device, 1 a step failed, 2 bad command line.
enum Exit : int { kDone = 0, kFailed = 1, kUsage = 2 };

struct Options {
  std::string email;
  std::string password;
  bool register_account = false;
  std::vector<std::string> eans;
};

int Fail(const std::string& text) {
  std::fprintf(stderr, "shop_app: %s\n", text.c_str());
  return kFailed;
}

std::string Prop(const Book& book, Book::StringProps prop) {
  auto it = book.string_props_.find(prop);
  return it == book.string_props_.end() ? "" : it->second;
}

const char* StateName(int state) {
  switch (state) {
    case norbel::vistrel::kInCart:
      return "in cart";
    case norbel::vistrel::kPurchased:
      return "purchased";
    case norbel::vistrel::kDownloading:
      return "downloading";
    case norbel::vistrel::kDownloaded:
      return "downloaded";
    default:
      return "unknown";
  }
}

// What Init()'s codes mean to the buyer.
std::string StartUpError(int code) {
  if (code == -7) return "this device is not assigned to a shop (the configuration names none)";
  return "no shop configuration: the configuration server did not answer, or the device's "
         "configuration file cannot be opened (Init() returned " +
         std::to_string(code) + ")";
}

bool ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool has_value = i + 1 < argc;
    if (arg == "--switchboard-url" && has_value) {
      setenv("VISTREL_SWITCHBOARD_URL", argv[++i], 1);
    } else if (arg == "--device-root" && has_value) {
      setenv("VISTREL_DEVICE_ROOT", argv[++i], 1);
    } else if (arg == "--email" && has_value) {
      options->email = argv[++i];
    } else if (arg == "--password" && has_value) {
      options->password = argv[++i];
    } else if (arg == "--register") {
      options->register_account = true;
    } else if (!arg.empty() && arg[0] != '-') {
      options->eans.push_back(arg);
    } else {
      return false;
    }
  }
  return !options->eans.empty() && options->email.empty() == options->password.empty();
}

// Start-up: the device's folders (host only), then the library.
int StartUp(StoreManager* store) {
  setenv("VISTREL_SERIAL_NUMBER", "SHOP-APP-0001", 0);
  if (!vistrel_host::PrepareDeviceRoot()) return Fail("cannot make the device's folders");
  const int init = store->Init();
  if (init != 0) return Fail(StartUpError(init));
  std::printf("[start] shop \"%s\"\n", store->GetShopName().c_str());
  std::string languages;
  for (const auto& language : store->languages()) {
    languages += (languages.empty() ? "" : ", ") + language.code;
  }
  std::printf("[start] catalogue languages: %s\n", languages.empty() ? "-" : languages.c_str());
  return kDone;
}

// Login screen: a stored session is used as it is; otherwise the buyer signs in.
int SignIn(StoreManager* store, const Options& options) {
  if (options.email.empty()) {
    if (!store->IsLoggedIn()) return Fail("not logged in: give --email and --password");
    std::printf("[login] session of %s\n", store->getLogin().c_str());
    return kDone;
  }
  ServerApi::Result result = options.register_account
                                 ? store->Register(options.email, options.password)
                                 : store->LogIn(options.email, options.password);
  if (result.code_ != ServerApi::kOk) {
    return Fail("login refused: " + (result.message_.empty()
                                         ? std::string("the shop did not answer")
                                         : result.message_));
  }
  std::printf("[login] %s as %s\n", options.register_account ? "registered" : "logged in",
              options.email.c_str());
  return kDone;
}

// Cart and checkout: the chosen books go into the cart, the cart to the shop.
int CheckOut(StoreManager* store, const std::vector<Book>& books) {
  while (store->cart().GetSize() > 0) store->RemoveFromCart(0u);
  for (const Book& book : books) {
    store->AddToCart(book);
    const std::string ean = Prop(book, Book::Ean);
    std::printf("[cart] %s: %s\n", ean.c_str(), StateName(store->GetBookStatus(ean).status_));
  }
  ServerApi::Result result;
  std::vector<Book> dropped;
  std::tie(result, dropped) = store->CheckOut();
  for (const Book& book : dropped) {
    std::printf("[checkout] the shop does not sell %s\n", Prop(book, Book::Ean).c_str());
  }
  if (store->cart().GetSize() == 0) return Fail("nothing to buy: the shop's cart is empty");
  for (const Book& line : store->cart().items()) {
    std::printf("[checkout] %s  %s - %s [%s]\n", Prop(line, Book::Ean).c_str(),
                Prop(line, Book::Author).c_str(), Prop(line, Book::Title).c_str(),
                Prop(line, Book::EbookType).c_str());
  }
  std::printf("[checkout] total %s\n", store->cart().GetTotalPriceFormatted().c_str());
  return kDone;
}

// Payment in the browser, then the wait until the shop has delivered every book.
int Pay(StoreManager* store) {
  ServerApi::Result result = store->StartPayment();
  if (result.code_ != ServerApi::kOk) {
    return Fail("payment not completed" + (result.message_.empty() ? "" : ": " + result.message_));
  }
  std::printf("[payment] order %lld paid\n",
              static_cast<long long>(store->payment_data().order_id_));
  std::printf("[delivery] waiting for the download links\n");
  std::fflush(stdout);
  result = store->CheckPaymentResult();
  if (result.code_ != ServerApi::kOk) {
    return Fail("delivery failed" + (result.message_.empty() ? "" : ": " + result.message_));
  }
  std::printf("[delivery] %zu purchased books\n", store->purchased().size());
  return kDone;
}

// Downloads one book and shows its status while it runs. One at a time: a book queued while
// another one downloads would be lost.
BookStatus Download(StoreManager* store, const std::string& ean) {
  BookStatus status = store->GetBookStatus(ean);
  if (status.status_ == norbel::vistrel::kDownloaded) return status;
  store->DownloadBookById(ean);
  int shown = -1;
  while (store->CheckDownloadState() == 1) {
    status = store->GetBookStatus(ean);
    if (status.status_ == norbel::vistrel::kDownloading && status.progress_ != shown) {
      shown = status.progress_;
      std::printf("[download] %s %d%%\n", ean.c_str(), shown);
      std::fflush(stdout);
    }
    usleep(50 * 1000);
  }
  return store->GetBookStatus(ean);
}

int DownloadAll(StoreManager* store, const std::vector<Book>& books) {
  int failed = 0;
  for (const Book& book : books) {
    const std::string ean = Prop(book, Book::Ean);
    if (store->GetBookStatus(ean).status_ == norbel::vistrel::kUnknown) continue;  // not sold
    const BookStatus status = Download(store, ean);
    std::printf("[download] %s: %s %s\n", ean.c_str(), StateName(status.status_),
                status.path_.c_str());
    if (status.status_ != norbel::vistrel::kDownloaded) ++failed;
  }
  if (failed != 0) return Fail(std::to_string(failed) + " downloads failed");
  return kDone;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    std::fprintf(stderr,
                 "usage: shop_app [--switchboard-url URL] [--device-root DIR]\n"
                 "                [--email E --password P [--register]] EAN...\n");
    return kUsage;
  }
  StoreManager* store = StoreManager::Instance();
  int code = StartUp(store);
  if (code == kDone) code = SignIn(store, options);
  if (code != kDone) return code;
  const std::vector<Book> books = shop_app::LoadCatalogue(store, options.eans);
  code = CheckOut(store, books);
  if (code == kDone) code = Pay(store);
  if (code == kDone) code = DownloadAll(store, books);
  return code;
}
