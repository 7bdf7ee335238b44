// The demo shop's web service and payment provider without the HTTP around them: accounts,
// sessions, carts, orders and payments in memory. Not thread-safe; DemoShop serialises calls.
#ifndef TOOLS_DEMO_SHOP_SHOP_SERVICE_H_
#define TOOLS_DEMO_SHOP_SHOP_SERVICE_H_

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vistrel_demo {

class ShopService {
 public:
  using Fields = std::multimap<std::string, std::string>;
  using Clock = std::chrono::steady_clock;

  // `base_url` is where the shop's pages and files are ("http://127.0.0.1:<port>").
  ShopService(std::string base_url, std::string client_id);

  // Answers one web-service call ("login", "getCart", ...) with the enveloped JSON text:
  // {"error": false, "response": ...} or {"error": true, "response": {"errorMsg": ...}}.
  // `known` is false for a call the shop does not have.
  std::string Call(const std::string& call, const Fields& fields, bool* known);

  // The payment pages. Each returns the address to redirect to, or "" when the order is not
  // waiting for payment. Start hands out the PayPal token of the order.
  std::string PaymentStart(int64_t order_id, bool cancel);
  std::string PaymentGateway(int64_t order_id, bool cancel);

  // The payment as its checkout page shows it.
  struct PaymentView {
    int64_t order_id = -1;
    std::string token;
    std::vector<std::pair<std::string, int>> lines;  // title, price in cents
    int total_cents = 0;
    std::string currency;
  };
  // The PayPal token of a committed order, handed out on first use; "" when the order is not
  // waiting for payment.
  std::string PaymentToken(int64_t order_id);
  // The order waiting for payment under `token`. False when there is none.
  bool FindPayment(const std::string& token, PaymentView* view) const;
  // Where the provider sends the buyer back: the PayPal return with token and payer, or the
  // shop's back address when `cancel`. "" for an unknown token.
  std::string PaymentReturn(const std::string& token, bool cancel) const;

  void set_link_delay(std::chrono::milliseconds delay) { link_delay_ = delay; }

 private:
  struct Account {
    int64_t user_id;
    std::string password;
  };
  struct Session {
    std::string email;
    int64_t cart_id;
  };
  struct Cart {
    int64_t cart_id;
    std::string session_id;
    int64_t user_id;
    std::string last_change;
    std::vector<std::pair<int64_t, std::string>> lines;  // position id, EAN
  };
  enum class OrderState { kPrepared, kCommitted, kPaid };
  struct Order {
    int64_t order_id;
    std::string email;
    std::vector<std::pair<int64_t, std::string>> lines;
    OrderState state;
    std::string date_processed;
    std::string token;
    std::string payer_id;
    Clock::time_point paid_at;
    std::string paid_date;  // as the shop writes dates: 'Jan 5, 2015 1:07:09 PM'
  };

  // Each returns the "response" value, or sets *error to the refusal text.
  Json::Value LogIn(const Fields& fields, std::string* error);
  Json::Value RegisterUser(const Fields& fields, std::string* error);
  Json::Value LogOut(const Fields& fields, std::string* error);
  Json::Value GetCart(const Fields& fields, std::string* error);
  Json::Value AddToCart(const Fields& fields, std::string* error);
  Json::Value PrepareOrder(const Fields& fields, std::string* error);
  Json::Value CommitOrder(const Fields& fields, std::string* error);
  Json::Value CheckOrder(const Fields& fields, std::string* error);
  Json::Value ConfirmPayPal(const Fields& fields, std::string* error);
  Json::Value GetUserEbook(const Fields& fields, std::string* error);

  uint64_t NextRandom();
  std::string NewSession(const std::string& email);
  // The session's cart, made on first use; null for an unknown session (sets *error).
  Cart* SessionCart(const Fields& fields, std::string* error);
  Order* FindOrder(const Fields& fields, std::string* error);
  Json::Value CartJson(const Cart& cart) const;
  Json::Value OrderJson(const Order& order) const;
  Json::Value OrderPositionJson(const Order& order, int64_t position_id, const std::string& ean,
                                bool with_delivery) const;
  bool LinksReady(const Order& order) const;

  std::string base_url_;
  std::string client_id_;
  std::chrono::milliseconds link_delay_{1000};
  int64_t next_user_id_ = 1001;
  int64_t next_cart_id_ = 5001;
  int64_t next_order_id_ = 70001;
  int64_t next_position_id_ = 1;
  uint64_t next_random_ = 0x2545f4914f6cdd1dULL;
  std::map<std::string, Account> accounts_;  // by e-mail address
  std::map<std::string, Session> sessions_;  // by session id
  std::map<int64_t, Cart> carts_;
  std::map<int64_t, Order> orders_;
};

}  // namespace vistrel_demo

#endif  // TOOLS_DEMO_SHOP_SHOP_SERVICE_H_
