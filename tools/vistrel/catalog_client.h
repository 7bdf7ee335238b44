// The shop's OPDS catalogue as the tool uses it: books as cart records, and walks through
// navigation and pagination that stay bounded and never visit a feed twice.
#ifndef TOOLS_VISTREL_CATALOG_CLIENT_H_
#define TOOLS_VISTREL_CATALOG_CLIENT_H_

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "opdsmodel/feed.h"
#include "opdsmodel/feed_fetch.h"
#include "vistrel_store/book.h"

namespace vistrel_cli {

// A book of the catalogue.
struct CatalogEntry {
  std::string ean;  // the ISBN as EAN-13, else the entry's identifier
  std::string title;
  std::string author;
  std::string format;  // as MakeFormat writes the acquisitions: "EPUB,PDF"
  bool adobe_ticket = false;
  int64_t price_cents = -1;  // -1: no price published
  std::string currency;
  std::string thumbnail;  // address of the thumbnail (or the cover), "" when none

  // The record the cart takes: Ean, Title, Author, EbookType, Thumbnail, Price (0 when
  // none), Quantity 1, IsEbook 1.
  norbel::vistrel::Book ToBook() const;
};

// The book that an OPDS entry describes.
CatalogEntry ToCatalogEntry(const norbel::opds::Entry& entry);
// True when the entry is a book (it has an acquisition link), not a navigation entry.
bool IsBook(const norbel::opds::Entry& entry);

struct WalkLimits {
  int max_feeds = 1000;       // feeds fetched, pages included
  int max_books = 50000;      // distinct books listed
  int max_addresses = 20000;  // feed addresses remembered (read or waiting)
  // No feed is fetched after this long (each fetch has its own limit of 30 s besides).
  std::chrono::seconds max_time{600};
};

// What a walk saw; `on_book` may end it early by returning false.
struct WalkReport {
  int feeds_read = 0;
  int feeds_failed = 0;
  bool limit_reached = false;  // stopped by WalkLimits, not by the end of the catalogue
  std::string first_failure;   // the first feed that could not be read, with the reason
  // Why the first feed could not be read (kNone when it was).
  norbel::opds::FetchFailure root_failure = norbel::opds::FetchFailure::kNone;
};

// Walks the catalogue from `url`: every navigation entry and every next page, each address
// once: a list's pages one after the other, then lists of books (acquisition feeds) before
// sections of sections (start, up and self links
// are not followed: they lead back). Calls `on_book` for every distinct book (by EAN) and
// `on_progress` after every feed. False with *error set only when the first feed cannot be read;
// later failures are counted.
bool WalkCatalog(const std::string& url, const WalkLimits& limits,
                 const std::function<bool(const CatalogEntry&)>& on_book,
                 const std::function<void(const WalkReport&, int books)>& on_progress,
                 WalkReport* report, std::string* error);

// Finds the book with `ean` in the catalogue at `url`: through the catalogue's search when it
// has one (searching for the EAN), else, or when the search does not find it, by a walk.
// Returns false with *error empty when the catalogue was read but holds no such book, and
// false with *error set (and *failure telling why) when the catalogue cannot be read.
bool FindInCatalog(const std::string& url, const std::string& ean, CatalogEntry* found,
                   std::string* error, norbel::opds::FetchFailure* failure);

// Every book of the catalogue (a walk with the default limits).
bool FetchCatalog(const std::string& url, std::vector<CatalogEntry>* entries, std::string* error);

}  // namespace vistrel_cli

#endif  // TOOLS_VISTREL_CATALOG_CLIENT_H_
