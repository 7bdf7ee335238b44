#include "demo_opds.h"

#include <json/value.h>
#include <json/writer.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <vector>

#include "book_files.h"
#include "demo_catalog.h"

namespace vistrel_demo {
namespace {

constexpr int kPageSize = 2;
constexpr char kUpdated[] = "2026-11-01T09:00:00Z";
constexpr char kNavigationType[] = "application/atom+xml;profile=opds-catalog;kind=navigation";
constexpr char kAcquisitionType[] = "application/atom+xml;profile=opds-catalog;kind=acquisition";

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string Price(const CatalogBook& book) {
  char text[32];
  std::snprintf(text, sizeof text, "%d.%02d", book.price_cents / 100, book.price_cents % 100);
  return text;
}

// The MIME type of the book's format (the file host may declare another one).
std::string FormatType(const CatalogBook& book) {
  return book.format == "PDF" ? "application/pdf" : "application/epub+zip";
}

std::string BookUuid(const CatalogBook& book) {
  return "urn:uuid:5f0c7e2a-0000-4000-8000-" + book.ean.substr(1);
}

std::vector<const CatalogBook*> Matching(const std::string& format, const std::string& terms) {
  std::vector<const CatalogBook*> books;
  const std::string needle = Lower(terms);
  for (const CatalogBook& book : DemoCatalog()) {
    if (!format.empty() && book.format != format) continue;
    if (!needle.empty() &&
        Lower(book.title + " " + book.author).find(needle) == std::string::npos) {
      continue;
    }
    books.push_back(&book);
  }
  return books;
}

// ---- OPDS 1.2 -------------------------------------------------------------------------------

std::string FeedHead(const std::string& id, const std::string& title, const std::string& self,
                     const char* kind) {
  std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  xml += "<feed xmlns=\"http://www.w3.org/2005/Atom\" xmlns:dc=\"http://purl.org/dc/terms/\"\n";
  xml += "      xmlns:opds=\"http://opds-spec.org/2010/catalog\">\n";
  xml += "  <id>urn:vistrel-demo:" + id + "</id>\n";
  xml += "  <title>" + XmlEscape(title) + "</title>\n";
  xml += std::string("  <updated>") + kUpdated + "</updated>\n";
  xml += "  <author><name>Vistrel Demo Shop</name></author>\n";
  xml += "  <link rel=\"self\" href=\"" + XmlEscape(self) + "\" type=\"" + kind + "\"/>\n";
  xml += std::string("  <link rel=\"start\" href=\"/opds/\" type=\"") + kNavigationType + "\"/>\n";
  xml += "  <link rel=\"search\" href=\"/opds/opensearch.xml\"";
  xml += " type=\"application/opensearchdescription+xml\"/>\n";
  return xml;
}

std::string NavigationEntry(const std::string& id, const std::string& title,
                            const std::string& href, const std::string& summary) {
  return "  <entry>\n    <id>urn:vistrel-demo:" + id + "</id>\n    <title>" + XmlEscape(title) +
         "</title>\n    <updated>" + kUpdated + "</updated>\n    <content type=\"text\">" +
         XmlEscape(summary) + "</content>\n    <link rel=\"subsection\" href=\"" + XmlEscape(href) +
         "\" type=\"" + kAcquisitionType + "\"/>\n  </entry>\n";
}

// A book as a shop publishes it: a uuid identifier before the ISBN, an HTML summary, cover
// and thumbnail, and a buy link with its price.
std::string BookEntry(const CatalogBook& book) {
  const std::string cover = "/opds/cover/" + book.ean + ".bmp";
  std::string xml = "  <entry>\n";
  xml += "    <id>urn:vistrel-demo:book:" + book.ean + "</id>\n";
  xml += "    <title>" + XmlEscape(book.title) + "</title>\n";
  xml += "    <author><name>" + XmlEscape(book.author) + "</name></author>\n";
  xml += std::string("    <updated>") + kUpdated + "</updated>\n";
  xml += "    <dc:identifier>" + BookUuid(book) + "</dc:identifier>\n";
  xml += "    <dc:identifier>urn:isbn:" + book.ean + "</dc:identifier>\n";
  xml += "    <dc:language>" + book.language + "</dc:language>\n";
  xml += "    <dc:issued>2026</dc:issued>\n";
  xml += "    <category term=\"fiction\" label=\"Fiction\"/>\n";
  xml += "    <summary type=\"html\">" + XmlEscape("<p>" + book.paragraphs[0] + "</p>") +
         "</summary>\n";
  xml +=
      "    <link rel=\"http://opds-spec.org/image\" href=\"" + cover + "\" type=\"image/bmp\"/>\n";
  xml += "    <link rel=\"http://opds-spec.org/image/thumbnail\" href=\"" + cover +
         "\" type=\"image/bmp\"/>\n";
  xml += "    <link rel=\"http://opds-spec.org/acquisition/buy\" href=\"/opds/book/" + book.ean +
         "\" type=\"" + FormatType(book) + "\">\n";
  xml += "      <opds:price currencycode=\"EUR\">" + Price(book) + "</opds:price>\n";
  xml += "    </link>\n";
  xml += "  </entry>\n";
  return xml;
}

OpdsAnswer Atom(const std::string& body) {
  OpdsAnswer answer;
  answer.status = 200;
  answer.body = body + "</feed>\n";
  answer.content_type = "application/atom+xml;profile=opds-catalog;charset=utf-8";
  return answer;
}

OpdsAnswer Root() {
  std::string feed = FeedHead("root", "Vistrel Demo Shop", "/opds/", kNavigationType);
  // Relative to the root's own address on purpose: readers must resolve them.
  feed += NavigationEntry("all", "All books", "books", "Every book of the shop, two to a page");
  feed += NavigationEntry("epub", "EPUB books", "epub", "Books delivered as EPUB");
  feed += NavigationEntry("pdf", "PDF books", "pdf", "Books delivered as PDF");
  return Atom(feed);
}

OpdsAnswer BookList(const std::string& id, const std::string& title, const std::string& self,
                    const std::vector<const CatalogBook*>& books) {
  std::string feed = FeedHead(id, title, self, kAcquisitionType);
  feed += "  <link rel=\"up\" href=\"/opds/\" type=\"" + std::string(kNavigationType) + "\"/>\n";
  for (const CatalogBook* book : books) feed += BookEntry(*book);
  return Atom(feed);
}

OpdsAnswer Page(const std::map<std::string, std::string>& params) {
  const std::vector<const CatalogBook*> all = Matching("", "");
  const int pages = static_cast<int>((all.size() + kPageSize - 1) / kPageSize);
  int page = 1;
  auto it = params.find("page");
  if (it != params.end()) page = std::atoi(it->second.c_str());
  if (page < 1 || page > pages) return OpdsAnswer();
  auto link = [](const char* relation, int number) {
    return "  <link rel=\"" + std::string(relation) +
           "\" href=\"books?page=" + std::to_string(number) + "\" type=\"" + kAcquisitionType +
           "\"/>\n";
  };
  std::string feed =
      FeedHead("all", "All books", "books?page=" + std::to_string(page), kAcquisitionType);
  feed += "  <link rel=\"up\" href=\"/opds/\" type=\"" + std::string(kNavigationType) + "\"/>\n";
  feed += link("first", 1) + link("last", pages);
  if (page > 1) feed += link("previous", page - 1);
  if (page < pages) feed += link("next", page + 1);
  const size_t first = static_cast<size_t>(page - 1) * kPageSize;
  for (size_t i = first; i < all.size() && i < first + kPageSize; ++i) {
    feed += BookEntry(*all[i]);
  }
  return Atom(feed);
}

OpdsAnswer OpenSearch() {
  OpdsAnswer answer;
  answer.status = 200;
  answer.content_type = "application/opensearchdescription+xml";
  answer.body =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<OpenSearchDescription xmlns=\"http://a9.com/-/spec/opensearch/1.1/\">\n"
      "  <ShortName>Vistrel Demo</ShortName>\n"
      "  <Description>Search the demo shop by title or author</Description>\n"
      "  <InputEncoding>UTF-8</InputEncoding>\n"
      "  <Url type=\"text/html\" template=\"/shop/search?q={searchTerms}\"/>\n"
      "  <Url type=\"application/atom+xml;profile=opds-catalog;kind=acquisition\"\n"
      "       template=\"/opds/search?q={searchTerms}&amp;page={startPage?}\"/>\n"
      "</OpenSearchDescription>\n";
  return answer;
}

// ---- OPDS 2.0 -------------------------------------------------------------------------------

Json::Value Link2(const std::string& href, const std::string& type, const std::string& relation) {
  Json::Value link(Json::objectValue);
  link["href"] = href;
  link["type"] = type;
  if (!relation.empty()) link["rel"] = relation;
  return link;
}

Json::Value Publication(const CatalogBook& book) {
  Json::Value publication(Json::objectValue);
  Json::Value& metadata = publication["metadata"];
  metadata["@type"] = "http://schema.org/EBook";
  metadata["identifier"] = "urn:isbn:" + book.ean;
  metadata["title"] = book.title;
  metadata["author"] = book.author;  // a plain string; objects and lists are allowed too
  metadata["language"] = book.language;
  metadata["description"] = book.paragraphs[0];
  Json::Value buy =
      Link2("/opds/book/" + book.ean, FormatType(book), "http://opds-spec.org/acquisition/buy");
  buy["properties"]["price"]["value"] = book.price_cents / 100.0;
  buy["properties"]["price"]["currency"] = "EUR";
  publication["links"].append(buy);
  publication["images"].append(Link2("/opds/cover/" + book.ean + ".bmp", "image/bmp", ""));
  return publication;
}

OpdsAnswer Json2(const Json::Value& root) {
  Json::StreamWriterBuilder builder;
  builder["precision"] = 10;
  OpdsAnswer answer;
  answer.status = 200;
  answer.body = Json::writeString(builder, root);
  answer.content_type = "application/opds+json";
  return answer;
}

Json::Value Collection2(const std::string& title, const std::string& self) {
  Json::Value root(Json::objectValue);
  root["metadata"]["title"] = title;
  root["links"].append(Link2(self, "application/opds+json", "self"));
  root["links"].append(Link2("/opds2/", "application/opds+json", "start"));
  Json::Value search = Link2("/opds2/search{?query}", "application/opds+json", "search");
  search["templated"] = true;
  root["links"].append(search);
  return root;
}

OpdsAnswer Root2() {
  Json::Value root = Collection2("Vistrel Demo Shop", "/opds2/");
  Json::Value navigation = Link2("/opds2/books", "application/opds+json", "");
  navigation["title"] = "All books";
  root["navigation"].append(navigation);
  Json::Value group(Json::objectValue);
  group["metadata"]["title"] = "New";
  for (const CatalogBook* book : Matching("", "")) group["publications"].append(Publication(*book));
  root["groups"].append(group);
  return Json2(root);
}

OpdsAnswer Books2() {
  Json::Value root = Collection2("All books", "/opds2/books");
  for (const CatalogBook* book : Matching("", "")) root["publications"].append(Publication(*book));
  return Json2(root);
}

OpdsAnswer Search2(const std::string& terms) {
  Json::Value root = Collection2("Search", "/opds2/search");
  root["publications"] = Json::Value(Json::arrayValue);
  for (const CatalogBook* book : Matching("", terms))
    root["publications"].append(Publication(*book));
  return Json2(root);
}

std::string Param(const std::map<std::string, std::string>& params, const char* name) {
  auto it = params.find(name);
  return it == params.end() ? std::string() : it->second;
}

}  // namespace

OpdsAnswer CatalogAnswer(const std::string& base_url, const std::string& path,
                         const std::map<std::string, std::string>& params) {
  (void)base_url;  // every address in the feeds is relative to the shop's own
  if (path == "/opds/" || path == "/opds") return Root();
  if (path == "/opds/books") return Page(params);
  if (path == "/opds/epub") return BookList("epub", "EPUB books", "epub", Matching("EPUB", ""));
  if (path == "/opds/pdf") return BookList("pdf", "PDF books", "pdf", Matching("PDF", ""));
  if (path == "/opds/opensearch.xml") return OpenSearch();
  if (path == "/opds/search") {
    return BookList("search", "Search results", "search", Matching("", Param(params, "q")));
  }
  const std::string cover = "/opds/cover/";
  if (path.compare(0, cover.size(), cover) == 0) {
    if (FindCatalogBook(path.substr(cover.size(), 13)) == nullptr) return OpdsAnswer();
    OpdsAnswer answer;
    answer.status = 200;
    answer.body = MakeStandbyBmp(60, 90);
    answer.content_type = "image/bmp";
    return answer;
  }
  if (path == "/opds2/" || path == "/opds2") return Root2();
  if (path == "/opds2/books") return Books2();
  if (path == "/opds2/search") return Search2(Param(params, "query"));
  const std::string book = "/opds/book/";
  if (path.compare(0, book.size(), book) == 0 && FindCatalogBook(path.substr(book.size()))) {
    OpdsAnswer answer;
    answer.status = 200;
    answer.body =
        "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>Buy</title></head>\n"
        "<body><p>This book is sold through the shop's application.</p></body></html>\n";
    answer.content_type = "text/html";
    return answer;
  }
  return OpdsAnswer();
}

}  // namespace vistrel_demo
