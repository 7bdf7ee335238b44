// The purchase commands: checkout, pay and order.

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "browser_choice.h"
#include "cli.h"
#include "commands.h"

namespace vistrel_cli {

using norbel::vistrel::Book;
using norbel::vistrel::ServerApi;
using norbel::vistrel::StoreManager;

namespace {

// The shop checks an order every 5 seconds.
constexpr int kPassSeconds = 5;

volatile sig_atomic_t g_interrupted = 0;

void OnInterrupt(int) { g_interrupted = 1; }

// Ends a delivery wait at the deadline or at Ctrl-C: the order stays pending on the device.
class WaitBound {
 public:
  // `seconds` < 0: no deadline.
  explicit WaitBound(int64_t seconds)
      : unbounded_(seconds < 0),
        deadline_(std::chrono::steady_clock::now() +
                  std::chrono::seconds(seconds < 0 ? 0 : seconds)) {
    struct sigaction action = {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &previous_);
  }
  ~WaitBound() { sigaction(SIGINT, &previous_, nullptr); }
  WaitBound(const WaitBound&) = delete;
  WaitBound& operator=(const WaitBound&) = delete;

  // Whether another 5-second pass fits.
  bool KeepWaiting() const {
    if (g_interrupted != 0) return false;
    return unbounded_ ||
           std::chrono::steady_clock::now() + std::chrono::seconds(kPassSeconds) <= deadline_;
  }
  bool interrupted() const { return g_interrupted != 0; }

 private:
  bool unbounded_;
  std::chrono::steady_clock::time_point deadline_;
  struct sigaction previous_;
};

// --timeout SECONDS: -1 when absent; false for a value that is no whole number >= 0.
bool ParseTimeout(const Args& args, int64_t* seconds) {
  *seconds = -1;
  if (!args.Has("--timeout")) return true;
  const std::string text = args.Get("--timeout");
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || value < 0) return false;
  *seconds = std::min<long long>(value, 100000000);  // over three years is as good as no bound
  return true;
}

// Says in one line which books the shop dropped and how to take them out of the local cart,
// which still holds them on the device.
int ReportDropped(const std::vector<Book>& dropped, const std::string& consequence) {
  std::string text = consequence + ": the shop dropped ";
  for (size_t i = 0; i < dropped.size(); ++i) {
    if (i != 0) text += i + 1 == dropped.size() ? " and " : ", ";
    text += Prop(dropped[i], Book::Ean);
    text += " (" + Describe(dropped[i]) + ")";
  }
  text += " from the cart, as not for sale; remove ";
  text += dropped.size() == 1 ? "it with vistrel cart remove " + Prop(dropped[0], Book::Ean)
                              : "each with vistrel cart remove EAN";
  return Fail(kExitFailed, text);
}

// The outcome of a delivery wait, for pay and order.
int ReportDelivery(StoreManager* store, const ServerApi::Result& result, const WaitBound& bound,
                   int64_t order_id) {
  if (result.code_ == ServerApi::kOk) {
    std::printf("order %lld delivered; %s purchased (vistrel download --all)\n",
                static_cast<long long>(order_id), Count(store->purchased().size(), "book").c_str());
    return kExitOk;
  }
  const norbel::utilities::TransferOutcome last = norbel::utilities::LastTransferOutcome();
  std::string why = bound.interrupted() ? "interrupted" : "not yet";
  int code = kExitFailed;
  if (!result.message_.empty()) {
    why = "the shop said: " + result.message_;
  } else if (!last.ok() && !last.url.empty()) {
    why = last.method + " " + last.url + ": " + last.Describe();
    code = kExitUnreachable;
  }
  std::string next = "run vistrel order to check it again";
  if (!result.message_.empty())
    next += ", or vistrel order --forget if the shop no longer knows it";
  return Fail(code, "order " + std::to_string(order_id) + " is not delivered (" + why +
                        "); it is kept on the device: " + next);
}

// Gives up the kept order; its record stays on the device for a person to look at.
int ForgetOrder() {
  int code = 0;
  StoreManager* store = StartStore(&code);
  if (store == nullptr) return code;
  std::string kept;
  const int found = store->ForgetPendingOrder(&kept);
  if (found == 0) {
    std::printf("no order is waiting for delivery\n");
    return kExitOk;
  }
  if (found < 0) return Fail(kExitFailed, "the pending order could not be moved aside");
  std::printf("the order is no longer checked; its record is kept as %s\n",
              WithHostPath(kept).c_str());
  return kExitOk;
}

}  // namespace

int RunCheckout(const std::vector<std::string>& words) {
  if (!words.empty()) return Usage("checkout takes no arguments");
  int code = 0;
  StoreManager* store = StartLoggedIn(&code);
  if (store == nullptr) return code;
  if (store->cart().GetSize() == 0) {
    return Fail(kExitFailed, "the cart is empty (add books with vistrel cart add EAN)");
  }
  std::vector<Book> dropped;
  ForgetExchanges();
  std::tie(std::ignore, dropped) = store->CheckOut();
  // CheckOut reports no failure: a shop that did not answer would read as dropping every book.
  if (const int unanswered = ReportUnanswered("checkout")) return unanswered;
  std::printf("the shop's cart %lld:\n", static_cast<long long>(store->cart().cart_id()));
  PrintCart(store);
  if (!dropped.empty()) return ReportDropped(dropped, "checkout incomplete");
  return kExitOk;
}

int RunPay(const std::vector<std::string>& arguments) {
  std::vector<std::string> words = arguments;
  BrowserChoice browser_choice;
  std::string problem;
  if (!TakeBrowserOptions(&words, &browser_choice, &problem)) return Usage(problem);
  Args args;
  std::string error;
  if (!ParseArgs(words, {"--timeout"}, {"--yes"}, &args, &error)) return Usage(error);
  if (!args.positional.empty()) return Usage("pay takes no arguments");
  int64_t timeout = -1;
  if (!ParseTimeout(args, &timeout)) return Usage("--timeout wants whole seconds");
  if (!args.Has("--yes") && !isatty(STDIN_FILENO)) {
    return Fail(
        kExitUsage,
        "pay asks before it pays: run it on a terminal, or add --yes to pay without asking");
  }
  int code = 0;
  StoreManager* store = StartLoggedIn(&code);
  if (store == nullptr) return code;
  if (store->RestorePendingOrder() == 1) {
    return Fail(kExitFailed, "order " + std::to_string(store->payment_data().order_id_) +
                                 " is paid but not yet delivered: run vistrel order first");
  }
  if (store->cart().GetSize() == 0) {
    return Fail(kExitFailed,
                "nothing to pay: the cart is empty (add books with vistrel cart add EAN)");
  }
  // The shop's cart id is held in memory only, so the cart is checked out again here.
  std::vector<Book> dropped;
  ForgetExchanges();
  std::tie(std::ignore, dropped) = store->CheckOut();
  if (const int unanswered = ReportUnanswered("checkout")) return unanswered;
  if (!dropped.empty()) return ReportDropped(dropped, "nothing was paid");
  if (store->cart().GetSize() == 0) {
    return Fail(kExitFailed, "the shop's cart is empty; nothing was paid");
  }
  // What the shop's cart holds is what will be charged, whatever the local cart said.
  std::printf("the shop's cart:\n");
  PrintCart(store);
  const std::string total = FormatCents(CartCents(store->cart()));
  if (!args.Has("--yes") &&
      !Confirm("Pay " + total + " for " + Count(store->cart().GetSize(), "book") + "?")) {
    return Fail(kExitFailed, "not paid");
  }
  const std::string browser = UseBrowser(browser_choice, &problem);
  if (browser.empty()) return Fail(kExitFailed, "cannot pay: " + problem);
  std::printf("paying %s in %s...\n", total.c_str(), browser.c_str());
  std::fflush(stdout);
  ForgetExchanges();
  ServerApi::Result result = store->StartPayment();
  if (result.code_ != ServerApi::kOk) {
    if (!result.message_.empty()) return ReportRefusal("payment", result);
    if (const int unanswered = ReportUnanswered("payment")) return unanswered;
    return Fail(kExitFailed, "payment failed: the payment was not completed");
  }
  const auto& payment = store->payment_data();
  if (payment.token_.empty()) {  // the browser ended at the shop's back address
    return Fail(kExitFailed, "payment failed: the payment was not completed");
  }
  const int64_t order_id = payment.order_id_;
  std::printf("order %lld paid with PayPal (token %s, payer %s)\n",
              static_cast<long long>(order_id), payment.token_.c_str(), payment.payer_id_.c_str());
  std::printf(
      "waiting for the shop to confirm and deliver (checked every %d s%s; Ctrl-C stops "
      "waiting)...\n",
      kPassSeconds, timeout < 0 ? "" : (", at most " + std::to_string(timeout) + " s").c_str());
  std::fflush(stdout);
  WaitBound bound(timeout);
  result = store->WaitForPaymentResult([&bound] { return bound.KeepWaiting(); });
  return ReportDelivery(store, result, bound, order_id);
}

int RunOrder(const std::vector<std::string>& words) {
  Args args;
  std::string error;
  if (!ParseArgs(words, {"--timeout"}, {"--wait", "--forget"}, &args, &error)) return Usage(error);
  if (!args.positional.empty()) return Usage("order takes no arguments");
  if (args.Has("--forget")) {
    if (args.Has("--wait") || args.Has("--timeout")) return Usage("--forget goes alone");
    return ForgetOrder();
  }
  int64_t timeout = -1;
  if (!ParseTimeout(args, &timeout)) return Usage("--timeout wants whole seconds");
  if (args.Has("--timeout") && !args.Has("--wait")) return Usage("--timeout goes with --wait");
  int code = 0;
  StoreManager* store = StartLoggedIn(&code);
  if (store == nullptr) return code;
  const int pending = store->RestorePendingOrder();
  if (pending == 0) {
    std::printf("no order is waiting for delivery\n");
    return kExitOk;
  }
  if (pending < 0) {
    return Fail(kExitFailed,
                "the pending order on the device was unreadable; it was kept aside beside " +
                    WithHostPath("/mnt/ext1/system/config/vistrel_pending_order"));
  }
  const int64_t order_id = store->payment_data().order_id_;
  std::printf("checking order %lld...\n", static_cast<long long>(order_id));
  std::fflush(stdout);
  WaitBound bound(args.Has("--wait") ? timeout : 0);
  const ServerApi::Result result =
      store->WaitForPaymentResult([&bound] { return bound.KeepWaiting(); });
  return ReportDelivery(store, result, bound, order_id);
}

}  // namespace vistrel_cli
