#include "catalogue.h"

namespace shop_app {

using norbel::vistrel::Book;

std::vector<Book> LoadCatalogue(norbel::vistrel::StoreManager* /*store*/,
                                const std::vector<std::string>& chosen) {
  std::vector<Book> books;
  for (const std::string& ean : chosen) {
    Book book;
    book.string_props_[Book::Ean] = ean;
    book.int_props_[Book::Quantity] = 1;
    book.int_props_[Book::IsEbook] = 1;
    books.push_back(book);
  }
  return books;
}

}  // namespace shop_app
