// The demo payment provider's pages as a buyer sees them in a browser: a checkout page with the
// order, an e-mail field, a Pay button and a cancel link, then a processing page whose script
// moves on by itself to the return address.
#ifndef TOOLS_DEMO_SHOP_PAYMENT_PAGES_H_
#define TOOLS_DEMO_SHOP_PAYMENT_PAGES_H_

#include <string>

#include "shop_service.h"

namespace vistrel_demo {

// The checkout page of `payment`. `problem`, when not empty, is shown above the form (an
// e-mail address that was refused).
std::string CheckoutPage(const ShopService::PaymentView& payment, const std::string& shop_name,
                         const std::string& problem);

// The page shown while the payment "is processed": it notes the step in the address bar, then
// goes on to /pay/complete?token=... by script after `delay_ms`; without scripts, by a link.
std::string ProcessingPage(const std::string& token, int delay_ms);

// Whether `email` looks like an address: something@something.something, no spaces.
bool PlausibleEmail(const std::string& email);

// `text` with the characters that HTML gives a meaning replaced by references.
std::string EscapeHtml(const std::string& text);

}  // namespace vistrel_demo

#endif  // TOOLS_DEMO_SHOP_PAYMENT_PAGES_H_
