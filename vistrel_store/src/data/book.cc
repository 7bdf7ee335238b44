#include "vistrel_store/book.h"

#include <cmath>
#include <limits>
#include <utility>

#include "json_int64.h"
#include "vistrel_store/convert_date_time.h"

namespace norbel {
namespace vistrel {
namespace {

// The cart replies send the price under this key, the order replies under the other one (the
// shop's spelling, "Prize"). Both are in currency units.
const char kCartPriceKey[] = "cartPositionPrice";
const char kOrderPriceKey[] = "orderPositionGizmoPrize";
const char kEbookDateKey[] = "orderPositionEbookDate";

// Currency units to whole cents, half away from zero. A price beyond the range of cents is
// held at the nearest end of that range; a NaN is no price at all.
bool PriceToCents(double price, int64_t* cents) {
  double rounded = std::round(price * 100.0);
  if (std::isnan(rounded)) return false;
  constexpr double kLimit = 9223372036854775808.0;  // 2^63
  if (rounded >= kLimit) {
    *cents = std::numeric_limits<int64_t>::max();
  } else if (rounded < -kLimit) {
    *cents = std::numeric_limits<int64_t>::min();
  } else {
    *cents = static_cast<int64_t>(rounded);
  }
  return true;
}

}  // namespace

const std::map<std::string, Book::IntProps> Book::s_book_int_map = {
    {"cartPositionID", PositionId},
    {"cartID", CartId},
    {"cartPositionGizmoID", GizmoId},
    {"cartPositionQuantity", Quantity},
    {"cartPositionIsEbook", IsEbook},
    {"orderPositionID", PositionId},
    {"orderPositionGizmoID", GizmoId},
    {"orderPositionIsEbook", IsEbook},
    {"orderID", OrderId},
};

// The order replies repeat a few keys; a map keeps each key once.
const std::map<std::string, Book::StringProps> Book::s_book_string_map = {
    {"cartPositionEan", Ean},
    {"cartPositionTitle", Title},
    {"cartPositionAuthor", Author},
    {"cartPositionThumbnail", Thumbnail},
    {"cartPositionRegisterNumber", RegisterNumber},
    {"cartPositionEbookType", EbookType},
    {"orderPositionEan", Ean},
    {"orderPositionTitle", Title},
    {"orderPositionAuthor", Author},
    {"orderPositionEbookCover", Thumbnail},
    {"orderPositionEbookFormat", EbookType},
    {"orderPositionEbookDate", EbookDate},
    {"orderPositionEbookLink", EbookLink},
    {"orderPositionEan", Ean},
    {"orderPositionTitle", Title},
    {"orderPositionAuthor", Author},
    {"orderPosEan", Ean},
    {"orderPosTitle", Title},
    {"orderPosAuthor", Author},
    {"orderPosEbookLink", EbookLink},
};

Book::Book() : flag_(false) {}

Book::Book(const Book& other)
    : int_props_(other.int_props_),
      string_props_(other.string_props_),
      cover_(other.cover_),
      flag_(other.flag_) {}

Book& Book::operator=(Book&& other) noexcept {
  if (this == &other) return *this;
  int_props_ = std::move(other.int_props_);
  other.int_props_.clear();
  string_props_ = std::move(other.string_props_);
  other.string_props_.clear();
  cover_ = other.cover_;  // the source keeps its cover
  flag_ = other.flag_;
  return *this;
}

// Members go in reverse order of declaration: the cover, then the strings, then the numbers.
Book::~Book() {}

Book Book::FromJson(const Json::Value& json) {
  Book book;
  if (!json.isObject()) return book;

  // Map order is byte-wise key order, so of two aliases present the later key wins.
  for (const auto& [key, prop] : s_book_int_map) {
    if (json.isMember(key)) book.int_props_[prop] = AsInt64(json[key]);
  }
  for (const auto& [key, prop] : s_book_string_map) {
    if (json.isMember(key)) book.string_props_[prop] = json[key].asString();
  }

  const char* price_key = json.isMember(kCartPriceKey)    ? kCartPriceKey
                          : json.isMember(kOrderPriceKey) ? kOrderPriceKey
                                                          : nullptr;
  if (price_key != nullptr) {
    int64_t cents;
    if (PriceToCents(json[price_key].asDouble(), &cents)) book.int_props_[Price] = cents;
  }

  // A text that does not convert (such as one converted before) is kept as it came.
  if (json.isMember(kEbookDateKey)) {
    std::string date, time, original_date;
    if (ConvertDateTime(book.string_props_[EbookDate], date, time, original_date)) {
      book.string_props_[EbookDate] = date + " | " + time;
    }
  }
  return book;
}

Json::Value Book::ToJson() const {
  Json::Value json;
  for (const auto& [key, prop] : s_book_int_map) {
    auto found = int_props_.find(prop);
    if (found != int_props_.end()) json[key] = static_cast<Json::Int64>(found->second);
  }
  for (const auto& [key, prop] : s_book_string_map) {
    auto found = string_props_.find(prop);
    if (found != string_props_.end()) json[key] = found->second;
  }
  auto price = int_props_.find(Price);
  json[kCartPriceKey] =
      price == int_props_.end() ? 0.0 : static_cast<double>(price->second) / 100.0;
  return json;
}

}  // namespace vistrel
}  // namespace norbel
