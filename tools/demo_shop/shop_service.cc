#include "shop_service.h"

#include <json/writer.h>

#include <ctime>
#include <random>

#include "demo_catalog.h"

namespace vistrel_demo {

namespace {

std::string Field(const ShopService::Fields& fields, const std::string& name) {
  auto it = fields.find(name);
  return it == fields.end() ? std::string() : it->second;
}

// A decimal id; -1 when the text is not one.
int64_t IdField(const ShopService::Fields& fields, const std::string& name) {
  const std::string text = Field(fields, name);
  if (text.empty() || text.size() > 18) return -1;
  int64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return -1;
    value = value * 10 + (c - '0');
  }
  return value;
}

std::string ToText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["precision"] = 10;  // prices as 4.99, not 4.9900000000000002
  return Json::writeString(builder, value);
}

// The shop's date text: 'Jan 5, 2015 1:07:09 PM' (UTC).
std::string ShopDate(std::time_t when) {
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::tm tm{};
  gmtime_r(&when, &tm);
  const int hour12 = tm.tm_hour % 12 == 0 ? 12 : tm.tm_hour % 12;
  char text[64];
  std::snprintf(text, sizeof text, "%s %d, %d %d:%02d:%02d %s", kMonths[tm.tm_mon], tm.tm_mday,
                tm.tm_year + 1900, hour12, tm.tm_min, tm.tm_sec, tm.tm_hour < 12 ? "AM" : "PM");
  return text;
}

std::string Now() { return ShopDate(std::time(nullptr)); }

double Price(const CatalogBook& book) { return book.price_cents / 100.0; }

}  // namespace

ShopService::ShopService(std::string base_url, std::string client_id)
    : base_url_(std::move(base_url)), client_id_(std::move(client_id)) {
  std::random_device device;
  next_random_ = (static_cast<uint64_t>(device()) << 32) | device() | 1;
}

std::string ShopService::Call(const std::string& call, const Fields& fields, bool* known) {
  using Handler = Json::Value (ShopService::*)(const Fields&, std::string*);
  static const std::map<std::string, Handler> kCalls = {
      {"login", &ShopService::LogIn},
      {"registerUser", &ShopService::RegisterUser},
      {"logout", &ShopService::LogOut},
      {"getCart", &ShopService::GetCart},
      {"addToCart", &ShopService::AddToCart},
      {"prepareEbookOrder", &ShopService::PrepareOrder},
      {"commitOrder", &ShopService::CommitOrder},
      {"checkOrder", &ShopService::CheckOrder},
      {"confirmPayPal", &ShopService::ConfirmPayPal},
      {"getUserEbook", &ShopService::GetUserEbook},
  };
  auto it = kCalls.find(call);
  *known = it != kCalls.end();
  std::string error;
  Json::Value response;
  if (!*known) {
    error = "Unknown call " + call;
  } else if (Field(fields, "clientID") != client_id_) {
    error = "Unknown client ID";
  } else {
    response = (this->*(it->second))(fields, &error);
  }
  Json::Value answer(Json::objectValue);
  answer["error"] = !error.empty();
  if (!error.empty()) {
    answer["response"] = Json::Value(Json::objectValue);
    answer["response"]["errorMsg"] = error;
  } else {
    answer["response"] = response;
  }
  return ToText(answer);
}

// xorshift64: ids that a buyer cannot guess by counting.
uint64_t ShopService::NextRandom() {
  next_random_ ^= next_random_ << 13;
  next_random_ ^= next_random_ >> 7;
  next_random_ ^= next_random_ << 17;
  return next_random_;
}

std::string ShopService::NewSession(const std::string& email) {
  std::string id;
  static const char kHex[] = "0123456789abcdef";
  for (int i = 0; i < 32; ++i) {
    id += kHex[NextRandom() & 0xf];
  }
  sessions_[id] = Session{email, 0};
  return id;
}

Json::Value ShopService::LogIn(const Fields& fields, std::string* error) {
  const std::string email = Field(fields, "username");
  auto it = accounts_.find(email);
  if (it == accounts_.end() || it->second.password != Field(fields, "password")) {
    *error = "Wrong e-mail address or password";
    return Json::Value();
  }
  Json::Value response(Json::objectValue);
  response["sessionID"] = NewSession(email);
  response["userID"] = static_cast<Json::Int64>(it->second.user_id);
  return response;
}

Json::Value ShopService::RegisterUser(const Fields& fields, std::string* error) {
  const std::string email = Field(fields, "email");
  const std::string password = Field(fields, "password");
  if (email.find('@') == std::string::npos || password.empty()) {
    *error = "Please give an e-mail address and a password";
    return Json::Value();
  }
  if (accounts_.count(email) != 0) {
    *error = "This e-mail address is already registered";
    return Json::Value();
  }
  accounts_[email] = Account{next_user_id_++, password};
  Json::Value response(Json::objectValue);
  response["sessionID"] = NewSession(email);
  response["userID"] = static_cast<Json::Int64>(accounts_[email].user_id);
  return response;
}

Json::Value ShopService::LogOut(const Fields& fields, std::string* error) {
  if (sessions_.erase(Field(fields, "sessionID")) == 0) *error = "Unknown session";
  return Json::Value(Json::objectValue);
}

ShopService::Cart* ShopService::SessionCart(const Fields& fields, std::string* error) {
  const std::string session_id = Field(fields, "sessionID");
  auto it = sessions_.find(session_id);
  if (it == sessions_.end()) {
    *error = "Unknown session, please log in again";
    return nullptr;
  }
  Session& session = it->second;
  if (session.cart_id == 0) {
    session.cart_id = next_cart_id_++;
    carts_[session.cart_id] =
        Cart{session.cart_id, session_id, accounts_[session.email].user_id, Now(), {}};
  }
  return &carts_[session.cart_id];
}

Json::Value ShopService::CartJson(const Cart& cart) const {
  Json::Value response(Json::objectValue);
  Json::Value positions(Json::arrayValue);
  for (const auto& line : cart.lines) {
    const CatalogBook* book = FindCatalogBook(line.second);
    Json::Value position(Json::objectValue);
    position["cartPositionID"] = static_cast<Json::Int64>(line.first);
    position["cartID"] = static_cast<Json::Int64>(cart.cart_id);
    position["cartPositionGizmoID"] = static_cast<Json::Int64>(std::stoll(book->ean.substr(7)));
    position["cartPositionIsEbook"] = 1;
    position["cartPositionQuantity"] = 1;
    position["cartPositionEan"] = book->ean;
    position["cartPositionTitle"] = book->title;
    position["cartPositionAuthor"] = book->author;
    position["cartPositionEbookType"] = book->format;
    position["cartPositionThumbnail"] = base_url_ + "/static/cover/" + book->ean + ".jpg";
    position["cartPositionRegisterNumber"] = "R-" + book->ean.substr(7);
    position["cartPositionPrice"] = Price(*book);
    positions.append(position);
  }
  response["cartPositions"] = positions;
  Json::Value header(Json::objectValue);
  header["cartID"] = static_cast<Json::Int64>(cart.cart_id);
  header["cartSessionID"] = cart.session_id;
  header["cartUserID"] = static_cast<Json::Int64>(cart.user_id);
  header["cartLastChange"] = cart.last_change;
  response["cart"] = header;
  return response;
}

Json::Value ShopService::GetCart(const Fields& fields, std::string* error) {
  Cart* cart = SessionCart(fields, error);
  return cart == nullptr ? Json::Value() : CartJson(*cart);
}

Json::Value ShopService::AddToCart(const Fields& fields, std::string* error) {
  Cart* cart = SessionCart(fields, error);
  if (cart == nullptr) return Json::Value();
  const std::string ean = Field(fields, "ean");
  if (FindCatalogBook(ean) == nullptr) {
    *error = "Unknown EAN " + ean;
    return Json::Value();
  }
  if (IdField(fields, "quantity") < 1) {
    *error = "Invalid quantity";
    return Json::Value();
  }
  bool present = false;
  for (const auto& line : cart->lines) present = present || line.second == ean;
  if (!present) {  // e-books: one copy per title, more change nothing
    cart->lines.emplace_back(next_position_id_++, ean);
    cart->last_change = Now();
  }
  Json::Value response(Json::objectValue);
  response["cartID"] = static_cast<Json::Int64>(cart->cart_id);
  return response;
}

Json::Value ShopService::OrderPositionJson(const Order& order, int64_t position_id,
                                           const std::string& ean, bool with_delivery) const {
  const CatalogBook* book = FindCatalogBook(ean);
  Json::Value position(Json::objectValue);
  position["orderPositionID"] = static_cast<Json::Int64>(position_id);
  position["orderID"] = static_cast<Json::Int64>(order.order_id);
  position["orderPositionGizmoID"] = static_cast<Json::Int64>(std::stoll(book->ean.substr(7)));
  position["orderPositionIsEbook"] = 1;
  position["orderPositionEan"] = book->ean;
  position["orderPositionTitle"] = book->title;
  position["orderPositionAuthor"] = book->author;
  position["orderPositionEbookFormat"] = book->format;
  position["orderPositionEbookCover"] = base_url_ + "/static/cover/" + book->ean + ".jpg";
  position["orderPositionGizmoPrize"] = Price(*book);
  if (with_delivery) {
    position["orderPositionEbookLink"] =
        LinksReady(order) ? base_url_ + "/files/" + book->ean + "." + book->extension : "";
    position["orderPositionEbookDate"] = order.paid_date;
  }
  return position;
}

Json::Value ShopService::OrderJson(const Order& order) const {
  Json::Value response(Json::objectValue);
  Json::Value header(Json::objectValue);
  int total = 0;
  Json::Value positions(Json::arrayValue);
  for (const auto& line : order.lines) {
    total += FindCatalogBook(line.second)->price_cents;
    positions.append(OrderPositionJson(order, line.first, line.second, false));
  }
  header["orderID"] = static_cast<Json::Int64>(order.order_id);
  header["orderTotal"] = total / 100.0;
  header["orderCurrency"] = "EUR";
  header["orderStatus"] = order.state == OrderState::kPrepared    ? "prepared"
                          : order.state == OrderState::kCommitted ? "committed"
                                                                  : "paid";
  if (order.state != OrderState::kPrepared) {
    header["orderPaymentLink"] = base_url_ + "/pay/start/" + std::to_string(order.order_id);
    header["orderDateProcessed"] = order.date_processed;
  }
  response["order"] = header;
  response["positions"] = positions;
  return response;
}

Json::Value ShopService::PrepareOrder(const Fields& fields, std::string* error) {
  Cart* cart = SessionCart(fields, error);
  if (cart == nullptr) return Json::Value();
  if (IdField(fields, "cartID") != cart->cart_id) {
    *error = "Unknown cart " + Field(fields, "cartID");
    return Json::Value();
  }
  if (cart->lines.empty()) {
    *error = "The cart is empty";
    return Json::Value();
  }
  Order order;
  order.order_id = next_order_id_++;
  order.email = sessions_[Field(fields, "sessionID")].email;
  for (const auto& line : cart->lines) order.lines.emplace_back(next_position_id_++, line.second);
  order.state = OrderState::kPrepared;
  orders_[order.order_id] = order;
  return OrderJson(order);
}

ShopService::Order* ShopService::FindOrder(const Fields& fields, std::string* error) {
  auto it = orders_.find(IdField(fields, "orderID"));
  if (it == orders_.end()) {
    *error = "Unknown order " + Field(fields, "orderID");
    return nullptr;
  }
  return &it->second;
}

Json::Value ShopService::CommitOrder(const Fields& fields, std::string* error) {
  Cart* cart = SessionCart(fields, error);
  if (cart == nullptr) return Json::Value();
  Order* order = FindOrder(fields, error);
  if (order == nullptr) return Json::Value();
  if (order->email != sessions_[Field(fields, "sessionID")].email) {
    *error = "Unknown order " + Field(fields, "orderID");
    return Json::Value();
  }
  if (order->state != OrderState::kPrepared) {
    *error = "The order has been committed already";
    return Json::Value();
  }
  order->state = OrderState::kCommitted;
  order->date_processed = Now();
  cart->lines.clear();  // the cart has become the order
  cart->last_change = order->date_processed;
  return OrderJson(*order);
}

bool ShopService::LinksReady(const Order& order) const {
  return order.state == OrderState::kPaid && Clock::now() - order.paid_at >= link_delay_;
}

Json::Value ShopService::CheckOrder(const Fields& fields, std::string* error) {
  Order* order = FindOrder(fields, error);
  if (order == nullptr) return Json::Value();
  Json::Value response(Json::objectValue);
  response["orderID"] = static_cast<Json::Int64>(order->order_id);
  response["paymentStatus"] = order->state == OrderState::kPaid ? 1 : 0;
  Json::Value ebooks(Json::arrayValue);
  for (const auto& line : order->lines) {
    ebooks.append(OrderPositionJson(*order, line.first, line.second, true));
  }
  response["ebooks"] = ebooks;
  return response;
}

Json::Value ShopService::ConfirmPayPal(const Fields& fields, std::string* error) {
  const std::string token = Field(fields, "token");
  for (auto& entry : orders_) {
    Order& order = entry.second;
    if (token.empty() || order.token != token) continue;
    if (order.payer_id != Field(fields, "payerID")) {
      *error = "The PayPal payer does not match the payment";
      return Json::Value();
    }
    if (order.state == OrderState::kCommitted) {
      order.state = OrderState::kPaid;
      order.paid_at = Clock::now();
      order.paid_date = Now();
    }
    Json::Value response(Json::objectValue);
    response["orderID"] = static_cast<Json::Int64>(order.order_id);
    response["paymentStatus"] = 1;
    return response;
  }
  *error = "Unknown PayPal token";
  return Json::Value();
}

Json::Value ShopService::GetUserEbook(const Fields& fields, std::string* error) {
  auto session = sessions_.find(Field(fields, "sessionID"));
  if (session == sessions_.end()) {
    *error = "Unknown session, please log in again";
    return Json::Value();
  }
  Json::Value books(Json::arrayValue);
  for (const auto& entry : orders_) {
    const Order& order = entry.second;
    if (order.email != session->second.email || order.state != OrderState::kPaid) continue;
    for (const auto& line : order.lines) {
      books.append(OrderPositionJson(order, line.first, line.second, true));
    }
  }
  return books;
}

std::string ShopService::PaymentToken(int64_t order_id) {
  auto it = orders_.find(order_id);
  if (it == orders_.end() || it->second.state != OrderState::kCommitted) return "";
  Order& order = it->second;
  if (order.token.empty()) {
    static const char kAlphabet[] = "0123456789ABCDEFGHJKLMNPRSTUVWXYZ";
    order.token = "EC-";
    for (int i = 0; i < 17; ++i) {
      order.token += kAlphabet[NextRandom() % (sizeof kAlphabet - 1)];
    }
    order.payer_id = "DEMOPAYER" + std::to_string(accounts_[order.email].user_id);
  }
  return order.token;
}

std::string ShopService::PaymentStart(int64_t order_id, bool cancel) {
  const std::string token = PaymentToken(order_id);
  if (token.empty()) return "";
  return base_url_ + "/pay/gateway?order=" + std::to_string(order_id) + "&token=" + token +
         (cancel ? "&cancel=1" : "");
}

std::string ShopService::PaymentGateway(int64_t order_id, bool cancel) {
  auto it = orders_.find(order_id);
  if (it == orders_.end() || it->second.token.empty()) return "";
  return PaymentReturn(it->second.token, cancel);
}

bool ShopService::FindPayment(const std::string& token, PaymentView* view) const {
  if (token.empty()) return false;
  for (const auto& entry : orders_) {
    const Order& order = entry.second;
    if (order.token != token || order.state != OrderState::kCommitted) continue;
    *view = PaymentView();
    view->order_id = order.order_id;
    view->token = token;
    view->currency = "EUR";
    for (const auto& line : order.lines) {
      const CatalogBook* book = FindCatalogBook(line.second);
      view->lines.emplace_back(book->title, book->price_cents);
      view->total_cents += book->price_cents;
    }
    return true;
  }
  return false;
}

std::string ShopService::PaymentReturn(const std::string& token, bool cancel) const {
  for (const auto& entry : orders_) {
    const Order& order = entry.second;
    if (token.empty() || order.token != token) continue;
    if (cancel) return base_url_ + "/pay/back?order=" + std::to_string(order.order_id);
    return base_url_ + "/pay/paypal?token=" + order.token + "&PayerID=" + order.payer_id;
  }
  return "";
}

}  // namespace vistrel_demo
