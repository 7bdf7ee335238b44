#ifndef VISTREL_STORE_SRC_DATA_BOOK_LIST_H_
#define VISTREL_STORE_SRC_DATA_BOOK_LIST_H_

#include <json/value.h>

#include <vector>

#include "vistrel_store/book.h"

namespace norbel {
namespace vistrel {

// Appends one Book per element when `list` is an array; anything else adds nothing.
inline void AppendBooks(const Json::Value& list, std::vector<Book>* books) {
  if (!list.isArray()) return;
  books->reserve(books->size() + list.size());
  for (const Json::Value& element : list) books->push_back(Book::FromJson(element));
}

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_SRC_DATA_BOOK_LIST_H_
