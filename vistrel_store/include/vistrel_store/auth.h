#ifndef VISTREL_STORE_AUTH_H_
#define VISTREL_STORE_AUTH_H_

#include <string>

#include "nbutils/browser_authorization.h"
#include "vistrel_store/export.h"

namespace norbel {
namespace vistrel {

// The payment step in the device browser. Run() shows the order's payment page and returns
// when the browser reaches the shop's PayPal return address (".../pay/paypal?token=..&PayerID=..")
// or its give-up address (".../pay/back"), or when the buyer closes the browser.
class VISTREL_STORE_EXPORT Auth : public utilities::BrowserAuthorization::IEventHandler {
 public:
  Auth();
  ~Auth() override;

  // Runs one browser session on `url`; returns the browser's result (0 when the session was
  // ended by a return address).
  int Run(const std::string& url);
  // Whether the browser session still runs (read under the browser's lock).
  bool IsRunning();
  // Brings the browser to the front.
  void SetFocus();

  void UrlChanged(const std::string& url) override;
  void BrowserClosed() override;

 private:
  utilities::BrowserAuthorization browser_;

 public:
  // What the last session found; read them once Run() has returned.
  bool success_;          // a PayPal return with a "token" was seen
  std::string token_;     // its "token"
  std::string payer_id_;  // its "PayerID" ("" when absent)
};

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_AUTH_H_
