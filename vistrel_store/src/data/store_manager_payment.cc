// The purchase: local cart to the shop's cart, order, payment in the browser, confirmation.
#include <json/reader.h>
#include <json/writer.h>
#include <unistd.h>

#include <cstdio>
#include <exception>

#include "book_props.h"
#include "check_log.h"
#include "nbutils/device_environment.h"
#include "nbutils/file_utils.h"
#include "vistrel_store/auth.h"
#include "vistrel_store/store_manager.h"

namespace norbel {
namespace vistrel {
namespace {

constexpr int NB_OK = 0;

constexpr char kStartPayment[] = "ServerApi::Result norbel::vistrel::StoreManager::StartPayment()";
constexpr char kCheckPaymentResult[] =
    "ServerApi::Result norbel::vistrel::StoreManager::CheckPaymentResult()";
constexpr char kCheckOrderIfNeeded[] = "int norbel::vistrel::StoreManager::CheckOrderIfNeeded()";

constexpr char kResultOk[] = "ServerApi::kOk == result.code_";
constexpr char kFailedResult[] = "ServerApi::Result(ServerApi::kFailed)";

// The shop needs this long between two checks of an order.
constexpr useconds_t kOrderPollInterval = 5000000;

void EnsureNetwork() {
  if ((QueryNetwork() & 0xf00) == 0) NetConnect(nullptr);
}

// The text of `key` in a reply's "order" object; "" when absent or not a text.
std::string OrderText(const Json::Value& order, const char* key) {
  if (!order.isObject() || !order[key].isString()) return std::string();
  return order[key].asString();
}

// Every book has a download address once the shop has delivered the order.
bool AllLinksReady(const std::vector<Book>& books) {
  for (const Book& book : books) {
    if (StringProp(book, Book::EbookLink).find("http") == std::string::npos) return false;
  }
  return true;
}

// The order kept on the device while its delivery is awaited.
constexpr char kPendingOrderPath[] = "/mnt/ext1/system/config/vistrel_pending_order";
constexpr std::streamsize kPendingOrderMaxBytes = 16384;

struct PendingOrder {
  StoreManager::PaymentData payment;
  bool confirmed = false;
};

// Never deleted: an order file that cannot be used, or that is given up, is moved aside for a
// person to look at ("<file>.<why>-<time>"), and the move is logged. "" when it could not be
// moved.
std::string KeepPendingOrderAside(const char* why) {
  std::string kept;
  if (!utilities::KeepFileAside(kPendingOrderPath, why, &kept)) return std::string();
  nb_print_log2(kLogError, kStoreManagerSource, __LINE__, __PRETTY_FUNCTION__,
                "%s pending order kept as %s", why, kept.c_str());
  return kept;
}

bool WritePendingOrder(const PendingOrder& pending) {
  Json::Value root(Json::objectValue);
  root["orderID"] = static_cast<Json::Int64>(pending.payment.order_id_);
  root["token"] = pending.payment.token_;
  root["payerID"] = pending.payment.payer_id_;
  root["confirmed"] = pending.confirmed;
  // The token pays for an order: private, like the configuration file.
  return utilities::WriteFileAtomically(kPendingOrderPath, Json::StyledWriter().write(root), 0600);
}

// 1 with *pending filled, 0 when there is no file, -1 when it is unreadable (too large, not
// JSON, or without an order id).
int ReadPendingOrder(PendingOrder* pending) {
  std::string text;
  switch (utilities::ReadDeviceFile(kPendingOrderPath, kPendingOrderMaxBytes, &text)) {
    case utilities::FileRead::kRead:
      break;
    case utilities::FileRead::kMissing:
      return 0;
    default:
      return -1;
  }
  Json::Value root;
  try {
    if (!Json::Reader().parse(text, root, false) || !root.isObject()) return -1;
    if (!root["orderID"].isIntegral() || !root["token"].isString() || !root["payerID"].isString()) {
      return -1;
    }
    pending->payment = StoreManager::PaymentData(
        root["orderID"].asInt64(), root["token"].asString(), root["payerID"].asString());
    pending->confirmed = root["confirmed"].isBool() && root["confirmed"].asBool();
  } catch (const std::exception&) {
    return -1;  // nested too deeply or a number out of range
  }
  return pending->payment.order_id_ == -1 ? -1 : 1;
}

void RemovePendingOrder() { std::remove(utilities::DevicePath(kPendingOrderPath).c_str()); }

}  // namespace

std::tuple<ServerApi::Result, std::vector<Book>> StoreManager::CheckOut() {
  NewSession(nullptr);
  server_api_.GetCart();
  for (unsigned int i = 0; i < cart_.GetSize(); ++i) {
    server_api_.AddToCart(StringProp(cart_.GetItem(i), Book::Ean), 1);
  }
  Cart local(cart_);
  ServerApi::Result result;
  std::tie(result, cart_) = server_api_.GetCart();

  std::vector<Book> dropped;
  for (unsigned int i = 0; i < local.GetSize(); ++i) {
    const Book& book = local.GetItem(i);
    if (!cart_.IsContain(StringProp(book, Book::Ean))) dropped.push_back(book);
  }
  return std::make_tuple(ServerApi::Result(ServerApi::kOk), std::move(dropped));
}

ServerApi::Result StoreManager::StartPayment() {
  payment_data_ = PaymentData();

  nb_print_log2(kLogProgress, kStoreManagerSource, 588, kStartPayment, "Starting PrepareOrder");
  ServerApi::Result result;
  Order order;
  std::tie(result, order) = server_api_.PrepareOrder(cart_.cart_id());
  if (result.code_ != ServerApi::kOk) {
    LogCheckFailed(kStoreManagerSource, 590, kStartPayment, kResultOk, "result");
    return result;
  }

  // Only an integer within 32 bits counts as an order id, although it is kept in 64.
  int64_t order_id = -1;
  if (order.order_.isObject() && order.order_["orderID"].isInt()) {
    order_id = order.order_["orderID"].asInt64();
  }
  if (order_id == -1) {
    LogCheckFailed(kStoreManagerSource, 593, kStartPayment, "-1 == order_id", kFailedResult);
    return ServerApi::Result(ServerApi::kFailed);
  }

  nb_print_log2(kLogProgress, kStoreManagerSource, 595, kStartPayment, "Starting CommitOrder");
  std::tie(result, order) = server_api_.CommitOrder(order_id);
  if (result.code_ != ServerApi::kOk) {
    LogCheckFailed(kStoreManagerSource, 598, kStartPayment, kResultOk, "result");
    return result;
  }

  if (order.order_.isObject() && order.order_["orderDateProcessed"].isString()) {
    order_date_processed_ = order.order_["orderDateProcessed"].asString();
  }
  std::string url = OrderText(order.order_, "orderPaymentLink");
  if (url.empty()) {
    LogCheckFailed(kStoreManagerSource, 603, kStartPayment, "url.empty()", kFailedResult);
    return ServerApi::Result(ServerApi::kFailed);
  }

  nb_print_log2(kLogProgress, kStoreManagerSource, 605, kStartPayment, "Starting browser auth");
  Auth auth;
  int err = auth.Run(url);
  if (err != NB_OK) {
    LogCheckFailed(kStoreManagerSource, 609, kStartPayment, "NB_OK == err", kFailedResult);
    return ServerApi::Result(ServerApi::kFailed);
  }
  payment_data_ = PaymentData(order_id, auth.token_, auth.payer_id_);
  return result;
}

ServerApi::Result StoreManager::CheckPaymentResult() {
  EnsureNetwork();
  ServerApi::Result result =
      server_api_.ConfirmPayPal(payment_data_.token_, payment_data_.payer_id_);
  if (result.code_ != ServerApi::kOk) {
    LogCheckFailed(kStoreManagerSource, 625, kCheckPaymentResult, kResultOk, "result");
    return result;
  }
  // Paid: the cart is done with, whatever the delivery still needs.
  cart_.Clear();

  for (;;) {
    EnsureNetwork();
    ChekResult check;
    std::tie(result, check) = server_api_.CheckOrder(payment_data_.order_id_);
    if (result.code_ != ServerApi::kOk) {
      LogCheckFailed(kStoreManagerSource, 633, kCheckPaymentResult, kResultOk, "result");
      return result;
    }
    bool ready = AllLinksReady(check.ebooks_);
    usleep(kOrderPollInterval);
    if (ready) {
      LoadPurchased();
      break;
    }
  }
  return result;
}

int StoreManager::CheckOrderIfNeeded() {
  if (payment_data_.order_id_ == -1) return -1;
  EnsureNetwork();
  ServerApi::Result result;
  ChekResult check;
  std::tie(result, check) = server_api_.CheckOrder(payment_data_.order_id_);
  if (result.code_ != ServerApi::kOk) {
    LogCheckFailed(kStoreManagerSource, 657, kCheckOrderIfNeeded, kResultOk, "-1");
    return -1;
  }
  LoadPurchased();
  return 0;
}

ServerApi::Result StoreManager::WaitForPaymentResult(const std::function<bool()>& keep_waiting) {
  EnsureNetwork();
  if (payment_data_.order_id_ == -1) return ServerApi::Result(ServerApi::kFailed);
  PendingOrder pending;
  const int found = ReadPendingOrder(&pending);
  if (found == -1) KeepPendingOrderAside("unreadable");
  const bool same_order = found == 1 && pending.payment.order_id_ == payment_data_.order_id_;
  // Another paid order still waiting for its books is kept, not overwritten.
  if (found == 1 && !same_order && pending.confirmed) KeepPendingOrderAside("earlier");
  const bool confirmed_before = same_order && pending.confirmed;
  pending.payment = payment_data_;
  pending.confirmed = confirmed_before;
  WritePendingOrder(pending);

  ServerApi::Result result(ServerApi::kOk);
  if (!confirmed_before) {
    result = server_api_.ConfirmPayPal(payment_data_.token_, payment_data_.payer_id_);
    if (result.code_ != ServerApi::kOk) return result;
    pending.confirmed = true;
    WritePendingOrder(pending);
    cart_.Clear();
  }

  for (;;) {
    EnsureNetwork();
    ChekResult check;
    std::tie(result, check) = server_api_.CheckOrder(payment_data_.order_id_);
    if (result.code_ != ServerApi::kOk) return result;
    if (AllLinksReady(check.ebooks_)) break;
    if (!keep_waiting()) return ServerApi::Result(ServerApi::kFailed);
    usleep(kOrderPollInterval);
  }
  LoadPurchased();
  RemovePendingOrder();
  return result;
}

int StoreManager::RestorePendingOrder() {
  PendingOrder pending;
  const int found = ReadPendingOrder(&pending);
  if (found == 1) payment_data_ = pending.payment;
  if (found == -1) KeepPendingOrderAside("unreadable");
  return found;
}

int StoreManager::ForgetPendingOrder(std::string* kept_as) {
  PendingOrder pending;
  const int found = ReadPendingOrder(&pending);
  if (found == 0) return 0;
  const std::string kept = KeepPendingOrderAside(found == 1 ? "forgotten" : "unreadable");
  if (kept.empty()) return -1;
  if (kept_as != nullptr) *kept_as = kept;
  payment_data_ = PaymentData();
  return 1;
}

}  // namespace vistrel
}  // namespace norbel
