#ifndef VISTREL_STORE_SRC_DATA_BOOK_PROPS_H_
#define VISTREL_STORE_SRC_DATA_BOOK_PROPS_H_

#include <string>

#include "vistrel_store/book.h"

namespace norbel {
namespace vistrel {

// A string property of a book, "" when it has none; reading never adds the property.
inline std::string StringProp(const Book& book, Book::StringProps prop) {
  auto found = book.string_props_.find(prop);
  return found == book.string_props_.end() ? std::string() : found->second;
}

// The book's Ean; a book without one counts as having "".
inline std::string EanOf(const Book& book) { return StringProp(book, Book::Ean); }

// EanOf(book) == ean, without a copy or a search: the status of a book walks long lists with
// it. Ean is the first string property, so when present it is the map's first entry.
static_assert(Book::Ean == 0, "Ean must stay the first string property");
inline bool HasEan(const Book& book, const std::string& ean) {
  auto first = book.string_props_.begin();
  bool present = first != book.string_props_.end() && first->first == Book::Ean;
  return present ? first->second == ean : ean.empty();
}

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_SRC_DATA_BOOK_PROPS_H_
