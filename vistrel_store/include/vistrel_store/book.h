#ifndef VISTREL_STORE_BOOK_H_
#define VISTREL_STORE_BOOK_H_

#include <json/value.h>

#include <cstdint>
#include <map>
#include <string>

#include "nbutils/smart_bitmap.h"
#include "vistrel_store/export.h"

namespace norbel {
namespace vistrel {

// One title as the shop speaks of it: a cart line, an order position or a purchased e-book.
//
// The shop names the same facts differently in its cart replies ("cartPosition..." keys) and
// in its order and library replies ("orderPosition..." / "orderPos..." keys). A Book keeps
// numbered properties instead; the two key tables translate every known key to its property.
// An absent property means unknown (absent is not the same as 0 or "").
class VISTREL_STORE_EXPORT Book {
 public:
  enum IntProps : int {
    PositionId = 0,  // id of the cart or order position
    CartId = 1,      // cart the position belongs to
    GizmoId = 2,     // the shop's article id
    Price = 3,       // in cents
    Quantity = 4,    // copies in the cart position
    IsEbook = 5,     // non-zero means yes
    OrderId = 6,     // order the position belongs to
  };
  enum StringProps : int {
    Ean = 0,  // article number; identifies the title and names its file
    Title = 1,
    Author = 2,
    Thumbnail = 3,  // cover image address
    RegisterNumber = 4,
    EbookType = 5,  // format as the shop names it ("EPUB", "PDF")
    EbookDate = 6,  // "05.01.2015 | 13:07:09" once converted
    EbookLink = 7,  // download address of the e-book file
  };

  // JSON key to property, in byte-wise key order; when several aliases of one property are
  // present, the last one in this order wins.
  static const std::map<std::string, IntProps> s_book_int_map;
  static const std::map<std::string, StringProps> s_book_string_map;

  // A Book is copy-constructed, or moved: write `a = Book(b)` to assign a copy.
  Book();
  Book(const Book& other);
  // Takes over both maps (the source's are left empty); the cover handle is copied.
  Book& operator=(Book&& other) noexcept;
  ~Book();

  // Builds a record from one object of the shop's replies. A non-object gives an empty
  // record. A present member of the wrong kind (text under an integer or price key, an array
  // or object anywhere) raises the JSON library's Json::LogicError.
  static Book FromJson(const Json::Value& json);
  // Writes every alias key of every present property, and always "cartPositionPrice" in
  // currency units.
  Json::Value ToJson() const;

  std::map<IntProps, int64_t> int_props_;
  std::map<StringProps, std::string> string_props_;
  utilities::SmartBitmap cover_;  // for the caller's screens; the library never loads it
  bool flag_;                     // for the caller; the library only copies it
};

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_BOOK_H_
