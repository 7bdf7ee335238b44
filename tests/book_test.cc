#include "vistrel_store/book.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>
#include <utility>

namespace {

using norbel::vistrel::Book;

Json::Value Parse(const std::string& text) {
  Json::Value json;
  EXPECT_TRUE(Json::Reader().parse(text, json)) << text;
  return json;
}

Book FromText(const std::string& text) { return Book::FromJson(Parse(text)); }

int64_t PriceOf(const std::string& text) {
  Book book = FromText(text);
  auto price = book.int_props_.find(Book::Price);
  EXPECT_NE(price, book.int_props_.end()) << text;
  return price == book.int_props_.end() ? -1 : price->second;
}

TEST(BookTest, TablesHoldEveryKeyOnce) {
  EXPECT_EQ(Book::s_book_int_map.size(), 9u);
  EXPECT_EQ(Book::s_book_string_map.size(), 17u);
  EXPECT_EQ(Book::s_book_int_map.count("cartPositionPrice"), 0u);
  EXPECT_EQ(Book::s_book_string_map.at("orderPositionEbookCover"), Book::Thumbnail);
  EXPECT_EQ(Book::s_book_string_map.at("orderPosEbookLink"), Book::EbookLink);
}

TEST(BookTest, NonObjectsAndEmptyObjectGiveEmptyRecord) {
  for (const char* text : {"{}", "[1,2]", "null", "\"text\"", "5"}) {
    SCOPED_TRACE(text);
    Book book = FromText(text);
    EXPECT_TRUE(book.int_props_.empty());
    EXPECT_TRUE(book.string_props_.empty());
    EXPECT_FALSE(book.flag_);
    Json::Value json = book.ToJson();
    ASSERT_TRUE(json.isObject());
    EXPECT_EQ(json.getMemberNames(), std::vector<std::string>{"cartPositionPrice"});
    EXPECT_TRUE(json["cartPositionPrice"].isDouble());
    EXPECT_EQ(json["cartPositionPrice"].asDouble(), 0.0);
  }
}

// Of two keys of one property the later in byte-wise order wins, whatever the JSON order.
TEST(BookTest, LaterAliasWins) {
  Book book = FromText(R"({
      "orderPositionID": 7, "cartPositionID": 5,
      "cartPositionGizmoID": 1, "orderPositionGizmoID": 2,
      "orderPositionIsEbook": 0, "cartPositionIsEbook": 1,
      "orderPositionEan": "c", "orderPosEan": "b", "cartPositionEan": "a",
      "cartPositionTitle": "t1", "orderPosTitle": "t2",
      "cartPositionAuthor": "a1", "orderPositionAuthor": "a3", "orderPosAuthor": "a2",
      "orderPositionEbookCover": "cover", "cartPositionThumbnail": "thumb",
      "cartPositionEbookType": "PDF", "orderPositionEbookFormat": "EPUB",
      "orderPositionEbookLink": "link2", "orderPosEbookLink": "link1"})");
  EXPECT_EQ(book.int_props_.at(Book::PositionId), 7);
  EXPECT_EQ(book.int_props_.at(Book::GizmoId), 2);
  EXPECT_EQ(book.int_props_.at(Book::IsEbook), 0);
  EXPECT_EQ(book.string_props_.at(Book::Ean), "c");
  EXPECT_EQ(book.string_props_.at(Book::Title), "t2");
  EXPECT_EQ(book.string_props_.at(Book::Author), "a3");
  EXPECT_EQ(book.string_props_.at(Book::Thumbnail), "cover");
  EXPECT_EQ(book.string_props_.at(Book::EbookType), "EPUB");
  EXPECT_EQ(book.string_props_.at(Book::EbookLink), "link2");
  EXPECT_EQ(book.int_props_.count(Book::Price), 0u);
}

// Numbers, booleans and null convert by the JSON library's rules; unknown keys are ignored.
TEST(BookTest, LenientConversions) {
  Book book = FromText(R"({"cartPositionQuantity": 2.9, "cartID": -3.7, "orderID": true,
      "cartPositionIsEbook": null, "orderPositionEan": 4006381333931, "cartPositionTitle": true,
      "cartPositionAuthor": null, "unknown": [1], "cartPositionGizmoID": 9223372036854775807})");
  EXPECT_EQ(book.int_props_.at(Book::Quantity), 2);
  EXPECT_EQ(book.int_props_.at(Book::CartId), -3);
  EXPECT_EQ(book.int_props_.at(Book::OrderId), 1);
  EXPECT_EQ(book.int_props_.at(Book::IsEbook), 0);  // present, unlike an absent key
  EXPECT_EQ(book.int_props_.at(Book::GizmoId), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(book.string_props_.at(Book::Ean), "4006381333931");
  EXPECT_EQ(book.string_props_.at(Book::Title), "true");
  EXPECT_EQ(book.string_props_.at(Book::Author), "");
  EXPECT_EQ(book.int_props_.size(), 5u);
  EXPECT_EQ(book.string_props_.size(), 3u);
}

TEST(BookTest, ConversionErrorsOnlyWhereAMemberIsRead) {
  for (const char* text : {
           R"({"cartPositionQuantity": "2"})",      // text under an integer key
           R"({"orderID": [1]})",                   // array under an integer key
           R"({"cartID": {}})",                     // object under an integer key
           R"({"cartPositionID": 1e30})",           // beyond 64 bits
           R"({"cartID": 9223372036854775807.0})",  // a real that rounds to 2^63
           R"({"cartPositionEan": [1]})",           // array under a text key
           R"({"orderPositionEbookDate": {}})",     // object under a text key
           R"({"cartPositionPrice": "1.50"})",      // text as price
           R"({"orderPositionGizmoPrize": "2"})",   // text as the order price
           R"({"cartPositionPrice": [1]})",
       }) {
    SCOPED_TRACE(text);
    Json::Value json = Parse(text);
    EXPECT_THROW(Book::FromJson(json), Json::LogicError);
  }
  // The order price is not read when the cart price is there; unknown keys are never read.
  EXPECT_EQ(PriceOf(R"({"cartPositionPrice": 1, "orderPositionGizmoPrize": "x"})"), 100);
  EXPECT_NO_THROW(FromText(R"({"price": "x", "title": {}, "cartPositionTitle": 3.5})"));
}

// jsoncpp lets a real of 2^63 through its range check; its cast would then give the lowest
// value on x86 and the highest on ARM.
TEST(BookTest, RealsAtTheEndsOfTheIntegerRange) {
  Book book = FromText(R"({"cartPositionQuantity": 9223372036854774784.0,
      "cartID": -9223372036854775808.0})");
  EXPECT_EQ(book.int_props_.at(Book::Quantity), 9223372036854774784);  // largest below 2^63
  EXPECT_EQ(book.int_props_.at(Book::CartId), std::numeric_limits<int64_t>::min());
  for (const char* text : {R"({"orderID": 9223372036854775808.0})",
                           R"({"orderPositionID": 9.3e18})", R"({"cartID": -9.3e18})"}) {
    SCOPED_TRACE(text);
    EXPECT_THROW(FromText(text), Json::LogicError);
  }
}

TEST(BookTest, PriceRoundsHalfAwayFromZero) {
  EXPECT_EQ(PriceOf(R"({"cartPositionPrice": 9.99})"), 999);
  EXPECT_EQ(PriceOf(R"({"cartPositionPrice": 0.125})"), 13);
  EXPECT_EQ(PriceOf(R"({"cartPositionPrice": 0.005})"), 1);
  EXPECT_EQ(PriceOf(R"({"cartPositionPrice": 19.999})"), 2000);
  EXPECT_EQ(PriceOf(R"({"cartPositionPrice": -0.125})"), -13);
  EXPECT_EQ(PriceOf(R"({"cartPositionPrice": 1.10})"), 110);
  EXPECT_EQ(PriceOf(R"({"cartPositionPrice": 7})"), 700);
  EXPECT_EQ(PriceOf(R"({"cartPositionPrice": true})"), 100);
  EXPECT_EQ(PriceOf(R"({"cartPositionPrice": null})"), 0);  // present: zero, not unset
  EXPECT_EQ(PriceOf(R"({"cartPositionPrice": 1.5, "orderPositionGizmoPrize": 2.5})"), 150);
  EXPECT_EQ(PriceOf(R"({"orderPositionGizmoPrize": 2.5})"), 250);
  EXPECT_EQ(FromText(R"({"orderPositionGizmoPrice": 2.5})").int_props_.count(Book::Price), 0u);
}

// Prices beyond the range of cents are held at its ends; a NaN is no price.
TEST(BookTest, OutOfRangePricesAreClamped) {
  EXPECT_EQ(PriceOf(R"({"cartPositionPrice": 1e30})"), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(PriceOf(R"({"cartPositionPrice": -1e30})"), std::numeric_limits<int64_t>::min());
  Json::Value json(Json::objectValue);
  json["cartPositionPrice"] = std::numeric_limits<double>::infinity();
  EXPECT_EQ(Book::FromJson(json).int_props_.at(Book::Price), std::numeric_limits<int64_t>::max());
  json["cartPositionPrice"] = std::nan("");
  EXPECT_EQ(Book::FromJson(json).int_props_.count(Book::Price), 0u);
}

TEST(BookTest, EbookDateIsConvertedWhenItCanBe) {
  auto date_of = [](const std::string& text) {
    return FromText(text).string_props_.at(Book::EbookDate);
  };
  EXPECT_EQ(date_of(R"({"orderPositionEbookDate": "Jan 5, 2015 1:07:09 PM"})"),
            "05.01.2015 | 13:07:09");
  EXPECT_EQ(date_of(R"({"orderPositionEbookDate": "2015-01-05"})"), "2015-01-05");
  EXPECT_EQ(date_of(R"({"orderPositionEbookDate": "jan 5, 2015 1:07:09 PM"})"),
            "jan 5, 2015 1:07:09 PM");
  EXPECT_EQ(date_of(R"({"orderPositionEbookDate": ""})"), " | ");
  EXPECT_EQ(date_of(R"({"orderPositionEbookDate": null})"), " | ");
  EXPECT_EQ(date_of(R"({"orderPositionEbookDate": "05.01.2015 | 13:07:09"})"),
            "05.01.2015 | 13:07:09");
}

TEST(BookTest, ToJsonWritesEveryAlias) {
  Book book;
  book.string_props_[Book::Ean] = "123";
  Json::Value json = book.ToJson();
  EXPECT_EQ(json.size(), 4u);
  EXPECT_EQ(json["cartPositionEan"], "123");
  EXPECT_EQ(json["orderPosEan"], "123");
  EXPECT_EQ(json["orderPositionEan"], "123");
  EXPECT_EQ(json["cartPositionPrice"].asDouble(), 0.0);

  book.int_props_[Book::PositionId] = 4;
  book.int_props_[Book::Quantity] = 1;
  book.int_props_[Book::Price] = 1999;
  json = book.ToJson();
  EXPECT_EQ(json["cartPositionID"].asInt64(), 4);
  EXPECT_EQ(json["orderPositionID"].asInt64(), 4);
  EXPECT_EQ(json["cartPositionQuantity"].asInt64(), 1);
  EXPECT_DOUBLE_EQ(json["cartPositionPrice"].asDouble(), 19.99);
  EXPECT_FALSE(json.isMember("orderPositionGizmoPrize"));
  EXPECT_FALSE(json.isMember("cartID"));
  EXPECT_EQ(json.size(), 7u);
}

TEST(BookTest, RoundTripKeepsEveryProperty) {
  Book book = FromText(R"({"orderPositionID": 11, "cartID": 12, "orderPositionGizmoID": 13,
      "orderPositionGizmoPrize": 12.34, "cartPositionQuantity": 2, "orderPositionIsEbook": 1,
      "orderID": -9000000000, "orderPosEan": "978", "orderPosTitle": "T\u00fctel",
      "orderPosAuthor": "A", "orderPositionEbookCover": "http://c/x.jpg",
      "cartPositionRegisterNumber": "R-1", "orderPositionEbookFormat": "EPUB",
      "orderPositionEbookDate": "Jan 5, 2015 1:07:09 PM", "orderPosEbookLink": "http://l"})");
  EXPECT_EQ(book.int_props_.size(), 7u);
  EXPECT_EQ(book.string_props_.size(), 8u);

  Book again = Book::FromJson(book.ToJson());
  EXPECT_EQ(again.int_props_, book.int_props_);
  EXPECT_EQ(again.string_props_, book.string_props_);
  EXPECT_EQ(again.string_props_.at(Book::EbookDate), "05.01.2015 | 13:07:09");

  for (int64_t cents : {1, 10, 99, 999, 1001, 123456789, -250}) {
    Book priced;
    priced.int_props_[Book::Price] = cents;
    EXPECT_EQ(Book::FromJson(priced.ToJson()).int_props_.at(Book::Price), cents);
  }
}

TEST(BookTest, CopyAndMove) {
  Book source = FromText(R"({"cartPositionEan": "1", "cartPositionQuantity": 3})");
  auto* bitmap = static_cast<ibitmap*>(std::calloc(1, sizeof(ibitmap)));
  source.cover_.reset(bitmap);
  source.flag_ = true;

  Book copy(source);
  EXPECT_EQ(copy.string_props_, source.string_props_);
  EXPECT_EQ(copy.int_props_, source.int_props_);
  EXPECT_EQ(copy.cover_.get(), bitmap);  // the handle is shared, not duplicated
  EXPECT_TRUE(copy.flag_);
  copy.string_props_[Book::Ean] = "2";
  EXPECT_EQ(source.string_props_.at(Book::Ean), "1");

  Book target;
  target = std::move(source);
  EXPECT_EQ(target.string_props_.at(Book::Ean), "1");
  EXPECT_EQ(target.int_props_.at(Book::Quantity), 3);
  EXPECT_EQ(target.cover_.get(), bitmap);
  EXPECT_TRUE(target.flag_);
  EXPECT_TRUE(source.string_props_.empty());
  EXPECT_TRUE(source.int_props_.empty());
  EXPECT_EQ(source.cover_.get(), bitmap);  // the source keeps its cover

  Book& alias = target;
  target = std::move(alias);
  EXPECT_EQ(target.string_props_.size(), 1u);
}

}  // namespace
