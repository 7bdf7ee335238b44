// Reads the shop's catalogue, the JSON list that the demo shop publishes as its
// clientOPDSCatalogUrl: [{"ean", "title", "author", "format", "language", "price"}, ...].
#ifndef TOOLS_VISTREL_CATALOG_CLIENT_H_
#define TOOLS_VISTREL_CATALOG_CLIENT_H_

#include <string>
#include <vector>

#include "vistrel_store/book.h"

namespace vistrel_cli {

struct CatalogEntry {
  std::string ean;
  std::string title;
  std::string author;
  std::string format;
  int64_t price_cents = 0;

  // The record the cart takes: Ean, Title, Author, EbookType, Price, Quantity 1, IsEbook 1.
  norbel::vistrel::Book ToBook() const;
};

// False with *error set when the catalogue cannot be fetched or read.
bool FetchCatalog(const std::string& url, std::vector<CatalogEntry>* entries, std::string* error);

}  // namespace vistrel_cli

#endif  // TOOLS_VISTREL_CATALOG_CLIENT_H_
