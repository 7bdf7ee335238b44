#include "vistrel_store/cart.h"

#include <json/reader.h>
#include <json/writer.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <utility>

#include "book_props.h"
#include "json_int64.h"
#include "memory_budget.h"
#include "nbutils/device_environment.h"
#include "nbutils/file_utils.h"

namespace norbel {
namespace vistrel {
namespace {

const char kCartFile[] = "/mnt/ext1/system/config/vistrel_cart";
// No cart file is larger than a shop answer may be.
constexpr int64_t kMaxCartFileBytes = 32 << 20;

// Reads the cart file as JSON into *json: as much as the reader got before any fault, or null
// when there is no readable file. Returns what was wrong with it, empty when nothing was.
std::string ReadCartFile(Json::Value* json) {
  std::string text;
  switch (utilities::ReadDeviceFile(kCartFile, kMaxCartFileBytes, &text)) {
    case utilities::FileRead::kRead:
      break;
    case utilities::FileRead::kMissing:
      return std::string();
    case utilities::FileRead::kNotRegular:
      return "not a regular file";
    case utilities::FileRead::kTooLarge:
      return "larger than 32 MiB";
    case utilities::FileRead::kFailed:
      return "a read error";
  }
  if (text.empty()) return std::string();  // nothing in it to lose
  if (JsonCost(text.data(), text.size()) > kMaxDocumentCost) {
    return "it would take more memory than a cart may";
  }
  Json::Reader reader;
  try {
    if (reader.parse(text.data(), text.data() + text.size(), *json, true)) return std::string();
    return "not JSON";
  } catch (const std::exception&) {
    // Nested too deeply for the reader: like a broken file, it gives what was read so far.
    return "nested too deeply";
  }
}

// "20261122T231500Z"
// The signed 32-bit sum of the lines' cents; each Price is cut to 32 bits and the sum wraps
// around as 32-bit arithmetic does.
int32_t TotalCents(const std::vector<Book>& items) {
  uint32_t sum = 0;
  for (const Book& book : items) {
    auto price = book.int_props_.find(Book::Price);
    if (price != book.int_props_.end()) sum += static_cast<uint32_t>(price->second);
  }
  return static_cast<int32_t>(sum);
}

}  // namespace

Cart::Cart() : cart_id_(0), user_id_(0) {}

Cart::Cart(const Cart& other)
    : items_(other.items_),
      cart_id_(other.cart_id_),
      session_id_(other.session_id_),
      user_id_(other.user_id_),
      last_change_(other.last_change_) {}

Cart& Cart::operator=(Cart&& other) noexcept {
  if (this == &other) return *this;
  items_ = std::move(other.items_);
  cart_id_ = other.cart_id_;
  session_id_ = std::move(other.session_id_);
  user_id_ = other.user_id_;
  last_change_ = std::move(other.last_change_);
  return *this;
}

Cart::~Cart() {}

void Cart::AddToCart(const Book& book) {
  if (IsContain(EanOf(book))) return;
  items_.push_back(book);
  Save();
}

// The shop's interface passes the Ean by value.
bool Cart::IsContain(std::string ean) const {  // NOLINT(performance-unnecessary-value-param)
  for (const Book& item : items_) {
    if (HasEan(item, ean)) return true;
  }
  return false;
}

void Cart::RemoveFromCart(unsigned int index) {
  if (index >= items_.size()) return;
  items_.erase(items_.begin() + index);
  Save();
}

void Cart::RemoveFromCart(const Book& book) {
  if (EraseLine(book)) Save();
}

bool Cart::EraseLine(const Book& book) {
  std::string ean = EanOf(book);
  for (auto it = items_.begin(); it != items_.end(); ++it) {
    if (HasEan(*it, ean)) {
      items_.erase(it);
      return true;
    }
  }
  return false;
}

void Cart::Clear() {
  items_.clear();
  Save();
}

const Book& Cart::GetItem(unsigned int index) const {
  static const Book kEmpty;
  return index < items_.size() ? items_[index] : kEmpty;
}

unsigned int Cart::GetSize() const { return static_cast<unsigned int>(items_.size()); }

void Cart::Save() {
  // Nobody is told about a cart that could not be written; the cart in memory stays. The file
  // may hold the shop's session, so only the device's owner reads it.
  utilities::WriteFileAtomically(kCartFile, Json::StyledWriter().write(ToJson()), 0600);
}

void Cart::Load() {
  items_.clear();
  Json::Value json;
  ReadCartFile(&json);
  FromJson(json);
}

bool Cart::SetAsideUnreadableFile(std::string* kept_as, std::string* problem) {
  try {
    Json::Value json;
    std::string wrong = ReadCartFile(&json);
    if (wrong.empty()) {
      try {
        Cart().FromJson(json);
      } catch (const Json::Exception& e) {
        wrong = std::string("a member of the wrong kind: ") + e.what();
      }
    }
    if (wrong.empty()) return false;
    std::string kept;
    if (!utilities::KeepFileAside(kCartFile, "unreadable", &kept)) return false;
    Cart().Save();
    *kept_as = kept;
    *problem = wrong;
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool Cart::FromJson(const Json::Value& json) {
  items_.clear();
  if (!json.isObject()) return false;
  const Json::Value& positions = json["cartPositions"];
  if (positions.isArray()) {
    for (const Json::Value& position : positions) items_.push_back(Book::FromJson(position));
  }
  const Json::Value& cart = json["cart"];
  if (cart.isObject()) {
    cart_id_ = AsInt64(cart["cartID"]);
    session_id_ = cart["cartSessionID"].asString();
    user_id_ = AsInt64(cart["cartUserID"]);
    last_change_ = cart["cartLastChange"].asString();
  }
  return false;
}

Json::Value Cart::ToJson() const {
  Json::Value header(Json::objectValue);
  header["cartID"] = static_cast<Json::Int64>(cart_id_);
  header["castSessionID"] = session_id_;  // the shop's reply spells it "cartSessionID"
  header["cartUserID"] = static_cast<Json::Int64>(user_id_);
  header["cartLastChange"] = last_change_;

  Json::Value positions(Json::arrayValue);
  for (const Book& item : items_) positions.append(item.ToJson());

  Json::Value json(Json::objectValue);
  json["cartPositions"] = positions;
  json["cart"] = header;
  return json;
}

double Cart::GetTotalPrice() const { return static_cast<double>(TotalCents(items_)) / 100.0; }

std::string Cart::GetTotalPriceFormatted() const {
  if (items_.empty()) return "0";
  int32_t cents = TotalCents(items_);
  // A negative remainder prints as "-5" in the width-2 field: -5 cents show as "0,-5 EUR".
  char text[32];
  std::snprintf(text, sizeof(text), "%d,%02d EUR", static_cast<int>(cents / 100),
                static_cast<int>(cents % 100));
  return text;
}

}  // namespace vistrel
}  // namespace norbel
