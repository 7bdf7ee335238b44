// The catalogue and cart commands.

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "catalog_client.h"
#include "cli.h"
#include "commands.h"

namespace vistrel_cli {

using norbel::vistrel::Book;
using norbel::vistrel::BookStatus;
using norbel::vistrel::ServerApi;
using norbel::vistrel::StoreManager;

namespace {

int CartAdd(StoreManager* store, const Args& args) {
  if (args.positional.size() != 1) return Usage("cart add needs one EAN");
  const std::string& ean = args.positional[0];
  if (const int refused = RefuseIfPurchased(store, ean, args.Has("--force"))) return refused;
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
    if (end == nullptr || *end != '\0') return Usage("--price wants a number");
    if (price < 0) return Usage("--price cannot be negative");
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

}  // namespace

int RunCart(const std::vector<std::string>& words) {
  if (words.empty()) return Usage("cart needs add, remove or list");
  Args args;
  std::string error;
  if (!ParseArgs(std::vector<std::string>(words.begin() + 1, words.end()),
                 {"--title", "--author", "--format", "--price"}, {"--force"}, &args, &error)) {
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

}  // namespace vistrel_cli
