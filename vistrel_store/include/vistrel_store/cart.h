#ifndef VISTREL_STORE_CART_H_
#define VISTREL_STORE_CART_H_

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

#include "vistrel_store/book.h"
#include "vistrel_store/export.h"

namespace norbel {
namespace vistrel {

// The buyer's shopping cart as the device keeps it, with its file
// "/mnt/ext1/system/config/vistrel_cart". Lines are identified by their Ean (absent counts as
// ""). AddToCart and both RemoveFromCart save the file when they change the cart; Clear always
// saves. A Cart is copy-constructed, or moved: write `a = Cart(b)` to assign a copy.
class VISTREL_STORE_EXPORT Cart {
 public:
  Cart();
  Cart(const Cart& other);
  Cart& operator=(Cart&& other) noexcept;
  ~Cart();

  // Appends a copy and saves, unless a line with the same Ean is there already.
  void AddToCart(const Book& book);
  bool IsContain(std::string ean) const;  // NOLINT(performance-unnecessary-value-param)
  // Erases the line and saves; an index past the end changes nothing.
  void RemoveFromCart(unsigned int index);
  // Erases the first line with the book's Ean and saves; no such line changes nothing.
  void RemoveFromCart(const Book& book);
  // Erases the first line with the book's Ean in memory only: the file keeps the line until
  // the next save. Returns whether a line was erased.
  bool EraseLine(const Book& book);
  // Removes every line and saves; the ids and texts of the cart are kept.
  void Clear();
  // The line at `index`, or one shared empty Book past the end.
  const Book& GetItem(unsigned int index) const;
  unsigned int GetSize() const;

  // Writes the file (mode 0600: it may hold the shop's session); a file that cannot be
  // written is skipped silently.
  void Save();
  // Removes every line, then reads the file. A missing file leaves no lines and the cart's ids
  // as they were; a broken one gives whatever could be read of it. A link, FIFO, device or
  // folder at the file's path, or a file that would take more memory than any shop answer
  // may, counts as missing. A member of the wrong kind raises the JSON library's error.
  void Load();

  // Addition for callers that must not stop at a broken cart file. When the cart file exists
  // but cannot be read into a cart (not a regular file, too large, not JSON, or a member of
  // the wrong kind), renames it to "vistrel_cart.unreadable-<UTC time>" beside it, writes an
  // empty cart file in its place and returns true, with the kept file's device path in
  // *kept_as and what was wrong with it in *problem. Otherwise changes nothing and returns
  // false. Never throws.
  static bool SetAsideUnreadableFile(std::string* kept_as, std::string* problem);

  // Replaces the lines by the reply's "cartPositions" and, when "cart" is an object, the
  // cart's ids and texts by its members. Always returns false.
  bool FromJson(const Json::Value& json);
  Json::Value ToJson() const;

  // Sum of the lines' prices in currency units.
  double GetTotalPrice() const;
  // "12,34 EUR"; "0" for a cart without lines.
  std::string GetTotalPriceFormatted() const;

  const std::vector<Book>& items() const { return items_; }
  int64_t cart_id() const { return cart_id_; }
  // The shop's "cartSessionID"; not kept in the file.
  const std::string& session_id() const { return session_id_; }
  int64_t user_id() const { return user_id_; }
  const std::string& last_change() const { return last_change_; }

 private:
  std::vector<Book> items_;
  int64_t cart_id_;
  std::string session_id_;
  int64_t user_id_;
  std::string last_change_;
};

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_CART_H_
