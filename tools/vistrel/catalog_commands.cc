// The catalogue and cart commands.

#include <strings.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "catalog_client.h"
#include "cli.h"
#include "commands.h"

namespace vistrel_cli {

using norbel::vistrel::Book;
using norbel::vistrel::StoreManager;

namespace {

namespace opds = norbel::opds;

int CatalogExitCode(opds::FetchFailure failure) {
  return failure == opds::FetchFailure::kNotAFeed ? kExitFailed : kExitUnreachable;
}

// A text from the catalogue as it may reach a terminal: control characters (escape sequences
// among them, also C1 controls in UTF-8) become "?".
std::string Printable(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const unsigned char next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
    if (c < 0x20 || c == 0x7F) {
      out += '?';
    } else if (c == 0xC2 && next >= 0x80 && next <= 0x9F) {
      out += '?';
      ++i;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

// "4,99 EUR"; "-" for a book without a price.
std::string PriceText(const CatalogEntry& book) {
  if (book.price_cents < 0) return "-";
  char text[48];
  std::snprintf(text, sizeof text, "%lld,%02lld %s", static_cast<long long>(book.price_cents / 100),
                static_cast<long long>(book.price_cents % 100),
                book.currency.empty() ? "EUR" : Printable(book.currency.substr(0, 8)).c_str());
  return text;
}

void PrintBook(StoreManager* store, const CatalogEntry& book) {
  std::string format = book.format.empty() ? "?" : book.format;
  if (book.adobe_ticket) format += "; Adobe ticket";
  std::printf("%-14s %10s  %s - %s [%s]  (%s)\n", Printable(book.ean).c_str(),
              PriceText(book).c_str(), Printable(book.author).c_str(),
              Printable(book.title).c_str(), Printable(format).c_str(),
              StateName(store->GetBookStatus(book.ean).status_).c_str());
}

// The feed's navigation entries, numbered from 1 in document order.
std::vector<const opds::Entry*> NavigationEntries(const opds::Feed& feed) {
  std::vector<const opds::Entry*> entries;
  for (const opds::Entry& entry : feed.entries) {
    if (!IsBook(entry) && entry.NavigationLink() != nullptr) entries.push_back(&entry);
  }
  return entries;
}

int FetchOrFail(const std::string& url, opds::Feed* feed) {
  std::string error;
  opds::FetchFailure failure = opds::FetchFailure::kNone;
  if (opds::FetchFeed(url, feed, &error, opds::FetchOptions(), &failure)) return kExitOk;
  return Fail(CatalogExitCode(failure), "catalogue unreadable: " + error);
}

// Fetches `url`, then follows the navigation entries numbered in `path`, one feed after the
// other.
int OpenFeed(const std::string& url, const std::vector<int>& path, opds::Feed* feed) {
  int code = FetchOrFail(url, feed);
  for (size_t i = 0; code == kExitOk && i < path.size(); ++i) {
    const std::vector<const opds::Entry*> entries = NavigationEntries(*feed);
    if (path[i] > static_cast<int>(entries.size())) {
      return Fail(kExitUsage, "no navigation entry " + std::to_string(path[i]) + " in " +
                                  feed->url + " (it has " + std::to_string(entries.size()) + ")");
    }
    const std::string next = entries[path[i] - 1]->NavigationLink()->href;
    code = FetchOrFail(next, feed);
  }
  return code;
}

void PrintFeed(StoreManager* store, const opds::Feed& feed) {
  std::printf("%s  (%s)\n", feed.title.empty() ? "catalogue" : Printable(feed.title).c_str(),
              Printable(feed.url).c_str());
  int number = 0;
  for (const opds::Entry* entry : NavigationEntries(feed)) {
    std::printf("%3d  %s\n", ++number, Printable(entry->title).c_str());
  }
  for (const opds::Entry& entry : feed.entries) {
    if (IsBook(entry)) PrintBook(store, ToCatalogEntry(entry));
  }
  if (feed.truncated) std::printf("(the feed passed the reader's limits; the rest is left out)\n");
  if (const opds::Link* next = feed.FindLink(opds::rel::kNext)) {
    std::printf("next page: vistrel catalog --feed '%s'\n", Printable(next->href).c_str());
  }
}

int ListAll(StoreManager* store, const std::string& url, const WalkLimits& limits) {
  const bool terminal = isatty(STDERR_FILENO) == 1;
  WalkReport report;
  std::string error;
  int books = 0;
  const bool read = WalkCatalog(
      url, limits,
      [store](const CatalogEntry& book) {
        PrintBook(store, book);
        return true;
      },
      [terminal, &books](const WalkReport& progress, int count) {
        books = count;
        if (!terminal) return;
        std::fprintf(stderr, "\rreading the catalogue: %d feeds, %d books", progress.feeds_read,
                     count);
        std::fflush(stderr);
      },
      &report, &error);
  if (terminal) std::fprintf(stderr, "\n");
  if (!read) return Fail(CatalogExitCode(report.root_failure), "catalogue unreadable: " + error);
  std::fflush(stdout);
  std::fprintf(stderr, "read %d feeds, %d books%s\n", report.feeds_read, books,
               report.limit_reached ? " (stopped at the walk's limit)" : "");
  if (report.feeds_failed > 0) {
    std::fprintf(stderr, "%d feeds could not be read, the first: %s\n", report.feeds_failed,
                 report.first_failure.c_str());
  }
  return kExitOk;
}

int Search(StoreManager* store, const opds::Feed& feed, const std::string& terms) {
  std::string url, error;
  if (!opds::SearchUrl(feed, terms, &url, &error)) return Fail(kExitFailed, error);
  opds::Feed results;
  const int code = FetchOrFail(url, &results);
  if (code != kExitOk) return code;
  PrintFeed(store, results);
  return kExitOk;
}

int CartAdd(StoreManager* store, const Args& args) {
  if (args.positional.size() != 1) return Usage("cart add needs one EAN");
  const std::string& ean = args.positional[0];
  if (const int refused = RefuseIfPurchased(store, ean, args.Has("--force"))) return refused;
  CatalogEntry entry;
  std::string error;
  norbel::opds::FetchFailure failure = norbel::opds::FetchFailure::kNone;
  const bool found =
      FindInCatalog(store->config().clientOPDSCatalogUrl, ean, &entry, &error, &failure);
  if (!found && !error.empty() && !args.Has("--title")) {
    return Fail(CatalogExitCode(failure), "catalogue unreadable: " + error);
  }
  if (!found && !args.Has("--title")) {
    return Fail(kExitUnknownBook, "unknown book: " + ean + " is not in the shop's catalogue");
  }
  entry.ean = ean;
  if (entry.price_cents < 0) entry.price_cents = 0;
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
  Args args;
  std::string error;
  if (!ParseArgs(words, {"--feed", "--search", "--max-feeds"}, {"--all"}, &args, &error)) {
    return Usage(error);
  }
  WalkLimits limits;
  if (args.Has("--max-feeds")) {
    char* end = nullptr;
    const long feeds = std::strtol(args.Get("--max-feeds").c_str(), &end, 10);
    if (*end != '\0' || feeds < 1 || feeds > 1000000) return Usage("--max-feeds wants a number");
    limits.max_feeds = static_cast<int>(feeds);
  }
  std::vector<int> path;
  for (const std::string& word : args.positional) {
    char* end = nullptr;
    const long number = std::strtol(word.c_str(), &end, 10);
    if (word.empty() || *end != '\0' || number < 1 || number > 100000) {
      return Usage("catalog takes numbers of navigation entries, not " + word);
    }
    path.push_back(static_cast<int>(number));
  }
  if (args.Has("--all") && args.Has("--search"))
    return Usage("--all and --search exclude each other");
  if (args.Has("--feed")) {
    const std::string& feed_url = args.Get("--feed");
    if (strncasecmp(feed_url.c_str(), "http://", 7) != 0 &&
        strncasecmp(feed_url.c_str(), "https://", 8) != 0) {
      return Usage("--feed wants an http:// or https:// address, not " + feed_url);
    }
  }
  int code = 0;
  StoreManager* store = StartStore(&code);
  if (store == nullptr) return code;
  std::string url = args.Has("--feed") ? args.Get("--feed") : store->config().clientOPDSCatalogUrl;
  if (url.empty()) return Fail(kExitUnreachable, "the shop configuration names no catalogue");

  norbel::opds::Feed feed;
  if (!args.Has("--all") || !path.empty()) {
    const int opened = OpenFeed(url, path, &feed);
    if (opened != kExitOk) return opened;
    url = feed.url;
  }
  if (args.Has("--all")) return ListAll(store, url, limits);
  if (args.Has("--search")) return Search(store, feed, args.Get("--search"));
  PrintFeed(store, feed);
  return kExitOk;
}

}  // namespace vistrel_cli
