#include "nbutils/url.h"

#include <curl/curl.h>

#include <memory>

namespace norbel {
namespace utilities {
namespace {

struct UrlDeleter {
  void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
using UrlHandle = std::unique_ptr<CURLU, UrlDeleter>;

// One part of a parsed address; "" when the address has none.
std::string GetPart(CURLU* handle, CURLUPart part, unsigned int flags) {
  char* text = nullptr;
  if (curl_url_get(handle, part, &text, flags) != CURLUE_OK || text == nullptr) {
    return std::string();
  }
  std::string result(text);
  curl_free(text);
  return result;
}

// Percent-decodes one name or value of a query; curl's query decoding also reads "+" as a
// blank. False when the text does not decode (curl refuses encoded control characters).
bool DecodeQueryText(const std::string& text, std::string* decoded) {
  decoded->clear();
  if (text.empty()) return true;
  UrlHandle handle(curl_url());
  if (!handle || curl_url_set(handle.get(), CURLUPART_QUERY, text.c_str(), 0) != CURLUE_OK) {
    return false;
  }
  char* result = nullptr;
  if (curl_url_get(handle.get(), CURLUPART_QUERY, &result, CURLU_URLDECODE) != CURLUE_OK ||
      result == nullptr) {
    return false;
  }
  decoded->assign(result);
  curl_free(result);
  return true;
}

}  // namespace

Url::Url(const std::string& url) : url_(url) {
  UrlHandle handle(curl_url());
  if (!handle || curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) {
    return;
  }
  valid_ = true;
  scheme_ = GetPart(handle.get(), CURLUPART_SCHEME, 0);
  host_ = GetPart(handle.get(), CURLUPART_HOST, 0);
  path_ = GetPart(handle.get(), CURLUPART_PATH, 0);
  query_ = GetPart(handle.get(), CURLUPART_QUERY, 0);
}

std::string Url::Resolve(const std::string& location) const {
  // An empty Location names no address; curl would make it the base's folder.
  if (!valid_ || location.empty()) return std::string();
  UrlHandle handle(curl_url());
  if (!handle || curl_url_set(handle.get(), CURLUPART_URL, url_.c_str(), 0) != CURLUE_OK) {
    return std::string();
  }
  // With a base in the handle, curl resolves a relative location against it.
  if (curl_url_set(handle.get(), CURLUPART_URL, location.c_str(), 0) != CURLUE_OK) {
    return std::string();
  }
  return GetPart(handle.get(), CURLUPART_URL, 0);
}

std::map<std::string, std::string> Url::ParseQuery(const std::string& query) {
  std::map<std::string, std::string> result;
  size_t start = 0;
  while (start <= query.size()) {
    size_t end = query.find('&', start);
    if (end == std::string::npos) end = query.size();
    std::string part = query.substr(start, end - start);
    start = end + 1;
    if (part.empty()) continue;
    size_t equals = part.find('=');
    std::string name;
    std::string value;
    if (!DecodeQueryText(part.substr(0, equals), &name)) continue;
    if (equals != std::string::npos && !DecodeQueryText(part.substr(equals + 1), &value)) {
      continue;
    }
    result.emplace(name, value);  // keeps the first value of a repeated name
  }
  return result;
}

}  // namespace utilities
}  // namespace norbel
