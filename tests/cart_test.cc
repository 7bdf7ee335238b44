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
  // The Eans of the saved file; removes it, so that a later save shows as its reappearance.
  std::string TakeFileEans() const {
    std::string eans;
    Json::Value file = Parse(ReadDeviceFile(kCartFile));
    for (const Json::Value& line : file["cartPositions"])
      eans += line["cartPositionEan"].asString() + ",";
    std::filesystem::remove(HostPath(kCartFile));
    return eans;
  }
};

TEST_F(CartTest, LinesAreIdentifiedByEanAndOnlyChangesSave) {
  Cart cart;
  for (const char* ean : {"a", "b", "c"}) cart.AddToCart(MakeBook(ean, 100));
  EXPECT_EQ(TakeFileEans(), "a,b,c,");
  cart.AddToCart(MakeBook("a", 999));     // same title: refused
  cart.RemoveFromCart(3u);                // past the end
  cart.RemoveFromCart(MakeBook("x", 1));  // not in the cart
  EXPECT_EQ(cart.GetSize(), 3u);
  EXPECT_FALSE(DeviceFileExists(kCartFile));

  cart.RemoveFromCart(1u);  // later lines move up
  EXPECT_EQ(TakeFileEans(), "a,c,");
  cart.RemoveFromCart(MakeBook("a", 12345));  // only the Ean is compared
  EXPECT_EQ(TakeFileEans(), "c,");
  cart.AddToCart(MakeBook(nullptr, 5));  // no Ean counts as the empty Ean
  cart.AddToCart(MakeBook("", 7));
  EXPECT_EQ(cart.GetSize(), 2u);
  EXPECT_EQ(cart.GetItem(99).ToJson().getMemberNames(),
            std::vector<std::string>{"cartPositionPrice"});
  cart.Clear();
  EXPECT_EQ(TakeFileEans(), "");
}

TEST_F(CartTest, FromJsonReadsShopReplyWithoutSaving) {
  Cart cart;
  cart.FromJson(
      Parse(R"({"cartPositions": [{}, 5], "cart": {"cartID": 7, "cartSessionID": "s"}})"));
  EXPECT_EQ(cart.GetSize(), 2u);
  cart.FromJson(Parse(R"({"cart": {"cartID": 5}})"));  // the header alone, all of it
  EXPECT_EQ(cart.GetSize(), 0u);
  EXPECT_EQ(cart.cart_id(), 5);
  EXPECT_EQ(cart.session_id(), "");
  // A real of 2^63 is out of range, not the lowest or highest id.
  EXPECT_THROW(cart.FromJson(Parse(R"({"cart": {"cartUserID": 9223372036854775808.0}})")),
               Json::LogicError);
  EXPECT_FALSE(DeviceFileExists(kCartFile));
}

TEST_F(CartTest, SaveAndLoadThroughTheFileDropTheSession) {
  Cart cart;
  cart.FromJson(Parse(R"({"cart": {"cartID": 9000000000, "cartSessionID": "sess",
      "cartUserID": 42, "cartLastChange": "yesterday"}})"));
  cart.AddToCart(MakeBook("978", 1234));
  EXPECT_EQ(Parse(ReadDeviceFile(kCartFile))["cart"]["castSessionID"], "sess");

  Cart loaded;
  loaded.Load();
  ASSERT_EQ(loaded.GetSize(), 1u);
  EXPECT_EQ(loaded.GetItem(0).int_props_.at(Book::Price), 1234);
  EXPECT_EQ(loaded.cart_id(), 9000000000);
  EXPECT_EQ(loaded.session_id(), "");  // written as "castSessionID", read as "cartSessionID"
  EXPECT_EQ(loaded.user_id(), 42);
  EXPECT_EQ(loaded.last_change(), "yesterday");

  // A broken file keeps what was read before the break.
  WriteDeviceFile(kCartFile, R"({"cartPositions": [{"cartPositionEan": "1"}], "x": [)");
  EXPECT_NO_THROW(loaded.Load());
  EXPECT_EQ(loaded.GetSize(), 1u);
}

// Cents are summed in 32 bits; the remainder is printed in a width-2 field, sign and all.
TEST_F(CartTest, TotalsInEuroAndCents) {
  const std::tuple<std::vector<int64_t>, double, const char*> cases[] = {
      {{}, 0.0, "0"},
      {{110, 225}, 3.35, "3,35 EUR"},
      {{-5}, -0.05, "0,-5 EUR"},
      {{2147483647, 1}, -21474836.48, "-21474836,-48 EUR"}};
  for (const auto& [cents, total, formatted] : cases) {
    Cart cart;
    for (int64_t price : cents) cart.AddToCart(MakeBook(std::to_string(price).c_str(), price));
    EXPECT_DOUBLE_EQ(cart.GetTotalPrice(), total) << formatted;
    EXPECT_EQ(cart.GetTotalPriceFormatted(), formatted);
  }
}

}  // namespace
