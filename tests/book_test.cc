#include "vistrel_store/book.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <cstdlib>
#include <string>
#include <utility>

namespace {

using norbel::vistrel::Book;

Book FromText(const std::string& text) {
  Json::Value json;
  EXPECT_TRUE(Json::Reader().parse(text, json)) << text;
  return Book::FromJson(json);
}

TEST(BookTest, EmptyObjectOrNonObjectGivesEmptyRecord) {
  Book book = FromText("[1, 2]");
  EXPECT_TRUE(book.int_props_.empty() && book.string_props_.empty());
  Json::Value json = FromText("{}").ToJson();
  EXPECT_EQ(json.getMemberNames(), std::vector<std::string>{"cartPositionPrice"});
  EXPECT_TRUE(json["cartPositionPrice"].isDouble());
}

// Of two keys of one property the later in byte-wise order wins, whatever the JSON order.
TEST(BookTest, LaterAliasWins) {
  Book book = FromText(R"({"orderPositionID": 7, "cartPositionID": 5, "cartPositionAuthor": "a1",
      "orderPositionAuthor": "a3", "orderPosAuthor": "a2", "orderPositionEbookCover": "cover",
      "cartPositionThumbnail": "t"})");
  EXPECT_EQ(book.int_props_.at(Book::PositionId), 7);
  EXPECT_EQ(book.string_props_.at(Book::Author), "a3");
  EXPECT_EQ(book.string_props_.at(Book::Thumbnail), "cover");
}

TEST(BookTest, ConversionErrorsOnlyWhereAMemberIsRead) {
  EXPECT_THROW(FromText(R"({"cartPositionQuantity": "2"})"), Json::LogicError);
  EXPECT_THROW(FromText(R"({"cartPositionPrice": "1.50"})"), Json::LogicError);
  // jsoncpp lets a real of 2^63 through its own range check; it is out of range all the same.
  EXPECT_THROW(FromText(R"({"cartID": 9223372036854775807.0})"), Json::LogicError);
  // The order price is not read when the cart price is there; unknown keys are never read.
  EXPECT_EQ(FromText(R"({"cartPositionPrice": 1, "orderPositionGizmoPrize": "x", "title": {}})")
                .int_props_.at(Book::Price),
            100);
}

// Half away from zero; the cart price before the order price.
TEST(BookTest, PriceInCents) {
  const std::pair<const char*, int64_t> cases[] = {
      {R"("cartPositionPrice": 0.125)", 13},
      {R"("cartPositionPrice": 0.005)", 1},
      {R"("cartPositionPrice": 19.999)", 2000},
      {R"("cartPositionPrice": 1.5, "orderPositionGizmoPrize": 2.5)", 150},
      {R"("orderPositionGizmoPrize": 2.5)", 250}};
  for (const auto& [members, cents] : cases) {
    Book book = FromText(std::string("{") + members + "}");
    EXPECT_EQ(book.int_props_[Book::Price], cents) << members;
  }
}

// A text that does not convert, such as one converted before, is kept as it came.
TEST(BookTest, EbookDateIsConvertedWhenItCanBe) {
  const std::pair<const char*, const char*> cases[] = {
      {R"("Jan 5, 2015 1:07:09 PM")", "05.01.2015 | 13:07:09"},
      {R"("2015-01-05")", "2015-01-05"},
      {R"("")", " | "}};
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

  book = FromText(R"({"orderPositionID": 11, "cartID": 12, "orderPositionGizmoPrize": 12.34,
      "orderID": -9000000000, "orderPosTitle": "T\u00fctel", "orderPositionEbookFormat": "EPUB",
      "orderPositionEbookDate": "Jan 5, 2015 1:07:09 PM", "orderPosEbookLink": "http://l"})");
  EXPECT_EQ(Book::FromJson(book.ToJson()).int_props_, book.int_props_);
  EXPECT_EQ(Book::FromJson(book.ToJson()).string_props_, book.string_props_);
}

TEST(BookTest, MoveLeavesTheSourceItsCover) {
  Book source = FromText(R"({"cartPositionEan": "1", "cartPositionQuantity": 3})");
  auto* bitmap = static_cast<ibitmap*>(std::calloc(1, sizeof(ibitmap)));
  source.cover_.reset(bitmap);
  Book target;
  target = std::move(source);
  EXPECT_EQ(target.cover_.get(), bitmap);
  EXPECT_TRUE(source.string_props_.empty() && source.int_props_.empty());
  EXPECT_EQ(source.cover_.get(), bitmap);
}

}  // namespace
