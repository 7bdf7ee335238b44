#include "opdsmodel/feed_reader.h"

#include <expat.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>

#include "reader_support.h"

namespace norbel {
namespace opds {
namespace {

constexpr char kOpenSearchNs[] = "http://a9.com/-/spec/opensearch/1.1/";

bool Contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

std::string PercentEncode(const std::string& text) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

// The OpenSearch Url elements of a description document, each with a score for how well it
// answers with an OPDS feed (0: not at all).
class DescriptionReader {
 public:
  static void XMLCALL OnStart(void* self, const char* name, const char** attributes) {
    static_cast<DescriptionReader*>(self)->Start(name, attributes);
  }
  static void XMLCALL OnEnd(void* self, const char*) {
    --static_cast<DescriptionReader*>(self)->depth_;
  }

  // A description that declares entities is not read (they could expand without bound).
  static void XMLCALL OnEntityDeclaration(void* self, const XML_Char*, int, const XML_Char*, int,
                                          const XML_Char*, const XML_Char*, const XML_Char*,
                                          const XML_Char*) {
    auto* reader = static_cast<DescriptionReader*>(self);
    reader->best_.clear();
    reader->refused_ = true;
    XML_StopParser(reader->parser_, XML_FALSE);
  }

  void Start(const char* name, const char** attributes) {
    if (++depth_ > 16 || urls_ > 64 || refused_) return;
    // The Url element, also from a description that forgot the OpenSearch namespace.
    const char* separator = std::strchr(name, '\x01');
    const char* local = separator == nullptr ? name : separator + 1;
    if (std::strcmp(local, "Url") != 0 ||
        (separator != nullptr && std::string(name, separator) != kOpenSearchNs)) {
      return;
    }
    ++urls_;
    std::string type, url_template, relation;
    for (int i = 0; attributes[i] != nullptr; i += 2) {
      if (!std::strcmp(attributes[i], "type")) type = attributes[i + 1];
      if (!std::strcmp(attributes[i], "template")) url_template = attributes[i + 1];
      if (!std::strcmp(attributes[i], "rel")) relation = attributes[i + 1];
    }
    if (url_template.empty() || (!relation.empty() && relation != "results")) return;
    int score = 0;
    if (Contains(type, "profile=opds-catalog")) {
      score = 3;
    } else if (Contains(type, "atom+xml") || Contains(type, "opds")) {
      score = 2;
    }
    if (score > best_score_) {
      best_score_ = score;
      best_ = url_template;
    }
  }

  XML_Parser parser_ = nullptr;
  bool refused_ = false;
  int depth_ = 0;
  int urls_ = 0;
  int best_score_ = 0;
  std::string best_;
};

struct ParserDeleter {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};

// The default of an OpenSearch parameter that the caller does not set; "" leaves it out.
std::string ParameterDefault(const std::string& name) {
  if (name == "count") return "20";
  if (name == "startIndex" || name == "startPage") return "1";
  if (name == "language") return "*";
  if (name == "inputEncoding" || name == "outputEncoding") return "UTF-8";
  return std::string();
}

}  // namespace

Format DetectFormat(const std::string& content_type, std::string_view body) {
  if (Contains(content_type, "json")) return Format::kOpds2;
  if (Contains(content_type, "xml")) return Format::kAtom;
  const size_t first = body.find_first_not_of(" \t\r\n\xef\xbb\xbf");
  return first != std::string_view::npos && (body[first] == '{' || body[first] == '[')
             ? Format::kOpds2
             : Format::kAtom;
}

bool ParseFeed(std::string_view body, const std::string& base_url, Feed* feed, std::string* error,
               const Limits& limits) {
  return DetectFormat(std::string(), body) == Format::kOpds2
             ? ParseOpds2Feed(body, base_url, feed, error, limits)
             : ParseAtomFeed(body, base_url, feed, error, limits);
}

bool ParseOpenSearchDescription(std::string_view body, const std::string& base_url,
                                std::string* url_template) {
  std::unique_ptr<XML_ParserStruct, ParserDeleter> parser(XML_ParserCreateNS(nullptr, '\x01'));
  if (!parser) return false;
  DescriptionReader reader;
  reader.parser_ = parser.get();
  XML_SetUserData(parser.get(), &reader);
  XML_SetElementHandler(parser.get(), DescriptionReader::OnStart, DescriptionReader::OnEnd);
  XML_SetEntityDeclHandler(parser.get(), DescriptionReader::OnEntityDeclaration);
  // A description is small; anything past 1 MiB is not one.
  const size_t length = std::min<size_t>(body.size(), 1 << 20);
  XML_Parse(parser.get(), body.data(), static_cast<int>(length), XML_TRUE);
  if (reader.refused_ || reader.best_.empty()) return false;
  *url_template = Resolver(base_url).Resolve(reader.best_);
  return true;
}

namespace {

// Some servers percent-encode the braces of "{searchTerms}" in their links.
std::string DecodedTemplate(std::string url_template) {
  for (const char* encoded : {"%7BsearchTerms%7D", "%7bsearchTerms%7d"}) {
    for (size_t at = url_template.find(encoded); at != std::string::npos;
         at = url_template.find(encoded, at)) {
      url_template.replace(at, std::strlen(encoded), "{searchTerms}");
    }
  }
  return url_template;
}

}  // namespace

std::string FillSearchTemplate(const std::string& encoded_template, const std::string& terms) {
  const std::string url_template = DecodedTemplate(encoded_template);
  const std::string encoded = PercentEncode(terms);
  std::string url;
  size_t at = 0;
  while (at < url_template.size()) {
    const size_t open = url_template.find('{', at);
    const size_t close = open == std::string::npos ? open : url_template.find('}', open);
    if (close == std::string::npos) {
      url.append(url_template, at, std::string::npos);
      break;
    }
    url.append(url_template, at, open - at);
    std::string name = url_template.substr(open + 1, close - open - 1);
    at = close + 1;
    if (!name.empty() && (name[0] == '?' || name[0] == '&')) {
      // URI template form-style query: only the search variable gets a value.
      const char lead = name[0];
      size_t start = 1;
      while (start <= name.size()) {
        size_t comma = name.find(',', start);
        if (comma == std::string::npos) comma = name.size();
        const std::string variable = name.substr(start, comma - start);
        if (variable == "query" || variable == "searchTerms" || variable == "q") {
          url += lead;
          url += variable;
          url += '=';
          url += encoded;
          break;
        }
        start = comma + 1;
      }
      continue;
    }
    const bool optional = !name.empty() && name.back() == '?';
    if (optional) name.pop_back();
    if (name == "searchTerms" || name == "query") {
      url += encoded;
    } else if (!optional && name.find(':') == std::string::npos) {
      url += ParameterDefault(name);
    }
  }
  return url;
}

bool IsSearchTemplate(const std::string& href) {
  return Contains(href, "{searchTerms") || Contains(href, "{?") || Contains(href, "{&") ||
         Contains(DecodedTemplate(href), "{searchTerms}");
}

}  // namespace opds
}  // namespace norbel
