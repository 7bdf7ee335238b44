// The demo shop's catalogue: four short books with texts of our own.
#ifndef TOOLS_DEMO_SHOP_DEMO_CATALOG_H_
#define TOOLS_DEMO_SHOP_DEMO_CATALOG_H_

#include <string>
#include <vector>

namespace vistrel_demo {

struct CatalogBook {
  std::string ean;
  std::string title;
  std::string author;
  std::string language;      // "en", "de", ...
  std::string format;        // as the shop names it: "EPUB", "PDF"
  std::string content_type;  // what the file host declares
  std::string extension;     // of the file on the host, without the dot
  int price_cents;
  std::vector<std::string> paragraphs;
};

// In a fixed order: two EPUBs, a PDF, and an EPUB that the file host sends as
// "application/force-download".
const std::vector<CatalogBook>& DemoCatalog();
// Null when the catalogue has no book with this EAN.
const CatalogBook* FindCatalogBook(const std::string& ean);

}  // namespace vistrel_demo

#endif  // TOOLS_DEMO_SHOP_DEMO_CATALOG_H_
