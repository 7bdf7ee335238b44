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

// EanOf(book) == ean, without a copy: the status of a book searches long lists with it.
inline bool HasEan(const Book& book, const std::string& ean) {
  auto found = book.string_props_.find(Book::Ean);
  return found == book.string_props_.end() ? ean.empty() : found->second == ean;
}

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_SRC_DATA_BOOK_PROPS_H_
