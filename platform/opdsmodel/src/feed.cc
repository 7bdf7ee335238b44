#include "opdsmodel/feed.h"

#include <cctype>

namespace norbel {
namespace opds {
namespace {

bool StartsWithNoCase(const std::string& text, const std::string& prefix) {
  if (text.size() < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(text[i])) != prefix[i]) return false;
  }
  return true;
}

bool Contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

// Digits (and a final X of an ISBN-10) without hyphens and blanks; "" when `text` is not an
// ISBN-10 or ISBN-13 in form.
std::string NormalizedIsbn(const std::string& text) {
  std::string digits;
  for (char c : text) {
    if (c == '-' || c == ' ') continue;
    if (std::isdigit(static_cast<unsigned char>(c))) {
      digits += c;
    } else if ((c == 'X' || c == 'x') && digits.size() == 9) {
      digits += 'X';
    } else {
      return std::string();
    }
  }
  return digits.size() == 10 || digits.size() == 13 ? digits : std::string();
}

std::string IsbnOf(const std::string& identifier) {
  for (const char* prefix : {"urn:isbn:", "isbn:"}) {
    if (StartsWithNoCase(identifier, prefix)) {
      return NormalizedIsbn(identifier.substr(std::char_traits<char>::length(prefix)));
    }
  }
  // A bare number is an ISBN only when it has 13 digits (an EAN): ten digits alone may be
  // any number.
  const std::string digits = NormalizedIsbn(identifier);
  return digits.size() == 13 ? digits : std::string();
}

// ISBN-10 to its EAN-13 form (978 prefix, new check digit).
std::string ToEan13(const std::string& isbn) {
  if (isbn.size() != 10) return isbn;
  std::string ean = "978" + isbn.substr(0, 9);
  int sum = 0;
  for (size_t i = 0; i < ean.size(); ++i) sum += (ean[i] - '0') * (i % 2 == 0 ? 1 : 3);
  ean += static_cast<char>('0' + (10 - sum % 10) % 10);
  return ean;
}

bool IsFeedType(const std::string& type) {
  return Contains(type, "application/atom+xml") || Contains(type, "opds+json") ||
         Contains(type, "profile=opds-catalog");
}

bool IsImage(const std::string& relation) {
  return StartsWithNoCase(relation, "http://opds-spec.org/image") ||
         relation == "http://opds-spec.org/thumbnail" || relation == "http://opds-spec.org/cover" ||
         StartsWithNoCase(relation, "x-stanza-cover-image");
}

void AppendIndirect(const std::vector<IndirectType>& types,
                    boost::ptr_vector<OPDS::IndirectAcquisition>* out) {
  for (const IndirectType& type : types) {
    auto* acquisition = new OPDS::IndirectAcquisition(type.type);
    out->push_back(acquisition);  // owned by the list from here on
    AppendIndirect(type.nested, &acquisition->GetAcquisitions());
  }
}

}  // namespace

bool Link::IsAcquisition() const {
  return rel == rel::kAcquisition || StartsWithNoCase(rel, "http://opds-spec.org/acquisition/");
}

int64_t Link::PriceCents() const {
  // Read by hand: strtod would follow the process's locale, and a price is "4.99" in any.
  size_t at = price.find_first_not_of(' ');
  if (at == std::string::npos) return -1;
  int64_t units = 0;
  size_t digits = 0;
  for (; at < price.size() && std::isdigit(static_cast<unsigned char>(price[at])); ++at, ++digits) {
    if (units > 10000000000LL) return -1;  // beyond any price
    units = units * 10 + (price[at] - '0');
  }
  int64_t cents = 0;
  int round_up = 0;
  if (at < price.size() && price[at] == '.') {
    int place = 0;
    for (++at; at < price.size() && std::isdigit(static_cast<unsigned char>(price[at])); ++at) {
      const int64_t digit = price[at] - '0';
      if (place == 0) cents += digit * 10;
      if (place == 1) cents += digit;
      if (place == 2) round_up = digit >= 5 ? 1 : 0;
      ++place;
      ++digits;
    }
  }
  if (digits == 0 || price.find_first_not_of(' ', at) != std::string::npos) return -1;
  return units * 100 + cents + round_up;
}

std::string Entry::Isbn() const {
  for (const std::string& identifier : identifiers) {
    std::string isbn = IsbnOf(identifier);
    if (!isbn.empty()) return isbn;
  }
  return std::string();
}

std::string Entry::Ean() const {
  const std::string isbn = Isbn();
  if (!isbn.empty()) return ToEan13(isbn);
  for (const std::string& identifier : identifiers) {
    if (!identifier.empty()) return identifier;
  }
  return id;
}

std::string Entry::AuthorNames() const {
  std::string names;
  for (const Author& author : authors) {
    if (author.name.empty()) continue;
    if (!names.empty()) names += ", ";
    names += author.name;
  }
  return names;
}

std::vector<const Link*> Entry::AcquisitionLinks() const {
  std::vector<const Link*> result;
  for (const Link& link : links) {
    if (link.IsAcquisition()) result.push_back(&link);
  }
  return result;
}

const Link* Entry::NavigationLink() const {
  if (!AcquisitionLinks().empty()) return nullptr;
  const Link* fallback = nullptr;
  for (const Link& link : links) {
    if (IsImage(link.rel) || link.href.empty()) continue;
    if (IsFeedType(link.type)) return &link;
    if (fallback == nullptr && link.type.empty() && link.rel == rel::kSubsection) fallback = &link;
  }
  return fallback;
}

const Link* Entry::PriceLink() const {
  const Link* any = nullptr;
  for (const Link& link : links) {
    if (!link.IsAcquisition() || link.PriceCents() < 0) continue;
    if (link.rel == rel::kBuy) return &link;
    if (any == nullptr && link.rel != rel::kSample) any = &link;
  }
  return any;
}

const Link* Entry::Cover() const {
  for (const Link& link : links) {
    if (link.rel == rel::kImage || link.rel == "http://opds-spec.org/cover" ||
        link.rel == "x-stanza-cover-image") {
      return &link;
    }
  }
  return nullptr;
}

const Link* Entry::Thumbnail() const {
  for (const Link& link : links) {
    if (link.rel == rel::kThumbnail || link.rel == "http://opds-spec.org/thumbnail" ||
        link.rel == "x-stanza-cover-image-thumbnail") {
      return &link;
    }
  }
  return nullptr;
}

const Link* Feed::FindLink(const std::string& relation) const {
  for (const Link& link : links) {
    if (link.rel == relation) return &link;
  }
  return nullptr;
}

std::vector<const Link*> Feed::Facets() const {
  std::vector<const Link*> result;
  for (const Link& link : links) {
    if (link.rel == rel::kFacet) result.push_back(&link);
  }
  return result;
}

void AppendAcquisitions(const Entry& entry, boost::ptr_vector<OPDS::IndirectAcquisition>* out) {
  for (const Link* link : entry.AcquisitionLinks()) {
    if (link->rel == rel::kSample) continue;  // a preview is not a format of the book
    auto* acquisition = new OPDS::IndirectAcquisition(link->type);
    out->push_back(acquisition);
    AppendIndirect(link->indirect, &acquisition->GetAcquisitions());
  }
}

}  // namespace opds
}  // namespace norbel
