// The demo shop's catalogue as OPDS: the books of DemoCatalog() as an OPDS 1.2 Atom catalogue
// under /opds/ and the same books as an OPDS 2.0 catalogue under /opds2/.
//
//   /opds/                    navigation root (all books, by format, search)
//   /opds/books?page=N        every book, two to a page, with first/previous/next/last links
//   /opds/epub, /opds/pdf     the books of one format
//   /opds/opensearch.xml      OpenSearch description (an HTML template first, then the OPDS one)
//   /opds/search?q=TEXT       books whose title or author contains TEXT (ignoring case)
//   /opds/cover/<ean>.bmp     cover pictures (the thumbnail is the same picture)
//   /opds2/                   OPDS 2.0: navigation and every publication, a {?query} search
//   /opds2/search?query=TEXT  OPDS 2.0 search results
#ifndef TOOLS_DEMO_SHOP_DEMO_OPDS_H_
#define TOOLS_DEMO_SHOP_DEMO_OPDS_H_

#include <map>
#include <string>

namespace vistrel_demo {

struct OpdsAnswer {
  int status = 404;
  std::string body;
  std::string content_type = "text/plain";
};

// The answer for a GET of `path` (beginning with "/opds/" or "/opds2/") with the query
// parameters `params`; `base_url` is the shop's "http://127.0.0.1:<port>".
OpdsAnswer CatalogAnswer(const std::string& base_url, const std::string& path,
                         const std::map<std::string, std::string>& params);

}  // namespace vistrel_demo

#endif  // TOOLS_DEMO_SHOP_DEMO_OPDS_H_
