// An in-process demo of every remote party the store library talks to, on one loopback HTTP
// server: the configuration server, the shop web service, the payment pages and the file host.
//
//   GET  /norbel/config/<serial>    flat JSON shop configuration pointing at this server
//   POST /ws/shop/<call>            the shop web service, form fields in, enveloped JSON out
//   GET  /ws/filter/languages       the language list (XML)
//   GET  /opds/...                  the catalogue as OPDS 1.2 (the configuration's
//                                   clientOPDSCatalogUrl), see demo_opds.h
//   GET  /opds2/...                 the same books as OPDS 2.0
//   GET  /pay/start/<order id>      the payment link. Redirect style: redirects through a
//                                   gateway to /pay/paypal?token=..&PayerID=.. (or /pay/back).
//                                   Page style: redirects to the checkout page
//   GET  /pay/checkout?token=..     checkout page: the order, an e-mail field, a Pay button
//                                   (POST /pay/authorize) and a cancel link (/pay/back)
//   POST /pay/authorize             the form: 303 to /pay/processing, whose script goes on to
//   GET  /pay/complete?token=..     which redirects to /pay/paypal?.. (or /pay/back)
//   GET  /files/<ean>.<ext>         the bought books
//   GET  /static/standby.bmp        the shop's standby picture
//
// State (accounts, sessions, carts, orders) lives in memory and dies with the object. The
// misbehaviour switches make the server slow, failing or unreliable for tests and demos.
#ifndef TOOLS_DEMO_SHOP_DEMO_SHOP_H_
#define TOOLS_DEMO_SHOP_DEMO_SHOP_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace vistrel_demo {

class ShopService;

// How the payment link behaves: a chain of redirects that a redirect follower can walk, or real
// pages that a buyer fills in a browser.
enum class PaymentStyle { kRedirect, kPage };

// How a path fails when told to.
enum class Failure {
  kNone,
  kHttp500,    // status 500 with a short text body
  kShopError,  // status 200, {"error": true, "response": {"errorMsg": "..."}}
  kDrop,       // status 200 headers, then half the body, then the connection is closed
};

class DemoShop {
 public:
  static constexpr const char* kClientId = "vistrel-demo-01";
  static constexpr const char* kShopName = "Vistrel Demo Shop";

  DemoShop();
  ~DemoShop();
  DemoShop(const DemoShop&) = delete;
  DemoShop& operator=(const DemoShop&) = delete;

  // Listens on 127.0.0.1:`port` (0: a port the OS picks) on a thread of its own. False when
  // the port cannot be bound.
  bool Start(int port = 0);
  // Stops serving and waits for the server thread; also done by the destructor.
  void Stop();

  int port() const { return port_; }
  // "http://127.0.0.1:<port>"
  std::string base_url() const;
  // The configuration server's base address: base_url() + "/norbel/config/".
  std::string switchboard_url() const;
  // The catalogue: OPDS 1.2 at base_url() + "/opds/" (the configuration's
  // clientOPDSCatalogUrl), OPDS 2.0 at base_url() + "/opds2/".
  std::string catalog_url() const;
  std::string catalog2_url() const;

  // ---- Misbehaviour --------------------------------------------------------------------------

  // Every answer waits this long first.
  void SetAnswerDelay(std::chrono::milliseconds delay);
  // Requests whose path begins with `path_prefix` fail as told (kNone removes the rule).
  void SetFailure(const std::string& path_prefix, Failure failure);
  // After a payment is confirmed, e-book links stay empty for this long (default 1 s).
  void SetLinkDelay(std::chrono::milliseconds delay);
  // Book files are sent in 1 KiB pieces with this pause between them (default none).
  void SetFileChunkDelay(std::chrono::milliseconds delay);
  // The payment link's style (default kRedirect).
  void SetPaymentStyle(PaymentStyle style);
  // Payment pages end at "/pay/back" (the buyer gave up) instead of the PayPal return.
  void SetCancelPayment(bool cancel);

  // ---- Observation ---------------------------------------------------------------------------

  // The serial number of the last configuration request ("" when it named none).
  std::string last_serial() const;
  // The body served for a book ("" for an unknown EAN).
  std::string BookFile(const std::string& ean) const;

 private:
  void InstallRoutes();
  void InstallPaymentPages();
  bool ApplyMisbehaviour(const httplib::Request& request, httplib::Response& response);
  Failure FailureFor(const std::string& path) const;
  // Sets the answer, sending it in pieces or dropping it half-way when told to.
  void Reply(const httplib::Request& request, httplib::Response& response, const std::string& body,
             const std::string& content_type);

  std::string Config() const;
  std::string Languages() const;

  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  std::atomic<bool> loop_ended_{false};
  int port_ = 0;
  std::map<std::string, std::string> book_files_;  // EAN to file body, made once
  std::string standby_bmp_;

  mutable std::mutex lock_;  // guards everything below
  std::unique_ptr<ShopService> service_;
  std::chrono::milliseconds answer_delay_{0};
  std::chrono::milliseconds link_delay_{1000};
  std::chrono::milliseconds file_chunk_delay_{0};
  std::map<std::string, Failure> failures_;
  bool cancel_payment_ = false;
  PaymentStyle payment_style_ = PaymentStyle::kRedirect;
  std::string last_serial_;
};

}  // namespace vistrel_demo

#endif  // TOOLS_DEMO_SHOP_DEMO_SHOP_H_
