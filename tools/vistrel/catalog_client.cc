#include "catalog_client.h"

#include <deque>
#include <set>
#include <sstream>

#include "vistrel_store/make_format.h"

namespace vistrel_cli {

namespace opds = norbel::opds;
using norbel::vistrel::Book;

namespace {

// The address without its fragment: "#..." never names another document.
std::string WithoutFragment(const std::string& url) { return url.substr(0, url.find('#')); }

}  // namespace

Book CatalogEntry::ToBook() const {
  Book book;
  book.string_props_[Book::Ean] = ean;
  book.string_props_[Book::Title] = title;
  book.string_props_[Book::Author] = author;
  book.string_props_[Book::EbookType] = format;
  if (!thumbnail.empty()) book.string_props_[Book::Thumbnail] = thumbnail;
  book.int_props_[Book::Price] = price_cents < 0 ? 0 : price_cents;
  book.int_props_[Book::Quantity] = 1;
  book.int_props_[Book::IsEbook] = 1;
  return book;
}

bool IsBook(const opds::Entry& entry) { return !entry.AcquisitionLinks().empty(); }

CatalogEntry ToCatalogEntry(const opds::Entry& entry) {
  CatalogEntry book;
  book.ean = entry.Ean();
  book.title = entry.title;
  book.author = entry.AuthorNames();
  boost::ptr_vector<OPDS::IndirectAcquisition> acquisitions;
  opds::AppendAcquisitions(entry, &acquisitions);
  std::stringstream formats;
  norbel::vistrel::MakeFormat(formats, book.adobe_ticket, acquisitions);
  book.format = formats.str();
  if (const opds::Link* priced = entry.PriceLink()) {
    book.price_cents = priced->PriceCents();
    book.currency = priced->currency;
  }
  const opds::Link* picture = entry.Thumbnail() ? entry.Thumbnail() : entry.Cover();
  if (picture != nullptr) book.thumbnail = picture->href;
  return book;
}

bool WalkCatalog(const std::string& url, const WalkLimits& limits,
                 const std::function<bool(const CatalogEntry&)>& on_book,
                 const std::function<void(const WalkReport&, int books)>& on_progress,
                 WalkReport* report, std::string* error) {
  *report = WalkReport();
  // Three queues, read in this order: the next page of the list being read (so that a list
  // stays together), lists of books, and sections that lead to further sections.
  std::deque<std::string> pages{WithoutFragment(url)}, lists, sections;
  std::set<std::string> seen{pages.front()};
  std::set<std::string> books;
  auto visit = [&](const opds::Link& link, std::deque<std::string>* queue) {
    const std::string key = WithoutFragment(link.href);
    if (key.empty() || seen.count(key) != 0) return;
    if (static_cast<int>(seen.size()) >= limits.max_addresses) {
      report->limit_reached = true;
      return;
    }
    seen.insert(key);
    queue->push_back(key);
  };
  auto next_address = [&]() {
    std::deque<std::string>* queue = !pages.empty() ? &pages : !lists.empty() ? &lists : &sections;
    std::string address = queue->front();
    queue->pop_front();
    return address;
  };
  const auto deadline = std::chrono::steady_clock::now() + limits.max_time;
  while (!pages.empty() || !lists.empty() || !sections.empty()) {
    if (report->feeds_read + report->feeds_failed >= limits.max_feeds ||
        std::chrono::steady_clock::now() >= deadline) {
      report->limit_reached = true;
      break;
    }
    const std::string address = next_address();
    opds::Feed feed;
    std::string feed_error;
    opds::FetchFailure failure = opds::FetchFailure::kNone;
    if (!opds::FetchFeed(address, &feed, &feed_error, opds::FetchOptions(), &failure)) {
      if (report->feeds_read + report->feeds_failed == 0) {
        report->root_failure = failure;
        *error = feed_error;
        return false;
      }
      if (report->first_failure.empty()) report->first_failure = feed_error;
      ++report->feeds_failed;
      continue;
    }
    ++report->feeds_read;
    seen.insert(WithoutFragment(feed.url));  // where a redirect led
    for (const opds::Entry& entry : feed.entries) {
      if (!IsBook(entry)) {
        const opds::Link* link = entry.NavigationLink();
        if (link != nullptr) {
          visit(*link,
                link->type.find("kind=acquisition") != std::string::npos ? &lists : &sections);
        }
        continue;
      }
      const CatalogEntry book = ToCatalogEntry(entry);
      if (!books.insert(book.ean).second) continue;
      if (!on_book(book)) {
        if (on_progress) on_progress(*report, static_cast<int>(books.size()));
        return true;
      }
      if (static_cast<int>(books.size()) >= limits.max_books) {
        report->limit_reached = true;
        if (on_progress) on_progress(*report, static_cast<int>(books.size()));
        return true;
      }
    }
    if (const opds::Link* next = feed.FindLink(opds::rel::kNext)) visit(*next, &pages);
    if (on_progress) on_progress(*report, static_cast<int>(books.size()));
  }
  return true;
}

bool FindInCatalog(const std::string& url, const std::string& ean, CatalogEntry* found,
                   std::string* error, opds::FetchFailure* failure) {
  error->clear();
  *failure = opds::FetchFailure::kNone;
  if (url.empty()) {
    *error = "the shop configuration names no catalogue";
    *failure = opds::FetchFailure::kTransfer;
    return false;
  }
  opds::Feed root;
  if (!opds::FetchFeed(url, &root, error, opds::FetchOptions(), failure)) return false;
  bool hit = false;
  auto match = [&](const CatalogEntry& book) {
    if (book.ean != ean) return true;
    *found = book;
    hit = true;
    return false;  // found: the walk may stop
  };
  std::string search_url, ignored;
  opds::Feed results;
  if (opds::SearchUrl(root, ean, &search_url, &ignored) &&
      opds::FetchFeed(search_url, &results, &ignored)) {
    for (const opds::Entry& entry : results.entries) {
      if (IsBook(entry) && !match(ToCatalogEntry(entry))) return true;
    }
  }
  WalkReport report;
  if (!WalkCatalog(root.url, WalkLimits(), match, nullptr, &report, error)) {
    *failure = report.root_failure;
    return false;
  }
  return hit;
}

bool FetchCatalog(const std::string& url, std::vector<CatalogEntry>* entries, std::string* error) {
  if (url.empty()) {
    *error = "the shop configuration names no catalogue";
    return false;
  }
  entries->clear();
  WalkReport report;
  return WalkCatalog(
      url, WalkLimits(),
      [entries](const CatalogEntry& book) {
        entries->push_back(book);
        return true;
      },
      nullptr, &report, error);
}

}  // namespace vistrel_cli
