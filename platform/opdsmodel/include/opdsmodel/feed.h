// An OPDS catalogue as plain values: a feed with its links and entries, read from OPDS 1.2
// (Atom) or OPDS 2.0 (JSON) by opdsmodel/feed_reader.h and fetched by opdsmodel/feed_fetch.h.
//
// A feed is either a navigation feed (entries that lead to other feeds) or an acquisition feed
// (entries that are publications with acquisition links); servers mix both, so every entry
// tells for itself. Every address in the model is absolute: relative links are resolved
// against the address the feed was read from when it is read (a link that cannot be resolved,
// because that address is not an absolute one, stays as the server wrote it).
//
//   norbel::opds::Feed feed;
//   std::string error;
//   if (!norbel::opds::FetchFeed("https://books.example/opds", &feed, &error)) { ... }
//   for (const norbel::opds::Entry& entry : feed.entries) {
//     if (const norbel::opds::Link* section = entry.NavigationLink()) { /* a sub-catalogue */ }
//     else { /* a book: entry.Ean(), entry.title, entry.AcquisitionLinks() */ }
//   }
//   const norbel::opds::Link* next_page = feed.FindLink(norbel::opds::rel::kNext);
#ifndef OPDSMODEL_FEED_H_
#define OPDSMODEL_FEED_H_

#include <boost/ptr_container/ptr_vector.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "opdsmodel/indirect_acquisition.h"

namespace norbel {
namespace opds {

// Link relations as OPDS and Atom name them. A missing rel in Atom means "alternate".
namespace rel {
constexpr const char kSelf[] = "self";
constexpr const char kStart[] = "start";
constexpr const char kUp[] = "up";
constexpr const char kNext[] = "next";
constexpr const char kPrevious[] = "previous";
constexpr const char kFirst[] = "first";
constexpr const char kLast[] = "last";
constexpr const char kSearch[] = "search";
constexpr const char kSubsection[] = "subsection";
constexpr const char kAcquisition[] = "http://opds-spec.org/acquisition";
constexpr const char kOpenAccess[] = "http://opds-spec.org/acquisition/open-access";
constexpr const char kBuy[] = "http://opds-spec.org/acquisition/buy";
constexpr const char kBorrow[] = "http://opds-spec.org/acquisition/borrow";
constexpr const char kSubscribe[] = "http://opds-spec.org/acquisition/subscribe";
constexpr const char kSample[] = "http://opds-spec.org/acquisition/sample";
constexpr const char kImage[] = "http://opds-spec.org/image";
constexpr const char kThumbnail[] = "http://opds-spec.org/image/thumbnail";
constexpr const char kFacet[] = "http://opds-spec.org/facet";
}  // namespace rel

// One format nested inside an acquisition: what the acquired resource leads to (an Adobe
// ticket that yields an EPUB, say). Nesting can repeat.
struct IndirectType {
  std::string type;  // MIME type
  std::vector<IndirectType> nested;
};

// A link of a feed or an entry.
struct Link {
  std::string href;  // absolute; a search template keeps its "{searchTerms}" or "{?query}"
  std::string rel;   // as the server wrote it ("" for none); see IsAcquisition()
  std::string type;  // MIME type with its parameters, "" when not given
  std::string title;
  std::string price;        // the acquisition's price as written ("4.99"), "" when none
  std::string currency;     // ISO 4217 code of the price ("EUR"), "" when none
  std::string facet_group;  // the facet group of a facet link
  bool active_facet = false;
  std::vector<IndirectType> indirect;  // formats nested in this acquisition

  // True for every acquisition relation: acquisition, open-access, buy, borrow, subscribe
  // and sample (and any other "http://opds-spec.org/acquisition/..." relation).
  bool IsAcquisition() const;
  // The price in cents (4.99 -> 499); -1 when there is no price or it is not a number.
  int64_t PriceCents() const;
};

struct Author {
  std::string name;
  std::string uri;
};

struct Category {
  std::string term;
  std::string label;
  std::string scheme;
};

// An entry of a feed: a publication, or a navigation entry leading to another feed.
struct Entry {
  std::string id;
  std::string title;
  std::vector<Author> authors;
  // dc:identifier values in document order, as written ("urn:isbn:9783980000109",
  // "urn:uuid:...", a plain EAN).
  std::vector<std::string> identifiers;
  std::string language;
  // Plain text: HTML and XHTML markup is reduced to its text, blanks collapsed.
  std::string summary;
  std::string content;
  std::string issued;   // dc:issued / published, as written
  std::string updated;  // as written
  std::string publisher;
  std::vector<Category> categories;
  std::vector<Link> links;

  // The book's EAN: the first identifier that is an ISBN ("urn:isbn:", "isbn:" or a bare
  // ISBN, hyphens removed), else the first other identifier, else the entry's id. The
  // shop's book records are keyed by it.
  std::string Ean() const;
  // The ISBN alone (digits, maybe a final X), "" when the entry publishes none.
  std::string Isbn() const;
  // The authors' names joined with ", ".
  std::string AuthorNames() const;
  // The entry's acquisition links (see Link::IsAcquisition), in document order.
  std::vector<const Link*> AcquisitionLinks() const;
  // The link that leads to another catalogue feed: null for a publication (an entry with an
  // acquisition link) and when there is none.
  const Link* NavigationLink() const;
  // The price of the book: that of the first acquisition link with a price, preferring buy
  // links (a sample listed first costs nothing). Null when no link has one.
  const Link* PriceLink() const;
  // The cover and its thumbnail (also under the relations of older catalogues); null when
  // missing.
  const Link* Cover() const;
  const Link* Thumbnail() const;
};

// A feed (an OPDS 1.2 Atom feed, or an OPDS 2.0 collection with its groups flattened).
struct Feed {
  std::string url;  // the address the feed was read from, the base of its links
  std::string id;
  std::string title;
  std::string updated;
  std::vector<Link> links;  // self, start, up, next/previous/first/last, search, facets, ...
  std::vector<Entry> entries;
  // True when the reader stopped before the end because the feed passed one of the
  // reader's limits (opds::Limits); what was read before stays.
  bool truncated = false;

  // The first feed link with this relation; null when none.
  const Link* FindLink(const std::string& relation) const;
  // The facet links (rel http://opds-spec.org/facet), in document order.
  std::vector<const Link*> Facets() const;
};

// The acquisitions of `entry` in the form the device's format lister (MakeFormat) reads:
// one OPDS::IndirectAcquisition per acquisition link except samples, holding the link's MIME
// type and, nested, its indirect acquisitions. Appended to `out`.
void AppendAcquisitions(const Entry& entry, boost::ptr_vector<OPDS::IndirectAcquisition>* out);

}  // namespace opds
}  // namespace norbel

#endif  // OPDSMODEL_FEED_H_
