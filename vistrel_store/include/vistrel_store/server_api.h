#ifndef VISTREL_STORE_SERVER_API_H_
#define VISTREL_STORE_SERVER_API_H_

#include <cstdint>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "vistrel_store/book.h"
#include "vistrel_store/cart.h"
#include "vistrel_store/chek_result.h"
#include "vistrel_store/export.h"
#include "vistrel_store/language.h"
#include "vistrel_store/order.h"
#include "vistrel_store/switchboard_config.h"

namespace norbel {
namespace vistrel {

// The client of the shop's web service and of the configuration server.
//
// Every shop call is one blocking request with a 30-second limit. JSON calls POST a form to
// config_.clientShopWebserviceUrl + path and read an answer of the form
// {"error": bool, "response": ...}. A call succeeds (kOk) when the transfer worked, the
// status was 200 and "error" was false or absent; otherwise it fails (kFailed), with the
// shop's "errorMsg" in message_ when the shop refused. On failure the records returned beside
// the Result are default-constructed.
//
// Failures are results, with one exception: an answer whose root or "response" is JSON of
// another kind than an object (or null), or whose "error" or records hold a member of the wrong
// type, raises the JSON library's Json::LogicError out of the call.
//
// Not thread-safe: one call at a time.
class VISTREL_STORE_EXPORT ServerApi {
 public:
  // The only two outcomes of a call.
  enum Code : int32_t { kOk = 0, kFailed = 1 };

  // A default Result is kOk, as is one made from kOk alone.
  struct Result {
    Result(Code code = kOk) : code_(code) {}  // NOLINT(google-explicit-constructor)
    Result(Code code, std::string message) : code_(code), message_(std::move(message)) {}

    Code code_;
    std::string message_;  // the shop's "errorMsg" of a refusal, else ""
  };

  ServerApi();
  ~ServerApi();

  // "/login" with "username" (the e-mail), "password", "clientID"; keeps the new session.
  Result LogIn(const std::string& email, const std::string& password);
  // "/logout"; without a session nothing is sent. Forgets the session on success.
  Result LogOut();
  // "/registerUser" with "email", "password", "clientID"; the new account is logged in.
  Result Register(const std::string& email, const std::string& password);

  // GETs `url` from the configuration server; the answer is the bare configuration object.
  std::tuple<Result, SwitchboardConfig> CallSwitchboard(const std::string& url);

  // GETs the XML language list from "filter/languages" beside the web-service address.
  std::tuple<Result, std::vector<Language>> GetLanguages();

  // The purchase calls, in the order of a purchase. Each sends "clientID"; all but CheckOrder
  // and ConfirmPayPal send the session as "sessionID" (an order is checked by its id, a PayPal
  // payment confirmed by the provider's token and payer id alone).
  //
  // "/getCart": the shop's cart with its lines.
  std::tuple<Result, Cart> GetCart();
  // "/addToCart" with "ean" and "quantity".
  Result AddToCart(const std::string& ean, int quantity);
  // "/prepareEbookOrder" with "cartID": an order whose "order" object holds its "orderID".
  std::tuple<Result, Order> PrepareOrder(int64_t cart_id);
  // "/checkOrder" with "orderID": the payment status and the delivered e-books.
  std::tuple<Result, ChekResult> CheckOrder(int64_t order_id);
  // "/commitOrder" with "orderID" and "webpage" (the shop's image address, a build setting):
  // the committed order with its "orderPaymentLink".
  std::tuple<Result, Order> CommitOrder(int64_t order_id);
  // "/getUserEbook": every e-book the buyer owns, with its download link.
  std::tuple<Result, std::vector<Book>> GetUserEbook();
  // "/confirmPayPal" with "token" and "payerID".
  Result ConfirmPayPal(const std::string& token, const std::string payer_id);

  // The configuration in force; assigned by the owner.
  SwitchboardConfig config_;
  // The shop session; "" when there is none.
  std::string session_id_;
};

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_SERVER_API_H_
