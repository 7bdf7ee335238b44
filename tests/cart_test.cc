#include "vistrel_store/cart.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "support/device_fixture.h"

namespace {

using norbel::vistrel::Book;
using norbel::vistrel::Cart;

const char kCartFile[] = "/mnt/ext1/system/config/vistrel_cart";

Book MakeBook(const std::string& ean, int64_t cents) {
  Book book;
  book.string_props_[Book::Ean] = ean;
  book.int_props_[Book::Price] = cents;
  return book;
}

Book PricedBook(int64_t cents) {
  Book book;
  book.int_props_[Book::Price] = cents;
  return book;
}

Json::Value Parse(const std::string& text) {
  Json::Value json;
  EXPECT_TRUE(Json::Reader().parse(text, json)) << text;
  return json;
}

// Builds a cart from lines without going through the file.
Cart CartOf(std::initializer_list<Book> books) {
  Json::Value json(Json::objectValue);
  json["cartPositions"] = Json::Value(Json::arrayValue);
  for (const Book& book : books) json["cartPositions"].append(book.ToJson());
  Cart cart;
  cart.FromJson(json);
  return cart;
}

class CartTest : public vistrel_test::DeviceTest {
 protected:
  Json::Value CartFile() const { return Parse(ReadDeviceFile(kCartFile)); }
  std::vector<std::string> FileEans() const {
    std::vector<std::string> eans;
    Json::Value file = CartFile();
    for (const Json::Value& line : file["cartPositions"]) {
      eans.push_back(line["cartPositionEan"].asString());
    }
    return eans;
  }
  // Forgets the file, so that a later write shows up as its reappearance.
  void RemoveFile() const { std::filesystem::remove(HostPath(kCartFile)); }
};

TEST_F(CartTest, LinesAreIdentifiedByEan) {
  Cart cart;
  cart.AddToCart(MakeBook("1", 100));
  cart.AddToCart(MakeBook("2", 200));
  EXPECT_EQ(FileEans(), (std::vector<std::string>{"1", "2"}));

  RemoveFile();
  cart.AddToCart(MakeBook("1", 999));  // same title: refused, nothing written
  EXPECT_EQ(cart.GetSize(), 2u);
  EXPECT_EQ(cart.GetItem(0).int_props_.at(Book::Price), 100);
  EXPECT_FALSE(DeviceFileExists(kCartFile));

  EXPECT_TRUE(cart.IsContain("2"));
  EXPECT_FALSE(cart.IsContain("2 "));
  EXPECT_FALSE(cart.IsContain(""));

  // Lines without an Ean all count as the empty Ean.
  Book no_ean = PricedBook(5);
  cart.AddToCart(no_ean);
  cart.AddToCart(PricedBook(6));
  EXPECT_EQ(cart.GetSize(), 3u);
  EXPECT_TRUE(cart.IsContain(""));
  cart.AddToCart(MakeBook("", 7));
  EXPECT_EQ(cart.GetSize(), 3u);

  // Only the Ean is compared when removing by book.
  cart.RemoveFromCart(MakeBook("", 0));
  EXPECT_EQ(cart.GetSize(), 2u);
  cart.RemoveFromCart(MakeBook("1", 12345));
  ASSERT_EQ(cart.GetSize(), 1u);
  EXPECT_EQ(cart.GetItem(0).string_props_.at(Book::Ean), "2");
  EXPECT_EQ(FileEans(), (std::vector<std::string>{"2"}));
}

TEST_F(CartTest, OnlyChangesSave) {
  Cart cart;
  for (const char* ean : {"a", "b", "c", "d", "e"}) cart.AddToCart(MakeBook(ean, 1));
  EXPECT_EQ(FileEans(), (std::vector<std::string>{"a", "b", "c", "d", "e"}));

  RemoveFile();
  cart.RemoveFromCart(5u);
  cart.RemoveFromCart(MakeBook("x", 1));
  cart.FromJson(cart.ToJson());
  cart.GetTotalPrice();
  EXPECT_EQ(cart.GetSize(), 5u);
  EXPECT_FALSE(DeviceFileExists(kCartFile));

  cart.RemoveFromCart(1u);  // later lines move up
  EXPECT_EQ(FileEans(), (std::vector<std::string>{"a", "c", "d", "e"}));
  EXPECT_EQ(cart.GetItem(1).string_props_.at(Book::Ean), "c");

  cart.Clear();
  EXPECT_EQ(cart.GetSize(), 0u);
  EXPECT_EQ(CartFile()["cartPositions"], Json::Value(Json::arrayValue));
}

TEST_F(CartTest, GetItemPastTheEndIsOneSharedEmptyBook) {
  Cart cart = CartOf({MakeBook("1", 1)});
  const Book& past = cart.GetItem(99);
  EXPECT_EQ(&past, &Cart().GetItem(0));
  EXPECT_TRUE(past.int_props_.empty());
  EXPECT_TRUE(past.string_props_.empty());
  EXPECT_EQ(past.ToJson().getMemberNames(), std::vector<std::string>{"cartPositionPrice"});
  EXPECT_EQ(&cart.GetItem(0), &cart.items()[0]);
}

TEST_F(CartTest, FromJsonReadsShopReply) {
  Cart cart;
  EXPECT_FALSE(cart.FromJson(Parse(R"({
      "cartPositions": [{"cartPositionEan": "1", "cartPositionPrice": 1.1}, 5,
                        {"orderPositionEan": "2", "orderPositionGizmoPrize": 2.25}],
      "cart": {"cartID": 77, "cartSessionID": "s", "cartUserID": 8,
               "cartLastChange": "2015-01-05 13:07"}})")));
  ASSERT_EQ(cart.GetSize(), 3u);
  EXPECT_TRUE(cart.GetItem(1).string_props_.empty());  // a non-object is an empty line
  EXPECT_EQ(cart.GetItem(2).int_props_.at(Book::Price), 225);
  EXPECT_EQ(cart.cart_id(), 77);
  EXPECT_EQ(cart.session_id(), "s");
  EXPECT_EQ(cart.user_id(), 8);
  EXPECT_EQ(cart.last_change(), "2015-01-05 13:07");

  // Without positions only the header is read; a present header overwrites all four fields.
  EXPECT_FALSE(cart.FromJson(Parse(R"({"cart": {"cartID": 5}})")));
  EXPECT_EQ(cart.GetSize(), 0u);
  EXPECT_EQ(cart.cart_id(), 5);
  EXPECT_EQ(cart.session_id(), "");
  EXPECT_EQ(cart.user_id(), 0);
  EXPECT_EQ(cart.last_change(), "");

  // A header that is not an object, or a reply that is not an object, keeps the header.
  cart.FromJson(Parse(R"({"cartPositions": [{}], "cart": [1]})"));
  EXPECT_EQ(cart.GetSize(), 1u);
  EXPECT_EQ(cart.cart_id(), 5);
  EXPECT_FALSE(cart.FromJson(Parse("[1]")));
  EXPECT_EQ(cart.GetSize(), 0u);
  EXPECT_EQ(cart.cart_id(), 5);

  EXPECT_THROW(cart.FromJson(Parse(R"({"cart": {"cartID": [1]}})")), Json::LogicError);
  // A real of 2^63 is out of range too, not the lowest or highest id.
  EXPECT_THROW(cart.FromJson(Parse(R"({"cart": {"cartID": 9223372036854775807.0}})")),
               Json::LogicError);
  EXPECT_THROW(cart.FromJson(Parse(R"({"cart": {"cartUserID": 9223372036854775808.0}})")),
               Json::LogicError);
  EXPECT_THROW(cart.FromJson(Parse(R"({"cartPositions": [{"cartPositionPrice": "1"}]})")),
               Json::LogicError);
  EXPECT_FALSE(DeviceFileExists(kCartFile));  // reading a reply never saves
}

TEST_F(CartTest, SaveAndLoadThroughTheFile) {
  Cart cart;
  cart.FromJson(Parse(R"({"cart": {"cartID": 9000000000, "cartSessionID": "sess",
      "cartUserID": 42, "cartLastChange": "yesterday"}})"));
  Book book = Book::FromJson(Parse(R"({"orderPositionEan": "978", "orderPositionGizmoPrize": 12.34,
      "orderPositionTitle": "T", "orderPositionEbookDate": "Jan 5, 2015 1:07:09 PM",
      "cartPositionQuantity": 1})"));
  cart.AddToCart(book);
  cart.AddToCart(MakeBook("979", 5));

  Json::Value file = CartFile();
  EXPECT_EQ(file["cart"]["cartID"].asInt64(), 9000000000);
  EXPECT_EQ(file["cart"]["castSessionID"], "sess");
  EXPECT_FALSE(file["cart"].isMember("cartSessionID"));
  EXPECT_EQ(file["cart"]["cartUserID"].asInt64(), 42);
  EXPECT_EQ(file["cart"]["cartLastChange"], "yesterday");
  ASSERT_EQ(file["cartPositions"].size(), 2u);
  EXPECT_EQ(file["cartPositions"][0], book.ToJson());
  EXPECT_DOUBLE_EQ(file["cartPositions"][0]["cartPositionPrice"].asDouble(), 12.34);
  EXPECT_FALSE(file["cartPositions"][0].isMember("orderPositionGizmoPrize"));

  Cart loaded;
  loaded.Load();
  ASSERT_EQ(loaded.GetSize(), 2u);
  EXPECT_EQ(loaded.GetItem(0).int_props_, book.int_props_);
  EXPECT_EQ(loaded.GetItem(0).string_props_, book.string_props_);
  EXPECT_EQ(loaded.GetItem(0).string_props_.at(Book::EbookDate), "05.01.2015 | 13:07:09");
  EXPECT_EQ(loaded.GetItem(1).string_props_.at(Book::Ean), "979");
  EXPECT_EQ(loaded.cart_id(), 9000000000);
  EXPECT_EQ(loaded.session_id(), "");  // written as "castSessionID", read as "cartSessionID"
  EXPECT_EQ(loaded.user_id(), 42);
  EXPECT_EQ(loaded.last_change(), "yesterday");

  // The file is replaced whole; no temporary file stays beside it.
  std::vector<std::string> names;
  for (const auto& entry :
       std::filesystem::directory_iterator(HostPath("/mnt/ext1/system/config"))) {
    names.push_back(entry.path().filename().string());
  }
  EXPECT_EQ(names, std::vector<std::string>{"vistrel_cart"});
}

TEST_F(CartTest, LoadOfMissingOrBrokenFile) {
  Cart cart;
  cart.FromJson(Parse(R"({"cartPositions": [{}], "cart": {"cartID": 3, "cartUserID": 4,
      "cartSessionID": "s", "cartLastChange": "l"}})"));
  auto expect_empty_with_header = [&cart] {
    EXPECT_EQ(cart.GetSize(), 0u);
    EXPECT_EQ(cart.cart_id(), 3);
    EXPECT_EQ(cart.session_id(), "s");
    EXPECT_EQ(cart.user_id(), 4);
    EXPECT_EQ(cart.last_change(), "l");
  };

  cart.Load();  // no file
  expect_empty_with_header();

  cart.FromJson(Parse(R"({"cartPositions": [{}]})"));
  WriteDeviceFile(kCartFile, "not json");
  cart.Load();
  expect_empty_with_header();

  // A file that stops early gives what the reader read before the break.
  WriteDeviceFile(kCartFile, R"({"cartPositions": [{"cartPositionEan": "1"}], "cart": {"cartID": 3,
      "cartUserID": 4, "cartSessionID": "s", "cartLastChange": "l"}, "x": [)");
  cart.Load();
  EXPECT_EQ(cart.GetSize(), 1u);
  EXPECT_EQ(cart.last_change(), "l");

  // So does one nested deeper than the reader allows; its error stays inside.
  WriteDeviceFile(kCartFile, R"({"cartPositions": [{}, {}], "x": )" + std::string(5000, '[') +
                                 std::string(5000, ']') + "}");
  EXPECT_NO_THROW(cart.Load());
  EXPECT_EQ(cart.GetSize(), 2u);
  WriteDeviceFile(kCartFile, std::string(5000, '[') + std::string(5000, ']'));
  EXPECT_NO_THROW(cart.Load());
  expect_empty_with_header();

  // Comments are allowed; an unconvertible member is the JSON library's error.
  WriteDeviceFile(kCartFile, "// saved\n{\"cartPositions\": [{\"cartPositionEan\": \"1\"}]}");
  cart.Load();
  EXPECT_EQ(cart.GetSize(), 1u);
  WriteDeviceFile(kCartFile, R"({"cart": {"cartUserID": "x"}})");
  EXPECT_THROW(cart.Load(), Json::LogicError);
}

TEST_F(CartTest, SaveFailureIsSilent) {
  std::filesystem::remove_all(HostPath("/mnt/ext1/system/config"));
  Cart cart;
  cart.AddToCart(MakeBook("1", 1));
  EXPECT_EQ(cart.GetSize(), 1u);
  EXPECT_FALSE(DeviceFileExists(kCartFile));
}

TEST_F(CartTest, CopyAndMoveDoNotTouchTheFile) {
  Cart cart;
  EXPECT_EQ(cart.ToJson(), Parse(R"({"cartPositions": [], "cart": {"cartID": 0,
      "castSessionID": "", "cartUserID": 0, "cartLastChange": ""}})"));
  cart.FromJson(Parse(R"({"cartPositions": [{"cartPositionEan": "1"}, {"cartPositionEan": "2"}],
      "cart": {"cartID": 1, "cartSessionID": "s", "cartUserID": 2, "cartLastChange": "l"}})"));
  Cart copy(cart);
  EXPECT_EQ(copy.ToJson(), cart.ToJson());
  EXPECT_EQ(copy.session_id(), "s");
  Cart moved;
  moved = std::move(copy);
  EXPECT_EQ(moved.ToJson(), cart.ToJson());
  EXPECT_FALSE(DeviceFileExists(kCartFile));
}

TEST_F(CartTest, Totals) {
  Cart empty;
  EXPECT_EQ(empty.GetTotalPrice(), 0.0);
  EXPECT_EQ(empty.GetTotalPriceFormatted(), "0");

  Cart cart;
  cart.FromJson(Parse(R"({"cartPositions": [{"cartPositionPrice": 1.10},
                                             {"cartPositionPrice": 2.25}, {}]})"));
  EXPECT_DOUBLE_EQ(cart.GetTotalPrice(), 3.35);
  EXPECT_EQ(cart.GetTotalPriceFormatted(), "3,35 EUR");

  EXPECT_EQ(CartOf({PricedBook(1234)}).GetTotalPriceFormatted(), "12,34 EUR");
  EXPECT_EQ(CartOf({PricedBook(5)}).GetTotalPriceFormatted(), "0,05 EUR");
  EXPECT_EQ(CartOf({PricedBook(100)}).GetTotalPriceFormatted(), "1,00 EUR");
  EXPECT_EQ(CartOf({PricedBook(0), Book()}).GetTotalPriceFormatted(), "0,00 EUR");
  EXPECT_EQ(CartOf({PricedBook(-5)}).GetTotalPriceFormatted(), "0,-5 EUR");
  EXPECT_EQ(CartOf({PricedBook(-105)}).GetTotalPriceFormatted(), "-1,-5 EUR");
  EXPECT_DOUBLE_EQ(CartOf({PricedBook(-5)}).GetTotalPrice(), -0.05);

  // Cents are summed in 32 bits: each price is cut to 32 bits and the sum wraps.
  EXPECT_DOUBLE_EQ(CartOf({PricedBook((int64_t{1} << 32) + 7)}).GetTotalPrice(), 0.07);
  Cart wraps = CartOf({MakeBook("a", 2147483647), MakeBook("b", 1)});
  EXPECT_DOUBLE_EQ(wraps.GetTotalPrice(), -21474836.48);
  EXPECT_EQ(wraps.GetTotalPriceFormatted(), "-21474836,-48 EUR");
}

}  // namespace
