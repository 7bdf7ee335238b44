#include "payment_pages.h"

#include <cstdio>

#include "book_files.h"

namespace vistrel_demo {
namespace {

const char kStyle[] =
    "<style>body{font-family:sans-serif;max-width:34em;margin:2em auto;padding:0 1em}"
    "table{width:100%;border-collapse:collapse}td,th{padding:.3em 0;text-align:left}"
    "td.price,th.price{text-align:right}th{border-top:1px solid #888}"
    "label,input,button{display:block;font-size:1.1em;margin:.4em 0}input{width:100%}"
    "button{padding:.5em 2em}.problem{color:#a00}</style>";

std::string Money(int cents, const std::string& currency) {
  char text[32];
  std::snprintf(text, sizeof text, "%d.%02d", cents / 100, cents % 100);
  return text + (" " + currency);
}

std::string Head(const std::string& title) {
  return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
         "<meta name=\"viewport\" content=\"width=device-width\"><title>" +
         EscapeHtml(title) + "</title>" + kStyle + "</head>\n<body>\n";
}

}  // namespace

std::string EscapeHtml(const std::string& text) { return XmlEscape(text); }

bool PlausibleEmail(const std::string& email) {
  const size_t at = email.find('@');
  return email.size() <= 254 && at != std::string::npos && at > 0 &&
         email.find('@', at + 1) == std::string::npos &&
         email.find('.', at + 2) != std::string::npos && email.back() != '.' &&
         email.find_first_of(" \t\r\n<>\"") == std::string::npos;
}

std::string CheckoutPage(const ShopService::PaymentView& payment, const std::string& shop_name,
                         const std::string& problem) {
  const std::string order = std::to_string(payment.order_id);
  std::string page = Head("Vistrel Pay: checkout");
  page += "<h1>Vistrel Pay</h1>\n<p>Order " + order + " at " + EscapeHtml(shop_name) + "</p>\n";
  page += "<table id=\"order\">\n";
  for (const auto& [title, cents] : payment.lines) {
    page += "<tr><td>" + EscapeHtml(title) + "</td><td class=\"price\">" +
            Money(cents, payment.currency) + "</td></tr>\n";
  }
  const std::string total = Money(payment.total_cents, payment.currency);
  page += "<tr><th>Total</th><th class=\"price\">" + total + "</th></tr>\n</table>\n";
  if (!problem.empty()) page += "<p class=\"problem\">" + EscapeHtml(problem) + "</p>\n";
  page +=
      "<form method=\"post\" action=\"/pay/authorize\">\n"
      "<input type=\"hidden\" name=\"token\" value=\"" +
      EscapeHtml(payment.token) +
      "\">\n"
      "<label for=\"email\">Your e-mail address</label>\n"
      "<input type=\"email\" id=\"email\" name=\"email\" required autocomplete=\"email\">\n"
      "<button type=\"submit\" id=\"pay\">Pay " +
      total + "</button>\n</form>\n";
  page += "<p><a id=\"cancel\" href=\"/pay/back?order=" + order +
          "\">Cancel and return to the shop</a></p>\n</body></html>\n";
  return page;
}

std::string ProcessingPage(const std::string& token, int delay_ms) {
  const std::string next = "/pay/complete?token=" + EscapeHtml(token);
  return Head("Vistrel Pay: processing") +
         "<h1>Vistrel Pay</h1>\n<p id=\"status\">Processing your payment&hellip;</p>\n"
         "<noscript><p><a href=\"" +
         next +
         "\">Continue</a></p></noscript>\n"
         "<script>\n"
         "history.pushState(null, '', location.pathname + location.search + '#confirming');\n"
         "setTimeout(function () { location.replace('" +
         next + "'); }, " + std::to_string(delay_ms) +
         ");\n"
         "</script>\n</body></html>\n";
}

}  // namespace vistrel_demo
