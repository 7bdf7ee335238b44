#ifndef VISTREL_STORE_STORE_MANAGER_H_
#define VISTREL_STORE_STORE_MANAGER_H_

#include <cstdint>
#include <functional>
#include <future>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "opdsmodel/resource_downloader.h"
#include "panelkit/panelkit.h"
#include "vistrel_store/book.h"
#include "vistrel_store/book_status.h"
#include "vistrel_store/cart.h"
#include "vistrel_store/export.h"
#include "vistrel_store/language.h"
#include "vistrel_store/server_api.h"
#include "vistrel_store/switchboard_config.h"

namespace norbel {
namespace vistrel {

// The shop application's one entry point: configuration, session, cart, purchase and
// downloads. Every operation runs on the caller's thread and blocks until its web-service
// calls return, except the downloads, which run one at a time in the background and move on
// when the caller polls CheckDownloadState(). Not thread-safe: call it from one thread.
//
// The session is kept in the device configuration file
// "/mnt/ext1/system/config/vistrel_config.cfg" ("user_name", secret "password",
// "session_id", "switchboard_update_time").
class VISTREL_STORE_EXPORT StoreManager {
 public:
  // The payment in progress.
  struct PaymentData {
    PaymentData() = default;
    PaymentData(int64_t order_id, std::string token, std::string payer_id)
        : order_id_(order_id), token_(std::move(token)), payer_id_(std::move(payer_id)) {}
    PaymentData(const PaymentData&) = default;
    PaymentData(PaymentData&&) = default;
    PaymentData& operator=(const PaymentData&) = default;
    PaymentData& operator=(PaymentData&& other) = default;

    int64_t order_id_ = -1;  // -1: no order pending
    std::string token_;      // PayPal "token"
    std::string payer_id_;   // PayPal "PayerID"
  };

  // The one object, created on the first call and destroyed at process exit.
  static StoreManager* Instance();

  // Start-up: configuration (fetched at most every 30 minutes, else the cached copy),
  // language list, session (stored, or a new login with the stored credentials), cart and
  // purchased books. Returns 0, -1 when the configuration file cannot be opened or a needed
  // configuration fetch failed, -7 when a fresh configuration has no web-service address.
  int Init();

  // Fetches the configuration for this device's serial number, puts it in force, caches it and
  // installs the shop's standby picture. 0 on success, -1 on failure.
  int ConfigFromServer();

  // Logs in (or registers) and stores the session and the credentials, then reloads the
  // purchased books; the shop's refusal comes back with its message. When the configuration
  // file cannot be opened, returns kOk without contacting the shop.
  ServerApi::Result LogIn(const std::string& email, const std::string& password);
  ServerApi::Result Register(const std::string& email, const std::string& password);
  // Ends the session on the device only: forgets session, cart, purchases and downloads; the
  // stored session stays in the configuration file.
  void LogOut();
  // An addition beside LogOut(): LogOut(), then also removes the stored session and password
  // (and the e-mail address) from the device configuration file, so that no later Init() logs
  // in again. 0 on success, -1 when the configuration file could not be opened or saved.
  int ForgetAccount();
  // Logs in again with the stored credentials. `config` may be an open configuration handle
  // (left open) or null. 0 on success, -1 without credentials or when the shop refused.
  int NewSession(iconfig_s* config);
  // Whether a session is known; the shop is not asked.
  bool IsLoggedIn();
  // The stored e-mail address and password ("" when none), read from the configuration file.
  std::string getLogin();
  std::string getPassword();

  // Reloads the purchased books from the shop and returns a copy of them.
  std::vector<Book> LoadPurchased();

  // Adds to the local cart and saves it; a book whose Ean is in the cart already is not added
  // again. Always kOk: the shop sees the cart at CheckOut().
  ServerApi::Result AddToCart(const Book& book);
  // By book: not saved until the next saving operation. By position: saved at once.
  int RemoveFromCart(const Book& book);
  int RemoveFromCart(unsigned int index);

  // The configuration's clientName and clientID.
  std::string GetShopName();
  std::string GetClientId();
  // Push notifications are not offered by the shop: does nothing and returns 0.
  int RegisterPushNotification();

  // Purchase. CheckOut() pushes the local cart to the shop, takes the shop's cart as the local
  // one and returns the books the shop dropped. StartPayment() prepares and commits the order
  // and runs the payment page in the browser. CheckPaymentResult() confirms the payment, clears
  // the cart and waits (5-second passes, no limit) until every bought e-book has a link.
  std::tuple<ServerApi::Result, std::vector<Book>> CheckOut();
  ServerApi::Result StartPayment();
  ServerApi::Result CheckPaymentResult();
  // Checks a pending order again: 0 when checked, -1 without one or when the check failed.
  int CheckOrderIfNeeded();

  // Additions beside the purchase operations above, for callers that need a bound on the
  // delivery wait and a way forward after a failed wait or a restart.
  //
  // The pending order (id, PayPal token and payer id, and whether the shop confirmed the
  // payment) is kept in the device file "/mnt/ext1/system/config/vistrel_pending_order" from
  // the start of the wait until every bought e-book has a link, then removed.
  //
  // WaitForPaymentResult() does what CheckPaymentResult() does, with two differences: before
  // each 5-second pause it asks `keep_waiting`, and when that returns false the wait ends with
  // kFailed (empty message) and the order stays pending; and it pauses only between two checks,
  // not after the check that found every link. A payment that the shop confirmed in an earlier
  // wait is not confirmed again. The local cart is cleared once the payment is confirmed.
  ServerApi::Result WaitForPaymentResult(const std::function<bool()>& keep_waiting);
  // Puts the order kept on the device in payment_data_, so that WaitForPaymentResult() and
  // CheckOrderIfNeeded() work on it. 1 when there was one, 0 when none, -1 when the file was
  // unreadable (it is then moved aside to the same name + ".unreadable-<UTC time>").
  int RestorePendingOrder();
  // Gives up the order kept on the device, for an order the shop no longer knows: the file is
  // not deleted but moved aside to the same name + ".forgotten-<UTC time>" (stored in
  // *kept_as when not null), and payment_data_ is reset. 1 when there was one, 0 when none,
  // -1 when it could not be moved.
  int ForgetPendingOrder(std::string* kept_as);

  // Downloads, one at a time, into "/mnt/ext1/Downloads". DownloadBookById() queues a
  // purchased book (the text after the last "/" of `id` is its Ean) and moves the downloads
  // along. Only CheckDownloadState() moves them on: call it regularly; it returns 1 while a
  // download task existed on entry, else 0, and never waits for the download. A book queued
  // while another one downloads is taken from the queue at once and not downloaded: queue the
  // next book once the last one has finished. Failures are shown to the user as messages.
  int DownloadBookById(const std::string& id);
  int CheckDownloadState();
  // The state of the book with exactly this Ean: in the cart, downloaded (with its path),
  // downloading (with a percentage), purchased, or unknown, in this order of precedence.
  BookStatus GetBookStatus(const std::string& ean);
  // The same for an id that may be a path or an address: the text after its last "/".
  BookStatus GetBookStatusById(const std::string& id);

  // Read-only views for the caller's screens.
  const SwitchboardConfig& config() const { return config_; }
  const std::vector<Language>& languages() const { return languages_; }
  const Cart& cart() const { return cart_; }
  const std::vector<Book>& purchased() const { return purchased_; }
  const PaymentData& payment_data() const { return payment_data_; }
  const std::string& order_date_processed() const { return order_date_processed_; }
  // The shop session in force ("" when none), for a caller that checks it with a call of its
  // own (an addition, like the views above).
  const std::string& session_id() const { return session_id_; }

 private:
  StoreManager();
  ~StoreManager();
  StoreManager(const StoreManager&) = delete;
  StoreManager& operator=(const StoreManager&) = delete;

  using SignInCall = ServerApi::Result (ServerApi::*)(const std::string&, const std::string&);
  // Logs in or registers through `call` and keeps the session and the account in the
  // configuration file.
  ServerApi::Result SignIn(SignInCall call, const std::string& email, const std::string& password);
  // Gives a finished download its final name and announces it, or reports and deletes it.
  void FinishDownload();
  // Every change of purchased_ goes through here, so that the index by Ean follows it.
  void SetPurchased(std::vector<Book> books);
  // The first purchased book with exactly this Ean, or null.
  const Book* FindPurchased(const std::string& ean) const;

  ServerApi server_api_;
  SwitchboardConfig config_;
  std::string session_id_;
  std::vector<Language> languages_;
  Cart cart_;
  std::vector<Book> purchased_;
  std::vector<Book> download_queue_;
  opds::ResourceDownloader downloader_;
  std::future<int> download_future_;
  Book current_download_;
  PaymentData payment_data_;
  std::string order_date_processed_;
  // Additions after the members above, which keep their order.
  // Ean -> position of the first purchased book with it: a library screen asks for the status
  // of every book it shows, and the list can hold tens of thousands.
  std::unordered_map<std::string, size_t> purchased_index_;
  // Whether the partial files of earlier downloads were checked against purchased_.
  bool partials_checked_ = false;
};

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_STORE_MANAGER_H_
