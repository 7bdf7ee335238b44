// Book::FromJson on any JSON text, then what the library does with a book from the shop:
// write it back, copy it and name its file.
#include <json/value.h>

#include "fuzz_support.h"
#include "vistrel_store/book.h"
#include "vistrel_store/book_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Json::Value json;
  if (!vistrel_fuzz::ParseJson(data, size, &json)) return 0;
  try {
    norbel::vistrel::Book book = norbel::vistrel::Book::FromJson(json);
    Json::Value written = book.ToJson();
    norbel::vistrel::Book copy(book);
    GenerateBookShortFileName(copy);
  } catch (const Json::LogicError&) {
    // A member of the wrong kind: the documented conversion error.
  }
  return 0;
}
