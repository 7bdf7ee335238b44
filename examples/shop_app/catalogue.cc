#include "catalogue.h"

#include <cstdio>
#include <deque>
#include <map>
#include <set>
#include <sstream>

#include "opdsmodel/feed_fetch.h"
#include "vistrel_store/make_format.h"

namespace shop_app {

using norbel::vistrel::Book;
namespace opds = norbel::opds;

namespace {

constexpr int kMaxFeeds = 40;

Book BookFromEntry(const opds::Entry& entry) {
  Book book;
  book.string_props_[Book::Ean] = entry.Ean();
  book.string_props_[Book::Title] = entry.title;
  book.string_props_[Book::Author] = entry.AuthorNames();
  if (const opds::Link* thumbnail = entry.Thumbnail()) {
    book.string_props_[Book::Thumbnail] = thumbnail->href;
  }
  boost::ptr_vector<OPDS::IndirectAcquisition> acquisitions;
  opds::AppendAcquisitions(entry, &acquisitions);
  std::stringstream formats;
  bool adobe_ticket = false;
  norbel::vistrel::MakeFormat(formats, adobe_ticket, acquisitions);
  book.string_props_[Book::EbookType] = formats.str();
  const opds::Link* price = entry.PriceLink();
  book.int_props_[Book::Price] =
      price != nullptr && price->PriceCents() > 0 ? price->PriceCents() : 0;
  book.int_props_[Book::Quantity] = 1;
  book.int_props_[Book::IsEbook] = 1;
  return book;
}

Book BookWithEanOnly(const std::string& ean) {
  Book book;
  book.string_props_[Book::Ean] = ean;
  book.int_props_[Book::Quantity] = 1;
  book.int_props_[Book::IsEbook] = 1;
  return book;
}

// Walks the catalogue from `root` until every wanted EAN is found or the walk's bound is
// reached; found books land in `*found`.
void Walk(const std::string& root, const std::set<std::string>& wanted,
          std::map<std::string, Book>* found) {
  std::deque<std::string> queue = {root};
  std::set<std::string> seen = {root};
  auto enqueue = [&](const opds::Link* link) {
    if (link != nullptr && seen.insert(link->href).second) queue.push_back(link->href);
  };
  for (int fetched = 0; !queue.empty() && fetched < kMaxFeeds && found->size() < wanted.size();
       ++fetched) {
    opds::Feed feed;
    std::string error;
    if (!opds::FetchFeed(queue.front(), &feed, &error)) {
      std::fprintf(stderr, "[catalogue] %s\n", error.c_str());
    }
    queue.pop_front();
    for (const opds::Entry& entry : feed.entries) {
      if (const opds::Link* section = entry.NavigationLink()) {
        enqueue(section);
      } else if (wanted.count(entry.Ean()) != 0 && found->count(entry.Ean()) == 0) {
        found->emplace(entry.Ean(), BookFromEntry(entry));
      }
    }
    enqueue(feed.FindLink(opds::rel::kNext));
  }
}

}  // namespace

std::vector<Book> LoadCatalogue(norbel::vistrel::StoreManager* store,
                                const std::vector<std::string>& chosen) {
  std::map<std::string, Book> found;
  const std::string& root = store->config().clientOPDSCatalogUrl;
  if (!root.empty()) Walk(root, std::set<std::string>(chosen.begin(), chosen.end()), &found);
  std::vector<Book> books;
  for (const std::string& ean : chosen) {
    const auto it = found.find(ean);
    if (it == found.end()) {
      std::printf("[catalogue] %s: not in the catalogue, added by its EAN alone\n", ean.c_str());
      books.push_back(BookWithEanOnly(ean));
    } else {
      std::printf("[catalogue] %s: %s - %s [%s]\n", ean.c_str(),
                  it->second.string_props_[Book::Author].c_str(),
                  it->second.string_props_[Book::Title].c_str(),
                  it->second.string_props_[Book::EbookType].c_str());
      books.push_back(it->second);
    }
  }
  return books;
}

}  // namespace shop_app
