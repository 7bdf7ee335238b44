#include "catalog_client.h"

#include <curl/curl.h>
#include <json/reader.h>
#include <json/value.h>

#include <cmath>
#include <memory>

namespace vistrel_cli {

using norbel::vistrel::Book;

namespace {

size_t Collect(char* data, size_t size, size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

}  // namespace

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
  std::unique_ptr<CURL, void (*)(CURL*)> curl(curl_easy_init(), curl_easy_cleanup);
  if (!curl) {
    *error = "cannot start a transfer";
    return false;
  }
  std::string body;
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, Collect);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &body);
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 30L);
  curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  const CURLcode code = curl_easy_perform(curl.get());
  long status = 0;
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
  if (code != CURLE_OK || status != 200) {
    *error = "cannot fetch the catalogue " + url + ": " +
             (code != CURLE_OK ? curl_easy_strerror(code) : "status " + std::to_string(status));
    return false;
  }
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
