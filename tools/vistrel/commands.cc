#include "commands.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "catalog_client.h"
#include "cli.h"
#include "progress_display.h"

namespace vistrel_cli {

using norbel::vistrel::Book;
using norbel::vistrel::BookStatus;
using norbel::vistrel::ServerApi;
using norbel::vistrel::StoreManager;

namespace {

// A refusal carries the shop's text; a failure without one means the shop did not answer.
int ReportRefusal(const std::string& what, const ServerApi::Result& result) {
  if (result.message_.empty()) {
    return Fail(kExitUnreachable,
                what + " failed: the shop did not answer (" + SwitchboardForMessages() + ")");
  }
  return Fail(kExitFailed, what + " refused: " + result.message_);
}

int Usage(const std::string& problem) { return Fail(kExitUsage, problem + " (see --help)"); }

int RunInit(const std::vector<std::string>& words) {
  if (!words.empty()) return Usage("init takes no arguments");
  int code = 0;
  StoreManager* store = StartStore(&code);
  if (store == nullptr) return code;
  // Init may have used the cached configuration: ask the configuration server again, and
  // start again on the answer (languages, session and purchases come from that shop).
  if (store->ConfigFromServer() != 0 || store->Init() != 0) {
    return Fail(kExitUnreachable,
                "shop unreachable: no configuration from " + SwitchboardForMessages());
  }
  const auto& config = store->config();
  std::printf("shop: %s (client %s)\n", config.clientName.c_str(), config.clientID.c_str());
  std::printf("web service: %s\n", config.clientShopWebserviceUrl.c_str());
  std::printf("catalogue: %s\n", config.clientOPDSCatalogUrl.c_str());
  std::printf("standby picture: %s\n", config.clientStandbyImage.c_str());
  std::printf("languages: %zu\n", store->languages().size());
  std::printf("session: %s\n", store->IsLoggedIn() ? ("logged in as " + store->getLogin()).c_str()
                                                   : "not logged in");
  std::printf("cart: %u books\n", store->cart().GetSize());
  std::printf("purchased: %zu books\n", store->purchased().size());
  return kExitOk;
}

int RunAccount(const std::vector<std::string>& words, bool registering) {
  const char* name = registering ? "register" : "login";
  if (words.size() != 2)
    return Usage(std::string(name) + " needs an e-mail address and a password");
  int code = 0;
  StoreManager* store = StartStore(&code);
  if (store == nullptr) return code;
  const ServerApi::Result result =
      registering ? store->Register(words[0], words[1]) : store->LogIn(words[0], words[1]);
  if (result.code_ != ServerApi::kOk) {
    return ReportRefusal(registering ? "registration" : "login", result);
  }
  if (!store->IsLoggedIn()) return Fail(kExitFailed, std::string(name) + " gave no session");
  std::printf("%s as %s; %zu purchased books\n",
              registering ? "registered and logged in" : "logged in", words[0].c_str(),
              store->purchased().size());
  return kExitOk;
}

int RunRegister(const std::vector<std::string>& words) { return RunAccount(words, true); }
int RunLogin(const std::vector<std::string>& words) { return RunAccount(words, false); }

int RunLogout(const std::vector<std::string>& words) {
  if (!words.empty()) return Usage("logout takes no arguments");
  int code = 0;
  StoreManager* store = StartStore(&code);
  if (store == nullptr) return code;
  store->LogOut();
  std::printf("logged out on the device; the cart is empty\n");
  return kExitOk;
}

int RunLanguages(const std::vector<std::string>& words) {
  if (!words.empty()) return Usage("languages takes no arguments");
  int code = 0;
  StoreManager* store = StartStore(&code);
  if (store == nullptr) return code;
  if (store->languages().empty()) return Fail(kExitFailed, "the shop listed no languages");
  for (const auto& language : store->languages()) {
    std::printf("%-4s %s\n", language.code.c_str(), language.name.c_str());
  }
  return kExitOk;
}

void PrintCart(StoreManager* store) {
  const auto& cart = store->cart();
  for (const Book& book : cart.items()) {
    std::printf("%-14s %10s  %s [%s]\n", Prop(book, Book::Ean).c_str(),
                FormatCents(IntProp(book, Book::Price)).c_str(), Describe(book).c_str(),
                Prop(book, Book::EbookType).c_str());
  }
  std::printf("%u books, total %s\n", cart.GetSize(), cart.GetTotalPriceFormatted().c_str());
}

int CartAdd(StoreManager* store, const Args& args) {
  if (args.positional.size() != 1) return Usage("cart add needs one EAN");
  const std::string& ean = args.positional[0];
  CatalogEntry entry;
  std::vector<CatalogEntry> catalog;
  std::string error;
  bool found = false;
  if (FetchCatalog(store->config().clientOPDSCatalogUrl, &catalog, &error)) {
    for (const CatalogEntry& candidate : catalog) {
      if (candidate.ean == ean) {
        entry = candidate;
        found = true;
      }
    }
  } else if (!args.Has("--title")) {
    return Fail(kExitUnreachable, error);
  }
  if (!found && !args.Has("--title")) {
    return Fail(kExitUnknownBook, "unknown book: " + ean + " is not in the shop's catalogue");
  }
  entry.ean = ean;
  if (args.Has("--title")) entry.title = args.Get("--title");
  if (args.Has("--author")) entry.author = args.Get("--author");
  if (args.Has("--format")) entry.format = args.Get("--format");
  if (args.Has("--price")) {
    char* end = nullptr;
    const double price = std::strtod(args.Get("--price").c_str(), &end);
    if (end == nullptr || *end != '\0' || price < 0) return Usage("--price wants a number");
    entry.price_cents = std::llround(price * 100.0);
  }
  const bool present = store->cart().IsContain(ean);
  store->AddToCart(entry.ToBook());
  std::printf("%s: %s\n", present ? "already in the cart" : "added",
              Describe(entry.ToBook()).c_str());
  PrintCart(store);
  return kExitOk;
}

int CartRemove(StoreManager* store, const Args& args) {
  if (args.positional.size() != 1) return Usage("cart remove needs one EAN");
  const auto& items = store->cart().items();
  for (unsigned int i = 0; i < items.size(); ++i) {
    if (Prop(items[i], Book::Ean) == args.positional[0]) {
      const std::string description = Describe(items[i]);
      store->RemoveFromCart(i);  // by position: saved at once
      std::printf("removed: %s\n", description.c_str());
      PrintCart(store);
      return kExitOk;
    }
  }
  return Fail(kExitUnknownBook, "not in the cart: " + args.positional[0]);
}

int RunCart(const std::vector<std::string>& words) {
  if (words.empty()) return Usage("cart needs add, remove or list");
  Args args;
  std::string error;
  if (!ParseArgs(std::vector<std::string>(words.begin() + 1, words.end()),
                 {"--title", "--author", "--format", "--price"}, {}, &args, &error)) {
    return Usage(error);
  }
  const std::string& action = words[0];
  if (action != "add" && action != "remove" && action != "list") {
    return Usage("unknown cart action " + action);
  }
  if (action != "add" && !args.options.empty()) return Usage("options are for cart add");
  int code = 0;
  StoreManager* store = StartStore(&code);
  if (store == nullptr) return code;
  if (action == "add") return CartAdd(store, args);
  if (action == "remove") return CartRemove(store, args);
  if (!args.positional.empty()) return Usage("cart list takes no arguments");
  PrintCart(store);
  return kExitOk;
}

int RunCatalog(const std::vector<std::string>& words) {
  if (!words.empty()) return Usage("catalog takes no arguments");
  int code = 0;
  StoreManager* store = StartStore(&code);
  if (store == nullptr) return code;
  std::vector<CatalogEntry> catalog;
  std::string error;
  if (!FetchCatalog(store->config().clientOPDSCatalogUrl, &catalog, &error)) {
    return Fail(kExitUnreachable, error);
  }
  for (const CatalogEntry& entry : catalog) {
    std::printf("%-14s %10s  %s - %s [%s]  (%s)\n", entry.ean.c_str(),
                FormatCents(entry.price_cents).c_str(), entry.author.c_str(), entry.title.c_str(),
                entry.format.c_str(), StateName(store->GetBookStatus(entry.ean).status_).c_str());
  }
  return kExitOk;
}

StoreManager* StartLoggedIn(int* code) {
  StoreManager* store = StartStore(code);
  if (store != nullptr && !store->IsLoggedIn()) {
    *code = Fail(kExitNotLoggedIn, "not logged in (run vistrel login or vistrel register)");
    return nullptr;
  }
  return store;
}

int RunCheckout(const std::vector<std::string>& words) {
  if (!words.empty()) return Usage("checkout takes no arguments");
  int code = 0;
  StoreManager* store = StartLoggedIn(&code);
  if (store == nullptr) return code;
  if (store->cart().GetSize() == 0) return Fail(kExitFailed, "the cart is empty");
  std::vector<Book> dropped;
  std::tie(std::ignore, dropped) = store->CheckOut();
  std::printf("the shop's cart %lld:\n", static_cast<long long>(store->cart().cart_id()));
  PrintCart(store);
  for (const Book& book : dropped) {
    Fail(kExitFailed,
         "the shop dropped " + Prop(book, Book::Ean) + " (" + Describe(book) + ") from the cart");
  }
  return dropped.empty() ? kExitOk : kExitFailed;
}

int RunPay(const std::vector<std::string>& words) {
  if (!words.empty()) return Usage("pay takes no arguments");
  int code = 0;
  StoreManager* store = StartLoggedIn(&code);
  if (store == nullptr) return code;
  if (store->cart().GetSize() == 0) {
    return Fail(kExitFailed, "nothing to pay: the cart is empty (run vistrel checkout)");
  }
  // The shop's cart id is held in memory only, so the cart is checked out again here.
  std::vector<Book> dropped;
  std::tie(std::ignore, dropped) = store->CheckOut();
  for (const Book& book : dropped) {
    return Fail(kExitFailed, "the shop dropped " + Prop(book, Book::Ean) + " (" + Describe(book) +
                                 ") from the cart; nothing was paid");
  }
  std::printf("paying %s in the browser...\n", store->cart().GetTotalPriceFormatted().c_str());
  std::fflush(stdout);
  ServerApi::Result result = store->StartPayment();
  if (result.code_ != ServerApi::kOk) {
    return Fail(kExitFailed,
                "payment failed: " +
                    (result.message_.empty() ? "the payment was not completed" : result.message_));
  }
  const auto& payment = store->payment_data();
  if (payment.token_.empty()) {  // the browser ended at the shop's back address
    return Fail(kExitFailed, "payment failed: the payment was not completed");
  }
  std::printf("order %lld paid with PayPal (token %s, payer %s)\n",
              static_cast<long long>(payment.order_id_), payment.token_.c_str(),
              payment.payer_id_.c_str());
  std::printf("waiting for the shop to confirm and deliver (checked every 5 s)...\n");
  std::fflush(stdout);
  result = store->CheckPaymentResult();
  if (result.code_ != ServerApi::kOk) {
    return Fail(kExitFailed,
                "payment not confirmed: " +
                    (result.message_.empty() ? "the shop did not answer" : result.message_));
  }
  std::printf("delivered; %zu purchased books (vistrel download --all)\n",
              store->purchased().size());
  return kExitOk;
}

int RunPurchased(const std::vector<std::string>& words) {
  if (!words.empty()) return Usage("purchased takes no arguments");
  int code = 0;
  StoreManager* store = StartLoggedIn(&code);
  if (store == nullptr) return code;
  for (const Book& book : store->purchased()) {
    const BookStatus status = store->GetBookStatus(Prop(book, Book::Ean));
    std::printf("%-14s %-11s %s [%s]%s%s\n", Prop(book, Book::Ean).c_str(),
                StateName(status.status_).c_str(), Describe(book).c_str(),
                Prop(book, Book::EbookType).c_str(), status.path_.empty() ? "" : "  ",
                status.path_.c_str());
  }
  std::printf("%zu purchased books\n", store->purchased().size());
  return kExitOk;
}

int RunDownload(const std::vector<std::string>& words) {
  Args args;
  std::string error;
  if (!ParseArgs(words, {}, {"--all"}, &args, &error)) return Usage(error);
  if (args.positional.empty() == !args.Has("--all")) {
    return Usage("download needs EANs or --all");
  }
  int code = 0;
  StoreManager* store = StartLoggedIn(&code);
  if (store == nullptr) return code;
  std::vector<Book> books;
  if (args.Has("--all")) {
    for (const Book& book : store->purchased()) books.push_back(book);
  } else {
    for (const std::string& id : args.positional) {
      const std::string ean = id.substr(id.rfind('/') == std::string::npos ? 0 : id.rfind('/') + 1);
      bool found = false;
      for (const Book& book : store->purchased()) {
        if (!found && Prop(book, Book::Ean) == ean) {
          books.push_back(book);
          found = true;
        }
      }
      if (!found) return Fail(kExitUnknownBook, "not a purchased book: " + id);
    }
  }
  int failed = 0;
  for (const Book& book : books) {
    if (DownloadWithProgress(store, book).status_ != norbel::vistrel::kDownloaded) ++failed;
  }
  if (failed != 0) {
    return Fail(kExitFailed, "download failed for " + std::to_string(failed) + " of " +
                                 std::to_string(books.size()) + " books");
  }
  return kExitOk;
}

int RunStatus(const std::vector<std::string>& words) {
  if (words.empty()) return Usage("status needs one or more EANs");
  int code = 0;
  StoreManager* store = StartStore(&code);
  if (store == nullptr) return code;
  for (const std::string& id : words) {
    const BookStatus status = store->GetBookStatusById(id);
    std::printf("%s: %s", id.c_str(), StateName(status.status_).c_str());
    if (status.status_ == norbel::vistrel::kDownloaded) std::printf(" %s", status.path_.c_str());
    if (status.status_ == norbel::vistrel::kDownloading) std::printf(" %d%%", status.progress_);
    std::printf("\n");
  }
  return kExitOk;
}

}  // namespace

BookStatus DownloadWithProgress(StoreManager* store, const Book& book, std::vector<int>* seen) {
  const std::string ean = Prop(book, Book::Ean);
  ProgressDisplay progress(stdout, Describe(book));
  auto note = [seen](int state) {
    if (seen != nullptr && (seen->empty() || seen->back() != state)) seen->push_back(state);
  };
  BookStatus status = store->GetBookStatus(ean);
  note(status.status_);
  if (status.status_ == norbel::vistrel::kDownloaded) {
    progress.Finish("already on the device: " + status.path_);
    return status;
  }
  store->DownloadBookById(ean);
  // One download at a time: the store starts the next queued book only when this one is done.
  for (;;) {
    const int running = store->CheckDownloadState();
    status = store->GetBookStatus(ean);
    note(status.status_);
    if (status.status_ == norbel::vistrel::kDownloading) progress.Update(status.progress_);
    if (running == 0) break;
    usleep(100 * 1000);
  }
  status = store->GetBookStatus(ean);
  note(status.status_);
  if (status.status_ == norbel::vistrel::kDownloaded) {
    progress.Update(100);
    progress.Finish(status.path_);
  } else {
    progress.Finish("failed (" + StateName(status.status_) + ")");
  }
  return status;
}

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = {
      {"init", "fetch the shop configuration and show the device's state",
       "usage: vistrel init\n\nFetches the shop configuration from the configuration server "
       "(also when a cached one\nis recent), installs the standby picture, and shows the "
       "shop, session, cart and purchases.\n",
       RunInit},
      {"register", "create an account and log in",
       "usage: vistrel register EMAIL PASSWORD\n\nRegisters a new account with the shop; the "
       "new session is kept on the device.\n",
       RunRegister},
      {"login", "log in",
       "usage: vistrel login EMAIL PASSWORD\n\nLogs in; the session and the credentials are "
       "kept on the device.\n",
       RunLogin},
      {"logout", "log out on the device",
       "usage: vistrel logout\n\nEmpties the cart and forgets the session and the purchases "
       "in memory. The shop\nis not told, and the device configuration keeps the stored "
       "session, so the next\ncommand starts logged in again (log in as someone else to "
       "replace it).\n",
       RunLogout},
      {"languages", "list the shop's catalogue languages", "usage: vistrel languages\n",
       RunLanguages},
      {"catalog", "list the shop's catalogue with each book's status",
       "usage: vistrel catalog\n\nReads the catalogue that the shop configuration names "
       "(clientOPDSCatalogUrl;\nthe demo shop publishes a JSON list there).\n",
       RunCatalog},
      {"cart", "add, remove or list books in the cart",
       "usage: vistrel cart add EAN [--title T] [--author A] [--format F] [--price EUR]\n"
       "       vistrel cart remove EAN\n"
       "       vistrel cart list\n\n"
       "cart add looks the EAN up in the shop's catalogue; the options supply or override\n"
       "the book's data (with --title a book outside the catalogue can be added; the shop\n"
       "then drops it at checkout).\n",
       RunCart},
      {"checkout", "move the cart to the shop",
       "usage: vistrel checkout\n\nPushes the cart to the shop and takes the shop's cart; fails "
       "when the shop dropped\na book.\n",
       RunCheckout},
      {"pay", "order the shop's cart and pay it",
       "usage: vistrel pay\n\nChecks the cart out (again: the shop's cart id lives only as long "
       "as the\nprocess), prepares and commits the order, pays it in the (emulated) browser, "
       "and\nwaits until the shop has delivered every book (at least 5 seconds).\n",
       RunPay},
      {"purchased", "list the purchased books", "usage: vistrel purchased\n", RunPurchased},
      {"download", "download purchased books",
       "usage: vistrel download EAN... | --all\n\nDownloads the books one after the other "
       "into the device's download folder,\nwith a progress bar on a terminal.\n",
       RunDownload},
      {"status", "show a book's status",
       "usage: vistrel status EAN...\n\nunknown, in cart, purchased, downloading (with "
       "percentage) or downloaded (with\nits path). An argument may be a path or address "
       "ending in the EAN.\n",
       RunStatus},
      {"demo", "run a whole purchase against the embedded demo shop",
       "usage: vistrel [--device-root DIR] demo [--file-chunk-delay MS] [--link-delay MS]\n\n"
       "Starts the demo shop on a free loopback port, prepares a fresh device (a temporary\n"
       "folder unless --device-root is given), and buys and downloads three books through\n"
       "the store library: configuration and standby picture, registration, languages,\n"
       "cart, checkout, payment in the emulated browser, delivery, downloads.\n",
       RunDemo},
  };
  return commands;
}

}  // namespace vistrel_cli
