// The purchase commands: checkout and pay.

#include <cstdio>

#include "browser_choice.h"
#include "cli.h"
#include "commands.h"

namespace vistrel_cli {

using norbel::vistrel::Book;
using norbel::vistrel::BookStatus;
using norbel::vistrel::ServerApi;
using norbel::vistrel::StoreManager;

int RunCheckout(const std::vector<std::string>& words) {
  if (!words.empty()) return Usage("checkout takes no arguments");
  int code = 0;
  StoreManager* store = StartLoggedIn(&code);
  if (store == nullptr) return code;
  if (store->cart().GetSize() == 0) return Fail(kExitFailed, "the cart is empty");
  std::vector<Book> dropped;
  std::tie(std::ignore, dropped) = store->CheckOut();
  std::printf("the shop's cart %lld:\n", static_cast<long long>(store->cart().cart_id()));
  PrintCart(store);
  for (const Book& book : dropped) {
    Fail(kExitFailed,
         "the shop dropped " + Prop(book, Book::Ean) + " (" + Describe(book) + ") from the cart");
  }
  return dropped.empty() ? kExitOk : kExitFailed;
}

int RunPay(const std::vector<std::string>& arguments) {
  std::vector<std::string> words = arguments;
  BrowserChoice browser_choice;
  std::string problem;
  if (!TakeBrowserOptions(&words, &browser_choice, &problem)) return Usage(problem);
  if (!words.empty()) return Usage("pay takes no arguments but --browser and --headless");
  int code = 0;
  StoreManager* store = StartLoggedIn(&code);
  if (store == nullptr) return code;
  if (store->cart().GetSize() == 0) {
    return Fail(kExitFailed, "nothing to pay: the cart is empty (run vistrel checkout)");
  }
  // The shop's cart id is held in memory only, so the cart is checked out again here.
  std::vector<Book> dropped;
  std::tie(std::ignore, dropped) = store->CheckOut();
  for (const Book& book : dropped) {
    return Fail(kExitFailed, "the shop dropped " + Prop(book, Book::Ean) + " (" + Describe(book) +
                                 ") from the cart; nothing was paid");
  }
  const std::string browser = UseBrowser(browser_choice, &problem);
  if (browser.empty()) return Fail(kExitFailed, "cannot pay: " + problem);
  std::printf("paying %s in %s...\n", store->cart().GetTotalPriceFormatted().c_str(),
              browser.c_str());
  std::fflush(stdout);
  ServerApi::Result result = store->StartPayment();
  if (result.code_ != ServerApi::kOk) {
    return Fail(kExitFailed,
                "payment failed: " +
                    (result.message_.empty() ? "the payment was not completed" : result.message_));
  }
  const auto& payment = store->payment_data();
  if (payment.token_.empty()) {  // the browser ended at the shop's back address
    return Fail(kExitFailed, "payment failed: the payment was not completed");
  }
  std::printf("order %lld paid with PayPal (token %s, payer %s)\n",
              static_cast<long long>(payment.order_id_), payment.token_.c_str(),
              payment.payer_id_.c_str());
  std::printf("waiting for the shop to confirm and deliver (checked every 5 s)...\n");
  std::fflush(stdout);
  result = store->CheckPaymentResult();
  if (result.code_ != ServerApi::kOk) {
    return Fail(kExitFailed,
                "payment not confirmed: " +
                    (result.message_.empty() ? "the shop did not answer" : result.message_));
  }
  std::printf("delivered; %zu purchased books (vistrel download --all)\n",
              store->purchased().size());
  return kExitOk;
}

}  // namespace vistrel_cli
