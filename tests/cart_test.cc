#include "vistrel_store/cart.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <filesystem>
#include <string>

#include "support/device_fixture.h"

namespace {

using norbel::vistrel::Book;
using norbel::vistrel::Cart;

const char kCartFile[] = "/mnt/ext1/system/config/vistrel_cart";

// A book with a price and, unless `ean` is null, an Ean.
Book MakeBook(const char* ean, int64_t cents) {
  Book book;
  if (ean != nullptr) book.string_props_[Book::Ean] = ean;
  book.int_props_[Book::Price] = cents;
  return book;
}

Json::Value Parse(const std::string& text) {
  Json::Value json;
  EXPECT_TRUE(Json::Reader().parse(text, json)) << text;
  return json;
}

class CartTest : public vistrel_test::DeviceTest {
 protected:
  std::vector<std::string> FileEans() const {
    std::vector<std::string> eans;
    Json::Value file = Parse(ReadDeviceFile(kCartFile));
    for (const Json::Value& line : file["cartPositions"])
      eans.push_back(line["cartPositionEan"].asString());
    return eans;
  }
  // Forgets the file, so that a later write shows up as its reappearance.
  void RemoveFile() const { std::filesystem::remove(HostPath(kCartFile)); }
};

TEST_F(CartTest, LinesAreIdentifiedByEanAndOnlyChangesSave) {
  Cart cart;
  for (const char* ean : {"a", "b", "c"}) cart.AddToCart(MakeBook(ean, 100));
  EXPECT_EQ(FileEans(), (std::vector<std::string>{"a", "b", "c"}));

  RemoveFile();
  cart.AddToCart(MakeBook("a", 999));     // same title: refused
  cart.RemoveFromCart(3u);                // past the end
  cart.RemoveFromCart(MakeBook("x", 1));  // not in the cart
  cart.FromJson(cart.ToJson());
  EXPECT_EQ(cart.GetSize(), 3u);
  EXPECT_EQ(cart.GetItem(0).int_props_.at(Book::Price), 100);
  EXPECT_FALSE(DeviceFileExists(kCartFile));
  EXPECT_TRUE(cart.IsContain("b"));
  EXPECT_FALSE(cart.IsContain("b "));

  cart.RemoveFromCart(1u);  // later lines move up
  EXPECT_EQ(FileEans(), (std::vector<std::string>{"a", "c"}));
  cart.RemoveFromCart(MakeBook("a", 12345));  // only the Ean is compared
  EXPECT_EQ(FileEans(), (std::vector<std::string>{"c"}));

  // Lines without an Ean all count as the empty Ean.
  cart.AddToCart(MakeBook(nullptr, 5));
  cart.AddToCart(MakeBook(nullptr, 6));
  cart.AddToCart(MakeBook("", 7));
  EXPECT_EQ(cart.GetSize(), 2u);
  EXPECT_TRUE(cart.IsContain(""));

  // Past the end is one shared empty record.
  const Book& past = cart.GetItem(99);
  EXPECT_EQ(&past, &Cart().GetItem(0));
  EXPECT_EQ(past.ToJson().getMemberNames(), std::vector<std::string>{"cartPositionPrice"});

  cart.Clear();
  EXPECT_EQ(cart.GetSize(), 0u);
  EXPECT_EQ(FileEans(), std::vector<std::string>{});
}

TEST_F(CartTest, FromJsonReadsShopReplyWithoutSaving) {
  Cart cart;
  EXPECT_FALSE(cart.FromJson(Parse(R"({
      "cartPositions": [{"cartPositionEan": "1"}, 5, {"orderPositionGizmoPrize": 2.25}],
      "cart": {"cartID": 77, "cartSessionID": "s", "cartUserID": 8, "cartLastChange": "l"}})")));
  ASSERT_EQ(cart.GetSize(), 3u);
  EXPECT_TRUE(cart.GetItem(1).string_props_.empty());  // a non-object is an empty line
  EXPECT_EQ(cart.GetItem(2).int_props_.at(Book::Price), 225);
  EXPECT_EQ(cart.session_id(), "s");

  // Without positions only the header is read; a present header overwrites all four fields.
  cart.FromJson(Parse(R"({"cart": {"cartID": 5}})"));
  EXPECT_EQ(cart.GetSize(), 0u);
  EXPECT_EQ(cart.cart_id(), 5);
  EXPECT_EQ(cart.session_id() + cart.last_change(), "");
  EXPECT_EQ(cart.user_id(), 0);

  // A header or a reply that is not an object keeps the header.
  cart.FromJson(Parse(R"({"cartPositions": [{}], "cart": [1]})"));
  EXPECT_EQ(cart.GetSize(), 1u);
  cart.FromJson(Parse("[1]"));
  EXPECT_EQ(cart.GetSize(), 0u);
  EXPECT_EQ(cart.cart_id(), 5);

  EXPECT_THROW(cart.FromJson(Parse(R"({"cart": {"cartID": [1]}})")), Json::LogicError);
  // A real of 2^63 is out of range too, not the lowest or highest id.
  EXPECT_THROW(cart.FromJson(Parse(R"({"cart": {"cartUserID": 9223372036854775808.0}})")),
               Json::LogicError);
  EXPECT_FALSE(DeviceFileExists(kCartFile));  // reading a reply never saves
}

TEST_F(CartTest, SaveAndLoadThroughTheFile) {
  Cart cart;
  cart.FromJson(Parse(R"({"cart": {"cartID": 9000000000, "cartSessionID": "sess",
      "cartUserID": 42, "cartLastChange": "yesterday"}})"));
  Cart copy(cart);  // copies carry the session, unlike the file
  EXPECT_EQ(copy.session_id(), "sess");
  Book book = Book::FromJson(Parse(R"({"orderPositionEan": "978", "orderPositionGizmoPrize": 12.34,
      "orderPositionEbookDate": "Jan 5, 2015 1:07:09 PM", "cartPositionQuantity": 1})"));
  cart.AddToCart(book);
  cart.AddToCart(MakeBook("979", 5));
  Json::Value header = Parse(ReadDeviceFile(kCartFile))["cart"];
  EXPECT_EQ(header["castSessionID"], "sess");
  EXPECT_FALSE(header.isMember("cartSessionID"));

  Cart loaded;
  loaded.Load();
  ASSERT_EQ(loaded.GetSize(), 2u);
  EXPECT_EQ(loaded.GetItem(0).int_props_, book.int_props_);
  EXPECT_EQ(loaded.GetItem(0).string_props_, book.string_props_);  // the date stays converted
  EXPECT_EQ(loaded.GetItem(1).string_props_.at(Book::Ean), "979");
  EXPECT_EQ(loaded.cart_id(), 9000000000);
  EXPECT_EQ(loaded.session_id(), "");  // written as "castSessionID", read as "cartSessionID"
  EXPECT_EQ(loaded.user_id(), 42);
  EXPECT_EQ(loaded.last_change(), "yesterday");
  Cart moved;
  moved = std::move(loaded);
  EXPECT_EQ(moved.ToJson()["cartPositions"], cart.ToJson()["cartPositions"]);
  EXPECT_EQ(moved.cart_id(), 9000000000);

  // The file is replaced whole; no temporary file stays beside it.
  auto entries = std::filesystem::directory_iterator(HostPath("/mnt/ext1/system/config"));
  EXPECT_EQ(std::distance(begin(entries), end(entries)), 1);
}

TEST_F(CartTest, LoadOfMissingBrokenOrHostileFile) {
  Cart cart;
  cart.FromJson(Parse(R"({"cartPositions": [{}], "cart": {"cartID": 3, "cartUserID": 4}})"));
  cart.Load();  // no file: no lines, the header kept
  EXPECT_EQ(cart.GetSize(), 0u);
  EXPECT_EQ(cart.cart_id(), 3);

  const std::string deep = std::string(5000, '[') + std::string(5000, ']');
  const std::pair<std::string, size_t> files[] = {
      {"not json", 0},
      // What the reader read before a break or a nesting too deep counts; its error stays inside.
      {R"({"cartPositions": [{"cartPositionEan": "1"}], "x": [)", 1},
      {R"({"cartPositions": [{}, {}], "x": )" + deep + "}", 2},
      {deep, 0},
      {"// saved\n{\"cartPositions\": [{}]}", 1},
  };
  for (const auto& [content, lines] : files) {
    SCOPED_TRACE(content.substr(0, 60));
    cart.FromJson(Parse(R"({"cartPositions": [{}, {}, {}]})"));
    WriteDeviceFile(kCartFile, content);
    EXPECT_NO_THROW(cart.Load());
    EXPECT_EQ(cart.GetSize(), lines);
    EXPECT_EQ(cart.user_id(), 4);
  }
  WriteDeviceFile(kCartFile, R"({"cart": {"cartUserID": "x"}})");
  EXPECT_THROW(cart.Load(), Json::LogicError);

  // A cart that cannot be written is still changed, silently.
  std::filesystem::remove_all(HostPath("/mnt/ext1/system/config"));
  cart.AddToCart(MakeBook("1", 1));
  EXPECT_EQ(cart.GetSize(), 1u);
  EXPECT_FALSE(DeviceFileExists(kCartFile));
}

Cart PricedCart(const std::vector<int64_t>& cents) {
  Cart cart;
  for (int64_t price : cents) cart.AddToCart(MakeBook(std::to_string(price).c_str(), price));
  return cart;
}

// Cents are summed in 32 bits: each price is cut to 32 bits and the sum wraps. The remainder
// is printed in a width-2 field, sign and all.
TEST_F(CartTest, TotalsInEuroAndCents) {
  struct Case {
    std::vector<int64_t> cents;
    double total;
    const char* formatted;
  } cases[] = {
      {{}, 0.0, "0"},
      {{110, 225}, 3.35, "3,35 EUR"},
      {{5}, 0.05, "0,05 EUR"},
      {{100, 0}, 1.0, "1,00 EUR"},
      {{0}, 0.0, "0,00 EUR"},
      {{-5}, -0.05, "0,-5 EUR"},
      {{-105}, -1.05, "-1,-5 EUR"},
      {{(int64_t{1} << 32) + 7}, 0.07, "0,07 EUR"},
      {{2147483647, 1}, -21474836.48, "-21474836,-48 EUR"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.formatted);
    Cart cart = PricedCart(c.cents);
    EXPECT_DOUBLE_EQ(cart.GetTotalPrice(), c.total);
    EXPECT_EQ(cart.GetTotalPriceFormatted(), c.formatted);
  }
}

}  // namespace
