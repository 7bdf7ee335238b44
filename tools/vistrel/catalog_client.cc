#include "catalog_client.h"

#include <curl/curl.h>
#include <json/reader.h>
#include <json/value.h>

#include <cmath>
#include <memory>
#include <vector>

#include "nbutils/http_request.h"

namespace vistrel_cli {

using norbel::vistrel::Book;

Book CatalogEntry::ToBook() const {
  Book book;
  book.string_props_[Book::Ean] = ean;
  book.string_props_[Book::Title] = title;
  book.string_props_[Book::Author] = author;
  book.string_props_[Book::EbookType] = format;
  book.int_props_[Book::Price] = price_cents;
  book.int_props_[Book::Quantity] = 1;
  book.int_props_[Book::IsEbook] = 1;
  return book;
}

bool FetchCatalog(const std::string& url, std::vector<CatalogEntry>* entries, std::string* error) {
  if (url.empty()) {
    *error = "the shop configuration names no catalogue";
    return false;
  }
  // The device's runner: http(s) only, a size cap, TLS verified, no redirects.
  norbel::utilities::HttpRequest request("GET", url);
  norbel::utilities::HttpRequestRunner runner;
  long status = 0;
  std::vector<char> answer;
  const int code = runner.PerformRequest(request, &status, &answer, 30);
  if (code != 0 || status != 200) {
    *error = "cannot fetch the catalogue " + url + ": " +
             (code != 0 ? curl_easy_strerror(static_cast<CURLcode>(code))
                        : "status " + std::to_string(status));
    return false;
  }
  const std::string body(answer.begin(), answer.end());
  Json::Value root;
  Json::CharReaderBuilder builder;
  std::string parse_error;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(body.data(), body.data() + body.size(), &root, &parse_error) ||
      !root.isArray()) {
    *error = "the catalogue " + url + " is not a JSON list";
    return false;
  }
  entries->clear();
  for (const Json::Value& item : root) {
    if (!item.isObject()) continue;
    CatalogEntry entry;
    entry.ean = item["ean"].isString() ? item["ean"].asString() : "";
    entry.title = item["title"].isString() ? item["title"].asString() : "";
    entry.author = item["author"].isString() ? item["author"].asString() : "";
    entry.format = item["format"].isString() ? item["format"].asString() : "";
    entry.price_cents =
        item["price"].isNumeric() ? std::llround(item["price"].asDouble() * 100.0) : 0;
    if (!entry.ean.empty()) entries->push_back(entry);
  }
  return true;
}

}  // namespace vistrel_cli
