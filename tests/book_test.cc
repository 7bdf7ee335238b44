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
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

Book FromText(const std::string& text) {
  Json::Value json;
  EXPECT_TRUE(Json::Reader().parse(text, json)) << text;
  return Book::FromJson(json);
}

TEST(BookTest, NonObjectsAndEmptyObjectGiveEmptyRecord) {
  EXPECT_EQ(Book::s_book_int_map.size(), 9u);
  EXPECT_EQ(Book::s_book_string_map.size(), 17u);
  for (const char* text : {"{}", "[1,2]", "null", "\"text\"", "5"}) {
    SCOPED_TRACE(text);
    Book book = FromText(text);
    EXPECT_TRUE(book.int_props_.empty() && book.string_props_.empty());
    Json::Value json = book.ToJson();
    EXPECT_EQ(json.getMemberNames(), std::vector<std::string>{"cartPositionPrice"});
    EXPECT_TRUE(json["cartPositionPrice"].isDouble());
    EXPECT_EQ(json["cartPositionPrice"].asDouble(), 0.0);
  }
}

// Of two keys of one property the later in byte-wise order wins, whatever the JSON order.
// Numbers, booleans and null convert by the JSON library's rules; unknown keys are ignored.
TEST(BookTest, LaterAliasWinsAndConversionsAreLenient) {
  Book book = FromText(R"({"orderPositionID": 7, "cartPositionID": 5, "cartPositionGizmoID": 1,
      "orderPositionGizmoID": 2, "orderPositionIsEbook": null, "cartPositionIsEbook": 1,
      "cartPositionQuantity": 2.9, "orderPositionEan": 4006381333931, "orderPosEan": "b",
      "cartPositionEan": "a", "cartPositionAuthor": "a1", "orderPositionAuthor": "a3",
      "orderPosAuthor": "a2", "orderPositionEbookCover": "cover", "cartPositionThumbnail": "t",
      "cartPositionEbookType": "PDF", "orderPositionEbookFormat": "EPUB", "unknown": [1],
      "orderPositionEbookLink": "link2", "orderPosEbookLink": "link1"})");
  EXPECT_EQ(book.int_props_.at(Book::PositionId), 7);
  EXPECT_EQ(book.int_props_.at(Book::GizmoId), 2);
  EXPECT_EQ(book.int_props_.at(Book::IsEbook), 0);  // null is present, unlike an absent key
  EXPECT_EQ(book.int_props_.at(Book::Quantity), 2);
  EXPECT_EQ(book.string_props_.at(Book::Ean), "4006381333931");
  EXPECT_EQ(book.string_props_.at(Book::Author), "a3");
  EXPECT_EQ(book.string_props_.at(Book::Thumbnail), "cover");
  EXPECT_EQ(book.string_props_.at(Book::EbookType), "EPUB");
  EXPECT_EQ(book.string_props_.at(Book::EbookLink), "link2");
  EXPECT_EQ(book.int_props_.size() + book.string_props_.size(), 9u);
}

TEST(BookTest, ConversionErrorsOnlyWhereAMemberIsRead) {
  for (const char* text :
       {R"({"cartPositionQuantity": "2"})", R"({"orderID": [1]})", R"({"cartPositionID": 1e30})",
        R"({"cartID": 9223372036854775807.0})",
        R"({"orderPositionEbookDate": {}})", R"({"cartPositionPrice": "1.50"})",
        R"({"orderPositionGizmoPrize": "2"})"}) {
    SCOPED_TRACE(text);
    EXPECT_THROW(FromText(text), Json::LogicError);
  }
  // The order price is not read when the cart price is there; unknown keys are never read.
  Book book = FromText(R"({"cartPositionPrice": 1, "orderPositionGizmoPrize": "x"})");
  EXPECT_EQ(book.int_props_.at(Book::Price), 100);
  EXPECT_NO_THROW(FromText(R"({"price": "x", "title": {}, "cartPositionTitle": 3.5})"));
}

// Half away from zero; beyond the range of cents held at its ends; a NaN is no price.
TEST(BookTest, PriceInCents) {
  const std::pair<const char*, int64_t> cases[] = {
      {R"("cartPositionPrice": 0.125)", 13},
      {R"("cartPositionPrice": 0.005)", 1},
      {R"("cartPositionPrice": 19.999)", 2000},
      {R"("cartPositionPrice": -0.125)", -13},
      {R"("cartPositionPrice": 1.10)", 110},
      {R"("cartPositionPrice": true)", 100},
      {R"("cartPositionPrice": null)", 0},
      {R"("cartPositionPrice": 1e30)", kMax},
      {R"("cartPositionPrice": -1e30)", -kMax - 1},
      {R"("cartPositionPrice": 1.5, "orderPositionGizmoPrize": 2.5)", 150},
      {R"("orderPositionGizmoPrize": 2.5)", 250},
  };
  for (const auto& [members, cents] : cases) {
    SCOPED_TRACE(members);
    Book book = FromText(std::string("{") + members + "}");
    ASSERT_EQ(book.int_props_.count(Book::Price), 1u);
    EXPECT_EQ(book.int_props_.at(Book::Price), cents);
  }
  EXPECT_EQ(FromText(R"({"orderPositionGizmoPrice": 2.5})").int_props_.count(Book::Price), 0u);
  Json::Value json(Json::objectValue);
  json["cartPositionPrice"] = std::nan("");
  EXPECT_EQ(Book::FromJson(json).int_props_.count(Book::Price), 0u);
}

// A text that does not convert, such as one converted before, is kept as it came.
TEST(BookTest, EbookDateIsConvertedWhenItCanBe) {
  const std::pair<const char*, const char*> cases[] = {
      {R"("Jan 5, 2015 1:07:09 PM")", "05.01.2015 | 13:07:09"},
      {R"("2015-01-05")", "2015-01-05"},
      {R"("jan 5, 2015 1:07:09 PM")", "jan 5, 2015 1:07:09 PM"},
      {R"("")", " | "},
      {"null", " | "},
      {R"("05.01.2015 | 13:07:09")", "05.01.2015 | 13:07:09"}};
  for (const auto& [date, expected] : cases) {
    Book book = FromText(std::string(R"({"orderPositionEbookDate": )") + date + "}");
    EXPECT_EQ(book.string_props_.at(Book::EbookDate), expected);
  }
}

TEST(BookTest, ToJsonWritesEveryAliasAndReadsBackTheSameRecord) {
  Book book;
  book.string_props_[Book::Ean] = "123";
  Json::Value json = book.ToJson();
  EXPECT_EQ(json.size(), 4u);
  for (const char* key : {"cartPositionEan", "orderPosEan", "orderPositionEan"})
    EXPECT_EQ(json[key], "123") << key;
  EXPECT_EQ(json["cartPositionPrice"].asDouble(), 0.0);

  book = FromText(R"({"orderPositionID": 11, "cartID": 12, "orderPositionGizmoID": 13,
      "orderPositionGizmoPrize": 12.34, "cartPositionQuantity": 2, "orderPositionIsEbook": 1,
      "orderID": -9000000000, "orderPosEan": "978", "orderPosTitle": "T\u00fctel",
      "orderPosAuthor": "A", "orderPositionEbookCover": "http://c/x.jpg",
      "cartPositionRegisterNumber": "R-1", "orderPositionEbookFormat": "EPUB",
      "orderPositionEbookDate": "Jan 5, 2015 1:07:09 PM", "orderPosEbookLink": "http://l"})");
  EXPECT_EQ(book.int_props_.size() + book.string_props_.size(), 15u);
  Book again = Book::FromJson(book.ToJson());
  EXPECT_EQ(again.int_props_, book.int_props_);
  EXPECT_EQ(again.string_props_, book.string_props_);
  for (int64_t cents : {1, 99, 1001, 1234, 123456789, -250}) {
    book.int_props_[Book::Price] = cents;
    EXPECT_EQ(Book::FromJson(book.ToJson()).int_props_.at(Book::Price), cents);
  }
}

TEST(BookTest, CopySharesTheCoverAndMoveLeavesTheSourceItsCover) {
  Book source = FromText(R"({"cartPositionEan": "1", "cartPositionQuantity": 3})");
  auto* bitmap = static_cast<ibitmap*>(std::calloc(1, sizeof(ibitmap)));
  source.cover_.reset(bitmap);
  source.flag_ = true;
  Book copy(source);
  EXPECT_TRUE(copy.int_props_ == source.int_props_ && copy.string_props_ == source.string_props_);
  EXPECT_TRUE(copy.cover_.get() == bitmap && copy.flag_);

  Book target;
  target = std::move(source);
  EXPECT_TRUE(target.int_props_ == copy.int_props_ && target.string_props_ == copy.string_props_);
  EXPECT_TRUE(target.cover_.get() == bitmap && target.flag_);
  EXPECT_TRUE(source.string_props_.empty() && source.int_props_.empty());
  EXPECT_EQ(source.cover_.get(), bitmap);

  Book& alias = target;
  target = std::move(alias);
  EXPECT_EQ(target.string_props_, copy.string_props_);
}

}  // namespace
